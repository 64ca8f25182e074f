// The fuzz targets' seed and regression inputs (fuzz/corpus/<target>/),
// replayed through the same harnesses and invariants (fuzz/Harness.hpp) in
// the plain, sanitizer and valgrind runs; then inputs shorter than a
// header, which every harness accepts.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/Harness.hpp"
#include "fuzz/RtpsClassify.hpp"
#include "fuzz/WanPingHarness.hpp"

namespace {

using Harness = std::string (*)(const std::uint8_t *, std::size_t);
const std::pair<const char *, Harness> TARGETS[] = {
    {"udp_setup", vesk::fuzz::runUdpSetup},
    {"shmem_setup", vesk::fuzz::runShmemSetup},
    {"comm_ports_json", vesk::fuzz::runCommPortsJson},
    {"interface_list", vesk::fuzz::runInterfaceList},
    {"rtps_classify", vesk::fuzz::runRtpsClassify},
    {"wan_ping", vesk::fuzz::runWanPing},
};

TEST(FuzzCorpus, EveryInputKeepsTheInvariants) {
    for (const auto &[name, harness] : TARGETS) {
        const auto directory = std::filesystem::path(VESK_SOURCE_DIR) / "fuzz" / "corpus" / name;
        ASSERT_TRUE(std::filesystem::is_directory(directory)) << directory;
        int inputs = 0;
        for (const auto &entry : std::filesystem::directory_iterator(directory)) {
            if (!entry.is_regular_file()) continue;
            SCOPED_TRACE(entry.path().string());
            std::ifstream in(entry.path(), std::ios::binary);
            const std::vector<std::uint8_t> data{std::istreambuf_iterator<char>(in), {}};
            EXPECT_EQ(harness(data.data(), data.size()), "");
            ++inputs;
        }
        EXPECT_GE(inputs, 5) << "too few seeds for " << name;
        const std::uint8_t bytes[] = {0xFF, 0x00, 0x05};
        for (std::size_t size = 0; size <= sizeof bytes; ++size)
            EXPECT_EQ(harness(bytes, size), "") << name << " with " << size << " bytes";
    }
}

}  // namespace
