#include "tools/Perf.hpp"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <iomanip>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>
#include <vector>

#include "tools/Probe.hpp"
#include "vesk_transport/platform/UdpWan.h"

namespace vesk::tool {

namespace {

using Clock = std::chrono::steady_clock;
using Stats = VESK_Transport_UDP_Statistics;

// The statistics record's counters, named as in the record.
struct Counter {
    const char *name;
    KEL_UINT64 Stats::*field;
};
#define VESK_COUNTER(name) \
    { #name, &Stats::name }
constexpr Counter COUNTERS[] = {
    VESK_COUNTER(user_bytes_sent),
    VESK_COUNTER(user_bytes_received),
    VESK_COUNTER(user_packets_sent),
    VESK_COUNTER(user_packets_received),
    VESK_COUNTER(discovery_bytes_sent),
    VESK_COUNTER(discovery_bytes_received),
    VESK_COUNTER(discovery_packets_sent),
    VESK_COUNTER(discovery_packets_received),
    VESK_COUNTER(participant_discovery_bytes_sent),
    VESK_COUNTER(participant_discovery_bytes_received),
    VESK_COUNTER(participant_discovery_packets_sent),
    VESK_COUNTER(participant_discovery_packets_received),
    VESK_COUNTER(participant_config_bytes_sent),
    VESK_COUNTER(participant_config_bytes_received),
    VESK_COUNTER(participant_config_packets_sent),
    VESK_COUNTER(participant_config_packets_received),
    VESK_COUNTER(automatic_liveliness_bytes_sent),
    VESK_COUNTER(automatic_liveliness_bytes_received),
    VESK_COUNTER(automatic_liveliness_packets_sent),
    VESK_COUNTER(automatic_liveliness_packets_received),
    VESK_COUNTER(manual_liveliness_bytes_sent),
    VESK_COUNTER(manual_liveliness_bytes_received),
    VESK_COUNTER(manual_liveliness_packets_sent),
    VESK_COUNTER(manual_liveliness_packets_received),
    VESK_COUNTER(endpoint_discovery_bytes_sent),
    VESK_COUNTER(endpoint_discovery_bytes_received),
    VESK_COUNTER(endpoint_discovery_packets_sent),
    VESK_COUNTER(endpoint_discovery_packets_received),
    VESK_COUNTER(overhead_bytes_sent),
    VESK_COUNTER(overhead_bytes_received),
    VESK_COUNTER(overhead_packets_sent),
    VESK_COUNTER(overhead_packets_received),
    VESK_COUNTER(binding_ping_event_count),
    VESK_COUNTER(binding_ping_packets_sent),
    VESK_COUNTER(binding_ping_bytes_sent),
    VESK_COUNTER(binding_ping_packets_received),
    VESK_COUNTER(binding_ping_bytes_received),
    VESK_COUNTER(_liveliness_bytes_sent),
    VESK_COUNTER(_liveliness_bytes_received),
    VESK_COUNTER(_liveliness_packets_sent),
    VESK_COUNTER(_liveliness_packets_received),
};
#undef VESK_COUNTER

// What a message carries after the RTPS header and DATA submessage.
enum class Kind : std::uint32_t { data = 0, ping = 1, pong = 2, end = 3 };
constexpr std::size_t PAYLOAD = 48;

struct Payload {
    Kind kind;
    std::uint64_t sequence;
    std::uint64_t sentNs;  // steady clock, the sender's
};

// An RTPS message with one DATA submessage of a user writer, size bytes.
std::vector<char> message(long size) {
    std::vector<char> bytes(static_cast<std::size_t>(size), 0);
    const unsigned char head[] = {'R', 'T', 'P', 'S', 2, 3, 0x01, 0x0f, 1,  2,    3,
                                  4,   5,   6,   7,   8, 9, 10,   11,   12, 0x15, 0x05};
    std::memcpy(bytes.data(), head, sizeof head);
    const auto length = static_cast<std::uint16_t>(size - 24);
    bytes[22] = static_cast<char>(length & 0xff);
    bytes[23] = static_cast<char>(length >> 8);
    bytes[26] = 16;                               // octets to inline QoS
    const unsigned char writer[] = {0, 0, 1, 2};  // a user writer
    std::memcpy(bytes.data() + 32, writer, sizeof writer);
    bytes[45] = 1;  // CDR little endian
    return bytes;
}

void writePayload(std::vector<char> &bytes, const Payload &payload) {
    std::memcpy(bytes.data() + PAYLOAD, &payload.kind, 4);
    std::memcpy(bytes.data() + PAYLOAD + 8, &payload.sequence, 8);
    std::memcpy(bytes.data() + PAYLOAD + 16, &payload.sentNs, 8);
}

bool readPayload(const char *bytes, long length, Payload &payload) {
    if (length < PERF_MESSAGE_MIN || std::memcmp(bytes, "RTPS", 4) != 0) return false;
    std::memcpy(&payload.kind, bytes + PAYLOAD, 4);
    std::memcpy(&payload.sequence, bytes + PAYLOAD + 8, 8);
    std::memcpy(&payload.sentNs, bytes + PAYLOAD + 16, 8);
    return true;
}

std::uint64_t nowNs() {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
            .count());
}

struct ParticipantDeleter {
    void operator()(DDS_DomainParticipant *participant) const {
        DDS_DomainParticipant_delete(participant);
    }
};

// A plugin made from the files, with at most one receive and one send
// resource. A UDP plugin is installed on a participant of its own (whose
// statistics the module reads); a shared-memory plugin stays the
// endpoint's own.
class Endpoint {
public:
    Endpoint(VESK_Transport_Plugin *plugin, bool shmem, std::string &error)
        : plugin_(plugin), shmem_(shmem) {
        if (shmem_) {
            if (plugin_ == nullptr) error = "the transport could not be built from the files";
            return;
        }
        DDS_DomainParticipantOptions options = DDS_DOMAINPARTICIPANT_OPTIONS_DEFAULT;
        options.transport_builtin_mask = 0;
        participant_.reset(DDS_DomainParticipant_create(&options));
        if (!participant_ || plugin_ == nullptr) {
            error = "the transport could not be built from the files";
            if (plugin_ != nullptr) plugin_->delete_cEA(plugin_, nullptr);
            plugin_ = nullptr;
            return;
        }
        DDS_StringSeq aliases = DDS_SEQUENCE_INITIALIZER;
        DDS_StringSeq_append(&aliases, "perf");
        const VESK_Transport_Address_t none{};
        const VESK_Transport_Handle_t handle =
            VESK_Transport_Support_register_transport(participant_.get(), plugin_, &aliases, &none);
        DDS_StringSeq_finalize(&aliases);
        if (handle._plugin_handle._manager == nullptr) {
            plugin_->delete_cEA(plugin_, nullptr);
            plugin_ = nullptr;
            error = "the participant refused the transport";
        }
    }
    ~Endpoint() {
        if (sender_ != nullptr) plugin_->destroy_sendresource_srEA(plugin_, &sender_);
        if (receiver_ != nullptr) plugin_->destroy_recvresource_rrEA(plugin_, &receiver_);
        if (shmem_ && plugin_ != nullptr) plugin_->delete_cEA(plugin_, nullptr);
    }
    Endpoint(const Endpoint &) = delete;
    Endpoint &operator=(const Endpoint &) = delete;

    bool ok() const { return plugin_ != nullptr; }
    // Receives on port (0: any free port, then the port chosen).
    bool listen(VESK_Transport_Port_t &port) {
        if (port == 0 && shmem_) return listenShmem(port);
        return plugin_->create_recvresource_rrEA(plugin_, &receiver_, &port, nullptr, 0) != 0;
    }
    // The UDP port that a receive resource on rtps_port listens on: a WAN
    // transport maps RTPS ports to host ports; the others use them as they are.
    VESK_Transport_Port_t wirePort(VESK_Transport_Port_t rtps_port) const {
        VESK_Transport_UDP_WAN_PortMapping mapping{};
        if (shmem_ || VESK_Transport_UDP_WAN_get_mapping(plugin_, rtps_port, &mapping) == 0)
            return rtps_port;
        return mapping.host_port;
    }
    // Sends to address and port; shared memory sends to this host's own
    // shared-memory address (the one receive interface), whatever the text.
    bool connect(const std::string &address, VESK_Transport_Port_t port) {
        VESK_Transport_Address_t destination{};
        VESK_Transport_Interface_t own{};
        int more = 0, count = 0;
        const bool resolved =
            shmem_ ? plugin_->get_receive_interfaces_cEA(plugin_, &more, &count, &own, 1) != 0 &&
                         count == 1
                   : plugin_->string_to_address_cEA(plugin_, &destination, address.c_str()) != 0;
        if (shmem_) destination = own.address;
        return resolved &&
               plugin_->create_sendresource_srEA(plugin_, &sender_, &destination, port, 0) != 0;
    }
    bool send(std::vector<char> &bytes) {
        VESK_Transport_Buffer_t buffer{static_cast<KEL_INT32>(bytes.size()), bytes.data()};
        return plugin_->send(plugin_, &sender_, nullptr, 0, 0, &buffer, 1, nullptr) != 0;
    }
    // Blocks until a message arrives (true) or the receive is woken (false).
    bool receive(std::vector<char> &storage, Payload &payload) {
        VESK_Transport_Buffer_t buffer{static_cast<KEL_INT32>(storage.size()), storage.data()};
        VESK_Transport_Message_t received{};
        if (plugin_->receive_rEA(plugin_, &receiver_, &buffer, &received, nullptr) == 0)
            return false;
        if (!readPayload(received.buffer.pointer, received.buffer.length, payload))
            payload.kind = static_cast<Kind>(99);  // not perf's: not counted
        // Shared memory lends the message in its segment.
        if (received.loaned_buffer_param != nullptr)
            plugin_->return_loaned_buffer_rEA(plugin_, &receiver_, &received, nullptr);
        return true;
    }
    void wake() { plugin_->unblock_receive_rrEA(plugin_, &receiver_, nullptr); }
    Stats statistics(bool ipv6) const {
        Stats statistics{};
        if (ipv6) {
            VESK_Transport_Support_get_udpv6_statistics(participant_.get(), &statistics);
        } else {
            VESK_Transport_Support_get_udpv4_statistics(participant_.get(), &statistics);
        }
        return statistics;
    }

private:
    // Shared memory has no port 0: the caller picks the port, which makes
    // the segment's keys. Ports from the pid, a few tried; the refusals of
    // ports in use are expected, so they are not shown.
    bool listenShmem(VESK_Transport_Port_t &port) {
        const LogCollector quiet;
        const auto base = static_cast<VESK_Transport_Port_t>(20000 + getpid() % 20000);
        for (VESK_Transport_Port_t attempt = 0; attempt < 16; ++attempt) {
            port = base + attempt * 1009 % 20000;
            if (plugin_->is_valid_entry_port(plugin_, port) != 0 &&
                plugin_->create_recvresource_rrEA(plugin_, &receiver_, &port, nullptr, 0) != 0)
                return true;
        }
        return false;
    }

    std::unique_ptr<DDS_DomainParticipant, ParticipantDeleter> participant_;
    VESK_Transport_Plugin *plugin_ = nullptr;  // the participant's once installed
    bool shmem_ = false;
    VESK_Transport_RecvResource_t receiver_ = nullptr;
    VESK_Transport_SendResource_t sender_ = nullptr;
};

// A receive loop on its own thread, until stopped.
class Receiver {
public:
    template <typename OnMessage>
    Receiver(Endpoint &endpoint, long size, OnMessage onMessage) : endpoint_(endpoint) {
        thread_ = std::thread([this, size, onMessage] {
            std::vector<char> storage(static_cast<std::size_t>(std::max<long>(size, 65536)));
            Payload payload{};
            while (!stop_.load()) {
                if (endpoint_.receive(storage, payload)) onMessage(payload);
            }
        });
    }
    ~Receiver() {
        stop_.store(true);
        endpoint_.wake();
        thread_.join();
    }
    Receiver(const Receiver &) = delete;
    Receiver &operator=(const Receiver &) = delete;

private:
    Endpoint &endpoint_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

struct Tally {
    std::atomic<long> sent{0};
    std::atomic<long> received{0};
    std::atomic<long> endTotal{-1};         // the publisher's count, from its end message
    std::atomic<std::uint64_t> firstNs{0};  // when the first data message arrived
    std::vector<double> roundTripsUs;
};

double seconds(Clock::duration duration) {
    return std::chrono::duration<double>(duration).count();
}

std::string fixed(double value, int decimals) {
    std::ostringstream out;
    out << std::fixed << std::setprecision(decimals) << value;
    return out.str();
}

// One progress line a second: a live line on a terminal, plain lines else.
class Progress {
public:
    Progress(std::ostream &out, bool quiet, long size) : out_(out), quiet_(quiet), size_(size) {
        terminal_ = !quiet && isatty(STDOUT_FILENO) != 0;
    }
    void update(const Tally &tally, Clock::time_point start) {
        const Clock::time_point now = Clock::now();
        if (quiet_ || now < next_) return;
        next_ = now + std::chrono::seconds(1);
        const long received = tally.received.load();
        const double rate = static_cast<double>(received - lastReceived_) /
                            std::max(1e-9, seconds(now - lastTime_));
        lastReceived_ = received;
        lastTime_ = now;
        out_ << (terminal_ ? "\r" : "") << fixed(seconds(now - start), 1) << " s: sent "
             << tally.sent.load() << ", received " << received << " (" << fixed(rate, 0)
             << " msg/s, " << fixed(rate * static_cast<double>(size_) / 1e6, 2) << " MB/s)"
             << (terminal_ ? "   " : "\n") << std::flush;
    }
    void finish() {
        if (terminal_) out_ << '\n';
    }

private:
    std::ostream &out_;
    bool quiet_;
    bool terminal_ = false;
    long size_;
    long lastReceived_ = 0;
    Clock::time_point lastTime_ = Clock::now();
    Clock::time_point next_ = Clock::now() + std::chrono::seconds(1);
};

Clock::duration seconds(double count) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(count));
}

// Holds a sender to its rate (0: no limit): message n leaves n / rate
// seconds after the start.
void pace(Clock::time_point start, std::uint64_t sequence, double rate) {
    if (rate > 0)
        std::this_thread::sleep_until(start + seconds(static_cast<double>(sequence) / rate));
}

// Sends data messages for the duration at the rate, then waits a moment
// for the last ones.
void sendFor(Endpoint &sender, const PerfOptions &options, Tally &tally, Progress &progress) {
    std::vector<char> bytes = message(options.size);
    const Clock::time_point start = Clock::now();
    const auto end = start + seconds(options.duration);
    for (std::uint64_t sequence = 0; Clock::now() < end; ++sequence) {
        pace(start, sequence, options.rate);
        writePayload(bytes, {Kind::data, sequence, nowNs()});
        if (sender.send(bytes)) tally.sent.fetch_add(1);
        progress.update(tally, start);
    }
}

void pingPong(Endpoint &pinger, const PerfOptions &options, Tally &tally, Progress &progress,
              std::mutex &mutex, std::condition_variable &answered) {
    std::vector<char> bytes = message(options.size);
    const Clock::time_point start = Clock::now();
    const auto end = start + seconds(options.duration);
    for (std::uint64_t sequence = 0; Clock::now() < end; ++sequence) {
        pace(start, sequence, options.rate);
        const long before = tally.received.load();
        writePayload(bytes, {Kind::ping, sequence, nowNs()});
        if (!pinger.send(bytes)) continue;
        tally.sent.fetch_add(1);
        std::unique_lock lock(mutex);
        answered.wait_for(lock, std::chrono::milliseconds(200),
                          [&] { return tally.received.load() > before; });
        lock.unlock();
        progress.update(tally, start);
    }
}

double percentile(std::vector<double> sorted, double fraction) {
    if (sorted.empty()) return 0;
    const auto index = static_cast<std::size_t>(fraction * static_cast<double>(sorted.size() - 1));
    return sorted[index];
}

Json statisticsJson(const Stats &statistics) {
    Json out = Json::object();
    for (const Counter &counter : COUNTERS) out[counter.name] = statistics.*counter.field;
    Json priorities = Json::object();
    for (int i = 0; i < 256; ++i) {
        if (statistics.received_priority_count[i] != 0)
            priorities[std::to_string(i)] = statistics.received_priority_count[i];
    }
    out["received_priority_count"] = std::move(priorities);
    return out;
}

void printStatistics(std::ostream &out, const char *whose, const char *function,
                     const Stats &statistics) {
    out << "statistics of the " << whose << " transport (" << function << "), counters not 0:\n";
    for (const Counter &counter : COUNTERS) {
        if (statistics.*counter.field != 0)
            out << "  " << counter.name << " " << statistics.*counter.field << '\n';
    }
}

constexpr const char *NO_SHMEM_STATISTICS =
    "statistics: none for the shared-memory class (the module keeps statistics of the UDP "
    "classes only)";

}  // namespace

int runPerf(const TransportClass &transportClass, const PropertyList &list,
            const InspectOptions &with, const PerfOptions &options, const std::string &files,
            std::ostream &out) {
    // The UDP classes build plugins from their setup's record, shared memory
    // with its factory (in loopback only: the caller sees to it).
    const bool shmem = transportClass.kind == RecordKind::shmem;
    std::optional<UdpRecord> record;
    if (!shmem)
        record.emplace(transportClass, list.policy(), with.prefix ? with.prefix->c_str() : nullptr);
    const bool ipv6 = record && record->ipv6();
    const char *function = ipv6 ? "VESK_Transport_Support_get_udpv6_statistics"
                                : "VESK_Transport_Support_get_udpv4_statistics";
    const std::string loopback = shmem ? "shared memory" : ipv6 ? "::1" : "127.0.0.1";
    const bool hasSender = options.role != PerfOptions::Role::sub;
    const bool hasReceiver = options.role != PerfOptions::Role::pub;
    std::string error;
    const auto newEndpoint = [&] {
        return std::make_unique<Endpoint>(
            shmem
                ? VESK_Transport_Shmem_create(nullptr, list.policy(),
                                              with.minimumVersion ? &*with.minimumVersion : nullptr)
                : record->newPlugin(),
            shmem, error);
    };
    std::unique_ptr<Endpoint> sender, receiver;
    if (record && !record->ok())
        error = "the setup refuses the files (vesk-transport check tells why)";
    if (error.empty() && hasSender) sender = newEndpoint();
    if (error.empty() && hasReceiver) receiver = newEndpoint();
    VESK_Transport_Port_t port = options.role == PerfOptions::Role::loopback
                                     ? 0
                                     : static_cast<VESK_Transport_Port_t>(options.port);
    if (error.empty() && receiver && !receiver->listen(port))
        error = "cannot receive on port " + std::to_string(port) + " (in use?)";
    const std::string destination =
        options.role == PerfOptions::Role::pub ? options.peer : loopback;
    if (error.empty() && receiver) port = receiver->wirePort(port);
    if (error.empty() && sender && !sender->connect(destination, port))
        error = "cannot send to " + destination + " port " + std::to_string(port);
    // Ping-pong: the receiver answers toward a port of the sender's own.
    VESK_Transport_Port_t replyPort = 0;
    if (error.empty() && options.pingPong &&
        (!sender->listen(replyPort) || !receiver->connect(loopback, sender->wirePort(replyPort)))) {
        error = "cannot set up the reply path";
    }
    const std::string roleText =
        options.role == PerfOptions::Role::loopback
            ? "loopback " + loopback + " port " + std::to_string(port)
        : options.role == PerfOptions::Role::pub
            ? "publisher to " + options.peer + " port " + std::to_string(port)
            : "subscriber on port " + std::to_string(port);
    if (!options.json) {
        out << "vesk-transport perf: " << transportClass.title << " transport from " << files
            << ", " << roleText << ", " << options.size << "-byte messages for "
            << fixed(options.duration, 1) << " s, "
            << (options.rate > 0 ? fixed(options.rate, 0) + " messages/s"
                                 : std::string("as fast as the transport sends"))
            << (options.pingPong ? ", ping-pong" : "") << '\n';
    }
    if (!error.empty()) {
        if (options.json) {
            out << Json{{"error", {{"kind", "transport"}, {"message", error}}}}.dump(2) << '\n';
        } else {
            out << "error: " << error << '\n';
        }
        return 1;
    }

    Tally tally;
    std::mutex mutex;
    std::condition_variable answered;
    Progress progress(out, options.json, options.size);
    const Clock::time_point start = Clock::now();
    Clock::time_point stopped;
    {
        std::vector<char> reply = message(options.size);
        std::unique_ptr<Receiver> receiving, replies;
        if (receiver) {
            receiving = std::make_unique<Receiver>(*receiver, options.size, [&](const Payload &p) {
                if (p.kind == Kind::end) {
                    tally.endTotal.store(static_cast<long>(p.sequence));
                } else if (p.kind == Kind::ping) {
                    writePayload(reply, {Kind::pong, p.sequence, p.sentNs});
                    receiver->send(reply);
                } else if (p.kind == Kind::data) {
                    std::uint64_t none = 0;
                    tally.firstNs.compare_exchange_strong(none, nowNs());
                    tally.received.fetch_add(1);
                }
            });
        }
        if (options.pingPong) {
            replies = std::make_unique<Receiver>(*sender, options.size, [&](const Payload &p) {
                if (p.kind != Kind::pong) return;
                {
                    std::lock_guard lock(mutex);
                    tally.roundTripsUs.push_back(static_cast<double>(nowNs() - p.sentNs) / 1e3);
                    tally.received.fetch_add(1);
                }
                answered.notify_all();
            });
        }
        if (options.pingPong) {
            pingPong(*sender, options, tally, progress, mutex, answered);
        } else if (sender) {
            sendFor(*sender, options, tally, progress);
        }
        stopped = Clock::now();
        if (options.role == PerfOptions::Role::pub) {
            // The subscriber learns the count from a few end messages.
            std::vector<char> bytes = message(options.size);
            writePayload(bytes, {Kind::end, static_cast<std::uint64_t>(tally.sent.load()), 0});
            for (int i = 0; i < 3; ++i) {
                sender->send(bytes);
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        } else if (options.role == PerfOptions::Role::sub) {
            const auto deadline = start + seconds(options.duration);
            while (Clock::now() < deadline && tally.endTotal.load() < 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
                progress.update(tally, start);
            }
            stopped = Clock::now();
        } else {
            const auto deadline = Clock::now() + std::chrono::milliseconds(300);
            while (Clock::now() < deadline && tally.received.load() < tally.sent.load())
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    progress.finish();

    // A subscriber counts from the first message it received.
    const std::uint64_t first = tally.firstNs.load();
    const double elapsed =
        options.role == PerfOptions::Role::sub && first != 0
            ? static_cast<double>(nowNs() - first) / 1e9 - seconds(Clock::now() - stopped)
            : seconds(stopped - start);
    const long sent =
        options.role == PerfOptions::Role::sub ? tally.endTotal.load() : tally.sent.load();
    const long received = tally.received.load();
    const bool counted = options.role != PerfOptions::Role::pub && sent >= 0;
    const long lost = counted ? std::max(0L, sent - received) : 0;
    const long moved = options.role == PerfOptions::Role::pub ? sent : received;
    const double messagesPerSecond = static_cast<double>(moved) / std::max(elapsed, 1e-9);
    std::vector<double> trips = tally.roundTripsUs;
    std::sort(trips.begin(), trips.end());
    const struct {
        const char *name;
        double fraction;
    } percentiles[] = {{"min", 0}, {"p50", 0.5}, {"p90", 0.9}, {"p99", 0.99}, {"max", 1}};
    const Stats senderStatistics = sender && !shmem ? sender->statistics(ipv6) : Stats{};
    const Stats receiverStatistics = receiver && !shmem ? receiver->statistics(ipv6) : Stats{};

    if (options.json) {
        Json latency = nullptr;
        if (!trips.empty()) {
            latency = Json::object();
            for (const auto &p : percentiles) latency[p.name] = percentile(trips, p.fraction);
        }
        Json statistics = shmem ? Json(nullptr) : Json::object();
        if (sender && !shmem) statistics["sender"] = statisticsJson(senderStatistics);
        if (receiver && !shmem) statistics["receiver"] = statisticsJson(receiverStatistics);
        out << Json{{"files", files},
                    {"class", transportClass.option},
                    {"role", roleText},
                    {"size", options.size},
                    {"duration", options.duration},
                    {"rate", options.rate},
                    {"seconds", elapsed},
                    {"sent", sent >= 0 ? Json(sent) : Json(nullptr)},
                    {"received", hasReceiver ? Json(received) : Json(nullptr)},
                    {"lost", counted ? Json(lost) : Json(nullptr)},
                    {"messages_per_second", messagesPerSecond},
                    {"megabytes_per_second",
                     messagesPerSecond * static_cast<double>(options.size) / 1e6},
                    {"round_trip_us", latency},
                    {"statistics", statistics}}
                   .dump(2)
            << '\n';
    } else {
        out << "result: ";
        if (sent >= 0) out << "sent " << sent << " messages";
        if (hasReceiver) out << (sent >= 0 ? ", " : "") << "received " << received;
        if (counted) {
            out << ", lost " << lost << " ("
                << fixed(
                       sent > 0 ? 100.0 * static_cast<double>(lost) / static_cast<double>(sent) : 0,
                       2)
                << "%)";
        }
        out << " in " << fixed(elapsed, 2) << " s: " << fixed(messagesPerSecond, 0) << " msg/s, "
            << fixed(messagesPerSecond * static_cast<double>(options.size) / 1e6, 2) << " MB/s\n";
        if (!trips.empty()) {
            out << "round trip (us):";
            for (const auto &p : percentiles)
                out << " " << p.name << " " << fixed(percentile(trips, p.fraction), 1);
            out << '\n';
        }
        if (shmem) out << NO_SHMEM_STATISTICS << '\n';
        if (sender && !shmem) printStatistics(out, "sending", function, senderStatistics);
        if (receiver && !shmem) printStatistics(out, "receiving", function, receiverStatistics);
    }
    return moved > 0 ? 0 : 1;
}

}  // namespace vesk::tool
