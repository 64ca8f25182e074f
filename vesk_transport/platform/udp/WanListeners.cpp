// The process-wide registry of the WAN listeners that the application
// allows the transport to call (docs/wan-transport.md). A fixed table under
// a mutex: registering allocates nothing and cannot fail halfway.
#include "vesk_transport/platform/udp/WanHooks.hpp"

#include <arpa/inet.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "vesk_transport/platform/UdpWan.h"

namespace vesk::udp {
namespace {

using Listener = VESK_Transport_UDP_WAN_Listener;

struct Slot {
    const Listener *listener = nullptr;
    int calls = 0;  // calls in progress
};

class Registry {
public:
    bool add(const Listener *listener) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (find(listener) != nullptr) return true;
        Slot *free_slot = find(nullptr);
        if (free_slot == nullptr) return false;
        free_slot->listener = listener;
        return true;
    }

    bool remove(const Listener *listener) {
        std::unique_lock<std::mutex> lock(mutex_);
        Slot *slot = find(listener);
        if (slot == nullptr) return false;
        // A listener that unregisters itself from its callback must not
        // wait for its own call.
        const int own = calling_ == listener ? 1 : 0;
        idle_.wait(lock, [&] { return slot->calls <= own; });
        slot->listener = nullptr;
        slot->calls = 0;
        return true;
    }

    bool contains(const Listener *listener) {
        std::lock_guard<std::mutex> lock(mutex_);
        return find(listener) != nullptr;
    }

    bool call(const Listener *listener, const VESK_Transport_Address_t &address,
              VESK_Transport_Port_t port) {
        Slot *slot = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            slot = find(listener);
            if (slot == nullptr || listener->on_public_mapping_resolved == nullptr) return false;
            ++slot->calls;
        }
        const Listener *outer = calling_;
        calling_ = listener;
        listener->on_public_mapping_resolved(listener->listener_data, &address, port);
        calling_ = outer;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            // The slot may have been emptied by the listener itself.
            if (slot->listener == listener && slot->calls > 0) --slot->calls;
        }
        idle_.notify_all();
        return true;
    }

private:
    Slot *find(const Listener *listener) {
        for (Slot &slot : slots_) {
            if (slot.listener == listener) return &slot;
        }
        return nullptr;
    }

    std::mutex mutex_;
    std::condition_variable idle_;
    Slot slots_[VESK_TRANSPORT_UDP_WAN_LISTENER_CAPACITY];
    static thread_local const Listener *calling_;
};

thread_local const Listener *Registry::calling_ = nullptr;

Registry &registry() {
    static Registry instance;
    return instance;
}

}  // namespace

const char *wanRefusal(const VESK_Transport_UDP_Property_t &property) noexcept {
    try {
        if (property.wan_listener != nullptr && !registry().contains(property.wan_listener)) {
            return "wan_listener_ptr does not point at a registered listener: register it with "
                   "VESK_Transport_UDP_WAN_register_listener before creating the transport";
        }
    } catch (...) {
        return "wan_listener_ptr cannot be checked against the listener registry";
    }
    in_addr parsed{};
    if (property.public_address != nullptr && property.public_address[0] != '\0' &&
        inet_pton(AF_INET, property.public_address, &parsed) != 1) {
        return "public_address is not an IPv4 address (such as 203.0.113.5)";
    }
    return nullptr;
}

bool notifyPublicMapping(const Listener *listener, const VESK_Transport_Address_t &address,
                         VESK_Transport_Port_t port) noexcept {
    if (listener == nullptr) return false;
    try {
        return registry().call(listener, address, port);
    } catch (...) {
        return false;
    }
}

}  // namespace vesk::udp

namespace {

// A registry operation as the C interface answers it: 1 or 0, and 0 for a
// null listener or when the registry cannot be reached.
template <typename Operation>
int askRegistry(const VESK_Transport_UDP_WAN_Listener *listener, Operation operation) noexcept {
    if (listener == nullptr) return 0;
    try {
        return operation(vesk::udp::registry(), listener) ? 1 : 0;
    } catch (...) {
        return 0;
    }
}

}  // namespace

extern "C" {

int VESK_Transport_UDP_WAN_register_listener(
    const struct VESK_Transport_UDP_WAN_Listener *listener) {
    return askRegistry(listener, [](auto &registry, auto *l) { return registry.add(l); });
}

int VESK_Transport_UDP_WAN_unregister_listener(
    const struct VESK_Transport_UDP_WAN_Listener *listener) {
    return askRegistry(listener, [](auto &registry, auto *l) { return registry.remove(l); });
}

int VESK_Transport_UDP_WAN_is_listener_registered(
    const struct VESK_Transport_UDP_WAN_Listener *listener) {
    return askRegistry(listener, [](auto &registry, auto *l) { return registry.contains(l); });
}

}  // extern "C"
