// UDP plugins built by the module's factories, exchanging datagrams over
// loopback: owning handles, RTPS messages built byte by byte, and the
// process's open descriptor count. Shared by the traffic tests and the
// benchmarks.
#pragma once

#include <dirent.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/PropertyList.hpp"
#include "vesk_transport/Support.h"
#include "vesk_transport/platform/Udp.h"

namespace vesk::test {

enum class Ip { V4, V6 };

inline const char *ipName(Ip ip) {
    return ip == Ip::V4 ? "UDPv4" : "UDPv6";
}

struct PluginDelete {
    void operator()(VESK_Transport_Plugin *plugin) const {
        if (plugin != nullptr) plugin->delete_cEA(plugin, nullptr);
    }
};
using PluginHandle = std::unique_ptr<VESK_Transport_Plugin, PluginDelete>;

constexpr const char *kUdpPrefix = "dds.transport.udp.test";

// A plugin of the class from properties under kUdpPrefix (suffix, value).
inline PluginHandle makeUdp(Ip ip, std::initializer_list<PropertyList::NameValue> properties = {}) {
    PropertyList list;
    for (const auto &[suffix, value] : properties) list.add(kUdpPrefix, suffix, value);
    return PluginHandle(ip == Ip::V4 ? VESK_Transport_UDPv4_create_from_properties_with_prefix(
                                           nullptr, list.get(), kUdpPrefix)
                                     : VESK_Transport_UDPv6_create_from_properties_with_prefix(
                                           nullptr, list.get(), kUdpPrefix));
}

inline VESK_Transport_Address_t loopbackAddress(Ip ip) {
    VESK_Transport_Address_t address{};
    if (ip == Ip::V4) {
        const unsigned char v4[4] = {127, 0, 0, 1};
        std::memcpy(address.network_ordered_value + 12, v4, 4);
    } else {
        address.network_ordered_value[15] = 1;
    }
    return address;
}

// A receive resource on an ephemeral port and a send resource toward it.
struct Link {
    VESK_Transport_Plugin *plugin = nullptr;
    VESK_Transport_RecvResource_t receiver = nullptr;
    VESK_Transport_SendResource_t sender = nullptr;
    VESK_Transport_Port_t port = 0;

    Link(VESK_Transport_Plugin *p, Ip ip, KEL_INT32 priority = 0) : plugin(p) {
        const VESK_Transport_Address_t address = loopbackAddress(ip);
        if (plugin == nullptr ||
            !plugin->create_recvresource_rrEA(plugin, &receiver, &port, nullptr, 0) ||
            !plugin->create_sendresource_srEA(plugin, &sender, &address, port, priority)) {
            ADD_FAILURE() << "no loopback link";
        }
    }
    ~Link() {
        if (sender != nullptr) plugin->destroy_sendresource_srEA(plugin, &sender);
        if (receiver != nullptr) plugin->destroy_recvresource_rrEA(plugin, &receiver);
    }
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;

    int send(const std::vector<std::uint8_t> &bytes) const {
        VESK_Transport_Buffer_t buffer{
            static_cast<KEL_INT32>(bytes.size()),
            const_cast<char *>(reinterpret_cast<const char *>(bytes.data()))};
        return plugin->send(plugin, &sender, nullptr, 0, 0, &buffer, 1, nullptr);
    }
    // One datagram into a 64 KiB buffer; empty with ok false on failure.
    std::vector<std::uint8_t> receive(bool *ok = nullptr) const {
        std::vector<std::uint8_t> storage(65536);
        VESK_Transport_Buffer_t buffer{static_cast<KEL_INT32>(storage.size()),
                                       reinterpret_cast<char *>(storage.data())};
        VESK_Transport_Message_t message{};
        const int result = plugin->receive_rEA(plugin, &receiver, &buffer, &message, nullptr);
        if (ok != nullptr) *ok = result != 0;
        if (result == 0) return {};
        const auto *data = reinterpret_cast<const std::uint8_t *>(message.buffer.pointer);
        return {data, data + message.buffer.length};
    }
};

inline VESK_Transport_UDP_Statistics statisticsOf(VESK_Transport_Plugin *plugin) {
    VESK_Transport_UDP_Statistics statistics{};
    VESK_Transport_UDP_get_statistics(plugin, &statistics);
    return statistics;
}

// "a.b.c.d up; " per receive interface of a UDPv4 plugin ("down" when not
// up, "?" for another class id), "more" when some did not fit, or "failed".
inline std::string receiveInterfaces(VESK_Transport_Plugin *plugin, int room = 8) {
    VESK_Transport_Interface_t found[8]{};
    int more = 0, count = 0;
    if (plugin->get_receive_interfaces_cEA(plugin, &more, &count, room > 0 ? found : nullptr,
                                           room) != 1) {
        return "failed";
    }
    std::string out;
    for (int i = 0; i < count; ++i) {
        const unsigned char *b = found[i].address.network_ordered_value + 12;
        for (int k = 0; k < 4; ++k) out += std::to_string(b[k]) + (k < 3 ? "." : "");
        out += found[i].transport_classid != VESK_TRANSPORT_CLASSID_UDPv4 ? "?" : "";
        out += found[i].status != 0 ? " up; " : " down; ";
    }
    return out + (more != 0 ? "more" : "");
}

inline int openDescriptorCount() {
    int count = 0;
    if (DIR *directory = opendir("/proc/self/fd")) {
        while (readdir(directory) != nullptr) ++count;
        closedir(directory);
    }
    return count;
}

// RTPS messages, byte by byte.
struct Rtps {
    std::vector<std::uint8_t> bytes;

    explicit Rtps(const std::uint8_t (&prefix)[12] = kPrefix) {
        bytes = {'R', 'T', 'P', 'S', 2, 3, 0x01, 0x0f};
        bytes.insert(bytes.end(), prefix, prefix + 12);
    }
    static constexpr std::uint8_t kPrefix[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};

    // A submessage; little-endian (E flag) unless big.
    Rtps &submessage(std::uint8_t id, std::vector<std::uint8_t> body, bool big = false,
                     std::uint8_t flags = 0) {
        const auto length = static_cast<std::uint16_t>(body.size());
        bytes.push_back(id);
        bytes.push_back(static_cast<std::uint8_t>(flags | (big ? 0 : 1)));
        bytes.push_back(static_cast<std::uint8_t>(big ? length >> 8 : length & 0xff));
        bytes.push_back(static_cast<std::uint8_t>(big ? length & 0xff : length >> 8));
        bytes.insert(bytes.end(), body.begin(), body.end());
        return *this;
    }
    // A DATA from writer with serialized data (after the encapsulation).
    Rtps &data(std::vector<std::uint8_t> writer, std::vector<std::uint8_t> payload = {}) {
        std::vector<std::uint8_t> body = {0, 0, 16, 0, 0, 0, 0, 0};  // flags, to-inline-QoS, reader
        body.insert(body.end(), writer.begin(), writer.end());
        body.insert(body.end(), {0, 0, 0, 0, 1, 0, 0, 0});  // sequence number
        body.insert(body.end(), {0, 1, 0, 0});              // encapsulation
        body.insert(body.end(), payload.begin(), payload.end());
        return submessage(0x15, body, false, 0x04);
    }
    // A submessage whose body starts with the reader and the writer id.
    Rtps &named(std::uint8_t id, std::vector<std::uint8_t> writer) {
        std::vector<std::uint8_t> body = {0, 0, 0, 0};
        body.insert(body.end(), writer.begin(), writer.end());
        body.insert(body.end(), 20, 0);
        return submessage(id, body);
    }
    // The participant-message data: a GUID prefix and the kind.
    Rtps &liveliness(std::vector<std::uint8_t> writer, std::uint8_t kind) {
        std::vector<std::uint8_t> payload(12, 7);
        payload.insert(payload.end(), {0, 0, 0, kind, 0, 0, 0, 0});
        return data(std::move(writer), payload);
    }
};

}  // namespace vesk::test
