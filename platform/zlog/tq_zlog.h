// Log service: one line per message on standard error, which is what the
// supervisor keeps.
#pragma once
#include <cstddef>
#include <cstdint>

// zlog priorities used by the daemon.
enum {
    TQ_ZLOG_DEBUG = 20,
    TQ_ZLOG_INFO = 40,
    TQ_ZLOG_NOTICE = 60,
    TQ_ZLOG_WARN = 80,
    TQ_ZLOG_ERROR = 100,
};

// Returns a non-zero handle, or 0 when the category cannot be opened.
uint64_t tq_zlog_init(const char *name, const char *path);

// Writes "<time> <PRIO> <file>:<line> <func>: <text>\n" to standard error.
// file and func are given with their lengths (they need not be terminated there).
void tqdf_zlog(uint64_t handle, const char *file, size_t filelen, const char *func,
               size_t funclen, long line, int priority, const char *fmt, ...)
    __attribute__((format(printf, 8, 9)));

// Word printed for a priority ("ERROR", "WARN", "INFO", "DEBUG", ...).
const char *tq_zlog_prio_word(int priority);
