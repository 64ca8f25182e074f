// The vesk-transport tool: its readers, record fields and advice in
// process, and the built tool on the example files and on broken ones
// (tests/data/): tables of command, exit code and the whole lines expected.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <regex>
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
using Texts = std::vector<std::string>;

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
    const std::string element = "<dds><property><value>\n<element>";
    const std::string end = "</element></value></property></dds>";
    const std::vector<std::tuple<bool, std::string, std::string> > cases = {
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
        {true, element + "<value>1</value>" + end, "error@2"},
        {true, element + "<name> </name><value>1</value>" + end, "error@2"},
        {true, element + "\n<name><b/></name><value>1</value>" + end, "error@3"},
    };
    for (const auto &[xml, text, expected] : cases) {
        EXPECT_EQ(xml ? readSummary(parseXmlText, text) : readSummary(parsePropertiesText, text),
                  expected)
            << text;
    }
    for (const char *valid : {"6.1.0.0", "255.0.0.255", "4.5.54.0"}) {
        const auto version = parseProductVersion(valid);
        ASSERT_TRUE(version) << valid;
        EXPECT_EQ(formatProductVersion(*version), valid);
    }
    for (const char *invalid :
         {"6.1.0", "6.1.0.0.0", "256.0.0.0", "a.1.0.0", "6..0.0", "", "1.0.0.0."})
        EXPECT_FALSE(parseProductVersion(invalid)) << invalid;
}

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

TEST(ToolAdvice, ClosestNameAndJsonPosition) {
    const Texts names = {"recv_socket_buffer_size", "send_socket_buffer_size", "multicast_ttl",
                         "multicast_enabled", "unicast_enabled"};
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
    list.assign({"p.multicast_ttl", "7", {"a", 3}});
    list.assign({"p.mulitcast_ttl", "4", {"b", 9}});
    list.assign({"other.multicast_ttl", "5", {"b", 10}});
    list.assign({"p.multicast_ttl", "3", {"c", 4}});  // a later value replaces value and origin
    const Inspection inspection = inspect(*findClass("udpv4"), list, {std::string("p"), {}});
    EXPECT_TRUE(inspection.transportBuilt);
    EXPECT_FALSE(inspection.accepted());  // two names under the prefix were not read
    EXPECT_EQ(inspection.applied, 2);
    Json fields;
    for (const FieldReport &field : inspection.fields)
        fields[field.path] = field.setBy ? describe(field.setBy->origin) : "";
    EXPECT_EQ(fields["parent.allow_interfaces_list"], "a:1");
    EXPECT_EQ(fields["multicast_ttl"], "c:4");
    EXPECT_EQ(list.properties()[2].value, "3");  // in the place of the first
    EXPECT_EQ(list.originOf("none"), nullptr);
    Texts messages;
    for (const LogMessage &message : inspection.messages)
        messages.push_back(message.property->name + ": " + message.fix);
    EXPECT_EQ(messages, (Texts{"p.parent.allow_interfaces_list: keep one of the two names",
                               "p.mulitcast_ttl: did you mean p.multicast_ttl?"}));
    // A hexadecimal value within 32 bits but outside the field's range
    // gets the range, not a type limit.
    list.assign({"p.parent.address_bit_count", "0x7FFFFFFA", {"d", 1}});
    const Inspection refused = inspect(*findClass("udpv4"), list, {std::string("p"), {}});
    ASSERT_FALSE(refused.messages.empty());
    EXPECT_EQ(refused.messages[0].fix,
              "parent.address_bit_count accepts (--class udpv4) a signed 32-bit number "
              "(-2147483648..2147483647) in [-128, 128]");
    // A warning of the tool's own refuses nothing.
    PropertyList commented;
    commented.assign({"parent.thread_name_prefix", "ab # c", {"e", 1}});
    const Inspection warned = inspect(*findClass("udpv4"), commented, {});
    EXPECT_TRUE(warned.accepted());
    ASSERT_EQ(warned.messages.size(), 1u);
    EXPECT_EQ(warned.messages[0].fix, "put the comment on a line of its own");
}

struct RunResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// Runs the tool from the source directory, so that file names are the
// relative ones given; with netns, in a network namespace of its own after
// the shell commands netns. A tool that hangs fails its case, not the run.
RunResult runTool(const std::string &arguments, const std::string &netns = "") {
    const std::string files = "/tmp/vesk_tool_test_" + std::to_string(getpid());
    const std::string tool = "timeout 60 '" VESK_TRANSPORT_TOOL_PATH "' " + arguments;
    const int status =
        system(("cd '" VESK_SOURCE_DIR "' && " +
                (netns.empty() ? tool : "unshare -n sh -c \"" + netns + " && exec " + tool + "\"") +
                " >" + files + ".out 2>" + files + ".err </dev/null")
                   .c_str());
    RunResult result{WIFEXITED(status) ? WEXITSTATUS(status) : -1, readText(files + ".out"),
                     readText(files + ".err")};
    unlink((files + ".out").c_str());
    unlink((files + ".err").c_str());
    return result;
}

// Whether the stream holds the expected text as whole lines: "" stands for
// an empty stream, a text beginning with '{' for the whole stream as JSON,
// and "…" for any text within a line.
bool holds(const std::string &stream, const std::string &expected) {
    if (expected.empty()) return stream.empty();
    if (expected[0] == '{') return Json::parse(stream, nullptr, false) == Json::parse(expected);
    const auto literal = [](const std::string &text) {
        return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
    };
    std::string pattern = "(^|\n)";
    std::size_t from = 0;
    for (std::size_t any; (any = expected.find("…", from)) != std::string::npos; from = any + 3)
        pattern += literal(expected.substr(from, any - from)) + "[^\n]*";
    return std::regex_search(stream,
                             std::regex(pattern + literal(expected.substr(from)) + "(\n|$)"));
}

// Runs the tool and compares its exit code, and the texts each stream
// holds (see holds()); with netns, in a new network namespace after those
// commands.
void expectTool(const std::string &arguments, int exitCode, const Texts &out, const Texts &err,
                const std::string &netns = "") {
    SCOPED_TRACE("vesk-transport " + arguments);
    const RunResult result = runTool(arguments, netns);
    EXPECT_EQ(result.exitCode, exitCode) << result.out << result.err;
    for (const auto &[stream, texts] : {std::pair{&result.out, &out}, {&result.err, &err}})
        for (const std::string &text : *texts)
            EXPECT_TRUE(holds(*stream, text)) << "lacks: " << text << "\nin:\n" << *stream;
}

const std::string DATA = "tests/data/";

// A check: nothing on stdout, the messages (or "") on stderr.
void expectCheck(const std::string &arguments, int exitCode, const std::string &err) {
    expectTool("check " + arguments, exitCode, {""}, {err});
}

TEST(ToolCommand, Check) {
    for (const char *accepted :
         {"udpv4 examples/udpv4.properties", "udpv4-wan examples/udpv4_wan.properties",
          "udpv6 examples/udpv6.properties",
          "shmem --min-version 6.1.0.0 examples/shmem.properties",
          "udpv4 --prefix dds.transport.UDPv4.builtin examples/udpv4_profile.xml"})
        expectCheck("--class " + std::string(accepted), 0, "");
    const std::string udpv4 = "--class udpv4 " + DATA, misspelt = "udpv4_misspelt.properties";
    const std::string unknown = DATA + misspelt +
                                ":3: error: unknown property: "
                                "parent.mesage_size_max";
    const std::string didYouMean = "\n    fix: did you mean parent.message_size_max?";
    expectCheck(udpv4 + misspelt, 1, unknown + didYouMean + "\nerror: inconsistent property: ");
    expectCheck("--verbose " + udpv4 + misspelt, 1,
                unknown +
                    " [KEL_LOG_UNKNOWN_PROPERTY_s in DDS_PropertyQosPolicy_validate_plugin_"
                    "property_suffixes]" +
                    didYouMean +
                    "\nerror: inconsistent property:  "
                    "[KEL_LOG_INCONSISTENT_PROPERTY_s in VESK_Transport_setupUDPProperty]");
    expectCheck("--prefix '' " + udpv4 + misspelt, 1,
                "…:3: error: parent.mesage_size_max is under the prefix but is not a UDPv4 "
                "property: the setup does not read it" +
                    didYouMean);
    expectCheck("--class udpv4 examples/udpv4_profile.xml", 1,
                "examples/udpv4_profile.xml:12: error: 5 names carry the prefix "
                "\"dds.transport.UDPv4.builtin\" (dds.transport.UDPv4.builtin.parent.allow_"
                "interfaces); without --prefix the list is the transport's own, whose names have "
                "no prefix\n    fix: pass --prefix dds.transport.UDPv4.builtin");
    expectCheck("--class udpv4 examples/udpv4_wan.properties", 1,
                "examples/udpv4_wan.properties:4: error: unknown property: public_address\n"
                "    fix: public_address is read by --class udpv4-wan only");
    expectCheck(udpv4 + "udpv4_warning.properties", 0,
                "…:3: warning: unknown property: parent.mesage_size_max" + didYouMean);
    expectCheck(
        udpv4 + "udpv4_bad_keyword.properties", 1,
        "…:3: error: failed to parse send_blocking: \"transport_blocking_always\"\n    fix: "
        "keywords are compared in exact case: write TRANSPORT_BLOCKING_ALWAYS; "
        "send_blocking accepts (--class udpv4) one of (exact case): "
        "\"TRANSPORT_BLOCKING_ALWAYS\" (1), …");
    expectCheck(udpv4 + "udpv4_udpv6_keyword.properties", 1,
                "    fix: VESK_TRANSPORT_UDPV6_BLOCKING_NEVER is accepted for --class udpv6 only; "
                "send_blocking accepts …");
    expectCheck(udpv4 + "udpv4_out_of_range.properties", 1,
                "    fix: 99999999999 is outside the signed 32-bit range "
                "-2147483648..2147483647; multicast_ttl accepts (--class udpv4) a signed 32-bit "
                "number (-2147483648..2147483647)");
    expectCheck(udpv4 + "udpv4_unsigned_out_of_range.properties", 1,
                "    fix: 99999999999 is outside the unsigned 32-bit range 0..4294967295; "
                "interface_poll_period accepts …");
    expectCheck(udpv4 + "udpv4_bom_inline_comment.properties", 1,
                "…:1: warning: the value of multicast_ttl is \"2 # two hops\": a '#' after a "
                "value is part of the value, not a comment\n    fix: put the comment on a line "
                "of its own\n…:1: error: failed to parse multicast_ttl: \"2 # two hops\"");
    expectCheck(udpv4 + "udpv4_refused_by_transport.properties", 1,
                "…:2: error: failed to create UDPv4 transport: multicast_ttl is outside 0..255");
    expectCheck(udpv4 + "udpv4_long_thread_name.properties", 1,
                "…:2: precondition: precondition failed: \"strlen(thread_name_prefix) > 8\"\n"
                "    fix: parent.thread_name_prefix accepts (--class udpv4) text of at most 8 "
                "characters: …\nerror: failed to parse parent properties");
    expectCheck("--class udpv4-wan " + DATA + "wan_port_out_of_range.properties", 1,
                "…:3: error: failed to parse comm_ports: 70000 is out of valid port range "
                "(0-65535)\n    fix: comm_ports accepts (--class udpv4-wan) one port 0..65535 …");
    expectCheck("--class udpv4-wan " + DATA + "wan_bad_json.properties", 1,
                "    fix: the JSON document stops at byte 42: unexpected end of input; expected "
                "'[', '{', or a literal; comm_ports accepts …");
    expectCheck("--class shmem " + DATA + "shmem_bad_number.properties", 1,
                "…:1: error: failed to parse received_message_count_max: \"many\"\n    fix: "
                "received_message_count_max accepts (--class shmem) a signed 32-bit number …");
}

TEST(ToolCommand, Show) {
    expectTool("show --class udpv4-wan examples/udpv4_wan.properties", 0,
               {"files: examples/udpv4_wan.properties\nUDPv4 WAN transport, the transport's own "
                "list (names validated)\naccepted: the setup applied 6 properties and the UDPv4 "
                "WAN transport accepts the record.",
                "* parent.message_size_max  …  1200  (default 1400)  <- parent.message_size_max "
                "at examples/udpv4_wan.properties:11",
                "* parent.thread_name_prefix  …  \"rTr#####\"  (default null; filled in by the "
                "setup)",
                "* port_offset  …  150  (default 125)  <- port_offset at "
                "examples/udpv4_wan.properties:8"},
               {""});
    expectTool("show --class udpv4 " + DATA + "merge_first.properties " + DATA + "merge_second.xml",
               0,
               {"* parent.message_size_max  …  8000  (default 65507)  <- parent.message_size_max "
                "at tests/data/merge_second.xml:5",
                "* multicast_ttl  …  2  (default 1)  <- multicast_ttl at "
                "tests/data/merge_first.properties:2"},
               {""});
    expectTool("show --class udpv4 --prefix '' " + DATA + "udpv4_misspelt.properties", 1,
               {"REFUSED: the setup applied 2 properties, but the list holds names the setup "
                "does not read (below).",
                "not read by this class under this prefix:\n  parent.mesage_size_max = \"8000\"  "
                "(tests/data/udpv4_misspelt.properties:3)"},
               {""});
    expectTool("show --class udpv4 " + DATA + "doctor_lo.properties", 0,
               {"interfaces of this host:\n  unicast uses lo 127.0.0.1",
                "  multicast leaves out lo 127.0.0.1: no multicast (IFF_MULTICAST not set)"},
               {""});
    expectTool("show --class udpv4 " + DATA + "udpv4_warning.properties", 0,
               {"validation:\n  dds.property_validation_action = \"WARNING\"  "
                "(tests/data/udpv4_warning.properties:2)"},
               {""});
    expectTool("show --class shmem --min-version 6.1.0.0 examples/shmem.properties", 0,
               {"SHMEM transport, the transport's own list (names validated), minimum "
                "compatibility version 6.1.0.0",
                "* shmemUUID  …  \"010000000a0000010000000000000000\"  (default …)  <- host_id at "
                "examples/shmem.properties:13"},
               {""});
}

TEST(ToolCommand, UsageFileErrorsVersionAndProperties) {
    const std::string help = "\nRun with --help for more information.";
    const std::vector<std::pair<std::string, std::string> > usage = {
        {"check --class udpv4 " + DATA + "missing.properties",
         DATA + "missing.properties: error: cannot open: No such file or directory"},
        {"show --class udpv4 tests/data", "tests/data: error: is a directory"},
        {"show --class udpv4 " + DATA + "no_equals.properties",
         DATA + "no_equals.properties:3: error: expected name=value, found no '='"},
        {"check --class udpv4 examples/udpv4.properties " + DATA + "bad.xml",
         DATA + "bad.xml:5: error: bad XML: …"},
        {"check --class udpv4 " + DATA + "missing_name.xml",
         DATA + "missing_name.xml:5: error: <element> without <name>"},
        {"", "A subcommand is required" + help},
        {"show --class udpv4", "files is required" + help},
        {"check --class shmem --prefix p examples/shmem.properties",
         "vesk-transport: --prefix: the shared-memory list has no prefix" + help},
        {"check --class udpv4 --min-version 6.1.0.0 examples/udpv4.properties",
         "vesk-transport: --min-version applies to --class shmem only" + help},
        {"check --class shmem --min-version 6.1 examples/shmem.properties",
         "vesk-transport: --min-version: expected A.B.C.D, each number 0..255, got \"6.1\"" + help},
        {"properties", "vesk-transport: properties: give --class or --markdown" + help},
        {"perf --class udpv4 --role pub examples/udpv4.properties",
         "vesk-transport: --peer ADDRESS goes with --role pub, and only with it" + help},
        {"perf --class udpv4 --peer 127.0.0.1 examples/udpv4.properties",
         "vesk-transport: --peer ADDRESS goes with --role pub, and only with it" + help},
        {"perf --class udpv4 --role sub --ping-pong examples/udpv4.properties",
         "vesk-transport: --ping-pong runs in one process (--role loopback)" + help},
        {"perf --class udpv4 --size 10 examples/udpv4.properties",
         "--size: Value 10 not in range 72 to 65507" + help},
        {"doctor --class udpv4 --domain 232 --participant 119", "files is required" + help},
    };
    for (const auto &[arguments, err] : usage) expectTool(arguments, 2, {""}, {err});
    expectTool("show --json --class udpv4 " + DATA + "missing.properties", 2,
               {R"({"error": {"kind": "file", "message": "cannot open: No such file or directory",
                    "file": "tests/data/missing.properties", "line": null}})"},
               {""});
    expectTool("check --json --class udpv5 examples/udpv4.properties", 2,
               {R"({"error": {"kind": "usage",
                    "message": "--class: udpv5 not in {udpv4,udpv4-wan,udpv6,shmem}"}})"},
               {""});
    expectTool("--version", 0, {"vesk-transport 0.…"}, {""});
    expectTool("--help", 0, {"  show  …", "  check  …", "  properties  …", "  demo  …"}, {""});
    expectTool(
        "properties --class udpv4-wan", 0,
        {"UDPv4 WAN transport: 42 properties, in the order the setup reads them.\nNames are "
         "suffixes under the prefix given to the setup (usually "
         "\"dds.transport.UDPv4_WAN.builtin\"); a list given without a prefix is validated.",
         "comm_ports\n    sets     comm_ports_list\n    accepts  one port …\n    default  null",
         "wan_listener_ptr  [private]\n    sets     wan_listener",
         "parent.allow_interfaces  (else parent.allow_interfaces_list)"},
        {""});
    expectTool("properties --class udpv4", 0,
               {"Under a prefix the setup also reads these, which the class's own list refuses: "
                "public_address comm_ports wan_listener_ptr port_offset binding_ping_period "
                "binding_ping_mapping_expiration"},
               {""});
    const std::string markdown = runTool("properties --class shmem --markdown").out;
    EXPECT_EQ(markdown.find("## SHMEM (`--class shmem`)\n\nThe names are read as they stand"), 0u);
    EXPECT_EQ(markdown.find("## UDPv4"), std::string::npos);
    EXPECT_EQ(runTool("properties --class udpv6").out.find("UDPV4_BLOCKING"), std::string::npos);
}

TEST(ToolCommand, CommittedPropertyReferenceIsUpToDate) {
    EXPECT_TRUE(runTool("properties --markdown").out == readText(sourcePath("docs/properties.md")))
        << "regenerate it: vesk-transport properties --markdown > docs/properties.md";
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

TEST(ToolCommand, DemoRunsTheWholeModule) {
    expectTool("demo", 0,
               {"   class 0x7E570001 registered under demo.custom, my_transport at 10.0.0.7",
                "   VESK_Transport_Support_get_udpv4_statistics: OK\n   user packets sent 3 (300 "
                "bytes), received 3 (300 bytes)",
                "   assert_fake_ipv4_address(192.0.2.1): OK\n   receive interfaces reported: "
                "192.0.2.1\n   remove_fake_ipv4_address: OK",
                "   register another transport: refused, the plugin stays ours",
                "Every step did what the module promises."},
               {""});
}

// A port held here, plainly or as a multicast receiver holds it.
int holdPort(int port, bool reuse) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const int on = 1;
    if (reuse) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) return fd;
    close(fd);
    return -1;
}

const std::string FIX = "\n                       fix: ";

TEST(ToolDoctor, ChecksWhatTheHostDelivers) {
    const std::string beyond = " is beyond 65535" + FIX +
                               "use a smaller domain id or participant "
                               "index";
    expectTool("doctor --class udpv4 " + DATA + "doctor_clamped.properties", 1,
               {"problem receive buffer asked for 2147483647 bytes, the kernel granted … bytes "
                "(net.core.rmem_max = …)" +
                    FIX +
                    "sudo sysctl -w net.core.rmem_max=2147483647  "
                    "(and the same line in /etc/sysctl.d/ to keep it)",
                "ok      sockets        the transport's own sockets got a send buffer of 4096 "
                "bytes …",
                "problem message size   a message of parent.message_size_max 65507 bytes does not "
                "fit the send buffer of 4096 bytes" +
                    FIX +
                    "raise send_socket_buffer_size or "
                    "lower parent.message_size_max"},
               {""});
    expectTool(
        "doctor --class udpv4 --domain 232 --participant 119 " + DATA + "doctor_lo.properties", 1,
        {"problem port           domain 232, participant 119: discovery unicast port 65648" +
             beyond,
         "problem port           domain 232, participant 119: user unicast port 65649" + beyond},
        {""});
    expectTool("doctor --class udpv4 " + DATA + "udpv4_misspelt.properties", 1,
               {"problem properties     tests/data/udpv4_misspelt.properties:3: unknown property: "
                "parent.mesage_size_max" +
                FIX + "did you mean parent.message_size_max?"},
               {""});
    expectTool("doctor --class shmem examples/shmem.properties", 0,
               {"ok      host           the shared-memory transport uses no network: nothing more "
                "to check here\n0 problem(s), 0 warning(s), 2 ok"},
               {""});
    expectTool(
        "doctor --class udpv4-wan " + DATA + "wan_private_address.properties", 0,
        {"warning wan            public_address 192.168.1.10 is a private address: only "
         "peers inside this network reach it" +
             FIX +
             "give the address of the NAT's "
             "public side",
         "ok      wan            mapping rtps 7400 -> host 7400 -> public 7400: the host port "
         "can be bound"},
        {""});
    // Domain 100: discovery multicast 32400, held as a multicast receiver
    // holds it (doctor binds it the same way); user unicast 32411, held.
    const int multicast = holdPort(32400, true), unicast = holdPort(32411, false);
    if (multicast >= 0 && unicast >= 0) {
        expectTool("doctor --class udpv4 --domain 100 " + DATA + "doctor_lo.properties", 1,
                   {"ok      port           domain 100, participant 0: discovery multicast port "
                    "32400 can be bound",
                    "problem port           domain 100, participant 0: user unicast port 32411 "
                    "cannot be bound: bind: Address already in use" +
                        FIX +
                        "another participant "
                        "holds it: check --participant 1…"},
                   {""});
    }
    close(multicast);
    close(unicast);
    const Json wan =
        Json::parse(runTool("doctor --json --class udpv4-wan examples/udpv4_wan.properties").out);
    Texts findings;
    for (const Json &check : wan["checks"]) findings.push_back(check["finding"]);
    for (const char *finding :
         {"public_address 203.0.113.5 (an IPv4 address)",
          "mapping rtps 7411 -> host 7500 -> public 7500: the host port can be bound",
          "no WAN listener registered (wan_listener_ptr): public-mapping events are not reported "
          "to the application"})
        EXPECT_NE(std::find(findings.begin(), findings.end(), finding), findings.end()) << finding;
}

// In a namespace of its own the test decides the interfaces: lo only, with
// the MTU and flags each row gives it.
TEST(ToolDoctor, InANetworkNamespace) {
    if (system("unshare -n true 2>/dev/null") != 0)
        GTEST_SKIP() << "cannot make a network namespace";
    const std::string lo = "ip link set lo up mtu 1280 multicast on";
    const std::string fragments = "warning message size   parent.message_size_max ";
    const std::string onLo =
        " bytes are sent in IP fragments on lo (MTU 1280); one lost "
        "fragment loses the message";
    expectTool("doctor --class udpv4 " + DATA + "doctor_lo.properties", 0,
               {"ok      interface      uses lo 127.0.0.1: up, MTU 1280\nok      interface      "
                "leaves out d0 198.51.100.9: not in the allow list",
                fragments + "9000: larger messages than 1252" + onLo + FIX +
                    "set parent.message_size_max = 1252 to send without fragments on lo\n"
                    "ok      multicast      join 239.255.0.1 on lo: joined",
                "ok      multicast      a datagram sent to 239.255.0.1 on lo came back: multicast "
                "works on this host",
                "0 problem(s), 1 warning(s), 13 ok"},
               {""},
               lo + " && ip link add d0 type veth peer name d1 && ip addr add 198.51.100.9/24 "
                    "dev d0 && ip link set d0 up");
    expectTool("doctor --class udpv4 " + DATA + "doctor_lo.properties", 1,
               {"problem interface      the transport selected no interface: it can neither send "
                "nor receive",
                "warning multicast      multicast does not work here: a datagram sent to "
                "239.255.0.1 on lo (loopback on, TTL 0) failed: sendto: Network is unreachable",
                "2 problem(s), 2 warning(s), 8 ok"},
               {""}, "true");
    expectTool(
        "doctor --class udpv4 examples/udpv4.properties", 0,
        {fragments + "9000: larger messages than 1252" + onLo, "0 problem(s), 1 warning(s), 11 ok"},
        {""}, lo);
    expectTool(
        "doctor --class udpv6 examples/udpv6.properties", 0,
        {"ok      interface      uses lo ::1: up, MTU 1280",
         fragments + "65487: larger messages than 1232" + onLo, "0 problem(s), 1 warning(s), 9 ok"},
        {""}, lo);
    expectTool("doctor --class udpv4-wan examples/udpv4_wan.properties", 0,
               {"ok      message size   parent.message_size_max 1200 fits one frame on lo (MTU "
                "1280)",
                "0 problem(s), 0 warning(s), 15 ok"},
               {""}, lo);
}

// Real datagrams over loopback, each run at most a second.
TEST(ToolPerf, TrafficOverLoopback) {
    const std::string statistics =
        "statistics of the … transport "
        "(VESK_Transport_Support_get_udpv";
    expectTool("perf --class udpv4 --duration 0.3 examples/udpv4.properties", 0,
               {"vesk-transport perf: UDPv4 transport from examples/udpv4.properties, loopback "
                "127.0.0.1 port …, 1024-byte messages for 0.3 s, as fast as the transport sends\n"
                "result: sent … messages, received …, lost … (…%) in 0.… s: … msg/s, … MB/s\n" +
                    statistics + "4_statistics), counters not 0:",
                "  user_packets_sent …", "  user_packets_received …"},
               {""});
    expectTool("perf --class udpv6 --ping-pong --size 200 --duration 0.2 examples/udpv6.properties",
               0,
               {"vesk-transport perf: UDPv6 transport from examples/udpv6.properties, loopback ::1 "
                "port …, 200-byte messages for 0.2 s, as fast as the transport sends, ping-pong",
                "round trip (us): min … p50 … p90 … p99 … max …",
                statistics + "6_statistics), counters not 0:"},
               {""});
    expectTool("perf --class udpv4-wan --duration 0.2 examples/udpv4_wan.properties", 0,
               {"result: sent … messages, received …, lost … (…%) in …"}, {""});
    expectTool("perf --class udpv4 --duration 0.2 examples/udpv4_profile.xml", 1, {""},
               {"    fix: pass --prefix dds.transport.UDPv4.builtin"});
    expectTool("perf --class shmem --duration 0.2 examples/shmem.properties", 0,
               {"vesk-transport perf: SHMEM transport from examples/shmem.properties, loopback "
                "shared memory port …, 1024-byte messages for 0.2 s, as fast as the transport "
                "sends\nresult: sent … messages, received …\nstatistics: none for the "
                "shared-memory class (the module keeps statistics of the UDP classes only)"},
               {""});
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

TEST(ToolPerf, PublisherAndSubscriberProcesses) {
    // A socket of the test on a free port is the publisher's first peer:
    // each datagram is an RTPS message whose submessage covers the rest.
    const int peer = holdPort(0, false);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(peer, reinterpret_cast<sockaddr *>(&address), &length);
    const std::string port = std::to_string(ntohs(address.sin_port));
    runTool("perf --class udpv4 --role pub --peer 127.0.0.1 --port " + port +
            " --rate 100 --duration 0.1 examples/udpv4.properties");
    unsigned char datagram[2048];
    const ssize_t received = recv(peer, datagram, sizeof datagram, MSG_DONTWAIT);
    close(peer);
    ASSERT_EQ(received, 1024);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(datagram), 4), "RTPS");
    EXPECT_EQ(datagram[22] | datagram[23] << 8, 1024 - 24);
    // Then a subscriber process on that port.
    const std::string tool =
        "timeout 30 '" + std::string(VESK_TRANSPORT_TOOL_PATH) + "' perf --class udpv4 ";
    const RunResult both = runTool(
        "--version && (" + tool + "--role sub --port " + port +
        " --duration 2 examples/udpv4.properties & for i in $(seq 100); do ss -Huln 'sport = :" +
        port + "' | grep -q . && break; sleep 0.02; done; " + tool +
        "--role pub --peer 127.0.0.1 --port " + port +
        " --rate 500 --duration 0.3 examples/udpv4.properties; wait)");
    EXPECT_EQ(both.exitCode, 0) << both.err;
    for (const std::string &text : {"publisher to 127.0.0.1 port " + port,
                                    "subscriber on port " + port, std::string(", lost 0 (0.00%)")})
        EXPECT_TRUE(holds(both.out, "…" + text + "…")) << text << "\n" << both.out;
}

}  // namespace

#endif
