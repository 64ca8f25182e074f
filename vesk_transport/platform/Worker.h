/* The per-thread worker that accompanies every configurator call, and its
 * activity context. */
#ifndef VESK_TRANSPORT_PLATFORM_WORKER_H
#define VESK_TRANSPORT_PLATFORM_WORKER_H

#include "vesk_transport/platform/Types.h"

#ifdef __cplusplus
extern "C" {
#endif
VESK_TRANSPORT_EXPORT_BEGIN

/* What the worker is doing right now. Its category bits select log
 * categories (KELLog_g_categoryMask, Log.h). */
struct KELOsapiContext {
    KEL_UINT32 category;
};

struct REDAWorker {
    const char *_name;
    /* May be null: the worker is not inside a categorised activity. */
    struct KELOsapiContext *_activityContext;
};

VESK_TRANSPORT_EXPORT_END
#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
