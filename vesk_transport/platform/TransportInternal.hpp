// Internal helpers shared by the transport modules (Transport.cpp, Udp.cpp,
// Shmem.cpp): record checks, logging of refusals and the plugin operations
// that every transport of this library fills in the same way. Not part of
// the installed C interface.
#pragma once

#include "vesk_transport/platform/Log.h"
#include "vesk_transport/platform/Transport.h"

namespace vesk::transport {

// The first reason why a transport cannot run with the generic part of
// its record, as "<field> <reason>", or nullptr when it can.
const char *checkGenericRecord(const VESK_Transport_Property_t &record);

// The record's scalars and borrowed pointers, with every owned member
// (the four interface lists, the thread-name prefix) NULL and length 0.
VESK_Transport_Property_t withoutOwnedMembers(const VESK_Transport_Property_t &record) noexcept;

// Writes an error-level message of the transport submodule, when the masks
// allow it, whose one string parameter is "<class_name> transport: <reason>".
// Allocates nothing and never throws, so failure paths can use it.
void logError(const KELLogMessageTemplate &message_template, const char *function, const char *file,
              int line, const char *class_name, const char *reason) noexcept;

// Fills the operations that need a socket or a shared segment (resources,
// send, receive, contexts, destination update) with ones that report
// failure without touching anything, plus the address helpers that compare
// and copy the 16 bytes. The transport fills the rest.
void fillCommonOperations(VESK_Transport_Plugin &plugin) noexcept;

// Parses IPv4 text into the last four bytes (mapped == false: the rest
// zero; mapped == true: ::ffff:a.b.c.d) or IPv6 text into all 16 bytes.
bool parseIpv4Text(const char *text, bool mapped, VESK_Transport_Address_t &address_out) noexcept;
bool parseIpv6Text(const char *text, VESK_Transport_Address_t &address_out) noexcept;

}  // namespace vesk::transport
