#include "platform/syslog/syslog_ext.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>

#include "platform/syslog/syslog_ext_ring.h"

namespace {
struct syslog_ring_t {
    std::array<std::string, SYSLOG_EXT_RING> lines;
    size_t total = 0;  // lines ever kept; the next one goes to total % SYSLOG_EXT_RING
};

syslog_ring_t &ring() {
    static syslog_ring_t r;
    return r;
}

// Severities 0..7 are the syslog(3) priorities; anything else is logged as notice.
int syslog_prio(int severity) { return (severity >= 0 && severity <= 7) ? severity : LOG_NOTICE; }
}  // namespace

int printk_syslog_ext(int severity, const char *module, const char *mnemonic, int count,
                      const char *fmt, ...) {
    if (module == nullptr || mnemonic == nullptr || fmt == nullptr) return -4;
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);

    // count is the caller's number of occurrences; every call emits one line.
    (void)count;
    char line[1200];
    snprintf(line, sizeof line, "%%%s-%d-%s: %s", module, severity, mnemonic, text);

    syslog(syslog_prio(severity), "%s", line);
    fprintf(stderr, "%s\n", line);

    syslog_ring_t &r = ring();
    r.lines[r.total % SYSLOG_EXT_RING] = line;
    ++r.total;
    return 0;
}

std::vector<std::string> syslog_ext_recent(void) {
    const syslog_ring_t &r = ring();
    size_t kept = std::min<size_t>(r.total, SYSLOG_EXT_RING);
    std::vector<std::string> out;
    out.reserve(kept);
    for (size_t i = r.total - kept; i < r.total; ++i) out.push_back(r.lines[i % SYSLOG_EXT_RING]);
    return out;
}

size_t syslog_ext_count(void) { return ring().total; }

void syslog_ext_clear(void) { ring() = syslog_ring_t{}; }
