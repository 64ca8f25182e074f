// The vesk-transport tool: its readers and record fields in process, and
// the built tool itself on the example files and on broken ones
// (tests/data/), with its output, messages and exit codes.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/TestSupport.hpp"
#include "tools/Inspection.hpp"
#include "tools/PropertyFiles.hpp"
#include "tools/Reference.hpp"

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

// ---------------------------------------------------------------------------
// .properties and XML readers
// ---------------------------------------------------------------------------

struct Expected {
    std::string name;
    std::string value;
    int line;
};

struct ReaderCase {
    const char *label;
    std::string text;
    std::vector<Expected> properties;
    int errorLine;  // > 0: a FileError naming this line
};

void expectProperties(const std::vector<FileProperty> &read, const std::vector<Expected> &expected,
                      const std::string &file) {
    ASSERT_EQ(read.size(), expected.size());
    for (std::size_t i = 0; i < read.size(); ++i) {
        EXPECT_EQ(read[i].name, expected[i].name) << i;
        EXPECT_EQ(read[i].value, expected[i].value) << i;
        EXPECT_EQ(read[i].origin.line, expected[i].line) << i;
        EXPECT_EQ(read[i].origin.file, file) << i;
    }
}

template <typename Parse>
void runReaderCases(const std::vector<ReaderCase> &cases, Parse parse) {
    for (const ReaderCase &c : cases) {
        SCOPED_TRACE(c.label);
        if (c.errorLine > 0) {
            try {
                parse(c.text, "f");
                ADD_FAILURE() << "no FileError";
            } catch (const FileError &error) {
                EXPECT_EQ(error.origin().file, "f");
                EXPECT_EQ(error.origin().line, c.errorLine) << error.what();
            }
        } else {
            expectProperties(parse(c.text, "f"), c.properties, "f");
        }
    }
}

TEST(ToolPropertiesReader, SplitsAtTheFirstEqualsAndTrimsBlanks) {
    const std::vector<ReaderCase> cases = {
        {"plain", "a=b", {{"a", "b", 1}}, 0},
        {"blanks around = and at the ends", "  a  =  b c  \r\n", {{"a", "b c", 1}}, 0},
        {"tabs", "\tkey\t=\tv\t\n", {{"key", "v", 1}}, 0},
        {"split at the first =", "a==b=c", {{"a", "=b=c", 1}}, 0},
        {"empty value", "a=\n", {{"a", "", 1}}, 0},
        {"comments and blank lines", "# c\n\n   # x = y\nk = v\n", {{"k", "v", 4}}, 0},
        {"a # inside a value stays", "a = b # c", {{"a", "b # c", 1}}, 0},
        {"JSON value",
         "comm_ports = {\"default\": {\"host\": 1}}",
         {{"comm_ports", "{\"default\": {\"host\": 1}}", 1}},
         0},
        {"order and lines", "x=1\ny=2\n\nx=3", {{"x", "1", 1}, {"y", "2", 2}, {"x", "3", 4}}, 0},
        {"empty text", "", {}, 0},
        {"no =", "x", {}, 1},
        {"no = on line 2", "a=b\nmulticast_enabled false\n", {}, 2},
        {"empty name", "  = v", {}, 1},
    };
    runReaderCases(cases, [](const std::string &text, const std::string &file) {
        return parsePropertiesText(text, file);
    });
}

TEST(ToolXmlReader, ReadsEveryPropertySectionWithLines) {
    const std::vector<ReaderCase> cases = {
        {"profile",
         "<dds>\n<qos_profile>\n<participant_qos>\n<property>\n<value>\n"
         "<element><name>a</name><value>1</value></element>\n"
         "<element>\n<name> b </name>\n<value>\n  two words\n</value>\n</element>\n"
         "</value>\n</property>\n</participant_qos>\n</qos_profile>\n</dds>\n",
         {{"a", "1", 6}, {"b", "two words", 8}},
         0},
        {"two sections in document order",
         "<dds><p1><property><value><element><name>x</name><value>1</value></element></value>"
         "</property></p1>\n<p2><property><value><element><name>y</name><value/></element></value>"
         "</property></p2></dds>",
         {{"x", "1", 1}, {"y", "", 2}},
         0},
        {"property as the root",
         "<property><value><element><name>z</name><value>3</value></element></value></property>",
         {{"z", "3", 1}},
         0},
        {"other elements are ignored",
         "<dds><property><value><element><name>z</name><value>3</value><propagate>true</propagate>"
         "</element></value></property><name>not a property</name></dds>",
         {{"z", "3", 1}},
         0},
        {"no property section", "<dds/>", {}, 0},
        {"an element left open", "<dds>\n<property>\n</dds>", {}, 2},
        {"element without name",
         "<dds><property><value>\n<element><value>1</value></element></value></property></dds>",
         {},
         2},
        {"element without value",
         "<dds><property><value>\n\n<element><name>a</name></element></value></property></dds>",
         {},
         3},
        {"empty name",
         "<dds><property><value>\n<element><name> "
         "</name><value>1</value></element></value></property>"
         "</dds>",
         {},
         2},
        {"name with elements",
         "<dds><property><value>\n<element>\n<name><b/></name><value>1</value></element></value>"
         "</property></dds>",
         {},
         3},
    };
    runReaderCases(cases, [](const std::string &text, const std::string &file) {
        return parseXmlText(text, file);
    });
}

TEST(ToolPropertyList, ALaterNameReplacesTheValueAndOriginInPlace) {
    PropertyList list;
    list.assign({"a", "1", {"first", 1}});
    list.assign({"b", "2", {"first", 2}});
    list.assign({"a", "3", {"second", 7}});
    const std::vector<FileProperty> properties = list.properties();
    ASSERT_EQ(properties.size(), 2u);
    EXPECT_EQ(properties[0].name, "a");
    EXPECT_EQ(properties[0].value, "3");
    EXPECT_EQ(describe(properties[0].origin), "second:7");
    EXPECT_EQ(properties[1].name, "b");
    EXPECT_EQ(describe(*list.originOf("b")), "first:2");
    EXPECT_EQ(list.originOf("c"), nullptr);
}

TEST(ToolPropertyList, MissingAndDirectoryFilesAreFileErrors) {
    for (const std::string &path :
         {sourcePath("tests/data/does_not_exist.properties"), sourcePath("tests/data")}) {
        SCOPED_TRACE(path);
        PropertyList list;
        EXPECT_THROW(readPropertyFiles({path}, list), FileError);
    }
}

TEST(ToolProductVersion, ParsesFourPartsOf0To255) {
    struct Case {
        const char *text;
        bool valid;
        int major = 0, minor = 0, release = 0, revision = 0;
    };
    const Case cases[] = {
        {"6.1.0.0", true, 6, 1, 0, 0},
        {"4.5.54.0", true, 4, 5, 54, 0},
        {"255.0.0.255", true, 255, 0, 0, 255},
        {"6.1.0", false},
        {"6.1.0.0.0", false},
        {"256.0.0.0", false},
        {"a.1.0.0", false},
        {"6..0.0", false},
        {"", false},
        {"-1.0.0.0", false},
        {"1.0.0.0.", false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        const auto version = parseProductVersion(c.text);
        ASSERT_EQ(version.has_value(), c.valid);
        if (!c.valid) continue;
        EXPECT_EQ(static_cast<unsigned char>(version->major), c.major);
        EXPECT_EQ(static_cast<unsigned char>(version->minor), c.minor);
        EXPECT_EQ(static_cast<unsigned char>(version->release), c.release);
        EXPECT_EQ(static_cast<unsigned char>(version->revision), c.revision);
        EXPECT_EQ(formatProductVersion(*version), c.text);
    }
}

// ---------------------------------------------------------------------------
// Record fields: every field of the record, each property's field reader
// ---------------------------------------------------------------------------

// The field names of a struct as written in a header, with a nested
// generic part expanded under "parent.".
std::vector<std::string> headerFields(const std::string &header, const std::string &structName) {
    const std::string text = readText(sourcePath(header));
    const std::size_t start = text.find("struct " + structName + " {");
    EXPECT_NE(start, std::string::npos) << structName;
    const std::size_t end = text.find("};", start);
    std::istringstream body(text.substr(start, end - start));
    std::string line;
    std::getline(body, line);  // the struct line
    std::vector<std::string> fields;
    while (std::getline(body, line)) {
        line = line.substr(0, line.find("/*"));
        const std::size_t semicolon = line.find(';');
        if (semicolon == std::string::npos) continue;
        std::size_t begin = line.find_last_of(" *", semicolon);
        fields.push_back(line.substr(begin + 1, semicolon - begin - 1));
    }
    return fields;
}

std::set<std::string> expectedPaths(const std::string &header, const std::string &structName) {
    std::set<std::string> out;
    for (const std::string &field : headerFields(header, structName)) {
        if (field != "parent") {
            out.insert(field);
            continue;
        }
        for (const std::string &generic :
             headerFields("vesk_transport/platform/Transport.h", "VESK_Transport_Property_t")) {
            out.insert("parent." + generic);
        }
    }
    return out;
}

std::set<std::string> paths(const std::vector<FieldValue> &fields) {
    std::set<std::string> out;
    for (const FieldValue &field : fields) EXPECT_TRUE(out.insert(field.path).second) << field.path;
    return out;
}

TEST(ToolRecordFields, EveryFieldOfEveryRecordIsPrintedOnce) {
    const std::set<std::string> udp =
        expectedPaths("vesk_transport/platform/Udp.h", "VESK_Transport_UDP_Property_t");
    const std::set<std::string> shmem =
        expectedPaths("vesk_transport/platform/Shmem.h", "VESK_Transport_Shmem_Property_t");
    EXPECT_EQ(udp.size(), 51u);  // a sanity check of the header reading
    for (const TransportClass &transportClass : transportClasses()) {
        SCOPED_TRACE(transportClass.option);
        EXPECT_EQ(paths(defaultFields(transportClass)),
                  transportClass.kind == RecordKind::udp ? udp : shmem);
    }
}

TEST(ToolRecordFields, EveryPropertyTheSetupsReadSetsAPrintedField) {
    for (const RecordKind kind : {RecordKind::udp, RecordKind::shmem}) {
        const std::vector<FieldValue> fields =
            kind == RecordKind::udp ? readFields(VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT)
                                    : readFields(VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT);
        for (const PropertyDescription &row : propertiesRead(kind)) {
            SCOPED_TRACE(row.suffix);
            const auto field = std::find_if(fields.begin(), fields.end(), [&](const FieldValue &f) {
                return f.path == row.field;
            });
            ASSERT_NE(field, fields.end());
            EXPECT_NE(std::find(field->names.begin(), field->names.end(), row.suffix),
                      field->names.end());
        }
    }
}

TEST(ToolRecordFields, ValuesAreDeepCopiesInTheirTextForms) {
    VESK_Transport_UDP_Property_t record = VESK_TRANSPORT_UDPV4_WAN_PROPERTY_DEFAULT;
    char lo[] = "lo";
    char *allow[] = {lo, nullptr};
    VESK_Transport_UDP_WAN_CommPortsMappingInfo ports[] = {{0, 7400, 17400, 0},
                                                           {7410, 7410, 17410, 0}};
    record.parent.allow_interfaces_list = allow;
    record.parent.allow_interfaces_list_length = 2;
    record.comm_ports_list = ports;
    record.comm_ports_list_length = 2;
    const KELOsapiRtpsGuidPrefix guid = {1, 2, 3};
    std::memcpy(record.parent.transport_uuid.value, &guid, sizeof guid);
    const std::vector<FieldValue> fields = readFields(record);
    lo[0] = 'X';  // the values do not point into the record
    auto value = [&](const std::string &path) {
        for (const FieldValue &field : fields) {
            if (field.path == path) return field.value;
        }
        return Json("missing");
    };
    EXPECT_EQ(value("parent.allow_interfaces_list"), Json::parse(R"(["lo", null])"));
    EXPECT_EQ(value("parent.allow_interfaces_list_length"), 2);
    EXPECT_EQ(
        value("comm_ports_list"),
        Json::parse(
            R"([{"rtps":0,"host":7400,"public":17400},{"rtps":7410,"host":7410,"public":17410}])"));
    EXPECT_EQ(value("parent.transport_uuid"), "1,2,3");
    EXPECT_EQ(value("parent.thread_name_prefix"), nullptr);
    EXPECT_EQ(value("wan_listener"), nullptr);
    EXPECT_EQ(value("parent.classid"), VESK_TRANSPORT_CLASSID_UDPv4_WAN);

    VESK_Transport_Address_t v6{};
    v6.network_ordered_value[0] = 0xfd;
    v6.network_ordered_value[15] = 1;
    EXPECT_EQ(addressJson(v6), "fd00::1");
    VESK_Transport_Address_t v4{};
    v4.network_ordered_value[12] = 239;
    v4.network_ordered_value[15] = 2;
    EXPECT_EQ(addressJson(v4), "239.0.0.2");
}

// ---------------------------------------------------------------------------
// Inspection in process: release on every path
// ---------------------------------------------------------------------------

TEST(ToolInspection, ReleasesEverythingWhenTheHeapFails) {
    PropertyList list;
    for (const FileProperty &property :
         readPropertyFile(sourcePath("examples/udpv4_wan.properties"))) {
        list.assign(property);
    }
    const TransportClass &wan = *findClass("udpv4-wan");
    const KEL_UINT64 before = vesk::test::liveHeapBlocks();
    bool accepted = false;
    int refusals = 0;
    for (long n = 1; n < 200 && !accepted; ++n) {
        SCOPED_TRACE(n);
        KELOsapiHeap_failAllocationAfter(n);
        const Inspection inspection = inspect(wan, list, {});
        const bool failurePending = KELOsapiHeap_isFailurePending() != 0;
        KELOsapiHeap_failAllocationAfter(0);
        accepted = inspection.accepted();
        EXPECT_EQ(vesk::test::liveHeapBlocks(), before);
        if (!accepted) {
            ++refusals;
            EXPECT_FALSE(failurePending);
            EXPECT_FALSE(inspection.messages.empty());
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
    list.assign({"p.mulitcast_ttl", "4", {"b", 9}});  // misspelt: under a prefix, not validated
    list.assign({"other.multicast_ttl", "5", {"b", 10}});
    const Inspection inspection =
        inspect(*findClass("udpv4"), list, {std::string("p"), std::nullopt});
    ASSERT_TRUE(inspection.accepted());
    EXPECT_EQ(inspection.applied, 2);
    auto field = [&](const std::string &path) {
        return *std::find_if(inspection.fields.begin(), inspection.fields.end(),
                             [&](const FieldReport &f) { return f.path == path; });
    };
    ASSERT_TRUE(field("parent.allow_interfaces_list").setBy);
    EXPECT_EQ(field("parent.allow_interfaces_list").setBy->name, "p.parent.allow_interfaces");
    EXPECT_EQ(field("parent.allow_interfaces_list").value, Json::parse(R"(["lo"])"));
    EXPECT_EQ(describe(field("multicast_ttl").setBy->origin), "a:3");
    EXPECT_EQ(field("multicast_ttl").classDefault, 1);
    EXPECT_FALSE(field("parent.thread_name_prefix").setBy);
    std::vector<std::string> notRead;
    for (const FileProperty &property : inspection.notRead) notRead.push_back(property.name);
    EXPECT_EQ(notRead, (std::vector<std::string>{"p.parent.allow_interfaces_list",
                                                 "p.mulitcast_ttl", "other.multicast_ttl"}));
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
// relative ones given.
RunResult runTool(const std::string &arguments) {
    char errPath[] = "/tmp/vesk_tool_test_XXXXXX";
    const int fd = mkstemp(errPath);
    EXPECT_GE(fd, 0);
    close(fd);
    const std::string command = "cd '" + std::string(VESK_SOURCE_DIR) + "' && '" +
                                VESK_TRANSPORT_TOOL_PATH + "' " + arguments + " 2>'" + errPath +
                                "'";
    RunResult result;
    FILE *pipe = popen(command.c_str(), "r");
    EXPECT_NE(pipe, nullptr);
    if (pipe == nullptr) return result;
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
    const char *label;
    std::string arguments;
    int exitCode;
    std::vector<std::string> outContains;  // {""}: nothing is printed
    std::vector<std::string> errContains;  // {""}: nothing is printed
};

void runToolCases(const std::vector<ToolCase> &cases) {
    for (const ToolCase &c : cases) {
        SCOPED_TRACE(std::string(c.label) + ": vesk-transport " + c.arguments);
        const RunResult result = runTool(c.arguments);
        EXPECT_EQ(result.exitCode, c.exitCode) << result.out << result.err;
        for (const std::string &text : c.outContains) {
            if (text.empty()) {
                EXPECT_EQ(result.out, "");
            } else {
                EXPECT_NE(result.out.find(text), std::string::npos)
                    << "stdout lacks: " << text << "\n"
                    << result.out;
            }
        }
        for (const std::string &text : c.errContains) {
            if (text.empty()) {
                EXPECT_EQ(result.err, "");
            } else {
                EXPECT_NE(result.err.find(text), std::string::npos)
                    << "stderr lacks: " << text << "\n"
                    << result.err;
            }
        }
    }
}

TEST(ToolCommand, CheckAcceptsEveryExample) {
    runToolCases({
        {"udpv4", "check --class udpv4 examples/udpv4.properties", 0, {""}, {""}},
        {"udpv4 WAN", "check --class udpv4-wan examples/udpv4_wan.properties", 0, {""}, {""}},
        {"udpv6", "check --class udpv6 examples/udpv6.properties", 0, {""}, {""}},
        {"shmem", "check --class shmem examples/shmem.properties", 0, {""}, {""}},
        {"shmem with a minimum version",
         "check --class shmem --min-version 6.1.0.0 examples/shmem.properties",
         0,
         {""},
         {""}},
        {"XML profile",
         "check --class udpv4 --prefix dds.transport.UDPv4.builtin examples/udpv4_profile.xml",
         0,
         {""},
         {""}},
    });
}

TEST(ToolCommand, CheckRefusesBrokenListsWithTheModulesMessages) {
    runToolCases({
        {"unknown name under EXCEPTION",
         "check --class udpv4 tests/data/udpv4_misspelt.properties",
         1,
         {""},
         {"tests/data/udpv4_misspelt.properties:3: error: unknown property: parent.mesage_size_max "
          "[KEL_LOG_UNKNOWN_PROPERTY_s in DDS_PropertyQosPolicy_validate_plugin_property_suffixes]",
          "error: inconsistent property:  [KEL_LOG_INCONSISTENT_PROPERTY_s in "
          "VESK_Transport_setupUDPProperty]"}},
        {"unknown name under WARNING",
         "check --class udpv4 tests/data/udpv4_warning.properties",
         0,
         {""},
         {"tests/data/udpv4_warning.properties:3: warning: unknown property: "
          "parent.mesage_size_max"}},
        {"a misspelt name under a prefix is not validated",
         "check --class udpv4 --prefix '' tests/data/udpv4_misspelt.properties",
         0,
         {""},
         {""}},
        {"bad keyword",
         "check --class udpv4 tests/data/udpv4_bad_keyword.properties",
         1,
         {""},
         {"tests/data/udpv4_bad_keyword.properties:3: error: failed to parse send_blocking: "
          "\"transport_blocking_always\" [KEL_LOG_PARSER_FAILURE_ss in "
          "VESK_Transport_setupUDPProperty]"}},
        {"the transport refuses the record",
         "check --class udpv4 tests/data/udpv4_refused_by_transport.properties",
         1,
         {""},
         {"tests/data/udpv4_refused_by_transport.properties:2: error: failed to create UDPv4 "
          "transport: "
          "multicast_ttl is outside 0..255 [KEL_LOG_CREATION_FAILURE_s in "
          "VESK_Transport_UDPv4_newI]"}},
        {"precondition",
         "check --class udpv4 tests/data/udpv4_long_thread_name.properties",
         1,
         {""},
         {"tests/data/udpv4_long_thread_name.properties:2: precondition: ",
          "[KEL_LOG_PRECONDITION_FAILURE_s in VESK_Transport_setupParentTransportProperty]",
          "error: failed to parse parent properties [KEL_LOG_PARSER_FAILURE_s"}},
        {"port out of range",
         "check --class udpv4-wan tests/data/wan_port_out_of_range.properties",
         1,
         {""},
         {"tests/data/wan_port_out_of_range.properties:3: error: failed to parse comm_ports: 70000 "
          "is out "
          "of valid port range (0-65535) [KEL_LOG_FAILED_TO_PARSE_TEMPLATE in "
          "VESK_Transport_setupUDPProperty]"}},
        {"bad JSON in comm_ports",
         "check --class udpv4-wan tests/data/wan_bad_json.properties",
         1,
         {""},
         {"tests/data/wan_bad_json.properties:2: error: failure: parse JSON string: ",
          "(property comm_ports) [KEL_LOG_ANY_FAILURE_ss in "
          "VESK_Transport_CommPortsHelper_parseJson]",
          "tests/data/wan_bad_json.properties:2: error: failed to parse comm_ports: "}},
        {"WAN properties in a UDPv4 list",
         "check --class udpv4 examples/udpv4_wan.properties",
         1,
         {""},
         {"examples/udpv4_wan.properties:4: error: unknown property: public_address"}},
        {"shmem: not a number",
         "check --class shmem tests/data/shmem_bad_number.properties",
         1,
         {""},
         {"tests/data/shmem_bad_number.properties:1: error: failed to parse "
          "received_message_count_max: "
          "\"many\""}},
    });
}

TEST(ToolCommand, FileAndUsageErrorsExitWith2) {
    runToolCases({
        {"missing file",
         "check --class udpv4 tests/data/missing.properties",
         2,
         {""},
         {"tests/data/missing.properties: error: cannot open: No such file or directory"}},
        {"a directory",
         "show --class udpv4 tests/data",
         2,
         {""},
         {"tests/data: error: is a directory"}},
        {"line without =",
         "show --class udpv4 tests/data/no_equals.properties",
         2,
         {""},
         {"tests/data/no_equals.properties:3: error: expected name=value, found no '='"}},
        {"bad XML",
         "check --class udpv4 tests/data/bad.xml",
         2,
         {""},
         {"tests/data/bad.xml:5: error: bad XML"}},
        {"XML element without name",
         "check --class udpv4 tests/data/missing_name.xml",
         2,
         {""},
         {"tests/data/missing_name.xml:5: error: <element> without <name>"}},
        {"a bad later file",
         "check --class udpv4 examples/udpv4.properties tests/data/bad.xml",
         2,
         {""},
         {"tests/data/bad.xml:5"}},
        {"no command", "", 2, {""}, {"A subcommand is required"}},
        {"unknown class", "check --class udpv5 examples/udpv4.properties", 2, {""}, {"--class"}},
        {"no file", "show --class udpv4", 2, {""}, {"files"}},
        {"prefix for shmem",
         "check --class shmem --prefix p examples/shmem.properties",
         2,
         {""},
         {"--prefix: the shared-memory list has no prefix"}},
        {"minimum version for UDP",
         "check --class udpv4 --min-version 6.1.0.0 examples/udpv4.properties",
         2,
         {""},
         {"--min-version applies to --class shmem only"}},
        {"bad minimum version",
         "check --class shmem --min-version 6.1 examples/shmem.properties",
         2,
         {""},
         {"--min-version: expected A.B.C.D"}},
        {"properties without a class", "properties", 2, {""}, {"give --class or --markdown"}},
    });
}

TEST(ToolCommand, HelpOnEveryCommand) {
    runToolCases({
        {"tool", "--help", 0, {"Usage:", "show", "check", "properties", "demo"}, {""}},
        {"show",
         "show --help",
         0,
         {"Usage:", "--class", "--prefix", "--min-version", "--json"},
         {""}},
        {"check", "check --help", 0, {"Usage:", "--class", "--prefix", "--min-version"}, {""}},
        {"properties", "properties --help", 0, {"Usage:", "--class", "--markdown"}, {""}},
        {"demo", "demo --help", 0, {"Usage:"}, {""}},
    });
}

TEST(ToolCommand, ShowPrintsTheEffectiveRecordAndItsSources) {
    runToolCases({
        {"WAN example",
         "show --class udpv4-wan examples/udpv4_wan.properties",
         0,
         {"accepted: the setup applied 6 properties and the UDPv4 WAN transport accepts the "
          "record.",
          "comm_ports_list                                "
          "[{\"rtps\":0,\"host\":7400,\"public\":17400},"
          "{\"rtps\":7410,\"host\":7410,\"public\":17410},{\"rtps\":7411,\"host\":7500,\"public\":"
          "7500}]  "
          "(default null)  <- comm_ports at examples/udpv4_wan.properties:7",
          "port_offset                                    150  (default 125)  <- port_offset at "
          "examples/udpv4_wan.properties:8",
          "parent.thread_name_prefix                      \"rTr#####\"  (default null; filled in "
          "by the setup)",
          "guid_prefix_to_drop                            \"0,0,0\""},
         {""}},
        {"later file wins",
         "show --class udpv4 tests/data/merge_first.properties tests/data/merge_second.xml",
         0,
         {"8000  (default 65507)  <- parent.message_size_max at tests/data/merge_second.xml:5",
          "2  (default 1)  <- multicast_ttl at tests/data/merge_first.properties:2"},
         {""}},
        {"the other order",
         "show --class udpv4 tests/data/merge_second.xml tests/data/merge_first.properties",
         0,
         {"9000  (default 65507)  <- parent.message_size_max at "
          "tests/data/merge_first.properties:1"},
         {""}},
        {"refused list: messages, no record",
         "show --class udpv4 tests/data/udpv4_misspelt.properties",
         1,
         {"REFUSED: the setup stopped at the first bad property",
          "tests/data/udpv4_misspelt.properties:3: error: unknown property: "
          "parent.mesage_size_max"},
         {""}},
        {"prefix: what was not read",
         "show --class udpv4 --prefix '' tests/data/udpv4_misspelt.properties",
         0,
         {"not read by this class under this prefix:",
          "parent.mesage_size_max = \"8000\"  (tests/data/udpv4_misspelt.properties:3)"},
         {""}},
        {"validation properties",
         "show --class udpv4 tests/data/udpv4_warning.properties",
         0,
         {"validation:",
          "dds.property_validation_action = \"WARNING\"  (tests/data/udpv4_warning.properties:2)",
          "warning: unknown property"},
         {""}},
        {"shmem",
         "show --class shmem --min-version 6.1.0.0 examples/shmem.properties",
         0,
         {"minimum compatibility version 6.1.0.0", "udp_debugging_address",
          "\"127.0.0.1\"  (default \"239.255.1.2\")", "<- host_id at examples/shmem.properties:13"},
         {""}},
    });
}

TEST(ToolCommand, ShowJsonUsesTheRecordsFieldNames) {
    const RunResult wan = runTool("show --json --class udpv4-wan examples/udpv4_wan.properties");
    ASSERT_EQ(wan.exitCode, 0) << wan.err;
    const Json out = Json::parse(wan.out);
    EXPECT_EQ(out["files"], Json::parse(R"(["examples/udpv4_wan.properties"])"));
    EXPECT_EQ(out["class"], "udpv4-wan");
    EXPECT_EQ(out["prefix"], nullptr);
    EXPECT_EQ(out["accepted"], true);
    EXPECT_EQ(out["properties_applied"], 6);
    EXPECT_EQ(out["messages"], Json::array());
    const Json &record = out["record"];
    EXPECT_EQ(record["parent"]["message_size_max"],
              Json::parse(
                  R"({"value": 1200, "default": 1400, "set_by": {"name": "parent.message_size_max",
                 "value": "1200", "file": "examples/udpv4_wan.properties", "line": 11}})"));
    EXPECT_EQ(record["comm_ports_list_length"]["value"], 3);
    EXPECT_EQ(record["comm_ports_list"]["value"][2],
              Json::parse(R"({"rtps": 7411, "host": 7500, "public": 7500})"));
    EXPECT_EQ(record["public_address"]["value"], "203.0.113.5");
    EXPECT_EQ(record["wan_listener"]["value"], nullptr);
    EXPECT_EQ(record["parent"]["classid"]["set_by"], nullptr);

    const RunResult refused =
        runTool("show --json --class udpv4 tests/data/udpv4_misspelt.properties");
    ASSERT_EQ(refused.exitCode, 1);
    const Json failure = Json::parse(refused.out);
    EXPECT_EQ(failure["accepted"], false);
    EXPECT_EQ(failure["record"], nullptr);
    ASSERT_EQ(failure["messages"].size(), 2u);
    EXPECT_EQ(failure["messages"][0]["template"], "KEL_LOG_UNKNOWN_PROPERTY_s");
    EXPECT_EQ(failure["messages"][0]["level"], "error");
    EXPECT_EQ(failure["messages"][0]["params"], Json::parse(R"(["parent.mesage_size_max"])"));
    EXPECT_EQ(failure["messages"][0]["property"]["line"], 3);
    EXPECT_EQ(failure["messages"][1]["property"], nullptr);

    const RunResult shmem =
        runTool("show --json --class shmem --min-version 4.5.54.0 examples/shmem.properties");
    ASSERT_EQ(shmem.exitCode, 0);
    EXPECT_EQ(Json::parse(shmem.out)["min_version"], "4.5.54.0");
}

TEST(ToolCommand, PropertiesListsWhatEachClassReads) {
    runToolCases({
        {"WAN",
         "properties --class udpv4-wan",
         0,
         {"UDPv4 WAN transport:", "\ncomm_ports\n    sets     comm_ports_list\n",
          "parent.allow_interfaces  (else parent.allow_interfaces_list)",
          "wan_listener_ptr  [private]", "one of (exact case): \"TRANSPORT_BLOCKING_ALWAYS\" (1)",
          "\"VESK_TRANSPORT_UDPV4_BLOCKING_NEVER\" (0)"},
         {""}},
        {"UDPv4 lists the WAN properties apart",
         "properties --class udpv4",
         0,
         {"Under a prefix the setup also reads these, which the class's own list refuses: "
          "public_address "
          "comm_ports"},
         {""}},
        {"UDPv6 keywords",
         "properties --class udpv6",
         0,
         {"\"VESK_TRANSPORT_UDPV6_BLOCKING_NEVER\" (0)"},
         {""}},
        {"shmem",
         "properties --class shmem",
         0,
         {"udp_debugging_port\n", "read only while \"enable_udp_debugging\" is on",
          "default  7399"},
         {""}},
    });
    // One class's keywords are not offered to the other IP version.
    EXPECT_EQ(runTool("properties --class udpv6").out.find("VESK_TRANSPORT_UDPV4_BLOCKING_NEVER"),
              std::string::npos);
}

TEST(ToolCommand, CommittedPropertyReferenceIsUpToDate) {
    const RunResult result = runTool("properties --markdown");
    ASSERT_EQ(result.exitCode, 0);
    EXPECT_TRUE(result.out == readText(sourcePath("docs/properties.md")))
        << "docs/properties.md is out of date: regenerate it with\n"
           "  vesk-transport properties --markdown > docs/properties.md";
}

TEST(ToolCommand, DemoRunsTheWholeModule) {
    runToolCases({
        {"demo",
         "demo",
         0,
         {"VESK_Transport_Support_get_udpv4_statistics: OK",
          "receive interfaces reported: 192.0.2.1", "register another transport: refused",
          "add_send_route: PRECONDITION_NOT_MET", "Every step did what the module promises."},
         {""}},
    });
}

}  // namespace

#endif
