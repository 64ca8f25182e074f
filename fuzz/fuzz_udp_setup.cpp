// libFuzzer target: the UDP property setups and factories. The decoding and the
// invariants live in fuzz/Harness.hpp.
#include "fuzz/Harness.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    vesk::fuzz::abortOnViolation(vesk::fuzz::runUdpSetup(data, size));
    return 0;
}
