// The fuzz targets' seed and regression inputs (fuzz/corpus/<target>/),
// replayed through the same harnesses and invariants (fuzz/Harness.hpp) in
// the plain, sanitizer and valgrind runs.

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

namespace fs = std::filesystem;

using Harness = std::string (*)(const std::uint8_t *, std::size_t);

struct Target {
    const char *directory;
    Harness harness;
};

const Target TARGETS[] = {
    {"udp_setup", vesk::fuzz::runUdpSetup},
    {"shmem_setup", vesk::fuzz::runShmemSetup},
    {"comm_ports_json", vesk::fuzz::runCommPortsJson},
    {"interface_list", vesk::fuzz::runInterfaceList},
    {"rtps_classify", vesk::fuzz::runRtpsClassify},
    {"wan_ping", vesk::fuzz::runWanPing},
};

fs::path corpusRoot() {
    return fs::path(VESK_SOURCE_DIR) / "fuzz" / "corpus";
}

std::vector<std::uint8_t> readFile(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(FuzzCorpus, EveryInputKeepsTheInvariants) {
    for (const Target &target : TARGETS) {
        const fs::path directory = corpusRoot() / target.directory;
        ASSERT_TRUE(fs::is_directory(directory)) << directory;
        int inputs = 0;
        for (const fs::directory_entry &entry : fs::directory_iterator(directory)) {
            if (!entry.is_regular_file()) continue;
            SCOPED_TRACE(entry.path().string());
            const std::vector<std::uint8_t> data = readFile(entry.path());
            EXPECT_EQ(target.harness(data.data(), data.size()), "");
            ++inputs;
        }
        EXPECT_GE(inputs, 5) << "too few seeds for " << target.directory;
    }
}

// Inputs shorter than a header, and a header without properties, are
// accepted by every harness.
TEST(FuzzCorpus, TruncatedInputs) {
    const std::uint8_t bytes[] = {0xFF, 0x00, 0x05};
    for (const Target &target : TARGETS) {
        for (std::size_t size = 0; size <= sizeof bytes; ++size) {
            SCOPED_TRACE(std::string(target.directory) + " with " + std::to_string(size) +
                         " bytes");
            EXPECT_EQ(target.harness(bytes, size), "");
        }
    }
}

}  // namespace
