// The logger: masks, every template's text and parameters, the record a
// sink receives, the stderr writer, re-entrant sinks and concurrent writers.
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <string>
#include <thread>
#include <vector>

#include "support/PlatformChecks.hpp"
#include "vesk_transport/platform/Log.h"

namespace {

using vesk::test::LogCapture;

#define PRINT(template_, ...)                                                                      \
    KELLogMessage_printWithParams(-1, KEL_LOG_BIT_ERROR, VESK_TRANSPORT_LOG_MODULE_ID, "f.cpp", 7, \
                                  "fn", &template_, __VA_ARGS__)

TEST(Log, GlobalsStartAtTheirDefaults) {
    // Runs first in this executable, before anything changed the globals.
    EXPECT_EQ(DDSLog_g_instrumentationMask, KEL_UINT32{VESK_CONFIG_LOG_VERBOSITY_ERROR});
    EXPECT_EQ(DDSLog_g_submoduleMask, 0xFFFFFFFFu);
    EXPECT_EQ(KELLog_g_detectPrecondition, 1);
    EXPECT_EQ(KELLog_g_preconditionDetected, 0);
    for (KEL_UINT32 mask : KELLog_g_categoryMask) EXPECT_EQ(mask, 0u);
}

TEST(Log, IsEnabledNeedsTheLevelBitAndTheSubmoduleBit) {
    const KEL_UINT32 all = 0xFFFFFFFFu, transport = DDS_SUBMODULE_MASK_TRANSPORT;
    const struct {
        KEL_UINT32 instrumentation, submodules, level;
        bool expected;
    } rows[] = {{VESK_CONFIG_LOG_VERBOSITY_ERROR, all, KEL_LOG_BIT_EXCEPTION, true},
                {VESK_CONFIG_LOG_VERBOSITY_ERROR, all, KEL_LOG_BIT_WARN, false},
                {VESK_CONFIG_LOG_VERBOSITY_STATUS_ALL, ~transport, KEL_LOG_BIT_ERROR, false},
                {VESK_CONFIG_LOG_VERBOSITY_ERROR, transport, KEL_LOG_BIT_ERROR, true}};
    LogCapture capture;  // restores the masks
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << &row - rows);
        DDSLog_g_instrumentationMask = row.instrumentation;
        DDSLog_g_submoduleMask = row.submodules;
        EXPECT_EQ(KELLog_isEnabled(row.level, transport) != 0, row.expected);
    }
    DDSLog_g_submoduleMask = 0;
    KELLog_setVerbosity(VESK_CONFIG_LOG_VERBOSITY_WARNING);
    EXPECT_EQ(DDSLog_g_instrumentationMask, KEL_UINT32{VESK_CONFIG_LOG_VERBOSITY_WARNING});
    EXPECT_EQ(DDSLog_g_submoduleMask, all);
}

// Every template's name, letters and line for two string arguments ("%s|%s" for a _TEMPLATE).
TEST(Log, EveryTemplateRendersItsArgumentsIntoItsText) {
#define ROW(name_, letters_, text_) \
    { &name_, #name_, letters_, text_ }
    const struct {
        const KELLogMessageTemplate *message_template;
        const char *name, *letters, *text;
    } rows[] = {
        ROW(KEL_LOG_PRECONDITION_FAILURE_s, "s", "precondition failed: a"),
        ROW(KEL_LOG_PARSER_FAILURE_s, "s", "failed to parse a"),
        ROW(KEL_LOG_PARSER_FAILURE_ss, "ss", "failed to parse a: \"b\""),
        ROW(KEL_LOG_PARSER_VALUE_OUT_OF_RANGE_ss, "ss", "value of a out of range: \"b\""),
        ROW(KEL_LOG_ANY_FAILURE_s, "s", "failure: a"),
        ROW(KEL_LOG_ANY_FAILURE_ss, "ss", "failure: a b"),
        ROW(KEL_LOG_INCONSISTENT_PROPERTY_s, "s", "inconsistent property: a"),
        ROW(KEL_LOG_CREATION_FAILURE_s, "s", "failed to create a"),
        ROW(KEL_LOG_GET_FAILURE_s, "s", "failed to get a"),
        ROW(KEL_LOG_UNKNOWN_PROPERTY_s, "s", "unknown property: a"),
        ROW(KEL_LOG_FAILED_TO_PARSE_TEMPLATE, nullptr, "failed to parse a|b"),
        ROW(KEL_LOG_FAILED_TO_CONVERT_TEMPLATE, nullptr, "failed to convert a|b"),
        ROW(KEL_LOG_BAD_PARAMETER_FAILURE_TEMPLATE, nullptr, "bad parameter: a|b"),
        ROW(KEL_LOG_FAILED_TO_FIND_TEMPLATE, nullptr, "failed to find a|b"),
        ROW(KEL_LOG_FAILED_TO_MODIFY_TEMPLATE, nullptr, "failed to modify a|b"),
        ROW(DDS_LOG_BAD_PARAMETER_s, "s", "bad parameter: a"),
        ROW(DDS_LOG_PARTICIPANT_ENABLED_ERROR, "",
            "operation not allowed: the participant is already enabled"),
        ROW(DDS_LOG_INSTALL_TRANSPORT_PLUGINS_s, "s", "failed to install transport plugins: a"),
        ROW(DDS_LOG_TRANSPORT_SEND_ROUTE, "", "failed to add the transport send route"),
        ROW(DDS_LOG_GET_FAILURE_s, "s", "failed to get a"),
        ROW(DDS_LOG_SET_FAILURE_s, "s", "failed to set a"),
        ROW(DDS_LOG_OUT_OF_RESOURCES_s, "s", "out of resources: a"),
        ROW(DDS_LOG_SEQUENCE_NOT_OWNER, "", "the sequence does not own its contents"),
        ROW(KEL_LOG_TRANSPORT_STATUS_TEMPLATE, nullptr, "transport: a|b")};
#undef ROW
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const KELLogMessageTemplate &t = *row.message_template;
        EXPECT_STREQ(t.name, row.name);
        EXPECT_STREQ(t.params, row.letters);
        LogCapture capture;
        if (row.letters == nullptr) {
            KELLogMessageParamString_printWithParams(-1, KEL_LOG_BIT_WARN, 5, "f.cpp", 7, "fn", &t,
                                                     "%s|%s", "a", "b");
        } else {
            KELLogMessage_printWithParams(-1, KEL_LOG_BIT_WARN, 5, "f.cpp", 7, "fn", &t, "a", "b");
        }
        const auto entries = capture.entries();
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_EQ(entries[0].text, std::string("WARN fn: ") + row.text);
        EXPECT_EQ(entries[0].level, KEL_UINT32{KEL_LOG_BIT_WARN});
        EXPECT_EQ(entries[0].module_id, 5u);
        EXPECT_EQ(entries[0].format, row.letters == nullptr ? "%s|%s" : "");
        EXPECT_EQ(entries[0].params.size(), row.letters == nullptr ? 1 : std::strlen(row.letters));
    }
    // Integers, a null string, and an unknown letter (the arguments after it are left alone).
    const KELLogMessageTemplate odd = {"ODD_sx", "sx", "first %s then %s"};
    LogCapture capture;
    PRINT(KEL_LOG_INSUFFICIENT_SPACE_FAILURE_dd, INT_MIN, 42);
    PRINT(KEL_LOG_TRUNCATED_STRING_sds, "long_name", 8, "long_nam");
    PRINT(DDS_LOG_BAD_PARAMETER_s, static_cast<const char *>(nullptr));
    PRINT(odd, "a", 3.5);
    std::vector<std::string> texts;
    for (const auto &entry : capture.entries()) texts.push_back(entry.text);
    EXPECT_EQ(texts, (std::vector<std::string>{
                         "ERROR fn: insufficient space: needed -2147483648, available 42",
                         "ERROR fn: string long_name truncated to 8 characters: \"long_nam\"",
                         "ERROR fn: bad parameter: (null)", "ERROR fn: first a then "}));
    EXPECT_EQ(capture.summary()[3], "ODD_sx(a)");
}

TEST(Log, ParameterStringsAreNeitherTruncatedNorMisreadAsFormats) {
    LogCapture capture;
    const std::string longValue(5000, 'v');
    KELLogMessageParamString_printWithParams(-1, KEL_LOG_BIT_ERROR, 1, "f", 1, "fn",
                                             &KEL_LOG_FAILED_TO_CONVERT_TEMPLATE, "[%s]",
                                             longValue.c_str());
    KELLogMessageParamString_printWithParams(-1, KEL_LOG_BIT_ERROR, 1, "f", 1, "fn",
                                             &KEL_LOG_FAILED_TO_CONVERT_TEMPLATE, "%d%% of '%s'",
                                             50, "x");
    EXPECT_EQ(capture.summary(),
              (std::vector<std::string>{"KEL_LOG_FAILED_TO_CONVERT_TEMPLATE([" + longValue + "])",
                                        "KEL_LOG_FAILED_TO_CONVERT_TEMPLATE(50% of 'x')"}));
    EXPECT_EQ(capture.entries()[1].text, "ERROR fn: failed to convert 50% of 'x'");
}

// A sink that keeps what LogCapture drops: file, line and the null format.
struct RawRecord {
    std::string file;
    int line = 0;
    bool formatIsNull = false;
    int calls = 0;
};
void rawSink(void *data, const KELLogRecord *record) {
    auto *raw = static_cast<RawRecord *>(data);
    raw->file = record->file;
    raw->line = record->line;
    raw->formatIsNull = record->format == nullptr;
    if (raw->calls++ == 0) {  // a sink may log itself without deadlocking
        KELLogMessage_printWithParams(-1, 2, 1, "nested.cpp", 3, "sink", &KEL_LOG_GET_FAILURE_s,
                                      "x");
    }
}

TEST(Log, SinksReplaceTheStderrWriterAndReceiveTheWholeRecord) {
    KELLogSink previous = &rawSink;
    void *previousData = &previous;
    KELLog_setSink(nullptr, nullptr, &previous, &previousData);
    EXPECT_TRUE(previous == nullptr && previousData == nullptr);  // nothing else installed one
    testing::internal::CaptureStderr();
    KELLogMessage_printWithParams(-1, KEL_LOG_BIT_WARN, 1, __FILE__, __LINE__, "VESK_x",
                                  &KEL_LOG_UNKNOWN_PROPERTY_s, "p.q");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "WARN VESK_x: unknown property: p.q\n");

    RawRecord raw;
    KELLog_setSink(&rawSink, &raw, nullptr, nullptr);
    PRINT(KEL_LOG_ANY_FAILURE_s, "x");
    EXPECT_TRUE(raw.calls == 2 && raw.file == "nested.cpp" && raw.line == 3 && raw.formatIsNull);
    KELLog_setSink(nullptr, &raw, &previous, &previousData);
    EXPECT_TRUE(previous == &rawSink && previousData == &raw);
}

TEST(Log, ConcurrentWritersLoseAndMixNothing) {
    constexpr int kThreads = 8, kMessages = 400;
    LogCapture capture;
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &go] {
            while (!go.load()) std::this_thread::yield();
            const std::string name = "thread" + std::to_string(t);
            for (int i = 0; i < kMessages; ++i) {
                if (i % 2 == 0) {
                    KELLogMessage_printWithParams(-1, 2, 1, "f", 1, name.c_str(),
                                                  &KEL_LOG_INSUFFICIENT_SPACE_FAILURE_dd, t, i);
                } else {
                    KELLogMessageParamString_printWithParams(-1, 2, 1, "f", 1, name.c_str(),
                                                             &KEL_LOG_FAILED_TO_MODIFY_TEMPLATE,
                                                             "%d/%d", t, i);
                }
            }
        });
    }
    go = true;
    for (auto &thread : threads) thread.join();
    const auto entries = capture.entries();
    ASSERT_EQ(entries.size(), size_t{kThreads * kMessages});
    std::vector<int> seen(kThreads * kMessages, 0);
    for (const auto &entry : entries) {
        const std::string t = entry.function.substr(6);
        const bool ints = entry.params.size() == 2;
        const std::string i = ints ? entry.params[1] : entry.params[0].substr(t.size() + 1);
        EXPECT_EQ(ints ? entry.params[0] : entry.params[0].substr(0, t.size()), t);
        EXPECT_EQ(entry.text, "ERROR thread" + t +
                                  (ints ? ": insufficient space: needed " + t + ", available "
                                        : ": failed to modify " + t + "/") +
                                  i);
        ++seen[std::stoi(t) * kMessages + std::stoi(i)];
    }
    EXPECT_EQ(seen, std::vector<int>(kThreads * kMessages, 1));
}

}  // namespace
