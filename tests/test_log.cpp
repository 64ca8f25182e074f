// The logger: masks, templates, rendering, sinks, concurrency.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/TestSupport.hpp"
#include "vesk_transport/platform/Log.h"

namespace {

using vesk::test::LogCapture;

// Every template of Log.h, with the name it is declared under.
struct TemplateRow {
    const char *symbol;
    const KELLogMessageTemplate *message_template;
};
#define ROW(name_) \
    { #name_, &name_ }
const TemplateRow kTemplates[] = {
    ROW(KEL_LOG_PRECONDITION_FAILURE_s),
    ROW(KEL_LOG_PARSER_FAILURE_s),
    ROW(KEL_LOG_PARSER_FAILURE_ss),
    ROW(KEL_LOG_PARSER_VALUE_OUT_OF_RANGE_ss),
    ROW(KEL_LOG_ANY_FAILURE_s),
    ROW(KEL_LOG_ANY_FAILURE_ss),
    ROW(KEL_LOG_TRUNCATED_STRING_sds),
    ROW(KEL_LOG_INSUFFICIENT_SPACE_FAILURE_dd),
    ROW(KEL_LOG_INCONSISTENT_PROPERTY_s),
    ROW(KEL_LOG_CREATION_FAILURE_s),
    ROW(KEL_LOG_GET_FAILURE_s),
    ROW(KEL_LOG_UNKNOWN_PROPERTY_s),
    ROW(KEL_LOG_FAILED_TO_PARSE_TEMPLATE),
    ROW(KEL_LOG_FAILED_TO_CONVERT_TEMPLATE),
    ROW(KEL_LOG_BAD_PARAMETER_FAILURE_TEMPLATE),
    ROW(KEL_LOG_FAILED_TO_FIND_TEMPLATE),
    ROW(KEL_LOG_FAILED_TO_MODIFY_TEMPLATE),
    ROW(DDS_LOG_BAD_PARAMETER_s),
    ROW(DDS_LOG_PARTICIPANT_ENABLED_ERROR),
    ROW(DDS_LOG_INSTALL_TRANSPORT_PLUGINS_s),
    ROW(DDS_LOG_TRANSPORT_SEND_ROUTE),
    ROW(DDS_LOG_GET_FAILURE_s),
    ROW(DDS_LOG_SET_FAILURE_s),
    ROW(DDS_LOG_OUT_OF_RESOURCES_s),
    ROW(DDS_LOG_SEQUENCE_NOT_OWNER),
    ROW(KEL_LOG_TRANSPORT_STATUS_TEMPLATE),
};
#undef ROW

// Counts the printf conversions of a template text ("%%" is none).
int conversionCount(const char *text) {
    int count = 0;
    for (const char *p = text; *p != '\0'; ++p) {
        if (*p != '%') continue;
        if (p[1] == '%') {
            ++p;
        } else {
            ++count;
        }
    }
    return count;
}

TEST(Log, GlobalsStartAtTheirDefaults) {
    // Runs first in this executable, before anything changed the masks.
    EXPECT_EQ(DDSLog_g_instrumentationMask,
              static_cast<KEL_UINT32>(VESK_CONFIG_LOG_VERBOSITY_ERROR));
    EXPECT_EQ(DDSLog_g_submoduleMask, 0xFFFFFFFFu);
    EXPECT_EQ(KELLog_g_detectPrecondition, 1);
    EXPECT_EQ(KELLog_g_preconditionDetected, 0);
    for (int i = 0; i < KEL_LOG_CATEGORY_MASK_COUNT; ++i) EXPECT_EQ(KELLog_g_categoryMask[i], 0u);
}

TEST(Log, EveryTemplateIsNamedAndTakesTheParametersItsSuffixSays) {
    for (const auto &row : kTemplates) {
        SCOPED_TRACE(row.symbol);
        const KELLogMessageTemplate &t = *row.message_template;
        ASSERT_NE(t.name, nullptr);
        EXPECT_STREQ(t.name, row.symbol);
        ASSERT_NE(t.text, nullptr);
        EXPECT_GT(std::strlen(t.text), 5u);

        std::string name = t.name;
        std::string suffix = name.substr(name.rfind('_') + 1);
        if (suffix == "TEMPLATE") {
            EXPECT_EQ(t.params, nullptr);
            EXPECT_EQ(conversionCount(t.text), 1) << "the rendered format is its one parameter";
        } else {
            ASSERT_NE(t.params, nullptr);
            bool lowerLetters = suffix.find_first_not_of("sd") == std::string::npos;
            std::string expected = lowerLetters ? suffix : "";
            EXPECT_EQ(std::string(t.params), expected);
            EXPECT_EQ(conversionCount(t.text), static_cast<int>(expected.size()));
        }
    }
}

TEST(Log, IsEnabledNeedsBothTheLevelBitAndTheSubmoduleBit) {
    struct Row {
        KEL_UINT32 instrumentation;
        KEL_UINT32 submodules;
        KEL_UINT32 level;
        int expected;
    };
    const Row rows[] = {
        {VESK_CONFIG_LOG_VERBOSITY_ERROR, 0xFFFFFFFFu, KEL_LOG_BIT_EXCEPTION, 1},
        {VESK_CONFIG_LOG_VERBOSITY_ERROR, 0xFFFFFFFFu, KEL_LOG_BIT_ERROR, 1},
        {VESK_CONFIG_LOG_VERBOSITY_ERROR, 0xFFFFFFFFu, KEL_LOG_BIT_WARN, 0},
        {VESK_CONFIG_LOG_VERBOSITY_WARNING, 0xFFFFFFFFu, KEL_LOG_BIT_WARN, 1},
        {VESK_CONFIG_LOG_VERBOSITY_WARNING, 0xFFFFFFFFu, KEL_LOG_BIT_LOCAL, 0},
        {VESK_CONFIG_LOG_VERBOSITY_STATUS_ALL, 0xFFFFFFFFu, KEL_LOG_BIT_PERIODIC, 1},
        {VESK_CONFIG_LOG_VERBOSITY_SILENT, 0xFFFFFFFFu, KEL_LOG_BIT_EXCEPTION, 0},
        {VESK_CONFIG_LOG_VERBOSITY_STATUS_ALL, 0, KEL_LOG_BIT_ERROR, 0},
        {VESK_CONFIG_LOG_VERBOSITY_STATUS_ALL,
         ~static_cast<KEL_UINT32>(DDS_SUBMODULE_MASK_TRANSPORT), KEL_LOG_BIT_ERROR, 0},
        {VESK_CONFIG_LOG_VERBOSITY_ERROR, DDS_SUBMODULE_MASK_TRANSPORT, KEL_LOG_BIT_ERROR, 1},
        {KEL_LOG_BIT_WARN, DDS_SUBMODULE_MASK_TRANSPORT, KEL_LOG_BIT_ERROR, 0},
    };
    LogCapture capture;  // restores the masks afterwards
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << "mask " << row.instrumentation << " submodules "
                                        << row.submodules << " level " << row.level);
        DDSLog_g_instrumentationMask = row.instrumentation;
        DDSLog_g_submoduleMask = row.submodules;
        EXPECT_EQ(KELLog_isEnabled(row.level, DDS_SUBMODULE_MASK_TRANSPORT) != 0,
                  row.expected != 0);
    }
}

TEST(Log, SetVerbositySetsTheLevelsAndEnablesEverySubmodule) {
    LogCapture capture(VESK_CONFIG_LOG_VERBOSITY_SILENT, 0);
    KELLog_setVerbosity(VESK_CONFIG_LOG_VERBOSITY_WARNING);
    EXPECT_EQ(DDSLog_g_instrumentationMask,
              static_cast<KEL_UINT32>(VESK_CONFIG_LOG_VERBOSITY_WARNING));
    EXPECT_EQ(DDSLog_g_submoduleMask, 0xFFFFFFFFu);
    EXPECT_TRUE(KELLog_isEnabled(KEL_LOG_BIT_WARN, DDS_SUBMODULE_MASK_TRANSPORT));
}

TEST(Log, AssertBreakpointCountsEveryCall) {
    KEL_UINT64 before = KELLog_getAssertBreakpointCount();
    KELLog_onAssertBreakpoint();
    KELLog_onAssertBreakpoint();
    EXPECT_EQ(KELLog_getAssertBreakpointCount(), before + 2);
}

TEST(Log, PrintRendersEachParameterAndTheWholeText) {
    struct Row {
        const char *label;
        std::function<void()> print;
        KEL_UINT32 level;
        std::string summary;
        std::string text;
    };
    const std::vector<Row> rows = {
        {"two strings",
         [] {
             KELLogMessage_printWithParams(-1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID,
                                           __FILE__, __LINE__, "VESK_fn",
                                           &KEL_LOG_PARSER_FAILURE_ss, "port_offset", "12x");
         },
         KEL_LOG_BIT_ERROR, "KEL_LOG_PARSER_FAILURE_ss(port_offset|12x)",
         "ERROR VESK_fn: failed to parse port_offset: \"12x\""},
        {"null string",
         [] {
             KELLogMessage_printWithParams(-1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID,
                                           __FILE__, __LINE__, "VESK_fn", &DDS_LOG_BAD_PARAMETER_s,
                                           static_cast<const char *>(nullptr));
         },
         KEL_LOG_BIT_ERROR, "DDS_LOG_BAD_PARAMETER_s((null))",
         "ERROR VESK_fn: bad parameter: (null)"},
        {"ints",
         [] {
             KELLogMessage_printWithParams(
                 -1, KEL_LOG_BIT_WARN, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__, __LINE__, "VESK_fn",
                 &KEL_LOG_INSUFFICIENT_SPACE_FAILURE_dd, -2147483647 - 1, 42);
         },
         KEL_LOG_BIT_WARN, "KEL_LOG_INSUFFICIENT_SPACE_FAILURE_dd(-2147483648|42)",
         "WARN VESK_fn: insufficient space: needed -2147483648, available 42"},
        {"string int string",
         [] {
             KELLogMessage_printWithParams(
                 -1, KEL_LOG_BIT_WARN, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__, __LINE__, "VESK_fn",
                 &KEL_LOG_TRUNCATED_STRING_sds, "long_name", 8, "long_nam");
         },
         KEL_LOG_BIT_WARN, "KEL_LOG_TRUNCATED_STRING_sds(long_name|8|long_nam)",
         "WARN VESK_fn: string long_name truncated to 8 characters: \"long_nam\""},
        {"no parameter",
         [] {
             KELLogMessage_printWithParams(-1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID,
                                           __FILE__, __LINE__, "VESK_fn",
                                           &DDS_LOG_SEQUENCE_NOT_OWNER);
         },
         KEL_LOG_BIT_ERROR, "DDS_LOG_SEQUENCE_NOT_OWNER()",
         "ERROR VESK_fn: the sequence does not own its contents"},
        {"precondition",
         [] {
             KELLogMessage_printWithParams(-1, KEL_LOG_BIT_EXCEPTION, VESK_TRANSPORT_LOG_MODULE_ID,
                                           __FILE__, __LINE__, "VESK_fn",
                                           &KEL_LOG_PRECONDITION_FAILURE_s, "\"x == NULL\"");
         },
         KEL_LOG_BIT_EXCEPTION, "KEL_LOG_PRECONDITION_FAILURE_s(\"x == NULL\")",
         "EXCEPTION VESK_fn: precondition failed: \"x == NULL\""},
        {"param string template",
         [] {
             KELLogMessageParamString_printWithParams(
                 -1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__, __LINE__, "VESK_fn",
                 &KEL_LOG_FAILED_TO_PARSE_TEMPLATE, "%s: %s", "send_socket_buffer_size", "big");
         },
         KEL_LOG_BIT_ERROR, "KEL_LOG_FAILED_TO_PARSE_TEMPLATE(send_socket_buffer_size: big)",
         "ERROR VESK_fn: failed to parse send_socket_buffer_size: big"},
        {"param string template with a number and a percent sign",
         [] {
             KELLogMessageParamString_printWithParams(
                 -1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__, __LINE__, "VESK_fn",
                 &KEL_LOG_FAILED_TO_CONVERT_TEMPLATE, "%d%% of '%s'", 50, "x");
         },
         KEL_LOG_BIT_ERROR, "KEL_LOG_FAILED_TO_CONVERT_TEMPLATE(50% of 'x')",
         "ERROR VESK_fn: failed to convert 50% of 'x'"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.label);
        LogCapture capture;
        row.print();
        auto entries = capture.entries();
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_EQ(capture.summary()[0], row.summary);
        EXPECT_EQ(entries[0].level, row.level);
        EXPECT_EQ(entries[0].module_id, static_cast<KEL_UINT32>(VESK_TRANSPORT_LOG_MODULE_ID));
        EXPECT_EQ(entries[0].function, "VESK_fn");
        EXPECT_EQ(entries[0].text, row.text);
    }
}

// A sink that keeps the fields LogCapture drops.
struct RawRecord {
    std::string file;
    int line = 0;
    bool formatIsNull = true;
    std::string format;
    int paramCount = -1;
    bool paramsIsNull = false;
};

void rawSink(void *data, const KELLogRecord *record) {
    auto *raw = static_cast<RawRecord *>(data);
    raw->file = record->file != nullptr ? record->file : "";
    raw->line = record->line;
    raw->formatIsNull = record->format == nullptr;
    raw->format = record->format != nullptr ? record->format : "";
    raw->paramCount = record->param_count;
    raw->paramsIsNull = record->params == nullptr;
}

TEST(Log, RecordCarriesFileLineAndTheFormatOfTemplateMessagesOnly) {
    RawRecord raw;
    KELLogSink previous = nullptr;
    void *previousData = nullptr;
    KELLog_setSink(&rawSink, &raw, &previous, &previousData);

    KELLogMessage_printWithParams(-1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID, "a.cpp", 17,
                                  "f", &KEL_LOG_ANY_FAILURE_s, "x");
    EXPECT_EQ(raw.file, "a.cpp");
    EXPECT_EQ(raw.line, 17);
    EXPECT_TRUE(raw.formatIsNull);
    EXPECT_EQ(raw.paramCount, 1);

    KELLogMessageParamString_printWithParams(-1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID,
                                             "b.cpp", 99, "f", &KEL_LOG_FAILED_TO_FIND_TEMPLATE,
                                             "'%s' value", "y");
    EXPECT_EQ(raw.line, 99);
    EXPECT_FALSE(raw.formatIsNull);
    EXPECT_EQ(raw.format, "'%s' value");
    EXPECT_EQ(raw.paramCount, 1);

    KELLogMessage_printWithParams(-1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID, "c.cpp", 1,
                                  "f", &DDS_LOG_PARTICIPANT_ENABLED_ERROR);
    EXPECT_EQ(raw.paramCount, 0);

    KELLogSink mine = nullptr;
    KELLog_setSink(previous, previousData, &mine, nullptr);
    EXPECT_EQ(mine, &rawSink);
}

TEST(Log, LongFormattedParameterIsNotTruncated) {
    LogCapture capture;
    std::string longValue(5000, 'v');
    KELLogMessageParamString_printWithParams(
        -1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__, __LINE__, "f",
        &KEL_LOG_BAD_PARAMETER_FAILURE_TEMPLATE, "[%s]", longValue.c_str());
    auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 1u);
    ASSERT_EQ(entries[0].params.size(), 1u);
    EXPECT_EQ(entries[0].params[0], "[" + longValue + "]");
}

TEST(Log, UnknownParameterLetterStopsReadingTheArguments) {
    // A template outside Log.h with a letter the logger does not know: the
    // arguments after it cannot be read safely and are left alone.
    const KELLogMessageTemplate odd = {"ODD_sx", "sx", "first %s then %s"};
    LogCapture capture;
    KELLogMessage_printWithParams(-1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__,
                                  __LINE__, "f", &odd, "a", 3.5);
    auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(capture.summary()[0], "ODD_sx(a)");
    EXPECT_EQ(entries[0].text, "ERROR f: first a then ");
}

TEST(Log, SetSinkReportsThePreviousSinkAndNullRestoresStderr) {
    KELLogSink previous = &rawSink;
    void *previousData = &previous;
    RawRecord raw;
    KELLog_setSink(nullptr, nullptr, &previous, &previousData);
    // Nothing else installed a sink in this executable at this point.
    EXPECT_EQ(previous, nullptr);
    EXPECT_EQ(previousData, nullptr);

    KELLog_setSink(&rawSink, &raw, nullptr, nullptr);
    KELLog_setSink(nullptr, nullptr, &previous, &previousData);
    EXPECT_EQ(previous, &rawSink);
    EXPECT_EQ(previousData, &raw);

    // The default writer: one line on stderr (the logger's own output, so
    // this is the one place where stderr is the thing under test).
    testing::internal::CaptureStderr();
    KELLogMessage_printWithParams(-1, KEL_LOG_BIT_WARN, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__,
                                  __LINE__, "VESK_x", &KEL_LOG_UNKNOWN_PROPERTY_s, "p.q");
    std::string written = testing::internal::GetCapturedStderr();
    EXPECT_EQ(written, "WARN VESK_x: unknown property: p.q\n");
}

struct Reentrant {
    int calls = 0;
    std::vector<std::string> names;
};

void reentrantSink(void *data, const KELLogRecord *record) {
    auto *state = static_cast<Reentrant *>(data);
    state->names.emplace_back(record->template_name);
    if (state->calls++ == 0) {
        KELLogMessage_printWithParams(-1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__,
                                      __LINE__, "sink", &KEL_LOG_GET_FAILURE_s, "nested");
    }
}

TEST(Log, SinkThatLogsDoesNotDeadlock) {
    Reentrant state;
    KELLogSink previous = nullptr;
    void *previousData = nullptr;
    KELLog_setSink(&reentrantSink, &state, &previous, &previousData);
    KELLogMessage_printWithParams(-1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__,
                                  __LINE__, "outer", &KEL_LOG_ANY_FAILURE_s, "outer");
    KELLog_setSink(previous, previousData, nullptr, nullptr);
    EXPECT_EQ(state.names,
              (std::vector<std::string>{"KEL_LOG_ANY_FAILURE_s", "KEL_LOG_GET_FAILURE_s"}));
}

TEST(Log, ConcurrentPrintingLosesAndMixesNothing) {
    constexpr int kThreads = 8;
    constexpr int kMessages = 500;
    LogCapture capture;
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &go] {
            while (!go.load()) std::this_thread::yield();
            std::string name = "thread" + std::to_string(t);
            for (int i = 0; i < kMessages; ++i) {
                if (i % 2 == 0) {
                    KELLogMessage_printWithParams(
                        -1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__, __LINE__,
                        name.c_str(), &KEL_LOG_INSUFFICIENT_SPACE_FAILURE_dd, t, i);
                } else {
                    KELLogMessageParamString_printWithParams(
                        -1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID, __FILE__, __LINE__,
                        name.c_str(), &KEL_LOG_FAILED_TO_MODIFY_TEMPLATE, "%d/%d", t, i);
                }
            }
        });
    }
    go = true;
    for (auto &thread : threads) thread.join();

    auto entries = capture.entries();
    ASSERT_EQ(entries.size(), static_cast<size_t>(kThreads * kMessages));
    std::vector<std::vector<bool>> seen(kThreads, std::vector<bool>(kMessages, false));
    for (const auto &entry : entries) {
        int t = std::stoi(entry.function.substr(6));
        int i = 0;
        if (entry.template_name == "KEL_LOG_INSUFFICIENT_SPACE_FAILURE_dd") {
            ASSERT_EQ(entry.params.size(), 2u);
            ASSERT_EQ(entry.params[0], std::to_string(t));
            i = std::stoi(entry.params[1]);
        } else {
            ASSERT_EQ(entry.params.size(), 1u);
            ASSERT_EQ(entry.params[0].substr(0, entry.params[0].find('/')), std::to_string(t));
            i = std::stoi(entry.params[0].substr(entry.params[0].find('/') + 1));
            ASSERT_EQ(entry.text,
                      "ERROR " + entry.function + ": failed to modify " + entry.params[0]);
        }
        ASSERT_GE(i, 0);
        ASSERT_LT(i, kMessages);
        EXPECT_FALSE(seen[t][i]) << "duplicate " << t << "/" << i;
        seen[t][i] = true;
    }
}

}  // namespace
