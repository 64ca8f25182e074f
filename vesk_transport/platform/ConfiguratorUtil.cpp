// Configurator utilities.
#include "vesk_transport/platform/ConfiguratorUtil.h"

namespace {

void storeBigEndian(KEL_UINT32 value, unsigned char *out) {
    out[0] = static_cast<unsigned char>(value >> 24);
    out[1] = static_cast<unsigned char>(value >> 16);
    out[2] = static_cast<unsigned char>(value >> 8);
    out[3] = static_cast<unsigned char>(value);
}

}  // namespace

extern "C" int KELNetioConfiguratorUtil_generateDefaultNetworkAddress96(
    VESK_Transport_Address_t *address_out, VESK_Transport_ClassId_t classid, KEL_UINT32 host_id,
    KEL_UINT32 app_id, KEL_UINT32 instance_id, KEL_UINT32 /* reserved */) {
    if (address_out == nullptr || classid <= 0) return 0;
    unsigned char *bytes = address_out->network_ordered_value;
    storeBigEndian(static_cast<KEL_UINT32>(classid), bytes);
    storeBigEndian(host_id, bytes + 4);
    storeBigEndian(app_id, bytes + 8);
    storeBigEndian(instance_id, bytes + 12);
    return 1;
}
