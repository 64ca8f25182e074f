// vesk-transport doctor: will this property file work on this host? Builds
// the transport from the files as show does, then checks what the host
// delivers: interfaces, socket buffers, message size against MTU and
// buffers, multicast, the RTPS ports of a domain, the WAN settings. One
// line per check with a verdict and, for each problem, the fix.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "tools/Inspection.hpp"

namespace vesk::tool {

struct DoctorOptions {
    long domain = 0;
    long participant = 0;
    int multicastTimeoutMs = 1000;
    // Join the group on non-loopback interfaces too (the kernel then sends
    // a membership report on that network).
    bool joinEverywhere = false;
};

enum class Verdict { ok, warning, problem };
const char *verdictName(Verdict verdict);

struct CheckResult {
    std::string check;  // "receive buffer"
    Verdict verdict = Verdict::ok;
    std::string finding;
    std::string fix;  // empty when there is nothing to fix
};

struct DoctorReport {
    const TransportClass *transportClass = nullptr;
    DoctorOptions options;
    std::vector<CheckResult> checks;
    int count(Verdict verdict) const;
    // 0 when everything asked for can be delivered, 1 when something cannot.
    int exitCode() const { return count(Verdict::problem) > 0 ? 1 : 0; }
};

DoctorReport runDoctor(const TransportClass &transportClass, const PropertyList &list,
                       const InspectOptions &inspectOptions, const DoctorOptions &options);

Json toJson(const DoctorReport &report);
void printDoctor(std::ostream &out, const DoctorReport &report);

// For show: the interfaces of this host that a UDP transport built from the
// list would use, and the reason for each one it leaves out (unicast, then
// multicast). Prints nothing for the shared-memory class or a refused list.
void printHostInterfaces(std::ostream &out, const TransportClass &transportClass,
                         const PropertyList &list, const char *prefix);

}  // namespace vesk::tool
