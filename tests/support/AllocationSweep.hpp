// The allocation-failure sweep: runs an operation once for every heap
// allocation it makes, failing that allocation (n = 1, 2, ...), until a run
// completes without the injected failure firing.
//
// Each run goes: arm KELOsapiHeap_failAllocationAfter(n); operation();
// disarm; checker(step, outcome) with step.failed telling whether the n-th
// allocation was refused; cleanup(outcome); then no heap block may be live
// that was not live before the run. The operation returns an outcome value
// that holds whatever the checker and the cleanup need (a result, a record,
// a plugin pointer).
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "support/TestSupport.hpp"
#include "vesk_transport/platform/Heap.h"

namespace vesk::test {

struct SweepStep {
    long failAt = 0;      // the allocation that was to be refused
    bool failed = false;  // it was: the operation saw an allocation fail
};

struct SweepSummary {
    // Runs in which an allocation was refused: the number of allocations the
    // operation makes on its way to success.
    long failurePoints = 0;
    bool completed = false;  // a run finished without the injected failure
};

// Operation: () -> Outcome. Checker: (const SweepStep &, Outcome &) -> void,
// with gtest assertions. Cleanup: (Outcome &) -> void, releasing everything
// the run allocated.
template <typename Operation, typename Checker, typename Cleanup>
SweepSummary sweepAllocationFailures(Operation &&operation, Checker &&checker, Cleanup &&cleanup,
                                     long maxRuns = 100000) {
    SweepSummary summary;
    for (long n = 1; n <= maxRuns; ++n) {
        const KEL_UINT64 liveBefore = liveHeapBlocks();
        KELOsapiHeap_failAllocationAfter(n);
        auto outcome = operation();
        SweepStep step;
        step.failAt = n;
        step.failed = KELOsapiHeap_isFailurePending() == 0;
        KELOsapiHeap_failAllocationAfter(0);

        SCOPED_TRACE(step.failed ? "allocation " + std::to_string(n) + " refused"
                                 : "no allocation refused (run " + std::to_string(n) + ")");
        checker(static_cast<const SweepStep &>(step), outcome);
        cleanup(outcome);
        EXPECT_EQ(liveHeapBlocks(), liveBefore) << "blocks left live after the run's cleanup";
        if (!step.failed) {
            summary.completed = true;
            return summary;
        }
        ++summary.failurePoints;
        if (::testing::Test::HasFatalFailure()) return summary;
    }
    ADD_FAILURE() << "the operation still failed after " << maxRuns << " refused allocations";
    return summary;
}

}  // namespace vesk::test
