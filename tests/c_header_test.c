/* Compiled as strict C99: the public headers are C, and the library links
 * from a C program. */
#include <stdio.h>
#include <string.h>

#include "vesk_transport/Support.h"
#include "vesk_transport/platform/Heap.h"
#include "vesk_transport/platform/Log.h"

static int failures = 0;

static void check(int condition, int line) {
    if (!condition) {
        fprintf(stderr, "%s:%d: check failed\n", __FILE__, line);
        ++failures;
    }
}
#define CHECK(condition_) check((condition_) != 0, __LINE__)

int main(void) {
    DDS_DomainParticipant *participant = DDS_DomainParticipant_create(NULL);
    char **list = NULL;
    struct KELOsapiHeapStatistics before, after;

    CHECK(participant != NULL);
    CHECK(VESK_TRANSPORT_HANDLE_NIL._plugin_handle._index == 0xFFFFFFFFu);
    CHECK(sizeof(KELNetioAliasList) == 129 && sizeof(VESK_Transport_Address_t) == 16);
    CHECK(VESK_TRANSPORT_UDPV4_PROPERTY_DEFAULT.parent.message_size_max == 65507);
    DDSLog_g_instrumentationMask = VESK_CONFIG_LOG_VERBOSITY_SILENT;
    CHECK(VESK_Transport_Support_register_transport(participant, NULL, NULL, NULL)._participant ==
          NULL);

    KELOsapiHeap_getStatistics(&before);
    CHECK(KELOsapiHeap_allocateArray(&list, 3, char *));
    CHECK(list != NULL && list[2] == NULL);
    CHECK(strcmp(KELOsapiHeap_getBlockTypeName(list), "char *") == 0);
    KELOsapiHeap_freeArray(list);
    KELOsapiHeap_getStatistics(&after);
    CHECK(before.live_blocks == after.live_blocks);

    DDS_DomainParticipant_delete(participant);
    if (failures == 0) printf("c_header_test: all checks passed\n");
    return failures == 0 ? 0 : 1;
}
