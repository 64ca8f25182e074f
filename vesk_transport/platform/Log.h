/* The library logger.
 *
 * A message is a template (an object with a name such as
 * KEL_LOG_PARSER_FAILURE_ss and a text) plus its parameters. The letters
 * after the last '_' of a template's name list its parameters: 's' a string,
 * 'd' an int. Templates whose names end in _TEMPLATE take a printf-style
 * format text and its arguments instead, printed through
 * KELLogMessageParamString_printWithParams.
 *
 * Whether a message is written is decided by the code that raises it
 * (KELLog_isEnabled tests the masks); the print operations always write.
 * By default a written message is one line on stderr. An application can
 * install a sink that receives each message as a KELLogRecord instead.
 * Printing and sink changes are thread-safe. */
#ifndef VESK_TRANSPORT_PLATFORM_LOG_H
#define VESK_TRANSPORT_PLATFORM_LOG_H

#include "vesk_transport/platform/Types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Message levels, one bit each. */
#define KEL_LOG_BIT_EXCEPTION 0x1 /* failed precondition */
#define KEL_LOG_BIT_ERROR 0x2
#define KEL_LOG_BIT_WARN 0x4
#define KEL_LOG_BIT_LOCAL 0x8
#define KEL_LOG_BIT_REMOTE 0x10
#define KEL_LOG_BIT_PERIODIC 0x20

/* Verbosity settings: sets of level bits. */
#define VESK_CONFIG_LOG_VERBOSITY_SILENT 0
#define VESK_CONFIG_LOG_VERBOSITY_ERROR 3
#define VESK_CONFIG_LOG_VERBOSITY_WARNING 7
#define VESK_CONFIG_LOG_VERBOSITY_STATUS_LOCAL 15
#define VESK_CONFIG_LOG_VERBOSITY_STATUS_REMOTE 31
#define VESK_CONFIG_LOG_VERBOSITY_STATUS_ALL 63

/* The transport-support module's submodule bit and module id. */
#define DDS_SUBMODULE_MASK_TRANSPORT 0x400
#define VESK_TRANSPORT_LOG_MODULE_ID 0xF0000

/* Level bits that are written (default VESK_CONFIG_LOG_VERBOSITY_ERROR). */
extern KEL_UINT32 DDSLog_g_instrumentationMask;
/* Submodules whose messages are written (default: all). */
extern KEL_UINT32 DDSLog_g_submoduleMask;

/* Precondition convention: after a failed precondition is logged,
 * KELLog_g_preconditionDetected is set to 1 when KELLog_g_detectPrecondition
 * is non-zero, then KELLog_onAssertBreakpoint() is called. */
extern int KELLog_g_detectPrecondition;
extern int KELLog_g_preconditionDetected;
void KELLog_onAssertBreakpoint(void);
/* How often KELLog_onAssertBreakpoint has been called (a debugger
 * breakpoint target that tests can also observe). */
KEL_UINT64 KELLog_getAssertBreakpointCount(void);

/* Category masks of activity contexts; see REDAWorker (Worker.h). Entry 2
 * holds the categories whose activities always get their errors written. */
#define KEL_LOG_CATEGORY_MASK_COUNT 8
extern KEL_UINT32 KELLog_g_categoryMask[KEL_LOG_CATEGORY_MASK_COUNT];

/* Sets DDSLog_g_instrumentationMask to a VESK_CONFIG_LOG_VERBOSITY_* value
 * and enables every submodule. */
void KELLog_setVerbosity(KEL_UINT32 verbosity);

/* Non-zero when a message of this level raised by the submodule would be
 * written under the current masks. */
int KELLog_isEnabled(KEL_UINT32 level, KEL_UINT32 submodule);

struct KELLogMessageTemplate {
    const char *name;   /* "KEL_LOG_PARSER_FAILURE_ss" */
    const char *params; /* parameter letters, "ss"; "" for none; NULL for
                           _TEMPLATE templates */
    const char *text;   /* printf text over the rendered parameters */
};

#define KEL_LOG_DECLARE_TEMPLATE(name_) extern const struct KELLogMessageTemplate name_

KEL_LOG_DECLARE_TEMPLATE(KEL_LOG_PRECONDITION_FAILURE_s);
KEL_LOG_DECLARE_TEMPLATE(KEL_LOG_PARSER_FAILURE_s);
KEL_LOG_DECLARE_TEMPLATE(KEL_LOG_PARSER_FAILURE_ss);
KEL_LOG_DECLARE_TEMPLATE(KEL_LOG_PARSER_VALUE_OUT_OF_RANGE_ss);
KEL_LOG_DECLARE_TEMPLATE(KEL_LOG_ANY_FAILURE_s);
KEL_LOG_DECLARE_TEMPLATE(KEL_LOG_ANY_FAILURE_ss);
KEL_LOG_DECLARE_TEMPLATE(KEL_LOG_TRUNCATED_STRING_sds);
KEL_LOG_DECLARE_TEMPLATE(KEL_LOG_INSUFFICIENT_SPACE_FAILURE_dd);
KEL_LOG_DECLARE_TEMPLATE(KEL_LOG_INCONSISTENT_PROPERTY_s);
KEL_LOG_DECLARE_TEMPLATE(KEL_LOG_CREATION_FAILURE_s);
KEL_LOG_DECLARE_TEMPLATE(KEL_LOG_GET_FAILURE_s);
KEL_LOG_DECLARE_TEMPLATE(KEL_LOG_UNKNOWN_PROPERTY_s);
KEL_LOG_DECLARE_TEMPLATE(KEL_LOG_FAILED_TO_PARSE_TEMPLATE);
KEL_LOG_DECLARE_TEMPLATE(KEL_LOG_FAILED_TO_CONVERT_TEMPLATE);
KEL_LOG_DECLARE_TEMPLATE(KEL_LOG_BAD_PARAMETER_FAILURE_TEMPLATE);
KEL_LOG_DECLARE_TEMPLATE(KEL_LOG_FAILED_TO_FIND_TEMPLATE);
KEL_LOG_DECLARE_TEMPLATE(KEL_LOG_FAILED_TO_MODIFY_TEMPLATE);
KEL_LOG_DECLARE_TEMPLATE(DDS_LOG_BAD_PARAMETER_s);
KEL_LOG_DECLARE_TEMPLATE(DDS_LOG_PARTICIPANT_ENABLED_ERROR);
KEL_LOG_DECLARE_TEMPLATE(DDS_LOG_INSTALL_TRANSPORT_PLUGINS_s);
KEL_LOG_DECLARE_TEMPLATE(DDS_LOG_TRANSPORT_SEND_ROUTE);
KEL_LOG_DECLARE_TEMPLATE(DDS_LOG_GET_FAILURE_s);
KEL_LOG_DECLARE_TEMPLATE(DDS_LOG_SET_FAILURE_s);
KEL_LOG_DECLARE_TEMPLATE(DDS_LOG_OUT_OF_RESOURCES_s);
KEL_LOG_DECLARE_TEMPLATE(DDS_LOG_SEQUENCE_NOT_OWNER);
/* Transport status and warnings that no other template fits (interfaces in
 * use, interface changes, multicast joins). */
KEL_LOG_DECLARE_TEMPLATE(KEL_LOG_TRANSPORT_STATUS_TEMPLATE);

/* Writes a message whose parameters follow as varargs, one per letter of
 * the template's params ('s': const char *, NULL printed as "(null)";
 * 'd': int). instrumentation is -1 for "the library's default logger". */
void KELLogMessage_printWithParams(int instrumentation, KEL_UINT32 level, KEL_UINT32 module_id,
                                   const char *file, int line, const char *function,
                                   const struct KELLogMessageTemplate *message_template, ...);

/* Writes a _TEMPLATE message: the format text applied to the varargs
 * becomes the template's single parameter. */
void KELLogMessageParamString_printWithParams(int instrumentation, KEL_UINT32 level,
                                              KEL_UINT32 module_id, const char *file, int line,
                                              const char *function,
                                              const struct KELLogMessageTemplate *message_template,
                                              const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 8, 9)))
#endif
    ;

/* One written message, as a sink receives it. Every pointer is valid only
 * during the sink call. */
struct KELLogRecord {
    KEL_UINT32 level;
    KEL_UINT32 module_id;
    const char *file;
    int line;
    const char *function;
    const char *template_name;
    const char *format;          /* the format text of a _TEMPLATE message, else NULL */
    int param_count;
    const char *const *params;   /* parameters rendered as text, in order */
    const char *text;            /* the whole message */
};

typedef void (*KELLogSink)(void *sink_data, const struct KELLogRecord *record);

/* Installs a sink (NULL restores the stderr writer) and returns the one it
 * replaces through the optional out-parameters. */
void KELLog_setSink(KELLogSink sink, void *sink_data, KELLogSink *previous_sink_out,
                    void **previous_sink_data_out);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
