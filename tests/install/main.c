/* A program of another project, built against the installed library. */
#include <stdio.h>

#include "vesk_transport/Support.h"

int main(void) {
    DDS_DomainParticipant *participant = DDS_DomainParticipant_create(NULL);
    if (participant == NULL) return 1;
    DDS_DomainParticipant_delete(participant);
    printf("installed library works\n");
    return 0;
}
