// The library logger: masks, templates, rendering and the sink.
//
// A message is rendered entirely outside the lock (parameters to text, then
// the template text over them, then the whole line); only the hand-over to
// the sink or to stderr is serialised, so concurrent writers never
// interleave and a slow renderer never blocks the others.
#include "vesk_transport/platform/Log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace {

// Recursive so that a sink that itself logs (or swaps the sink) from the
// writing thread does not deadlock.
std::recursive_mutex &sinkMutex() {
    static std::recursive_mutex mutex;
    return mutex;
}

KELLogSink g_sink = nullptr;
void *g_sinkData = nullptr;

std::atomic<KEL_UINT64> g_assertBreakpointCount{0};

const char *levelName(KEL_UINT32 level) {
    struct LevelRow {
        KEL_UINT32 bit;
        const char *name;
    };
    static constexpr LevelRow kLevels[] = {
        {KEL_LOG_BIT_EXCEPTION, "EXCEPTION"}, {KEL_LOG_BIT_ERROR, "ERROR"},
        {KEL_LOG_BIT_WARN, "WARN"},           {KEL_LOG_BIT_LOCAL, "LOCAL"},
        {KEL_LOG_BIT_REMOTE, "REMOTE"},       {KEL_LOG_BIT_PERIODIC, "PERIODIC"},
    };
    for (const auto &row : kLevels) {
        if ((level & row.bit) != 0) return row.name;
    }
    return "LOG";
}

// printf-style formatting into a std::string.
std::string formatV(const char *format, va_list args) {
    if (format == nullptr) return "(null)";
    va_list copy;
    va_copy(copy, args);
    char small[256];
    int needed = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (needed < 0) return format;
    if (static_cast<size_t>(needed) < sizeof small) return std::string(small, needed);
    std::string out(static_cast<size_t>(needed) + 1, '\0');
    std::vsnprintf(out.data(), out.size(), format, args);
    out.resize(static_cast<size_t>(needed));
    return out;
}

// Applies a template text to already rendered parameters: every conversion
// ("%s", "%d", "%-10s", ...) takes the next parameter as text, "%%" is a
// percent sign, and a conversion without a parameter left prints nothing.
std::string applyText(const char *text, const std::vector<std::string> &params) {
    std::string out;
    if (text == nullptr) return out;
    size_t next = 0;
    for (const char *p = text; *p != '\0'; ++p) {
        if (*p != '%') {
            out += *p;
            continue;
        }
        if (p[1] == '%') {
            out += '%';
            ++p;
            continue;
        }
        // Skip flags, width, precision and length up to the conversion letter.
        const char *q = p + 1;
        while (*q != '\0' &&
               std::string_view("-+ #0123456789.hlLqjzt").find(*q) != std::string_view::npos) {
            ++q;
        }
        if (*q == '\0') {
            out.append(p);
            break;
        }
        if (next < params.size()) out += params[next++];
        p = q;
    }
    return out;
}

void deliver(KEL_UINT32 level, KEL_UINT32 module_id, const char *file, int line,
             const char *function, const KELLogMessageTemplate *message_template,
             const char *format, const std::vector<std::string> &params) {
    std::string message =
        applyText(message_template != nullptr ? message_template->text : nullptr, params);
    std::string text = std::string(levelName(level)) + " " +
                       (function != nullptr ? function : "(unknown)") + ": " + message;

    std::vector<const char *> paramPointers;
    paramPointers.reserve(params.size());
    for (const auto &param : params) paramPointers.push_back(param.c_str());

    KELLogRecord record{};
    record.level = level;
    record.module_id = module_id;
    record.file = file;
    record.line = line;
    record.function = function;
    record.template_name = message_template != nullptr ? message_template->name : nullptr;
    record.format = format;
    record.param_count = static_cast<int>(paramPointers.size());
    record.params = paramPointers.empty() ? nullptr : paramPointers.data();
    record.text = text.c_str();

    std::string lineText = text + "\n";
    std::lock_guard<std::recursive_mutex> lock(sinkMutex());
    if (g_sink != nullptr) {
        g_sink(g_sinkData, &record);
    } else {
        std::fputs(lineText.c_str(), stderr);
        std::fflush(stderr);
    }
}

}  // namespace

extern "C" {

KEL_UINT32 DDSLog_g_instrumentationMask = VESK_CONFIG_LOG_VERBOSITY_ERROR;
KEL_UINT32 DDSLog_g_submoduleMask = 0xFFFFFFFFu;
int KELLog_g_detectPrecondition = 1;
int KELLog_g_preconditionDetected = 0;
KEL_UINT32 KELLog_g_categoryMask[KEL_LOG_CATEGORY_MASK_COUNT] = {0, 0, 0, 0, 0, 0, 0, 0};

// Kept out of line and observable so that a debugger breakpoint on it, and
// tests, see every failed precondition.
void KELLog_onAssertBreakpoint(void) {
    g_assertBreakpointCount.fetch_add(1, std::memory_order_relaxed);
}

KEL_UINT64 KELLog_getAssertBreakpointCount(void) {
    return g_assertBreakpointCount.load(std::memory_order_relaxed);
}

void KELLog_setVerbosity(KEL_UINT32 verbosity) {
    DDSLog_g_instrumentationMask = verbosity;
    DDSLog_g_submoduleMask = 0xFFFFFFFFu;
}

int KELLog_isEnabled(KEL_UINT32 level, KEL_UINT32 submodule) {
    return (DDSLog_g_instrumentationMask & level) != 0 && (DDSLog_g_submoduleMask & submodule) != 0;
}

#define KEL_LOG_DEFINE_TEMPLATE(name_, params_, text_) \
    const struct KELLogMessageTemplate name_ = {#name_, params_, text_}

KEL_LOG_DEFINE_TEMPLATE(KEL_LOG_PRECONDITION_FAILURE_s, "s", "precondition failed: %s");
KEL_LOG_DEFINE_TEMPLATE(KEL_LOG_PARSER_FAILURE_s, "s", "failed to parse %s");
KEL_LOG_DEFINE_TEMPLATE(KEL_LOG_PARSER_FAILURE_ss, "ss", "failed to parse %s: \"%s\"");
KEL_LOG_DEFINE_TEMPLATE(KEL_LOG_PARSER_VALUE_OUT_OF_RANGE_ss, "ss",
                        "value of %s out of range: \"%s\"");
KEL_LOG_DEFINE_TEMPLATE(KEL_LOG_ANY_FAILURE_s, "s", "failure: %s");
KEL_LOG_DEFINE_TEMPLATE(KEL_LOG_ANY_FAILURE_ss, "ss", "failure: %s %s");
KEL_LOG_DEFINE_TEMPLATE(KEL_LOG_TRUNCATED_STRING_sds, "sds",
                        "string %s truncated to %s characters: \"%s\"");
KEL_LOG_DEFINE_TEMPLATE(KEL_LOG_INSUFFICIENT_SPACE_FAILURE_dd, "dd",
                        "insufficient space: needed %s, available %s");
KEL_LOG_DEFINE_TEMPLATE(KEL_LOG_INCONSISTENT_PROPERTY_s, "s", "inconsistent property: %s");
KEL_LOG_DEFINE_TEMPLATE(KEL_LOG_CREATION_FAILURE_s, "s", "failed to create %s");
KEL_LOG_DEFINE_TEMPLATE(KEL_LOG_GET_FAILURE_s, "s", "failed to get %s");
KEL_LOG_DEFINE_TEMPLATE(KEL_LOG_UNKNOWN_PROPERTY_s, "s", "unknown property: %s");
KEL_LOG_DEFINE_TEMPLATE(KEL_LOG_FAILED_TO_PARSE_TEMPLATE, nullptr, "failed to parse %s");
KEL_LOG_DEFINE_TEMPLATE(KEL_LOG_FAILED_TO_CONVERT_TEMPLATE, nullptr, "failed to convert %s");
KEL_LOG_DEFINE_TEMPLATE(KEL_LOG_BAD_PARAMETER_FAILURE_TEMPLATE, nullptr, "bad parameter: %s");
KEL_LOG_DEFINE_TEMPLATE(KEL_LOG_FAILED_TO_FIND_TEMPLATE, nullptr, "failed to find %s");
KEL_LOG_DEFINE_TEMPLATE(KEL_LOG_FAILED_TO_MODIFY_TEMPLATE, nullptr, "failed to modify %s");
KEL_LOG_DEFINE_TEMPLATE(DDS_LOG_BAD_PARAMETER_s, "s", "bad parameter: %s");
KEL_LOG_DEFINE_TEMPLATE(DDS_LOG_PARTICIPANT_ENABLED_ERROR, "",
                        "operation not allowed: the participant is already enabled");
KEL_LOG_DEFINE_TEMPLATE(DDS_LOG_INSTALL_TRANSPORT_PLUGINS_s, "s",
                        "failed to install transport plugins: %s");
KEL_LOG_DEFINE_TEMPLATE(DDS_LOG_TRANSPORT_SEND_ROUTE, "", "failed to add the transport send route");
KEL_LOG_DEFINE_TEMPLATE(DDS_LOG_GET_FAILURE_s, "s", "failed to get %s");
KEL_LOG_DEFINE_TEMPLATE(DDS_LOG_SET_FAILURE_s, "s", "failed to set %s");
KEL_LOG_DEFINE_TEMPLATE(DDS_LOG_OUT_OF_RESOURCES_s, "s", "out of resources: %s");
KEL_LOG_DEFINE_TEMPLATE(DDS_LOG_SEQUENCE_NOT_OWNER, "", "the sequence does not own its contents");
KEL_LOG_DEFINE_TEMPLATE(KEL_LOG_TRANSPORT_STATUS_TEMPLATE, nullptr, "transport: %s");

void KELLogMessage_printWithParams(int instrumentation, KEL_UINT32 level, KEL_UINT32 module_id,
                                   const char *file, int line, const char *function,
                                   const struct KELLogMessageTemplate *message_template, ...) {
    (void)instrumentation;  // only the default logger exists
    va_list args;
    va_start(args, message_template);
    std::vector<std::string> params;
    bool rendered = true;
    try {
        const char *letters = message_template != nullptr ? message_template->params : nullptr;
        // The letters say how to read the varargs; an unknown letter stops
        // the reading, since the type of what follows is unknown.
        for (const char *letter = letters; letter != nullptr && *letter != '\0'; ++letter) {
            if (*letter == 's') {
                const char *value = va_arg(args, const char *);
                params.emplace_back(value != nullptr ? value : "(null)");
            } else if (*letter == 'd') {
                params.push_back(std::to_string(va_arg(args, int)));
            } else {
                break;
            }
        }
    } catch (...) {
        rendered = false;
    }
    va_end(args);
    if (!rendered) return;  // a message lost to memory exhaustion is dropped
    try {
        deliver(level, module_id, file, line, function, message_template, nullptr, params);
    } catch (...) {
        // Logging never fails its caller.
    }
}

void KELLogMessageParamString_printWithParams(int instrumentation, KEL_UINT32 level,
                                              KEL_UINT32 module_id, const char *file, int line,
                                              const char *function,
                                              const struct KELLogMessageTemplate *message_template,
                                              const char *format, ...) {
    (void)instrumentation;
    va_list args;
    va_start(args, format);
    std::vector<std::string> params;
    bool rendered = true;
    try {
        params.push_back(formatV(format, args));
    } catch (...) {
        rendered = false;
    }
    va_end(args);
    if (!rendered) return;
    try {
        deliver(level, module_id, file, line, function, message_template, format, params);
    } catch (...) {
    }
}

void KELLog_setSink(KELLogSink sink, void *sink_data, KELLogSink *previous_sink_out,
                    void **previous_sink_data_out) {
    std::lock_guard<std::recursive_mutex> lock(sinkMutex());
    if (previous_sink_out != nullptr) *previous_sink_out = g_sink;
    if (previous_sink_data_out != nullptr) *previous_sink_data_out = g_sinkData;
    g_sink = sink;
    g_sinkData = sink != nullptr ? sink_data : nullptr;
}

}  // extern "C"
