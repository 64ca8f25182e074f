#include "tools/Doctor.hpp"

#include <arpa/inet.h>
#include <net/if.h>

#include <algorithm>
#include <memory>

#include "tools/Probe.hpp"
#include "vesk_transport/platform/udp/Interfaces.hpp"

namespace vesk::tool {

namespace {

// The group of the multicast checks: the usual RTPS discovery group.
const char *probeGroup(bool ipv6) {
    return ipv6 ? "ff02::7400" : "239.255.0.1";
}

// The IP and UDP headers in front of a datagram's payload.
int headerBytes(bool ipv6) {
    return ipv6 ? 48 : 28;
}

using vesk::udp::InterfaceCandidate;

std::string describe(const InterfaceCandidate &candidate) {
    return candidate.name + " " + vesk::udp::addressText(candidate);
}

// One entry per interface name, whatever its addresses.
std::vector<InterfaceCandidate> byName(const std::vector<InterfaceCandidate> &candidates) {
    std::vector<InterfaceCandidate> out;
    for (const InterfaceCandidate &candidate : candidates) {
        if (std::none_of(out.begin(), out.end(),
                         [&](const InterfaceCandidate &c) { return c.name == candidate.name; })) {
            out.push_back(candidate);
        }
    }
    return out;
}

// What the checks look at.
struct Context {
    const TransportClass &transportClass;
    const UdpRecord &udp;
    const DoctorOptions &options;
    bool hostListed;
    vesk::udp::Selection unicast;
    vesk::udp::Selection multicast;
    BufferProbe send;
    BufferProbe receive;
    std::vector<CheckResult> &out;

    const VESK_Transport_UDP_Property_t &record() const { return udp.record(); }
    bool ipv6() const { return udp.ipv6(); }
    void add(const char *check, Verdict verdict, std::string finding, std::string fix = "") {
        out.push_back({check, verdict, std::move(finding), std::move(fix)});
    }
};

std::string bytes(long count) {
    return std::to_string(count) + " bytes";
}

void checkInterfaces(Context &context) {
    if (!context.hostListed) {
        context.add("interface", Verdict::problem, "the host's interfaces cannot be listed");
        return;
    }
    for (const InterfaceCandidate &used : context.unicast.selected) {
        context.add("interface", Verdict::ok,
                    "uses " + describe(used) + ": " + ((used.flags & IFF_UP) ? "up" : "down") +
                        ", MTU " + std::to_string(used.mtu));
    }
    for (const vesk::udp::ExcludedInterface &left : context.unicast.excluded) {
        context.add("interface", Verdict::ok,
                    "leaves out " + describe(left.candidate) + ": " +
                        vesk::udp::exclusionText(left.reason));
    }
    if (context.unicast.selected.empty()) {
        context.add("interface", Verdict::problem,
                    "the transport selected no interface: it can neither send nor receive",
                    "check parent.allow_interfaces, parent.deny_interfaces and "
                    "ignore_loopback_interface against the reasons above");
    }
}

void checkBuffer(Context &context, bool send) {
    const BufferProbe &probe = send ? context.send : context.receive;
    const char *check = send ? "send buffer" : "receive buffer";
    const KEL_INT32 asked =
        send ? context.record().send_socket_buffer_size : context.record().recv_socket_buffer_size;
    const std::string limit =
        std::string(socketBufferSysctl(send)) + " = " + std::to_string(probe.limit);
    const std::string sysctl = "sudo sysctl -w " + std::string(socketBufferSysctl(send)) + "=" +
                               std::to_string(probe.requested) +
                               "  (and the same line in /etc/sysctl.d/ to keep it)";
    if (!probe.error.empty()) {
        context.add(check, Verdict::problem, "a probe socket failed: " + probe.error);
    } else if (asked == VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_OS_DEFAULT) {
        context.add(check, Verdict::ok, "the OS default: " + bytes(probe.granted));
    } else if (probe.granted < probe.requested) {
        context.add(check, Verdict::problem,
                    "asked for " + bytes(probe.requested) + ", the kernel granted " +
                        bytes(probe.granted) + " (" + limit + ")",
                    sysctl);
    } else if (probe.unprivileged < probe.requested) {
        context.add(check, Verdict::warning,
                    "asked for " + bytes(probe.requested) +
                        ": granted only because this process "
                        "may go beyond " +
                        limit + "; a process without CAP_NET_ADMIN gets " +
                        bytes(probe.unprivileged),
                    sysctl);
    } else {
        context.add(check, Verdict::ok,
                    (asked == VESK_TRANSPORT_UDP_SOCKET_BUFFER_SIZE_OS_MAX
                         ? "the OS maximum: "
                         : "asked for " + bytes(probe.requested) + ", granted ") +
                        bytes(probe.granted) + " (" + limit + ")");
    }
}

// The sizes the transport's own sockets got: a plugin with one receive
// resource on a free port and one send resource toward it, nothing sent.
void checkTransportSockets(Context &context) {
    LogCollector quiet;  // a refused resource says so below
    VESK_Transport_Plugin *plugin = context.udp.newPlugin();
    if (plugin == nullptr) return;
    VESK_Transport_RecvResource_t receiver = nullptr;
    VESK_Transport_SendResource_t sender = nullptr;
    VESK_Transport_Port_t port = 0;
    VESK_Transport_Address_t loopback{};
    plugin->string_to_address_cEA(plugin, &loopback, context.ipv6() ? "::1" : "127.0.0.1");
    const bool made = plugin->create_recvresource_rrEA(plugin, &receiver, &port, nullptr, 0) &&
                      plugin->create_sendresource_srEA(plugin, &sender, &loopback, port, 0);
    int send = -1;
    int receive = -1;
    VESK_Transport_UDP_get_socket_buffer_sizes(plugin, &send, &receive);
    if (sender != nullptr) plugin->destroy_sendresource_srEA(plugin, &sender);
    if (receiver != nullptr) plugin->destroy_recvresource_rrEA(plugin, &receiver);
    plugin->delete_cEA(plugin, nullptr);
    if (!made) {
        context.add("sockets", Verdict::warning,
                    "the transport opened no unicast socket here (unicast_enabled is off, or "
                    "no port was free): its buffers were not read");
        return;
    }
    const bool asProbed = send == context.send.granted && receive == context.receive.granted;
    context.add("sockets", asProbed ? Verdict::ok : Verdict::warning,
                "the transport's own sockets got a send buffer of " + bytes(send) +
                    " and a receive buffer of " + bytes(receive) +
                    (asProbed ? ", as probed" : ", not what the probe sockets got"));
}

void checkBuffers(Context &context) {
    checkBuffer(context, true);
    checkBuffer(context, false);
    checkTransportSockets(context);
}

void checkMessageSize(Context &context) {
    const long size = context.record().parent.message_size_max;
    for (const InterfaceCandidate &selected : byName(context.unicast.selected)) {
        const long payload = static_cast<long>(selected.mtu) - headerBytes(context.ipv6());
        if (selected.mtu == 0) continue;
        if (size > payload) {
            context.add("message size", Verdict::warning,
                        "parent.message_size_max " + std::to_string(size) +
                            ": larger messages than " + std::to_string(payload) +
                            " bytes are sent in IP fragments on " + selected.name + " (MTU " +
                            std::to_string(selected.mtu) + "); one lost fragment loses the message",
                        "set parent.message_size_max = " + std::to_string(payload) +
                            " to send without fragments on " + selected.name);
        } else {
            context.add("message size", Verdict::ok,
                        "parent.message_size_max " + std::to_string(size) + " fits one frame on " +
                            selected.name + " (MTU " + std::to_string(selected.mtu) + ")");
        }
    }
    for (const bool send : {true, false}) {
        const BufferProbe &probe = send ? context.send : context.receive;
        if (!probe.error.empty() || size <= probe.granted) continue;
        context.add("message size", Verdict::problem,
                    "a message of parent.message_size_max " + std::to_string(size) +
                        " bytes does not fit the " + (send ? "send" : "receive") + " buffer of " +
                        bytes(probe.granted),
                    std::string("raise ") +
                        (send ? "send_socket_buffer_size" : "recv_socket_buffer_size") +
                        " or lower parent.message_size_max");
    }
}

void checkMulticast(Context &context) {
    const VESK_Transport_UDP_Property_t &record = context.record();
    if (record.multicast_enabled == 0) {
        context.add("multicast", Verdict::ok,
                    "off in the record (multicast_enabled): peers are reached by unicast only");
        return;
    }
    const std::string group = probeGroup(context.ipv6());
    int usable = 0;
    for (const InterfaceCandidate &selected : byName(context.multicast.selected)) {
        if ((selected.flags & IFF_LOOPBACK) == 0 && !context.options.joinEverywhere) {
            ++usable;
            context.add("multicast", Verdict::ok,
                        "may use " + selected.name +
                            " (not joined here: a join sends a membership report on that network; "
                            "--join does it)");
            continue;
        }
        const std::string error = tryJoin(group, selected.name, context.ipv6());
        if (error.empty()) ++usable;
        context.add(
            "multicast", error.empty() ? Verdict::ok : Verdict::problem,
            "join " + group + " on " + selected.name + ": " + (error.empty() ? "joined" : error));
    }
    for (const vesk::udp::ExcludedInterface &left : context.multicast.excluded) {
        context.add("multicast", Verdict::ok,
                    "leaves out " + describe(left.candidate) + ": " +
                        vesk::udp::exclusionText(left.reason));
    }
    const std::string loopback =
        multicastLoopbackProbe(group, context.ipv6(), context.options.multicastTimeoutMs);
    if (loopback.empty()) {
        context.add(
            "multicast", Verdict::ok,
            "a datagram sent to " + group + " on lo came back: multicast works on this host");
    } else {
        context.add("multicast", Verdict::warning,
                    "multicast does not work here: a datagram sent to " + group +
                        " on lo (loopback on, TTL 0) failed: " + loopback,
                    "give the peers' unicast addresses, or turn multicast on: ip link set lo "
                    "multicast on");
    }
    if (usable == 0) {
        context.add("multicast", Verdict::problem,
                    "multicast_enabled is on, but no selected interface can do multicast",
                    "set multicast_enabled = false and give the peers' unicast addresses, or "
                    "allow an interface with the MULTICAST flag");
    }
    if (record.multicast_loopback_disabled != 0) {
        context.add("multicast", Verdict::warning,
                    "multicast_loopback_disabled: participants on this host do not receive each "
                    "other's multicast",
                    "set multicast_loopback_disabled = false when peers run on the same host");
    }
}

void checkPorts(Context &context) {
    const RtpsPorts ports = rtpsPorts(context.options.domain, context.options.participant);
    struct Port {
        const char *what;
        long port;
        bool multicast;
    };
    const Port table[] = {{"discovery multicast", ports.metatrafficMulticast, true},
                          {"discovery unicast", ports.metatrafficUnicast, false},
                          {"user multicast", ports.userMulticast, true},
                          {"user unicast", ports.userUnicast, false}};
    const std::string who = "domain " + std::to_string(context.options.domain) + ", participant " +
                            std::to_string(context.options.participant);
    for (const Port &port : table) {
        if ((port.multicast ? context.record().multicast_enabled
                            : context.record().unicast_enabled) == 0) {
            continue;
        }
        const std::string name = std::string(port.what) + " port " + std::to_string(port.port);
        if (port.port > 65535) {
            context.add("port", Verdict::problem, who + ": " + name + " is beyond 65535",
                        "use a smaller domain id or participant index");
            continue;
        }
        const std::string error = tryBind(port.port, context.ipv6(), port.multicast);
        if (error.empty()) {
            context.add("port", Verdict::ok, who + ": " + name + " can be bound");
        } else {
            context.add("port", Verdict::problem, who + ": " + name + " cannot be bound: " + error,
                        port.multicast ? "stop the program that holds the port without "
                                         "SO_REUSEADDR (ss -ulpn)"
                                       : "another participant holds it: check --participant " +
                                             std::to_string(context.options.participant + 1) +
                                             ", or stop the holder (ss -ulpn)");
        }
    }
}

bool privateIpv4(const in_addr &address) {
    const uint32_t a = ntohl(address.s_addr);
    return (a >> 24) == 10 || (a >> 20) == ((172u << 4) | 1u) ||
           (a >> 16) == ((192u << 8) | 168u) || (a >> 22) == ((100u << 2) | 1u) || (a >> 24) == 127;
}

void checkWan(Context &context) {
    const VESK_Transport_UDP_Property_t &record = context.record();
    if (record.parent.classid != VESK_TRANSPORT_CLASSID_UDPv4_WAN) return;
    in_addr address{};
    if (record.public_address == nullptr) {
        context.add("wan", Verdict::warning,
                    "no public_address: peers outside this network learn no address to reach "
                    "this transport at",
                    "set public_address to the address at which peers reach this host");
    } else if (inet_pton(AF_INET, record.public_address, &address) != 1) {
        context.add("wan", Verdict::problem,
                    std::string("public_address \"") + record.public_address +
                        "\" is not an IPv4 address (a.b.c.d)",
                    "write the public IPv4 address in dotted form");
    } else if (privateIpv4(address)) {
        context.add("wan", Verdict::warning,
                    std::string("public_address ") + record.public_address +
                        " is a private address: only peers inside this network reach it",
                    "give the address of the NAT's public side");
    } else {
        context.add("wan", Verdict::ok,
                    std::string("public_address ") + record.public_address + " (an IPv4 address)");
    }
    for (KEL_INT32 i = 0; i < record.comm_ports_list_length; ++i) {
        const VESK_Transport_UDP_WAN_CommPortsMappingInfo &mapping = record.comm_ports_list[i];
        const std::string text = "mapping rtps " + std::to_string(mapping.rtps_port) + " -> host " +
                                 std::to_string(mapping.host_port) + " -> public " +
                                 std::to_string(mapping.public_port);
        const std::string error = tryBind(mapping.host_port, false, false);
        context.add("wan", error.empty() ? Verdict::ok : Verdict::problem,
                    text + (error.empty() ? ": the host port can be bound"
                                          : ": the host port cannot be bound: " + error),
                    error.empty() ? "" : "choose another host port in comm_ports");
    }
    if (record.comm_ports_list_length == 0) {
        context.add("wan", Verdict::ok,
                    "no comm_ports mapping: the RTPS ports are used as they are");
    }
    context.add("wan", Verdict::ok,
                "port_offset " + std::to_string(record.port_offset) + ", binding_ping_period " +
                    std::to_string(record.binding_ping_period));
    if (record.wan_listener == nullptr) {
        context.add("wan", Verdict::ok,
                    "no WAN listener registered (wan_listener_ptr): public-mapping events are not "
                    "reported to the application");
    } else {
        context.add("wan", Verdict::warning,
                    "wan_listener_ptr is set: a listener address only means something inside the "
                    "application's own process",
                    "set wan_listener_ptr from the application, not in a file");
    }
}

using CheckFunction = void (*)(Context &);
constexpr CheckFunction CHECKS[] = {checkInterfaces, checkBuffers, checkMessageSize,
                                    checkMulticast,  checkPorts,   checkWan};

}  // namespace

const char *verdictName(Verdict verdict) {
    switch (verdict) {
        case Verdict::ok:
            return "ok";
        case Verdict::warning:
            return "warning";
        case Verdict::problem:
            return "problem";
    }
    return "";
}

int DoctorReport::count(Verdict verdict) const {
    return static_cast<int>(std::count_if(
        checks.begin(), checks.end(), [&](const CheckResult &c) { return c.verdict == verdict; }));
}

DoctorReport runDoctor(const TransportClass &transportClass, const PropertyList &list,
                       const InspectOptions &inspectOptions, const DoctorOptions &options) {
    DoctorReport report;
    report.transportClass = &transportClass;
    report.options = options;
    const Inspection inspection = inspect(transportClass, list, inspectOptions);
    for (const LogMessage &message : inspection.messages) {
        report.checks.push_back(
            {"properties", (message.level & KEL_LOG_BIT_WARN) ? Verdict::warning : Verdict::problem,
             (message.property ? describe(message.property->origin) + ": " : std::string()) +
                 message.text,
             message.fix});
    }
    if (!inspection.accepted()) {
        report.checks.push_back({"properties", Verdict::problem,
                                 "the list is refused: the host checks need an accepted list",
                                 "fix the messages above (vesk-transport show gives the details)"});
        return report;
    }
    report.checks.push_back({"properties", Verdict::ok,
                             "the setup applied " + std::to_string(inspection.applied) +
                                 " properties and the " + transportClass.title +
                                 " transport accepts the record",
                             ""});
    if (transportClass.kind != RecordKind::udp) {
        report.checks.push_back({"host", Verdict::ok,
                                 "the shared-memory transport uses no network: nothing more to "
                                 "check here",
                                 ""});
        return report;
    }
    const char *prefix = inspectOptions.prefix ? inspectOptions.prefix->c_str() : nullptr;
    const UdpRecord udp(transportClass, list.policy(), prefix);
    Context context{transportClass,
                    udp,
                    options,
                    false,
                    {},
                    {},
                    probeSocketBuffer(true, udp.record().send_socket_buffer_size, udp.ipv6()),
                    probeSocketBuffer(false, udp.record().recv_socket_buffer_size, udp.ipv6()),
                    report.checks};
    context.hostListed = vesk::udp::describeHostSelection(udp.record(), udp.ipv6(), context.unicast,
                                                          context.multicast);
    for (const CheckFunction check : CHECKS) check(context);
    return report;
}

Json toJson(const DoctorReport &report) {
    Json checks = Json::array();
    for (const CheckResult &check : report.checks) {
        checks.push_back({{"check", check.check},
                          {"verdict", verdictName(check.verdict)},
                          {"finding", check.finding},
                          {"fix", check.fix.empty() ? Json(nullptr) : Json(check.fix)}});
    }
    return {{"class", report.transportClass->option},
            {"domain", report.options.domain},
            {"participant", report.options.participant},
            {"checks", std::move(checks)},
            {"problems", report.count(Verdict::problem)},
            {"warnings", report.count(Verdict::warning)},
            {"exit_code", report.exitCode()}};
}

void printHostInterfaces(std::ostream &out, const TransportClass &transportClass,
                         const PropertyList &list, const char *prefix) {
    if (transportClass.kind != RecordKind::udp) return;
    const UdpRecord udp(transportClass, list.policy(), prefix);
    if (!udp.ok()) return;
    vesk::udp::Selection unicast, multicast;
    out << "\ninterfaces of this host:\n";
    if (!vesk::udp::describeHostSelection(udp.record(), udp.ipv6(), unicast, multicast)) {
        out << "  the host's interfaces cannot be listed\n";
        return;
    }
    const struct {
        const char *what;
        const vesk::udp::Selection &selection;
    } parts[] = {{"unicast", unicast}, {"multicast", multicast}};
    for (const auto &part : parts) {
        for (const InterfaceCandidate &used : part.selection.selected) {
            out << "  " << part.what << " uses " << describe(used) << "\n";
        }
        for (const vesk::udp::ExcludedInterface &left : part.selection.excluded) {
            out << "  " << part.what << " leaves out " << describe(left.candidate) << ": "
                << vesk::udp::exclusionText(left.reason) << "\n";
        }
        if (part.selection.selected.empty()) out << "  " << part.what << " uses no interface\n";
    }
}

void printDoctor(std::ostream &out, const DoctorReport &report) {
    for (const CheckResult &check : report.checks) {
        std::string verdict = verdictName(check.verdict);
        std::string name = check.check;
        verdict.resize(8, ' ');
        name.resize(15, ' ');
        out << verdict << name << check.finding << '\n';
        if (!check.fix.empty()) out << std::string(23, ' ') << "fix: " << check.fix << '\n';
    }
    out << report.count(Verdict::problem) << " problem(s), " << report.count(Verdict::warning)
        << " warning(s), " << report.count(Verdict::ok) << " ok\n";
}

}  // namespace vesk::tool
