// libFuzzer target: the interface-list parser. The decoding and the
// invariants live in fuzz/Harness.hpp.
#include "fuzz/Harness.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    vesk::fuzz::abortOnViolation(vesk::fuzz::runInterfaceList(data, size));
    return 0;
}
