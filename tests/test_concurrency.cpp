// Factories of every class reading shared property lists, one thread counting
// traffic on installed UDP plugins and others reading statistics, at once.
// Run under ThreadSanitizer in CI; torn snapshots and lost counts show in any build.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/Participants.hpp"
#include "support/PropertyList.hpp"
#include "support/TestSupport.hpp"
#include "vesk_transport/Support.h"

namespace {

constexpr int kFactoryRounds = 25, kCounts = 20000;
constexpr KEL_UINT64 kUserBytes = 100, kLivelinessBytes = 10;

// The first problem a thread saw; checked once the threads are joined.
struct Trouble {
    std::string first;
    void note(bool ok, const std::string &what) {
        if (!ok && first.empty()) first = what;
    }
};

// Whole counts: each USER_DATA count adds kUserBytes, each AUTOMATIC_LIVELINESS
// count kLivelinessBytes to both liveliness groups.
void checkSnapshot(const VESK_Transport_UDP_Statistics &s,
                   const VESK_Transport_UDP_Statistics &previous, Trouble &trouble) {
    trouble.note(s.user_bytes_sent == kUserBytes * s.user_packets_sent, "torn user-data counters");
    trouble.note(
        s.automatic_liveliness_bytes_sent == kLivelinessBytes * s.automatic_liveliness_packets_sent,
        "torn automatic-liveliness counters");
    trouble.note(s._liveliness_packets_sent == s.automatic_liveliness_packets_sent &&
                     s._liveliness_bytes_sent == s.automatic_liveliness_bytes_sent,
                 "a liveliness count is in one group but not the other");
    trouble.note(
        s.user_packets_sent >= previous.user_packets_sent &&
            s.automatic_liveliness_packets_sent >= previous.automatic_liveliness_packets_sent,
        "a later snapshot holds fewer counts");
    trouble.note(s.user_packets_sent <= static_cast<KEL_UINT64>(kCounts), "more counts than made");
}

TEST(Concurrency, FactoriesStatisticsAndCountingAtOnce) {
    vesk::test::LogCapture capture(VESK_CONFIG_LOG_VERBOSITY_WARNING);  // the sweep's refusals
    const vesk::test::PropertyList udpv4List{{"parent.allow_interfaces_list", "lo, 127.0.0.1"},
                                             {"parent.thread_name_prefix", "conc"},
                                             {"ignore_loopback_interface", "0"},
                                             {"multicast_ttl", "3"}};
    const vesk::test::PropertyList wanList{
        {"public_address", "192.0.2.7"},
        {"comm_ports", R"({"default":{"rtps":7400,"host":7400},"mappings":[{"rtps":1}]})"},
        {"parent.deny_interfaces", "eth99"}};
    const vesk::test::PropertyList udpv6List{{"p.parent.allow_multicast_interfaces", "lo"},
                                             {"p.use_checksum", "1"}};
    const vesk::test::PropertyList shmemList{{"received_message_count_max", "16"},
                                             {"host_id", "9"}};

    vesk::test::ParticipantPtr v4Participant = vesk::test::makeParticipant();
    vesk::test::ParticipantPtr wanParticipant = vesk::test::makeParticipant();
    VESK_Transport_Plugin *v4 = VESK_Transport_UDPv4_create(nullptr, udpv4List.get());
    VESK_Transport_Plugin *wan = VESK_Transport_UDPv4_WAN_create(nullptr, wanList.get());
    ASSERT_TRUE(v4Participant && wanParticipant && v4 && wan);
    vesk::test::install(v4Participant.get(), v4, "conc.udpv4");
    vesk::test::install(wanParticipant.get(), wan, "conc.wan");

    std::atomic<bool> go{false}, countingDone{false};
    Trouble counterTrouble, factoryTrouble[2], readerTrouble[2], sweepTrouble;
    std::vector<std::thread> threads;
    auto start = [&](auto body) {
        threads.emplace_back([&go, body] {
            while (!go.load()) std::this_thread::yield();
            body();
        });
    };

    // One thread counts on both plugins.
    start([&] {
        auto count = [](VESK_Transport_Plugin *plugin, auto kind, KEL_UINT64 bytes) {
            return VESK_Transport_UDP_count_traffic(plugin, kind, VESK_TRANSPORT_UDP_TRAFFIC_SENT,
                                                    1, bytes) != 0;
        };
        for (int i = 0; i < kCounts; ++i) {
            for (VESK_Transport_Plugin *plugin : {v4, wan}) {
                counterTrouble.note(
                    count(plugin, VESK_TRANSPORT_UDP_TRAFFIC_USER_DATA, kUserBytes) &&
                        count(plugin, VESK_TRANSPORT_UDP_TRAFFIC_AUTOMATIC_LIVELINESS,
                              kLivelinessBytes),
                    "count_traffic refused a count");
            }
        }
        countingDone.store(true);
    });

    // Readers: through the participant (UDPv4, the WAN fallback), the plugin, liveliness.
    for (Trouble &trouble : readerTrouble) {
        start([&] {
            VESK_Transport_UDP_Statistics previous[3] = {};
            for (bool last = false; !last;) {
                last = countingDone.load();
                VESK_Transport_UDP_Statistics s[3] = {};
                trouble.note(VESK_Transport_Support_get_udpv4_statistics(v4Participant.get(),
                                                                         &s[0]) == DDS_RETCODE_OK &&
                                 VESK_Transport_Support_get_udpv4_statistics(
                                     wanParticipant.get(), &s[1]) == DDS_RETCODE_OK &&
                                 VESK_Transport_UDP_get_statistics(v4, &s[2]) != 0,
                             "a statistics read failed");
                for (int i = 0; i < 3; ++i) checkSnapshot(s[i], previous[i], trouble);
                std::copy(s, s + 3, previous);
                KEL_UINT64 packets = 0, bytes = 0;
                trouble.note(VESK_Transport_Support_get_udp_liveliness_statistics(
                                 wanParticipant.get(), &packets, &bytes, nullptr, nullptr,
                                 VESK_TRANSPORT_CLASSID_UDPv4_WAN, 0, 1) == DDS_RETCODE_OK,
                             "get_udp_liveliness_statistics failed");
                trouble.note(bytes == kLivelinessBytes * packets, "torn liveliness read");
            }
            trouble.note(previous[0].user_packets_sent == static_cast<KEL_UINT64>(kCounts) &&
                             previous[1].user_packets_sent == static_cast<KEL_UINT64>(kCounts),
                         "the last snapshot misses counts");
        });
    }

    // Two threads build transports of every class from the shared lists.
    for (Trouble &trouble : factoryTrouble) {
        start([&] {
            for (int round = 0; round < kFactoryRounds; ++round) {
                VESK_Transport_Plugin *made[] = {
                    VESK_Transport_UDPv4_create(nullptr, udpv4List.get()),
                    VESK_Transport_UDPv4_WAN_create(nullptr, wanList.get()),
                    VESK_Transport_UDPv6_create_from_properties_with_prefix(nullptr,
                                                                            udpv6List.get(), "p"),
                    VESK_Transport_Shmem_create(nullptr, shmemList.get(), nullptr)};
                const VESK_Transport_ClassId_t classes[] = {
                    VESK_TRANSPORT_CLASSID_UDPv4, VESK_TRANSPORT_CLASSID_UDPv4_WAN,
                    VESK_TRANSPORT_CLASSID_UDPv6, VESK_TRANSPORT_CLASSID_SHMEM};
                for (int i = 0; i < 4; ++i) {
                    trouble.note(made[i] != nullptr && made[i]->property->classid == classes[i],
                                 "a factory failed on another thread's watch");
                    if (made[i] != nullptr) made[i]->delete_cEA(made[i], nullptr);
                }
            }
        });
    }

    // This thread refuses its own allocations one by one; the others must not notice.
    start([&] {
        for (long n = 1; n < 200; ++n) {
            KELOsapiHeap_failAllocationAfter(n);
            VESK_Transport_Plugin *plugin = VESK_Transport_UDPv4_WAN_create(nullptr, wanList.get());
            const bool refused = KELOsapiHeap_isFailurePending() == 0;
            KELOsapiHeap_failAllocationAfter(0);
            sweepTrouble.note(refused == (plugin == nullptr), "a refusal did not fail the factory");
            if (plugin != nullptr) plugin->delete_cEA(plugin, nullptr);
            if (!refused) return;
        }
        sweepTrouble.note(false, "the sweep did not complete");
    });

    go.store(true);
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(counterTrouble.first + sweepTrouble.first, "");
    for (const Trouble *trouble :
         {readerTrouble, readerTrouble + 1, factoryTrouble, factoryTrouble + 1}) {
        EXPECT_EQ(trouble->first, "");
    }
}

}  // namespace
