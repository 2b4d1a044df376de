/*
 * A small logging library with categories and pluggable sinks.
 *
 * A category has a name, a priority threshold and a sink. A line of priority
 * P may be written when P <= iPriority (lower numbers are more severe).
 * Callers test plog_category_can_write() first and only then format and write
 * a line, so a rejected line costs one comparison.
 *
 * The optional bounds piPriorityLow / piPriorityHigh are read by callers that
 * follow the bounds convention of the protobuf bridge (a line of priority P is
 * skipped when the lower bound is set and below P, or the upper bound is set
 * and above P); the library itself does not consult them. A bound is unset
 * when its pointer is null or points to -1.
 *
 * A caller may keep an answer for the length of one operation: the protobuf
 * bridge asks once per call whether a category takes the lines it writes many
 * of (one per field or path), and asks again only after it wrote a line (a
 * sink may change its own category while it writes) and after each call of a
 * cipher suite. So during one call of a bridge operation a category must give
 * the same answer for a priority (threshold and bounds unchanged) but for
 * changes made by its sink or a cipher suite; a change made otherwise (by
 * another thread, which the rule on threads below forbids anyway) may be
 * seen only after the next line written, or from the next call on.
 *
 * The sink receives one complete message per call of plog_category_logv() or
 * plog_category_log_hex(), without a trailing newline. A category without a
 * sink writes each message as one line to stderr.
 *
 * Thread safety: a category may be used from several threads at once as long
 * as nobody changes it meanwhile; the sink must then be thread-safe itself.
 */
#ifndef CORVIDA_PLOG_PLOG_H_
#define CORVIDA_PLOG_PLOG_H_

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    PLOG_PRIORITY_FATAL = 0,
    PLOG_PRIORITY_ALERT = 100,
    PLOG_PRIORITY_CRIT = 200,
    PLOG_PRIORITY_ERROR = 300,
    PLOG_PRIORITY_WARN = 400,
    PLOG_PRIORITY_NOTICE = 500,
    PLOG_PRIORITY_INFO = 600,
    PLOG_PRIORITY_DEBUG = 700,
    PLOG_PRIORITY_TRACE = 800,
    PLOG_PRIORITY_NULL = 900
};

/* Where and how severe one log line is. */
typedef struct tagPLogEvent {
    int iPriority;
    const char* pszFile;
    int iLine;
    const char* pszFunc;
} PLOGEVENT, *LPPLOGEVENT;

/* A sink: receives one formatted message (not NUL-counted in iLen). */
typedef void (*PLOGWRITEFN)(void* pvCtx, const PLOGEVENT* pstEvent, const char* pszMsg, size_t iLen);

typedef struct tagPLogCategoryInst {
    const char* pszName;
    int iPriority;        /* a line of priority P is written when P <= iPriority */
    int* piPriorityLow;   /* optional bound: null, or pointing to -1, means unset */
    int* piPriorityHigh;  /* optional bound: null, or pointing to -1, means unset */
    PLOGWRITEFN pfnWrite; /* sink; null writes one line to stderr */
    void* pvWriteCtx;
} PLOGCATEGORYINST, *LPPLOGCATEGORYINST;

/* Sets the name (not copied) and threshold; no bounds, stderr sink. */
void plog_category_init(LPPLOGCATEGORYINST cat, const char* name, int priority);

/* Non-zero when cat is non-null and priority <= cat->iPriority. id and cls are
 * reserved for message filters and ignored. */
int plog_category_can_write(LPPLOGCATEGORYINST cat, int priority, unsigned id, int cls);

/* Formats fmt (printf rules) and hands the text to the sink as one message.
 * Does not test the threshold: callers test plog_category_can_write() first.
 * Returns 0, or -1 when cat, ev or fmt is null. */
int plog_category_logv(LPPLOGCATEGORYINST cat, const PLOGEVENT* ev, const char* fmt, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

/* Hands a hex dump of len bytes at buf to the sink as one message: 16 bytes a
 * line, each line "oooo: hh hh ...", lines joined by '\n'. An empty buffer
 * gives an empty message. Returns 0, or -1 when cat or ev is null, or buf is
 * null while len > 0. */
int plog_category_log_hex(LPPLOGCATEGORYINST cat, const PLOGEVENT* ev, const void* buf, size_t len);

/* Lowercase name of a priority ("error", "debug", ...), or "unknown". */
const char* plog_priority_name(int priority);

/* The bounds convention: a line of priority P is skipped when cat is null,
 * when the lower bound is set and below P, or when the upper bound is set and
 * above P; otherwise plog_category_can_write(cat, P, 0, 0) decides. */
static inline int plog_category_accepts(LPPLOGCATEGORYINST cat, int priority) {
    if (cat == 0) return 0;
    if (cat->piPriorityLow != 0 && *cat->piPriorityLow != -1 && *cat->piPriorityLow < priority) return 0;
    if (cat->piPriorityHigh != 0 && *cat->piPriorityHigh != -1 && *cat->piPriorityHigh > priority) return 0;
    return plog_category_can_write(cat, priority, 0, 0);
}

#ifdef __cplusplus
}
#endif

/* PLOG_WRITE_IF(cat, priority, file, writer, args...): when the category
 * accepts the priority (plog_category_accepts), builds the event (priority,
 * file text, line, function name) and calls writer(cat, &event, args...).
 * The arguments are evaluated only after the test passed, so a rejected line
 * costs a few comparisons. writer is plog_category_logv or
 * plog_category_log_hex. PLOG_WRITE_IF_IN names the function explicitly, for
 * helpers that log on behalf of their caller. */
#define PLOG_WRITE_IF_IN(func, cat, priority, file, writer, ...)                                 \
    do {                                                                                         \
        LPPLOGCATEGORYINST plog_write_cat_ = (cat);                                              \
        const int plog_write_priority_ = (priority);                                             \
        if (plog_category_accepts(plog_write_cat_, plog_write_priority_)) {                      \
            const PLOGEVENT plog_write_event_ = {plog_write_priority_, (file), __LINE__, (func)}; \
            writer(plog_write_cat_, &plog_write_event_, __VA_ARGS__);                            \
        }                                                                                        \
    } while (0)

#define PLOG_WRITE_IF(cat, priority, file, writer, ...) \
    PLOG_WRITE_IF_IN(__func__, cat, priority, file, writer, __VA_ARGS__)

#endif /* CORVIDA_PLOG_PLOG_H_ */
