#include "tools/Demo.hpp"

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tools/Inspection.hpp"
#include "tools/PropertyFiles.hpp"
#include "tools/RecordFields.hpp"
#include "vesk_transport/Support.h"

namespace vesk::tool {

namespace {

// A transport of the application's own: it only counts what it sends.
constexpr VESK_Transport_ClassId_t DEMO_CLASSID = 0x7E570001;

struct DemoTransport {
    VESK_Transport_Plugin plugin;  // first: the plugin pointer is the object's
    VESK_Transport_Property_t property;
    int sent;
};

int demoSend(VESK_Transport_Plugin *self, const VESK_Transport_SendResource_t *,
             const VESK_Transport_Address_t *, VESK_Transport_Port_t, KEL_INT32,
             const VESK_Transport_Buffer_t[], KEL_INT32, void *) {
    ++reinterpret_cast<DemoTransport *>(self)->sent;
    return 1;
}

const char *demoClassName(VESK_Transport_Plugin *) {
    return "demo";
}

void demoDelete(VESK_Transport_Plugin *self, void *) {
    delete reinterpret_cast<DemoTransport *>(self);
}

VESK_Transport_Plugin *newDemoTransport() {
    auto *transport = new DemoTransport{};
    transport->property.classid = DEMO_CLASSID;
    transport->property.address_bit_count = 32;
    transport->property.gather_send_buffer_count_max = 16;
    transport->property.message_size_max = 9000;
    transport->plugin.property = &transport->property;
    transport->plugin.send = demoSend;
    transport->plugin.get_class_name_cEA = demoClassName;
    transport->plugin.delete_cEA = demoDelete;
    return &transport->plugin;
}

// A plugin that is the caller's until a participant takes it.
struct PluginDeleter {
    void operator()(VESK_Transport_Plugin *plugin) const { plugin->delete_cEA(plugin, nullptr); }
};
using OwnedPlugin = std::unique_ptr<VESK_Transport_Plugin, PluginDeleter>;

struct ParticipantDeleter {
    void operator()(DDS_DomainParticipant *participant) const {
        DDS_DomainParticipant_delete(participant);
    }
};

// An owning DDS_StringSeq.
class Aliases {
public:
    explicit Aliases(std::initializer_list<const char *> aliases = {}) {
        for (const char *alias : aliases) DDS_StringSeq_append(&seq_, alias);
    }
    ~Aliases() { DDS_StringSeq_finalize(&seq_); }
    Aliases(const Aliases &) = delete;
    Aliases &operator=(const Aliases &) = delete;
    struct DDS_StringSeq *get() {
        return &seq_;
    }
    std::string text() const {
        std::string out;
        for (DDS_Long i = 0; i < DDS_StringSeq_get_length(&seq_); ++i) {
            out += (i == 0 ? "" : ", ") + std::string(DDS_StringSeq_get(&seq_, i));
        }
        return out;
    }

private:
    struct DDS_StringSeq seq_ = DDS_SEQUENCE_INITIALIZER;
};

VESK_Transport_Address_t ipv4(unsigned char a, unsigned char b, unsigned char c, unsigned char d) {
    VESK_Transport_Address_t address{};
    address.network_ordered_value[12] = a;
    address.network_ordered_value[13] = b;
    address.network_ordered_value[14] = c;
    address.network_ordered_value[15] = d;
    return address;
}

std::string text(const VESK_Transport_Address_t &address) {
    return addressJson(address).get<std::string>();
}

bool isValid(const VESK_Transport_Handle_t &handle) {
    return handle._participant != nullptr && handle._plugin_handle._manager != nullptr &&
           handle._plugin_handle._index != REDA_WEAK_REFERENCE_INDEX_INVALID;
}

const char *codeName(DDS_ReturnCode_t code) {
    switch (code) {
        case DDS_RETCODE_OK:
            return "OK";
        case DDS_RETCODE_ERROR:
            return "ERROR";
        case DDS_RETCODE_BAD_PARAMETER:
            return "BAD_PARAMETER";
        case DDS_RETCODE_PRECONDITION_NOT_MET:
            return "PRECONDITION_NOT_MET";
        case DDS_RETCODE_NO_DATA:
            return "NO_DATA";
        default:
            return "another result";
    }
}

class Narrator {
public:
    Narrator(std::ostream &out, LogCollector &log) : out_(out), log_(log) {}

    void step(const std::string &title) {
        showLog();
        out_ << "\n" << ++step_ << ". " << title << "\n";
    }
    void say(const std::string &line) {
        showLog();
        out_ << "   " << line << "\n";
    }
    // Says what happened; notes it when it is not what the module promises.
    void expect(bool asPromised, const std::string &line) {
        say(line + (asPromised ? "" : "   <-- UNEXPECTED"));
        if (!asPromised) ok_ = false;
    }
    void result(const std::string &what, DDS_ReturnCode_t code, DDS_ReturnCode_t expected) {
        expect(code == expected, what + ": " + codeName(code));
    }
    // The module's own messages, as they came.
    void showLog() {
        for (const LogMessage &message : log_.take()) {
            out_ << "   log " << levelName(message.level) << ": " << message.text << "  ["
                 << message.templateName << " in " << message.function << "]\n";
        }
    }
    bool ok() const { return ok_; }

private:
    std::ostream &out_;
    LogCollector &log_;
    int step_ = 0;
    bool ok_ = true;
};

std::vector<VESK_Transport_UDP_InterfaceInfo> interfacesOf(VESK_Transport_Plugin *udp) {
    std::vector<VESK_Transport_UDP_InterfaceInfo> interfaces(
        static_cast<std::size_t>(std::max(0, VESK_Transport_UDP_get_interfaces(udp, nullptr, 0))));
    const int count = VESK_Transport_UDP_get_interfaces(udp, interfaces.data(),
                                                        static_cast<int>(interfaces.size()));
    interfaces.resize(
        static_cast<std::size_t>(std::max(0, std::min<int>(count, interfaces.size()))));
    return interfaces;
}

void showInterfaces(Narrator &narrator, VESK_Transport_Plugin *udp) {
    const auto interfaces = interfacesOf(udp);
    if (interfaces.empty()) narrator.say("  (no interface in use)");
    for (const VESK_Transport_UDP_InterfaceInfo &info : interfaces) {
        narrator.say("  " + std::string(info.name) + " " + text(info.address) + " " +
                     (info.is_up ? "up" : "down") + (info.is_forced ? " (forced)" : ""));
    }
}

void showReceiveInterfaces(Narrator &narrator, VESK_Transport_Plugin *udp) {
    VESK_Transport_Interface_t interfaces[16];
    int more = 0;
    int count = 0;
    udp->get_receive_interfaces_cEA(udp, &more, &count, interfaces, 16);
    std::string line = "receive interfaces reported:";
    for (int i = 0; i < count && i < 16; ++i) {
        line += ' ';
        line += text(interfaces[i].address);
    }
    narrator.say(line);
}

bool usesInterface(VESK_Transport_Plugin *udp, const char *name) {
    for (const VESK_Transport_UDP_InterfaceInfo &info : interfacesOf(udp)) {
        if (std::strcmp(info.name, name) == 0) return true;
    }
    return false;
}

// Sends count datagrams of size bytes from the plugin to itself on
// 127.0.0.1 and receives them; the number that made the round. A receive
// that does not come within a second is woken.
int loopbackTraffic(VESK_Transport_Plugin *udp, int count, int size) {
    VESK_Transport_RecvResource_t receiver = nullptr;
    VESK_Transport_SendResource_t sender = nullptr;
    VESK_Transport_Port_t port = 0;
    const VESK_Transport_Address_t localhost = ipv4(127, 0, 0, 1);
    int received = 0;
    if (udp->create_recvresource_rrEA(udp, &receiver, &port, nullptr, 0) &&
        udp->create_sendresource_srEA(udp, &sender, &localhost, port, 0)) {
        std::vector<char> payload(static_cast<std::size_t>(size), 'd'), storage(65536);
        int sent = 0;
        for (int i = 0; i < count; ++i) {
            VESK_Transport_Buffer_t buffer{size, payload.data()};
            sent += udp->send(udp, &sender, nullptr, 0, 0, &buffer, 1, nullptr);
        }
        std::atomic<bool> done{false};
        std::thread watchdog([&] {
            for (int i = 0; i < 100 && !done.load(); ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            if (!done.load()) udp->unblock_receive_rrEA(udp, &receiver, nullptr);
        });
        for (int i = 0; i < sent; ++i) {
            VESK_Transport_Buffer_t buffer{static_cast<KEL_INT32>(storage.size()), storage.data()};
            VESK_Transport_Message_t message{};
            if (udp->receive_rEA(udp, &receiver, &buffer, &message, nullptr) == 0) break;
            ++received;
        }
        done.store(true);
        watchdog.join();
    }
    if (sender != nullptr) udp->destroy_sendresource_srEA(udp, &sender);
    if (receiver != nullptr) udp->destroy_recvresource_rrEA(udp, &receiver);
    return received;
}

}  // namespace

int runDemo(std::ostream &out) {
    LogCollector log;
    Narrator narrator(out, log);
    out << "vesk-transport demo: the transport-support module, step by step, in one process.\n";

    narrator.step("A domain participant, not enabled yet");
    DDS_DomainParticipantOptions options = DDS_DOMAINPARTICIPANT_OPTIONS_DEFAULT;
    options.transport_builtin_mask = 0;  // this demo installs its transports itself
    std::unique_ptr<DDS_DomainParticipant, ParticipantDeleter> participant(
        DDS_DomainParticipant_create(&options));
    if (!participant) {
        narrator.expect(false, "DDS_DomainParticipant_create failed");
        return 1;
    }
    narrator.say("DDS_DomainParticipant_create: no builtin transports, disabled");

    narrator.step(
        "A UDPv4 transport from properties "
        "(VESK_Transport_UDPv4_create_from_properties_with_prefix)");
    const char *prefix = "dds.transport.UDPv4.demo";
    PropertyList properties;
    // Only the loopback interface, which every host has; used even where it
    // is down, so that the demo runs in any network namespace.
    for (const auto &[suffix, value] : std::vector<std::pair<std::string, std::string>>{
             {"parent.allow_interfaces", "lo"},
             {"ignore_loopback_interface", "0"},
             {"ignore_nonup_interfaces", "false"},
             {"parent.message_size_max", "9000"},
             {"parent.thread_name_prefix", "demoudp"}}) {
        properties.assign({std::string(prefix) + "." + suffix, value, {"demo", 0}});
        narrator.say(std::string(prefix) + "." + suffix + " = " + value);
    }
    OwnedPlugin udpOwned(VESK_Transport_UDPv4_create_from_properties_with_prefix(
        nullptr, properties.policy(), prefix));
    if (!udpOwned) {
        narrator.expect(false, "the factory refused the list");
        return 1;
    }
    VESK_Transport_Plugin *udp = udpOwned.get();
    narrator.say(std::string("built a ") + udp->get_class_name_cEA(udp) +
                 " plugin, message_size_max " + std::to_string(udp->property->message_size_max) +
                 ", thread names \"" + udp->property->thread_name_prefix +
                 "\", interfaces in use:");
    showInterfaces(narrator, udp);

    narrator.step("Install it on the participant (VESK_Transport_Support_register_transport)");
    const VESK_Transport_Address_t noAddress{};
    Aliases udpAliases{"demo.udpv4"};
    const VESK_Transport_Handle_t udpHandle = VESK_Transport_Support_register_transport(
        participant.get(), udp, udpAliases.get(), &noAddress);
    narrator.expect(isValid(udpHandle), "registered under demo.udpv4: the participant owns it now");
    if (isValid(udpHandle)) udpOwned.release();

    narrator.step("A transport of our own, under two aliases, with routes");
    OwnedPlugin customOwned(newDemoTransport());
    VESK_Transport_Plugin *custom = customOwned.get();
    Aliases customAliases{"demo.custom", "my_transport"};
    const VESK_Transport_Address_t customAddress = ipv4(10, 0, 0, 7);
    const VESK_Transport_Handle_t customHandle = VESK_Transport_Support_register_transport(
        participant.get(), custom, customAliases.get(), &customAddress);
    narrator.expect(isValid(customHandle),
                    "class 0x7E570001 registered under demo.custom, my_transport at 10.0.0.7");
    if (isValid(customHandle)) customOwned.release();
    const VESK_Transport_Address_t range = ipv4(10, 0, 0, 0);
    // 10.0.0.0/8: an IPv4 address sits behind 96 leading zero bits.
    narrator.result("send route 10.0.0.0/8 (VESK_Transport_Support_add_send_route)",
                    VESK_Transport_Support_add_send_route(&customHandle, &range, 96 + 8),
                    DDS_RETCODE_OK);
    narrator.result("receive route 10.0.0.0/8 (VESK_Transport_Support_add_receive_route)",
                    VESK_Transport_Support_add_receive_route(&customHandle, &range, 96 + 8),
                    DDS_RETCODE_OK);
    narrator.say("the configurator holds " +
                 std::to_string(KELNetioConfigurator_getRouteCount(
                     DDS_DomainParticipant_get_netio_configuratorI(participant.get()))) +
                 " routes and " +
                 std::to_string(KELNetioConfigurator_getPluginCount(
                     DDS_DomainParticipant_get_netio_configuratorI(participant.get()))) +
                 " plugins");

    narrator.step("Lookup by alias and by plugin");
    narrator.expect(
        VESK_Transport_Support_get_transport_plugin(participant.get(), "my_transport") == custom,
        "get_transport_plugin(\"my_transport\"): our own transport");
    narrator.expect(
        VESK_Transport_Support_get_transport_plugin(participant.get(), "demo.udpv4") == udp,
        "get_transport_plugin(\"demo.udpv4\"): the UDPv4 plugin");
    narrator.expect(
        VESK_Transport_Support_get_transport_plugin(participant.get(), "nobody") == nullptr,
        "get_transport_plugin(\"nobody\"): none");
    Aliases found;
    VESK_Transport_Address_t foundAddress{};
    const VESK_Transport_Handle_t foundHandle = VESK_Transport_Support_lookup_transport(
        participant.get(), found.get(), &foundAddress, custom);
    narrator.expect(isValid(foundHandle) &&
                        foundHandle._plugin_handle._index == customHandle._plugin_handle._index,
                    "lookup_transport(our transport): aliases " + found.text() + ", address " +
                        text(foundAddress));

    narrator.step("Builtin UDPv4 properties: read, write, read again");
    VESK_Transport_UDP_Property_t builtin{};
    narrator.result("get_builtin_transport_property(UDPv4)",
                    VESK_Transport_Support_get_builtin_transport_property(
                        participant.get(), DDS_TRANSPORTBUILTIN_UDPv4, &builtin.parent),
                    DDS_RETCODE_OK);
    narrator.say("message_size_max " + std::to_string(builtin.parent.message_size_max) +
                 ", multicast_ttl " + std::to_string(builtin.multicast_ttl));
    VESK_Transport_UDP_Property_t changed = builtin;
    changed.parent.message_size_max = 8192;
    changed.multicast_ttl = 4;
    narrator.result("set_builtin_transport_property with message_size_max 8192, multicast_ttl 4",
                    VESK_Transport_Support_set_builtin_transport_property(
                        participant.get(), DDS_TRANSPORTBUILTIN_UDPv4, &changed.parent),
                    DDS_RETCODE_OK);
    VESK_Transport_UDP_Property_t reread{};
    VESK_Transport_Support_get_builtin_transport_property(
        participant.get(), DDS_TRANSPORTBUILTIN_UDPv4, &reread.parent);
    narrator.expect(reread.parent.message_size_max == 8192 && reread.multicast_ttl == 4,
                    "read again: message_size_max " +
                        std::to_string(reread.parent.message_size_max) + ", multicast_ttl " +
                        std::to_string(reread.multicast_ttl));

    narrator.step("Enable the participant");
    narrator.result("DDS_DomainParticipant_enable", DDS_DomainParticipant_enable(participant.get()),
                    DDS_RETCODE_OK);

    narrator.step("Statistics of the UDPv4 transport");
    // Three datagrams of 100 bytes through the plugin itself, over loopback:
    // its send and receive paths count them.
    const int roundTrips = loopbackTraffic(udp, 3, 100);
    narrator.say("sent and received " + std::to_string(roundTrips) +
                 " datagrams of 100 bytes through the plugin over 127.0.0.1");
    VESK_Transport_UDP_Statistics statistics{};
    narrator.result("VESK_Transport_Support_get_udpv4_statistics",
                    VESK_Transport_Support_get_udpv4_statistics(participant.get(), &statistics),
                    DDS_RETCODE_OK);
    narrator.expect(statistics.user_packets_sent == static_cast<KEL_UINT64>(roundTrips) &&
                        statistics.user_packets_received == static_cast<KEL_UINT64>(roundTrips),
                    "user packets sent " + std::to_string(statistics.user_packets_sent) + " (" +
                        std::to_string(statistics.user_bytes_sent) + " bytes), received " +
                        std::to_string(statistics.user_packets_received) + " (" +
                        std::to_string(statistics.user_bytes_received) + " bytes)");

    narrator.step("A fake address");
    VESK_Transport_Address_t fake = ipv4(192, 0, 2, 1);
    narrator.result("assert_fake_ipv4_address(192.0.2.1)",
                    VESK_Transport_Support_assert_fake_ipv4_address(participant.get(), &fake),
                    DDS_RETCODE_OK);
    showReceiveInterfaces(narrator, udp);
    narrator.result("remove_fake_ipv4_address",
                    VESK_Transport_Support_remove_fake_ipv4_address(participant.get()),
                    DDS_RETCODE_OK);
    showReceiveInterfaces(narrator, udp);

    narrator.step("The loopback interface forced down and up");
    if (usesInterface(udp, "lo")) {
        narrator.result(
            "change_interface_status(UDPv4, \"lo\", down)",
            VESK_Transport_Support_change_interface_status(
                participant.get(), VESK_TRANSPORT_CLASSID_UDPv4, "lo", DDS_BOOLEAN_FALSE),
            DDS_RETCODE_OK);
        showInterfaces(narrator, udp);
        narrator.result(
            "change_interface_status(UDPv4, \"lo\", up)",
            VESK_Transport_Support_change_interface_status(
                participant.get(), VESK_TRANSPORT_CLASSID_UDPv4, "lo", DDS_BOOLEAN_TRUE),
            DDS_RETCODE_OK);
        showInterfaces(narrator, udp);
    } else {
        narrator.say("this host's loopback interface has no IPv4 address: nothing to force");
    }
    narrator.result(
        "change_interface_status(UDPv4, \"no-such-if0\", down)",
        VESK_Transport_Support_change_interface_status(
            participant.get(), VESK_TRANSPORT_CLASSID_UDPv4, "no-such-if0", DDS_BOOLEAN_FALSE),
        DDS_RETCODE_ERROR);

    narrator.step("What an enabled participant refuses");
    OwnedPlugin late(newDemoTransport());
    Aliases lateAliases{"demo.late"};
    const VESK_Transport_Handle_t lateHandle = VESK_Transport_Support_register_transport(
        participant.get(), late.get(), lateAliases.get(), &customAddress);
    narrator.expect(!isValid(lateHandle),
                    "register another transport: refused, the plugin stays ours");
    narrator.result("add_send_route",
                    VESK_Transport_Support_add_send_route(&customHandle, &range, 104),
                    DDS_RETCODE_PRECONDITION_NOT_MET);
    narrator.result("set_builtin_transport_property",
                    VESK_Transport_Support_set_builtin_transport_property(
                        participant.get(), DDS_TRANSPORTBUILTIN_UDPv4, &changed.parent),
                    DDS_RETCODE_PRECONDITION_NOT_MET);
    narrator.expect(
        VESK_Transport_Support_get_transport_plugin(participant.get(), "my_transport") == custom,
        "lookups still work: my_transport is still there");

    narrator.step("Delete the participant, and with it the plugins it owns");
    participant.reset();
    late.reset();
    narrator.say("done");
    narrator.showLog();
    out << "\n"
        << (narrator.ok() ? "Every step did what the module promises."
                          : "Some steps did NOT do what the module promises.")
        << "\n";
    return narrator.ok() ? 0 : 1;
}

}  // namespace vesk::tool
