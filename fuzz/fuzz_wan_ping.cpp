// libFuzzer target: the WAN binding-ping parser. The invariants live in
// fuzz/WanPingHarness.hpp.
#include "fuzz/Harness.hpp"
#include "fuzz/WanPingHarness.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    vesk::fuzz::abortOnViolation(vesk::fuzz::runWanPing(data, size));
    return 0;
}
