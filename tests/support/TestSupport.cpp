#include "support/TestSupport.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <mutex>

namespace vesk::test {

struct LogCapture::State {
    mutable std::mutex mutex;
    std::vector<LogEntry> entries;

    static void sink(void *data, const KELLogRecord *record) {
        auto text = [](const char *p) { return std::string(p != nullptr ? p : ""); };
        LogEntry entry{record->level,          record->module_id,
                       text(record->function), text(record->template_name),
                       text(record->format),   {},
                       text(record->text)};
        for (int i = 0; i < record->param_count; ++i) {
            entry.params.emplace_back(record->params[i] ? record->params[i] : "(null)");
        }
        auto *state = static_cast<State *>(data);
        std::lock_guard<std::mutex> lock(state->mutex);
        state->entries.push_back(std::move(entry));
    }
};

LogCapture::LogCapture(KEL_UINT32 instrumentation_mask, KEL_UINT32 submodule_mask)
    : state_(new State),
      previousInstrumentation_(DDSLog_g_instrumentationMask),
      previousSubmodule_(DDSLog_g_submoduleMask) {
    KELLog_setSink(&State::sink, state_, &previousSink_, &previousData_);
    DDSLog_g_instrumentationMask = instrumentation_mask;
    DDSLog_g_submoduleMask = submodule_mask;
}

LogCapture::~LogCapture() {
    KELLog_setSink(previousSink_, previousData_, nullptr, nullptr);
    DDSLog_g_instrumentationMask = previousInstrumentation_;
    DDSLog_g_submoduleMask = previousSubmodule_;
    delete state_;
}

std::vector<LogEntry> LogCapture::entries() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->entries;
}

std::vector<std::string> LogCapture::summary() const {
    std::vector<std::string> out;
    for (const auto &entry : entries()) out.push_back(summarize(entry.template_name, entry.params));
    return out;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->entries.clear();
}

std::string summarize(const std::string &template_name, const std::vector<std::string> &params) {
    std::string out = template_name + "(";
    for (size_t i = 0; i < params.size(); ++i) out += (i != 0 ? "|" : "") + params[i];
    return out + ")";
}

KEL_UINT64 liveHeapBlocks() {
    KELOsapiHeapStatistics statistics{};
    KELOsapiHeap_getStatistics(&statistics);
    return statistics.live_blocks;
}

namespace {

// Fails every test that changes the number of live heap blocks.
class HeapBalanceListener : public ::testing::EmptyTestEventListener {
    KEL_UINT64 blocksAtStart_ = 0;
    bool imbalance_ = false;
    void OnTestStart(const ::testing::TestInfo &) override { blocksAtStart_ = liveHeapBlocks(); }
    void OnTestEnd(const ::testing::TestInfo &info) override {
        const KEL_UINT64 now = liveHeapBlocks();
        KELOsapiHeap_failAllocationAfter(0);
        if (now == blocksAtStart_) return;
        std::fprintf(stderr, "HEAP IMBALANCE in %s.%s: %llu live blocks before, %llu after\n",
                     info.test_suite_name(), info.name(),
                     static_cast<unsigned long long>(blocksAtStart_),
                     static_cast<unsigned long long>(now));
        imbalance_ = true;
    }
    void OnTestProgramEnd(const ::testing::UnitTest &) override {
        if (!imbalance_) return;
        std::fprintf(stderr, "heap imbalance detected: failing the run\n");
        std::fflush(stderr);
        std::_Exit(1);
    }
};

const bool installed = [] {
    ::testing::UnitTest::GetInstance()->listeners().Append(new HeapBalanceListener);
    return true;
}();

}  // namespace
}  // namespace vesk::test
