// The shared-memory plugin object and its constructor's second half.
#pragma once

#include "vesk_transport/platform/Shmem.h"

namespace vesk::shmem {

// Builds the plugin for a record that passed the constructor's checks:
// NULL (after logging why) when memory or the debugging socket fails.
VESK_Transport_Plugin *makePlugin(const VESK_Transport_Shmem_Property_t &property);

// The debugging address rule: IPv4, multicast or loopback.
bool debuggingAddressAllowed(const VESK_Transport_Address_t &address);

}  // namespace vesk::shmem
