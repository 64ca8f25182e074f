// Runs a class's real setup (and constructor) on a property list and
// reports the effective record, the module's messages and where each value
// came from.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "tools/PropertyFiles.hpp"
#include "tools/RecordFields.hpp"
#include "vesk_transport/platform/Log.h"

namespace vesk::tool {

// One message of the module, as the logger delivered it.
struct LogMessage {
    KEL_UINT32 level = 0;
    std::string templateName;
    std::string function;
    std::vector<std::string> params;
    std::string text;  // the message alone, without level and function
    // The property the message is about, when it can be told.
    std::optional<FileProperty> property;
    std::string fix;        // how to fix the problem, when the tool can tell
    bool fromTool = false;  // found by the tool, not logged by the module
};

// "error", "warning", "precondition".
const char *levelName(KEL_UINT32 level);
// "file:line: error: text", with " [TEMPLATE in function]" when verbose,
// and the fix on a line of its own.
std::string formatMessage(const LogMessage &message, bool verbose = false);

// While it lives, the module's messages of level warning and above are
// collected instead of written (masks and sink restored afterwards).
class LogCollector {
public:
    LogCollector();
    ~LogCollector();
    LogCollector(const LogCollector &) = delete;
    LogCollector &operator=(const LogCollector &) = delete;

    // The messages collected since the last take.
    std::vector<LogMessage> take();

private:
    static void sink(void *data, const KELLogRecord *record);
    std::vector<LogMessage> messages_;
    KELLogSink previousSink_ = nullptr;
    void *previousData_ = nullptr;
    KEL_UINT32 previousInstrumentation_;
    KEL_UINT32 previousSubmodules_;
};

struct FieldReport {
    std::string path;
    Json value;
    Json classDefault;
    std::optional<FileProperty> setBy;  // the property whose value the setup applied
};

struct InspectOptions {
    std::optional<std::string> prefix;                   // UDP classes
    std::optional<DDS_ProductVersion_t> minimumVersion;  // shared memory
};

struct Inspection {
    const TransportClass *transportClass = nullptr;
    InspectOptions options;
    int applied = -1;             // the setup's result
    bool transportBuilt = false;  // the constructor accepted the record
    // The module accepts the list and the tool found no error in it.
    bool accepted() const;
    std::vector<LogMessage> messages;
    std::vector<FieldReport> fields;       // empty when the setup refused the list
    std::vector<FileProperty> notRead;     // properties of the list that were not read
    std::vector<FileProperty> validation;  // "prefix" and the validation action, when read
};

// Runs the class's setup and constructor, then adds the tool's advice.
Inspection inspect(const TransportClass &transportClass, const PropertyList &list,
                   const InspectOptions &options);

// "A.B.C.D", each part 0..255.
std::optional<DDS_ProductVersion_t> parseProductVersion(std::string_view text);
std::string formatProductVersion(const DDS_ProductVersion_t &version);

Json toJson(const Inspection &inspection);
Json toJson(const LogMessage &message);
void printReport(std::ostream &out, const Inspection &inspection, bool verbose = false);
void printMessages(std::ostream &out, const std::vector<LogMessage> &messages,
                   bool verbose = false);

}  // namespace vesk::tool
