// The vesk-transport tool: its readers, record fields and advice in
// process, and the built tool on the example files and on broken ones
// (tests/data/): one table of file, command, exit code and expected text.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"
#include "tools/Inspection.hpp"
#include "tools/Messages.hpp"
#include "tools/PropertyFiles.hpp"

// tools/CMakeLists.txt gives this test the tool's library and path; without
// the tool (VESK_BUILD_TOOLS off) there is nothing to test.
#ifndef VESK_TRANSPORT_TOOL_PATH
TEST(Tool, NotBuilt) {
    GTEST_SKIP() << "the tool is not built (VESK_BUILD_TOOLS is off)";
}
#else

namespace {

using namespace vesk::tool;

std::string sourcePath(const std::string &relative) {
    return std::string(VESK_SOURCE_DIR) + "/" + relative;
}

std::string readText(const std::string &path) {
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream contents;
    contents << stream.rdbuf();
    return contents.str();
}

// "name=value@line|..." of what a reader read, or "error@line".
template <typename Parse>
std::string readSummary(Parse parse, const std::string &text) {
    try {
        std::string out;
        for (const FileProperty &p : parse(text, "f")) {
            out += (out.empty() ? "" : "|") + p.name + "=" + p.value + "@" +
                   std::to_string(p.origin.line);
        }
        return out;
    } catch (const FileError &error) {
        return "error@" + std::to_string(error.origin().line);
    }
}

TEST(ToolReaders, PropertiesAndXmlTexts) {
    struct Case {
        bool xml;
        std::string text;
        std::string expected;
    };
    const Case cases[] = {
        {false, "  a  =  b c  \r\n\tk\t=\tv", "a=b c@1|k=v@2"},
        {false, "a==b=c\n# c\n\n x = \n", "a==b=c@1|x=@4"},
        {false, "a = b # c", "a=b # c@1"},
        {false,
         "\xEF\xBB\xBF"
         "a=1",
         "a=1@1"},
        {false, "a=b\nmulticast_enabled false\n", "error@2"},
        {false, "  = v", "error@1"},
        {true,
         "<dds>\n<p><property><value>\n<element><name> a </name><value>\n 1 2\n</value></element>"
         "</value></property></p>\n<property><value><element><name>b</name><value/></element>"
         "</value></property><name>x</name></dds>",
         "a=1 2@3|b=@6"},
        {true, "<dds>\n<property>\n</dds>", "error@2"},
        {true,
         "<dds><property><value>\n<element><value>1</value></element></value></property></dds>",
         "error@2"},
        {true,
         "<dds><property><value>\n<element><name> </name><value>1</value></element></value>"
         "</property></dds>",
         "error@2"},
        {true,
         "<dds><property><value>\n<element>\n<name><b/></name><value>1</value></element>"
         "</value></property></dds>",
         "error@3"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(
            c.xml ? readSummary(parseXmlText, c.text) : readSummary(parsePropertiesText, c.text),
            c.expected);
    }
}

TEST(ToolReaders, ALaterNameReplacesValueAndOriginInPlace) {
    PropertyList list;
    list.assign({"a", "1", {"first", 1}});
    list.assign({"b", "2", {"first", 2}});
    list.assign({"a", "3", {"second", 7}});
    const std::vector<FileProperty> properties = list.properties();
    ASSERT_EQ(properties.size(), 2u);
    EXPECT_EQ(properties[0].value, "3");
    EXPECT_EQ(describe(properties[0].origin), "second:7");
    EXPECT_EQ(list.originOf("c"), nullptr);
}

TEST(ToolReaders, ProductVersions) {
    for (const char *valid : {"6.1.0.0", "255.0.0.255", "4.5.54.0"}) {
        const auto version = parseProductVersion(valid);
        ASSERT_TRUE(version) << valid;
        EXPECT_EQ(formatProductVersion(*version), valid);
    }
    for (const char *invalid :
         {"6.1.0", "6.1.0.0.0", "256.0.0.0", "a.1.0.0", "6..0.0", "", "1.0.0.0."})
        EXPECT_FALSE(parseProductVersion(invalid)) << invalid;
}

// ---------------------------------------------------------------------------
// Record fields: every field of the record, each property's field
// ---------------------------------------------------------------------------

// The field names of a struct as written in a header, with a nested
// generic part expanded under "parent.".
std::set<std::string> headerFields(const std::string &header, const std::string &structName) {
    const std::string text = readText(sourcePath(header));
    const std::size_t start = text.find("struct " + structName + " {");
    std::istringstream body(text.substr(start, text.find("};", start) - start));
    std::string line;
    std::getline(body, line);
    std::set<std::string> fields;
    while (std::getline(body, line)) {
        line = line.substr(0, line.find("/*"));
        const std::size_t semicolon = line.find(';');
        if (semicolon == std::string::npos) continue;
        const std::size_t begin = line.find_last_of(" *", semicolon);
        const std::string field = line.substr(begin + 1, semicolon - begin - 1);
        if (field != "parent") {
            fields.insert(field);
            continue;
        }
        for (const std::string &generic :
             headerFields("vesk_transport/platform/Transport.h", "VESK_Transport_Property_t"))
            fields.insert("parent." + generic);
    }
    return fields;
}

TEST(ToolRecordFields, EveryFieldOnceAndEveryPropertySetsOne) {
    const std::set<std::string> udp =
        headerFields("vesk_transport/platform/Udp.h", "VESK_Transport_UDP_Property_t");
    const std::set<std::string> shmem =
        headerFields("vesk_transport/platform/Shmem.h", "VESK_Transport_Shmem_Property_t");
    EXPECT_EQ(udp.size(), 51u);  // a sanity check of the header reading
    for (const TransportClass &transportClass : transportClasses()) {
        SCOPED_TRACE(transportClass.option);
        const std::vector<FieldValue> fields = defaultFields(transportClass);
        std::set<std::string> paths;
        for (const FieldValue &field : fields) EXPECT_TRUE(paths.insert(field.path).second);
        EXPECT_EQ(paths, transportClass.kind == RecordKind::udp ? udp : shmem);
        for (const PropertyDescription &row : propertiesRead(transportClass.kind)) {
            const auto field = std::find_if(fields.begin(), fields.end(), [&](const FieldValue &f) {
                return f.path == row.field;
            });
            ASSERT_NE(field, fields.end()) << row.suffix;
            EXPECT_NE(std::find(field->names.begin(), field->names.end(), row.suffix),
                      field->names.end());
        }
    }
}

TEST(ToolRecordFields, ValuesAreDeepCopiesInTheirTextForms) {
    VESK_Transport_UDP_Property_t record = VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT;
    char lo[] = "lo";
    char *allow[] = {lo, nullptr};
    VESK_Transport_UDP_WAN_CommPortsMappingInfo ports[] = {{0, 7400, 17400, 0}};
    record.parent.allow_interfaces_list = allow;
    record.parent.allow_interfaces_list_length = 2;
    record.comm_ports_list = ports;
    record.comm_ports_list_length = 1;
    const std::vector<FieldValue> fields = readFields(record);
    lo[0] = 'X';  // the values do not point into the record
    Json values;
    for (const FieldValue &field : fields) values[field.path] = field.value;
    EXPECT_EQ(values["parent.allow_interfaces_list"], Json::parse(R"(["lo", null])"));
    EXPECT_EQ(values["comm_ports_list"], Json::parse(R"([{"rtps":0,"host":7400,"public":17400}])"));
    EXPECT_EQ(values["parent.transport_uuid"], "0,0,0");
    VESK_Transport_Address_t v6{};
    v6.network_ordered_value[0] = 0xfd;
    v6.network_ordered_value[15] = 1;
    EXPECT_EQ(addressJson(v6), "fd00::1");
}

// ---------------------------------------------------------------------------
// Advice and inspection in process
// ---------------------------------------------------------------------------

TEST(ToolAdvice, ClosestNameAndJsonPosition) {
    const std::vector<std::string> names = {"recv_socket_buffer_size", "send_socket_buffer_size",
                                            "multicast_ttl", "multicast_enabled",
                                            "unicast_enabled"};
    const std::pair<const char *, const char *> cases[] = {
        {"recv_socket_bufer_size", "recv_socket_buffer_size"},
        {"Multicast_TTL", "multicast_ttl"},
        {"mulitcast_ttl", "multicast_ttl"},
        {"muticast_enabled", "multicast_enabled"},  // unicast_enabled is 2 edits away
        {"ttl", ""},
        {"rcv_sockt_bufer_sze", ""},  // four edits: too far for a slip
    };
    for (const auto &[name, expected] : cases)
        EXPECT_EQ(closestName(name, names), expected) << name;
    EXPECT_EQ(editDistance("kitten", "sitting"), 3u);
    EXPECT_EQ(editDistance("", "abc"), 3u);
    EXPECT_EQ(jsonProblem(R"({"a": 1})"), "");
    EXPECT_EQ(jsonProblem(R"({"a": })"),
              "at byte 7: unexpected '}'; expected '[', '{', or a literal");
}

TEST(ToolInspection, ReleasesEverythingWhenTheHeapFails) {
    PropertyList list;
    readPropertyFiles({sourcePath("examples/udpv4_wan.properties")}, list);
    const TransportClass &wan = *findClass("udpv4-wan");
    const KEL_UINT64 before = vesk::test::liveHeapBlocks();
    bool accepted = false;
    int refusals = 0;
    for (long n = 1; n < 200 && !accepted; ++n) {
        KELOsapiHeap_failAllocationAfter(n);
        const Inspection inspection = inspect(wan, list, {});
        const bool failurePending = KELOsapiHeap_isFailurePending() != 0;
        KELOsapiHeap_failAllocationAfter(0);
        accepted = inspection.accepted();
        EXPECT_EQ(vesk::test::liveHeapBlocks(), before) << n;
        if (!accepted) {
            ++refusals;
            EXPECT_FALSE(failurePending) << n;
            EXPECT_FALSE(inspection.messages.empty()) << n;
        }
    }
    EXPECT_TRUE(accepted);
    EXPECT_GT(refusals, 5);  // the list, the port mappings, the address, the plugin
}

TEST(ToolInspection, NamesTheSourceOfEachFieldAndWhatWasNotRead) {
    PropertyList list;
    list.assign({"p.parent.allow_interfaces", "lo", {"a", 1}});
    list.assign({"p.parent.allow_interfaces_list", "eth0", {"a", 2}});  // the single name wins
    list.assign({"p.multicast_ttl", "3", {"a", 3}});
    list.assign({"p.mulitcast_ttl", "4", {"b", 9}});
    list.assign({"other.multicast_ttl", "5", {"b", 10}});
    const Inspection inspection = inspect(*findClass("udpv4"), list, {std::string("p"), {}});
    EXPECT_TRUE(inspection.transportBuilt);
    EXPECT_FALSE(inspection.accepted());  // two names under the prefix were not read
    EXPECT_EQ(inspection.applied, 2);
    Json fields;
    for (const FieldReport &field : inspection.fields)
        fields[field.path] = field.setBy ? describe(field.setBy->origin) : "";
    EXPECT_EQ(fields["parent.allow_interfaces_list"], "a:1");
    EXPECT_EQ(fields["multicast_ttl"], "a:3");
    std::vector<std::string> messages;
    for (const LogMessage &message : inspection.messages)
        messages.push_back(message.property->name + ": " + message.fix);
    EXPECT_EQ(messages,
              (std::vector<std::string>{"p.parent.allow_interfaces_list: keep one of the two names",
                                        "p.mulitcast_ttl: did you mean p.multicast_ttl?"}));
}

// ---------------------------------------------------------------------------
// The built tool
// ---------------------------------------------------------------------------

struct RunResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// Runs the tool from the source directory, so that file names are the
// relative ones given; with netns, in a network namespace of its own after
// the shell commands netns.
RunResult runTool(const std::string &arguments, const std::string &netns = "") {
    char errPath[] = "/tmp/vesk_tool_test_XXXXXX";
    const int fd = mkstemp(errPath);
    close(fd);
    // A tool that hangs fails its case instead of the whole run.
    const std::string tool =
        "timeout 60 '" + std::string(VESK_TRANSPORT_TOOL_PATH) + "' " + arguments;
    const std::string command =
        "cd '" + std::string(VESK_SOURCE_DIR) + "' && " +
        (netns.empty() ? tool : "unshare -n sh -c \"" + netns + " && exec " + tool + "\"") +
        " 2>'" + errPath + "' </dev/null";
    RunResult result;
    FILE *pipe = popen(command.c_str(), "r");
    std::array<char, 4096> buffer;
    std::size_t read;
    while ((read = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
        result.out.append(buffer.data(), read);
    const int status = pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.err = readText(errPath);
    unlink(errPath);
    return result;
}

struct ToolCase {
    std::string arguments;
    int exitCode;
    std::vector<std::string> out;  // texts stdout holds; {""}: stdout is empty
    std::vector<std::string> err;  // the same for stderr
    std::string netns = "";        // run in a new network namespace after these commands
};

void expectTexts(const std::string &stream, const std::vector<std::string> &texts,
                 const char *name) {
    for (const std::string &text : texts) {
        if (text.empty()) {
            EXPECT_EQ(stream, "") << name;
        } else {
            EXPECT_NE(stream.find(text), std::string::npos) << name << " lacks: " << text << "\n"
                                                            << stream;
        }
    }
}

void runToolCases(const std::vector<ToolCase> &cases) {
    for (const ToolCase &c : cases) {
        SCOPED_TRACE("vesk-transport " + c.arguments);
        const RunResult result = runTool(c.arguments, c.netns);
        EXPECT_EQ(result.exitCode, c.exitCode) << result.out << result.err;
        expectTexts(result.out, c.out, "stdout");
        expectTexts(result.err, c.err, "stderr");
    }
}

const std::string DATA = "tests/data/";

TEST(ToolCommand, CheckAndShow) {
    runToolCases({
        {"check --class udpv4 examples/udpv4.properties", 0, {""}, {""}},
        {"check --class udpv4-wan examples/udpv4_wan.properties", 0, {""}, {""}},
        {"check --class udpv6 examples/udpv6.properties", 0, {""}, {""}},
        {"check --class shmem --min-version 6.1.0.0 examples/shmem.properties", 0, {""}, {""}},
        {"check --class udpv4 --prefix dds.transport.UDPv4.builtin examples/udpv4_profile.xml",
         0,
         {""},
         {""}},
        {"check --class udpv4 " + DATA + "udpv4_misspelt.properties",
         1,
         {""},
         {DATA + "udpv4_misspelt.properties:3: error: unknown property: parent.mesage_size_max\n"
                 "    fix: did you mean parent.message_size_max?"}},
        {"check --verbose --class udpv4 " + DATA + "udpv4_misspelt.properties",
         1,
         {""},
         {"parent.mesage_size_max [KEL_LOG_UNKNOWN_PROPERTY_s in "
          "DDS_PropertyQosPolicy_validate_plugin_property_suffixes]"}},
        {"check --class udpv4 --prefix '' " + DATA + "udpv4_misspelt.properties",
         1,
         {""},
         {":3: error: parent.mesage_size_max is under the prefix but is not a UDPv4 property",
          "fix: did you mean parent.message_size_max?"}},
        {"check --class udpv4 examples/udpv4_profile.xml",
         1,
         {""},
         {"examples/udpv4_profile.xml:12: error: 5 names carry the prefix "
          "\"dds.transport.UDPv4.builtin\"",
          "fix: pass --prefix dds.transport.UDPv4.builtin\n"}},
        {"check --class udpv4 examples/udpv4_wan.properties",
         1,
         {""},
         {"examples/udpv4_wan.properties:4: error: unknown property: public_address\n"
          "    fix: public_address is read by --class udpv4-wan only"}},
        {"check --class udpv4 " + DATA + "udpv4_warning.properties",
         0,
         {""},
         {":3: warning: unknown property: parent.mesage_size_max"}},
        {"check --class udpv4 " + DATA + "udpv4_bad_keyword.properties",
         1,
         {""},
         {":3: error: failed to parse send_blocking: \"transport_blocking_always\"\n    fix: "
          "keywords "
          "are compared in exact case: write TRANSPORT_BLOCKING_ALWAYS; send_blocking accepts "
          "(--class udpv4) one of (exact case): \"TRANSPORT_BLOCKING_ALWAYS\" (1)"}},
        {"check --class udpv4 " + DATA + "udpv4_udpv6_keyword.properties",
         1,
         {""},
         {"fix: VESK_TRANSPORT_UDPV6_BLOCKING_NEVER is accepted for --class udpv6 only"}},
        {"check --class udpv4 " + DATA + "udpv4_out_of_range.properties",
         1,
         {""},
         {"fix: 99999999999 is outside the signed 32-bit range -2147483648..2147483647"}},
        {"check --class udpv4 " + DATA + "udpv4_unsigned_out_of_range.properties",
         1,
         {""},
         {"fix: 99999999999 is outside the unsigned 32-bit range 0..4294967295"}},
        {"check --class udpv4 " + DATA + "udpv4_bom_inline_comment.properties",
         1,
         {""},
         {":1: warning: the value of multicast_ttl is \"2 # two hops\": a '#' after a value",
          ":1: error: failed to parse multicast_ttl: \"2 # two hops\""}},
        {"check --class udpv4 " + DATA + "udpv4_refused_by_transport.properties",
         1,
         {""},
         {":2: error: failed to create UDPv4 transport: multicast_ttl is outside 0..255"}},
        {"check --class udpv4 " + DATA + "udpv4_long_thread_name.properties",
         1,
         {""},
         {":2: precondition: ",
          "fix: parent.thread_name_prefix accepts (--class udpv4) text of at most 8"}},
        {"check --class udpv4-wan " + DATA + "wan_port_out_of_range.properties",
         1,
         {""},
         {":3: error: failed to parse comm_ports: 70000 is out of valid port range (0-65535)"}},
        {"check --class udpv4-wan " + DATA + "wan_bad_json.properties",
         1,
         {""},
         {":2: error: failure: parse JSON string: ",
          "fix: the JSON document stops at byte 42: unexpected end of input; expected '[', '{', "
          "or a literal"}},
        {"check --class shmem " + DATA + "shmem_bad_number.properties",
         1,
         {""},
         {":1: error: failed to parse received_message_count_max: \"many\""}},
        {"show --class udpv4-wan examples/udpv4_wan.properties",
         0,
         {"accepted: the setup applied 6 properties and the UDPv4 WAN transport accepts",
          "port_offset                                    150  (default 125)  <- port_offset at "
          "examples/udpv4_wan.properties:8",
          "\"rTr#####\"  (default null; filled in by the setup)"},
         {""}},
        {"show --class udpv4 " + DATA + "merge_first.properties " + DATA + "merge_second.xml",
         0,
         {"8000  (default 65507)  <- parent.message_size_max at tests/data/merge_second.xml:5",
          "2  (default 1)  <- multicast_ttl at tests/data/merge_first.properties:2"},
         {""}},
        {"show --class udpv4 --prefix '' " + DATA + "udpv4_misspelt.properties",
         1,
         {"REFUSED: the setup applied 2 properties, but the list holds names the setup does not",
          "not read by this class under this prefix:"},
         {""}},
        {"show --class udpv4 " + DATA + "doctor_lo.properties",
         0,
         {"interfaces of this host:\n  unicast uses lo 127.0.0.1\n",
          "multicast leaves out lo 127.0.0.1: no multicast (IFF_MULTICAST not set)"},
         {""}},
        {"show --class udpv4 " + DATA + "udpv4_warning.properties",
         0,
         {"validation:\n  dds.property_validation_action = \"WARNING\""},
         {""}},
        {"show --class shmem --min-version 6.1.0.0 examples/shmem.properties",
         0,
         {"minimum compatibility version 6.1.0.0", "<- host_id at examples/shmem.properties:13"},
         {""}},
    });
}

TEST(ToolCommand, UsageFileErrorsVersionAndProperties) {
    runToolCases({
        {"check --class udpv4 " + DATA + "missing.properties",
         2,
         {""},
         {DATA + "missing.properties: error: cannot open: No such file or directory"}},
        {"show --class udpv4 tests/data", 2, {""}, {"tests/data: error: is a directory"}},
        {"show --class udpv4 " + DATA + "no_equals.properties",
         2,
         {""},
         {":3: error: expected name=value, found no '='"}},
        {"check --class udpv4 examples/udpv4.properties " + DATA + "bad.xml",
         2,
         {""},
         {DATA + "bad.xml:5: error: bad XML"}},
        {"check --class udpv4 " + DATA + "missing_name.xml",
         2,
         {""},
         {":5: error: <element> without <name>"}},
        {"show --json --class udpv4 " + DATA + "missing.properties",
         2,
         {R"("kind": "file")", R"("file": "tests/data/missing.properties")"},
         {""}},
        {"check --json --class udpv5 examples/udpv4.properties", 2, {R"("kind": "usage")"}, {""}},
        {"", 2, {""}, {"A subcommand is required"}},
        {"show --class udpv4", 2, {""}, {"files"}},
        {"check --class shmem --prefix p examples/shmem.properties",
         2,
         {""},
         {"--prefix: the shared-memory list has no prefix"}},
        {"check --class udpv4 --min-version 6.1.0.0 examples/udpv4.properties",
         2,
         {""},
         {"--min-version applies to --class shmem only"}},
        {"check --class shmem --min-version 6.1 examples/shmem.properties",
         2,
         {""},
         {"--min-version: expected A.B.C.D"}},
        {"properties", 2, {""}, {"give --class or --markdown"}},
        {"--version", 0, {"vesk-transport 0."}, {""}},
        {"--help", 0, {"show", "check", "properties", "demo"}, {""}},
        {"properties --class udpv4-wan",
         0,
         {"\ncomm_ports\n    sets     comm_ports_list\n", "wan_listener_ptr  [private]",
          "parent.allow_interfaces  (else parent.allow_interfaces_list)"},
         {""}},
        {"properties --class udpv4",
         0,
         {"the setup also reads these, which the class's own list refuses: public_address"},
         {""}},
        {"properties --class shmem --markdown", 0, {"## SHMEM (`--class shmem`)"}, {""}},
    });
    EXPECT_EQ(runTool("properties --class shmem --markdown").out.find("## UDPv4"),
              std::string::npos);
    EXPECT_EQ(runTool("properties --class udpv6").out.find("UDPV4_BLOCKING"), std::string::npos);
}

TEST(ToolCommand, JsonReports) {
    const Json wan =
        Json::parse(runTool("show --json --class udpv4-wan examples/udpv4_wan.properties").out);
    EXPECT_EQ(wan["accepted"], true);
    EXPECT_EQ(wan["record"]["parent"]["message_size_max"],
              Json::parse(R"({"value": 1200, "default": 1400, "set_by": {"name":
                 "parent.message_size_max", "value": "1200", "file": "examples/udpv4_wan.properties",
                 "line": 11}})"));
    EXPECT_EQ(wan["record"]["comm_ports_list"]["value"][2],
              Json::parse(R"({"rtps": 7411, "host": 7500, "public": 7500})"));
    const RunResult refused =
        runTool("check --json --class udpv4 " + DATA + "udpv4_misspelt.properties");
    EXPECT_EQ(refused.exitCode, 1);
    const Json failure = Json::parse(refused.out);
    EXPECT_EQ(failure["accepted"], false);
    EXPECT_FALSE(failure.contains("record"));
    EXPECT_EQ(failure["messages"][0]["template"], "KEL_LOG_UNKNOWN_PROPERTY_s");
    EXPECT_EQ(failure["messages"][0]["fix"], "did you mean parent.message_size_max?");
    EXPECT_EQ(failure["messages"][0]["property"]["line"], 3);
}

TEST(ToolDoctor, ChecksWhatTheHostDelivers) {
    // A port held here: doctor must find it taken (domain 100: 7400 + 25000 + 11).
    const int held = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(32411);
    const bool holding = bind(held, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    runToolCases({
        {"doctor --class udpv4 " + DATA + "doctor_clamped.properties",
         1,
         {"problem receive buffer asked for 2147483647 bytes, the kernel granted",
          "fix: sudo sysctl -w net.core.rmem_max=2147483647",
          "ok      sockets        the transport's own sockets got a send buffer of 4096 bytes",
          "problem message size   a message of parent.message_size_max 65507 bytes does not fit "
          "the send buffer of 4096 bytes"},
         {""}},
        {"doctor --class udpv4 --domain 232 --participant 119 " + DATA + "doctor_lo.properties",
         1,
         {"problem port           domain 232, participant 119: discovery unicast port 65648 is "
          "beyond 65535"},
         {""}},
        {"doctor --class udpv4 " + DATA + "udpv4_misspelt.properties",
         1,
         {"problem properties     " + DATA + "udpv4_misspelt.properties:3: unknown property",
          "fix: did you mean parent.message_size_max?"},
         {""}},
        {"doctor --class shmem examples/shmem.properties", 0, {"uses no network"}, {""}},
        {"doctor --class udpv4-wan " + DATA + "wan_private_address.properties",
         0,
         {"warning wan            public_address 192.168.1.10 is a private address",
          "mapping rtps 7400 -> host 7400 -> public 7400"},
         {""}},
        {"doctor --class udpv4 --domain 232 --participant 119", 2, {""}, {"files"}},
    });
    if (holding) {
        runToolCases({{"doctor --class udpv4 --domain 100 " + DATA + "doctor_lo.properties",
                       1,
                       {"user unicast port 32411 cannot be bound: bind: Address already in use",
                        "fix: another participant holds it: check --participant 1"},
                       {""}}});
    }
    close(held);
    const Json wan =
        Json::parse(runTool("doctor --json --class udpv4-wan examples/udpv4_wan.properties").out);
    const auto has = [&](const std::string &finding) {
        return std::any_of(wan["checks"].begin(), wan["checks"].end(), [&](const Json &check) {
            return check["finding"].get<std::string>().find(finding) != std::string::npos;
        });
    };
    EXPECT_TRUE(has("public_address 203.0.113.5 (an IPv4 address)"));
    EXPECT_TRUE(has("mapping rtps 7411 -> host 7500 -> public 7500"));
    EXPECT_TRUE(has("no WAN listener registered"));
}

// In a namespace of its own the test decides the interfaces: lo only, with
// the MTU and flags each row gives it.
TEST(ToolDoctor, InANetworkNamespace) {
    if (system("unshare -n true 2>/dev/null") != 0)
        GTEST_SKIP() << "cannot make a network namespace";
    runToolCases({
        {"doctor --class udpv4 " + DATA + "doctor_lo.properties",
         0,
         {"ok      interface      uses lo 127.0.0.1: up, MTU 1280",
          "ok      interface      leaves out d0 198.51.100.9: not in the allow list",
          "warning message size   parent.message_size_max 9000: larger messages than 1252 bytes "
          "are sent in IP fragments on lo (MTU 1280)",
          "fix: set parent.message_size_max = 1252",
          "ok      multicast      join 239.255.0.1 on lo: joined",
          "came back: multicast works on this host", "0 problem(s), 1 warning(s)"},
         {""},
         "ip link set lo up mtu 1280 multicast on && ip link add d0 type veth peer name d1 && ip "
         "addr add "
         "198.51.100.9/24 dev d0 && ip link set d0 up"},
        {"doctor --class udpv4 " + DATA + "doctor_lo.properties",
         1,
         {"problem interface      the transport selected no interface",
          "warning multicast      multicast does not work here: a datagram sent to 239.255.0.1 "
          "on lo (loopback on, TTL 0) failed: sendto: Network is unreachable"},
         {""},
         "true"},
    });
    for (const char *example : {"udpv4", "udpv6", "udpv4_wan"}) {
        std::string option = example;
        std::replace(option.begin(), option.end(), '_', '-');
        runToolCases({{"doctor --class " + option + " examples/" + example + ".properties",
                       0,
                       {"the setup applied", "\n0 problem(s)"},
                       {""},
                       "ip link set lo up multicast on"}});
    }
}

// Real datagrams over loopback, each run at most a second.
TEST(ToolPerf, TrafficOverLoopback) {
    runToolCases({
        {"perf --class udpv4 --duration 0.3 examples/udpv4.properties",
         0,
         {"loopback 127.0.0.1 port ", "result: sent ",
          "statistics of the sending transport (VESK_Transport_Support_get_udpv4_statistics)",
          "  user_packets_sent ", "statistics of the receiving transport",
          "  user_packets_received "},
         {""}},
        {"perf --class udpv6 --ping-pong --size 200 --duration 0.2 examples/udpv6.properties",
         0,
         {"loopback ::1 port", "200-byte messages", "round trip (us): min ",
          "(VESK_Transport_Support_get_udpv6_statistics)"},
         {""}},
        {"perf --class udpv4-wan --duration 0.2 examples/udpv4_wan.properties", 0, {"lost "}, {""}},
        {"perf --class udpv4 --duration 0.2 examples/udpv4_profile.xml",
         1,
         {""},
         {"fix: pass --prefix dds.transport.UDPv4.builtin"}},
        {"perf --class shmem --duration 0.2 examples/shmem.properties",
         0,
         {"loopback shared memory port ", "result: sent ",
          "statistics: none for the shared-memory"},
         {""}},
        {"perf --class udpv4 --role pub examples/udpv4.properties", 2, {""}, {"--peer ADDRESS"}},
        {"perf --class udpv4 --peer 127.0.0.1 examples/udpv4.properties", 2, {""}, {"--peer"}},
        {"perf --class udpv4 --role sub --ping-pong examples/udpv4.properties",
         2,
         {""},
         {"--ping-pong runs in one process"}},
        {"perf --class udpv4 --size 10 examples/udpv4.properties", 2, {""}, {"--size"}},
    });
    // Paced: every message arrives, and the statistics count exactly them.
    const RunResult paced =
        runTool("perf --json --class udpv4 --rate 100 --duration 0.2 examples/udpv4.properties");
    ASSERT_EQ(paced.exitCode, 0) << paced.err;
    const Json out = Json::parse(paced.out);
    EXPECT_GE(out["sent"].get<long>(), 5);  // fewer when the host is busy
    EXPECT_LE(out["sent"].get<long>(), 21);
    EXPECT_EQ(out["received"], out["sent"]);
    EXPECT_EQ(out["lost"], 0);
    EXPECT_EQ(out["statistics"]["sender"]["user_packets_sent"], out["sent"]);
    EXPECT_EQ(out["statistics"]["receiver"]["user_packets_received"], out["sent"]);
    EXPECT_EQ(out["statistics"]["sender"]["user_bytes_sent"].get<long>(),
              out["sent"].get<long>() * (1024 - 20));  // the RTPS header counts as overhead
}

// A port that was free a moment ago.
int freeUdpPort() {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

TEST(ToolPerf, PublisherAndSubscriberProcesses) {
    const std::string port = std::to_string(freeUdpPort());
    const std::string tool =
        "timeout 30 '" + std::string(VESK_TRANSPORT_TOOL_PATH) + "' perf --class udpv4 ";
    const RunResult both = runTool(
        "--version && (" + tool + "--role sub --port " + port +
        " --duration 2 examples/udpv4.properties & for i in $(seq 100); do ss -Huln 'sport = :" +
        port + "' | grep -q . && break; sleep 0.02; done; " + tool +
        "--role pub --peer 127.0.0.1 --port " + port +
        " --rate 500 --duration 0.3 examples/udpv4.properties; wait)");
    EXPECT_EQ(both.exitCode, 0) << both.err;
    EXPECT_NE(both.out.find("publisher to 127.0.0.1 port " + port), std::string::npos) << both.out;
    EXPECT_NE(both.out.find("subscriber on port " + port), std::string::npos);
    EXPECT_NE(both.out.find(", lost 0 (0.00%)"), std::string::npos) << both.out;
}

TEST(ToolCommand, CommittedPropertyReferenceIsUpToDate) {
    EXPECT_TRUE(runTool("properties --markdown").out == readText(sourcePath("docs/properties.md")))
        << "regenerate it: vesk-transport properties --markdown > docs/properties.md";
}

TEST(ToolCommand, DemoRunsTheWholeModule) {
    runToolCases({{"demo",
                   0,
                   {"VESK_Transport_Support_get_udpv4_statistics: OK",
                    "user packets sent 3 (300 bytes), received 3 (300 bytes)",
                    "receive interfaces reported: 192.0.2.1", "register another transport: refused",
                    "Every step did what the module promises."},
                   {""}}});
}

}  // namespace

#endif
