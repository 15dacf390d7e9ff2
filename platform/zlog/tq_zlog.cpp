#include "platform/zlog/tq_zlog.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/time.h>

const char *tq_zlog_prio_word(int priority) {
    if (priority >= TQ_ZLOG_ERROR) return "ERROR";
    if (priority >= TQ_ZLOG_WARN) return "WARN";
    if (priority >= TQ_ZLOG_NOTICE) return "NOTICE";
    if (priority >= TQ_ZLOG_INFO) return "INFO";
    return "DEBUG";
}

// The category name is only a label here; the handle is never zero for a named category.
uint64_t tq_zlog_init(const char *name, const char *) { return name != nullptr ? 1 : 0; }

void tqdf_zlog(uint64_t handle, const char *file, size_t filelen, const char *func,
               size_t funclen, long line, int priority, const char *fmt, ...) {
    if (handle == 0) return;
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tm;
    localtime_r(&tv.tv_sec, &tm);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);

    char text[2048];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    // Messages often end in their own newline; the line gets exactly one.
    size_t len = strlen(text);
    while (len > 0 && text[len - 1] == '\n') text[--len] = '\0';
    // One write per line so lines of concurrent writers never interleave.
    fprintf(stderr, "%s.%03ld %-5s %.*s:%ld %.*s: %s\n", stamp, (long)(tv.tv_usec / 1000),
            tq_zlog_prio_word(priority), (int)filelen, file, line, (int)funclen, func, text);
}
