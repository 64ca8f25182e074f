// The allocation-failure sweep: runs an operation once for every heap
// allocation it makes, refusing that allocation (n = 1, 2, ...), until a run
// completes without the refusal firing. Each run: operation() returns an
// outcome (whatever the checker and the cleanup need); checker(step,
// outcome) with gtest assertions; cleanup(outcome) releases what the run
// allocated; then no heap block may be live that was not live before.
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
    long failurePoints = 0;  // runs with a refusal: the allocations on the way to success
    bool completed = false;  // a run finished without the injected failure
};

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
