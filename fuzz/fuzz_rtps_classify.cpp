// libFuzzer target: the UDP transport's classification of received
// datagrams (fuzz/RtpsClassify.hpp).
#include "fuzz/Harness.hpp"
#include "fuzz/RtpsClassify.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    vesk::fuzz::abortOnViolation(vesk::fuzz::runRtpsClassify(data, size));
    return 0;
}
