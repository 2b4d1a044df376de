#include "plog/plog.h"

#include <cstdarg>
#include <cstdio>
#include <string>

namespace {

// Messages up to this size are formatted without touching the heap.
constexpr size_t kInlineMessage = 1024;

void WriteToStderr(const PLOGCATEGORYINST* cat, const PLOGEVENT* ev, const char* msg, size_t len) {
    // One fprintf per line keeps lines of concurrent writers from interleaving.
    std::fprintf(stderr, "[%s] %s %s:%d %s: %.*s\n", plog_priority_name(ev->iPriority),
                 cat->pszName != nullptr ? cat->pszName : "", ev->pszFile != nullptr ? ev->pszFile : "",
                 ev->iLine, ev->pszFunc != nullptr ? ev->pszFunc : "", static_cast<int>(len), msg);
}

void Deliver(LPPLOGCATEGORYINST cat, const PLOGEVENT* ev, const char* msg, size_t len) {
    if (cat->pfnWrite != nullptr) {
        cat->pfnWrite(cat->pvWriteCtx, ev, msg, len);
    } else {
        WriteToStderr(cat, ev, msg, len);
    }
}

std::string HexDump(const unsigned char* bytes, size_t len) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(len * 3 + (len / 16 + 1) * 8);
    for (size_t i = 0; i < len; ++i) {
        if (i % 16 == 0) {
            if (i != 0) text += '\n';
            char offset[24];
            std::snprintf(offset, sizeof(offset), "%04zx:", i);
            text += offset;
        }
        text += ' ';
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 0xf];
    }
    return text;
}

}  // namespace

extern "C" {

void plog_category_init(LPPLOGCATEGORYINST cat, const char* name, int priority) {
    if (cat == nullptr) return;
    cat->pszName = name;
    cat->iPriority = priority;
    cat->piPriorityLow = nullptr;
    cat->piPriorityHigh = nullptr;
    cat->pfnWrite = nullptr;
    cat->pvWriteCtx = nullptr;
}

int plog_category_can_write(LPPLOGCATEGORYINST cat, int priority, unsigned /*id*/, int /*cls*/) {
    return cat != nullptr && priority <= cat->iPriority;
}

int plog_category_logv(LPPLOGCATEGORYINST cat, const PLOGEVENT* ev, const char* fmt, ...) {
    if (cat == nullptr || ev == nullptr || fmt == nullptr) return -1;
    char inline_buf[kInlineMessage];
    va_list args;
    va_start(args, fmt);
    va_list again;
    va_copy(again, args);
    const int needed = std::vsnprintf(inline_buf, sizeof(inline_buf), fmt, args);
    va_end(args);
    if (needed < 0) {
        va_end(again);
        return -1;
    }
    if (static_cast<size_t>(needed) < sizeof(inline_buf)) {
        va_end(again);
        Deliver(cat, ev, inline_buf, static_cast<size_t>(needed));
        return 0;
    }
    int result = 0;
    try {
        std::string long_msg(static_cast<size_t>(needed) + 1, '\0');
        std::vsnprintf(&long_msg[0], long_msg.size(), fmt, again);
        Deliver(cat, ev, long_msg.data(), static_cast<size_t>(needed));
    } catch (...) {  // out of memory: the line is lost, the caller goes on
        result = -1;
    }
    va_end(again);
    return result;
}

int plog_category_log_hex(LPPLOGCATEGORYINST cat, const PLOGEVENT* ev, const void* buf, size_t len) {
    if (cat == nullptr || ev == nullptr || (buf == nullptr && len > 0)) return -1;
    try {
        const std::string text = HexDump(static_cast<const unsigned char*>(buf), len);
        Deliver(cat, ev, text.data(), text.size());
    } catch (...) {  // out of memory: the dump is lost, the caller goes on
        return -1;
    }
    return 0;
}

const char* plog_priority_name(int priority) {
    switch (priority) {
        case PLOG_PRIORITY_FATAL: return "fatal";
        case PLOG_PRIORITY_ALERT: return "alert";
        case PLOG_PRIORITY_CRIT: return "crit";
        case PLOG_PRIORITY_ERROR: return "error";
        case PLOG_PRIORITY_WARN: return "warn";
        case PLOG_PRIORITY_NOTICE: return "notice";
        case PLOG_PRIORITY_INFO: return "info";
        case PLOG_PRIORITY_DEBUG: return "debug";
        case PLOG_PRIORITY_TRACE: return "trace";
        case PLOG_PRIORITY_NULL: return "null";
        default: return "unknown";
    }
}

}  // extern "C"
