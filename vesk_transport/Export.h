/* What the shared library exports.
 *
 * The library is built with hidden visibility: only the C interface, the
 * declarations of the public headers (vesk_transport/ and
 * vesk_transport/platform/), is visible to its users; its C++ insides are
 * not. Every public header encloses its declarations in
 * VESK_TRANSPORT_EXPORT_BEGIN / VESK_TRANSPORT_EXPORT_END (inside its
 * extern "C" block), which gives each function and object declared there
 * default visibility. VESK_TRANSPORT_EXPORT does the same for one
 * declaration. */
#ifndef VESK_TRANSPORT_EXPORT_H
#define VESK_TRANSPORT_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define VESK_TRANSPORT_EXPORT __attribute__((visibility("default")))
#define VESK_TRANSPORT_EXPORT_BEGIN _Pragma("GCC visibility push(default)")
#define VESK_TRANSPORT_EXPORT_END _Pragma("GCC visibility pop")
#else
#define VESK_TRANSPORT_EXPORT
#define VESK_TRANSPORT_EXPORT_BEGIN
#define VESK_TRANSPORT_EXPORT_END
#endif

#endif
