// Test support: capture of log messages as records, heap accounting.
//
// Every test executable also gets a listener that fails a test which ends
// with more (or fewer) live heap blocks than it started with.
#pragma once

#include <string>
#include <vector>

#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Log.h"

namespace vesk::test {

struct LogEntry {
    KEL_UINT32 level = 0;
    KEL_UINT32 module_id = 0;
    std::string function;
    std::string template_name;
    std::string format;  // empty unless a _TEMPLATE message
    std::vector<std::string> params;
    std::string text;
};

// Installs a capturing sink and sets the masks (instrumentation mask as
// given, every submodule on); restores sink and masks when destroyed.
class LogCapture {
public:
    explicit LogCapture(KEL_UINT32 instrumentation_mask = VESK_CONFIG_LOG_VERBOSITY_WARNING,
                        KEL_UINT32 submodule_mask = 0xFFFFFFFFu);
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<LogEntry> entries() const;
    // "TEMPLATE_NAME(param1|param2)" per entry, for compact comparisons.
    std::vector<std::string> summary() const;
    void clear();

private:
    struct State;
    State *state_;
    KELLogSink previousSink_ = nullptr;
    void *previousData_ = nullptr;
    KEL_UINT32 previousInstrumentation_, previousSubmodule_;
};

// "NAME(a|b)" for a template name and its parameters.
std::string summarize(const std::string &template_name, const std::vector<std::string> &params);

KEL_UINT64 liveHeapBlocks();

}  // namespace vesk::test
