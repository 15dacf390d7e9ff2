#include "app/proc/ce_l3vpn_syslog.h"

#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_msg.h"
#include "platform/syslog/syslog_ext.h"

ce_l3vpn_syslog_limit_t ce_l3vpn_syslog_vc_ftn_limit;
ce_l3vpn_syslog_limit_t ce_l3vpn_syslog_ilm_limit;

namespace {
constexpr int64_t kUsPerS = 1000000;
constexpr int64_t kGraceUs = 100000;  // a call this soon after the interval counts as timely
constexpr uint32_t kDoubleAfter = 5;
constexpr uint32_t kMaxInterval = 16;

int wall_clock(struct timeval *tv) { return gettimeofday(tv, nullptr); }
ce_l3vpn_clock_fn_t ce_l3vpn_syslog_clock = wall_clock;

int64_t elapsed_us(const struct timeval &from, const struct timeval &to) {
    return (static_cast<int64_t>(to.tv_sec) - from.tv_sec) * kUsPerS + (to.tv_usec - from.tv_usec);
}

// True when the alarm may be emitted now. While refusals keep coming right
// after each interval the interval doubles every fifth emission (1, 2, 4, 8,
// 16 s); a quiet spell brings it back to 1 s.
bool limit_pass(ce_l3vpn_syslog_limit_t &l) {
    struct timeval now {};
    ce_l3vpn_syslog_clock(&now);
    if (l.interval == 0) {
        l.last = now;
        l.cnt++;
        l.interval = 1;
        return true;
    }
    int64_t since = elapsed_us(l.last, now);
    int64_t span = static_cast<int64_t>(l.interval) * kUsPerS;
    if (since < span) return false;
    l.last = now;
    if (since <= span + kGraceUs) {
        if (++l.cnt >= kDoubleAfter) {
            l.cnt = 0;
            if (l.interval < kMaxInterval) l.interval *= 2;
        }
    } else {
        l.cnt = 0;
        l.interval = 1;
    }
    return true;
}
}  // namespace

int ce_l3vpn_syslog_cap_full(uint32_t owner) {
    switch (owner) {
        case CE_OWNER_FTN:
            return 0;
        case CE_OWNER_VC_FTN:
            if (limit_pass(ce_l3vpn_syslog_vc_ftn_limit))
                printk_syslog_ext(
                    4, "VC_FTN_L2VPN_MPLS", "RESOURCE_ALLOCATED", 1,
                    "The number of VC_FTN entries allocated is greater than hardware capacity.");
            return 0;
        case CE_OWNER_ILM:
            if (limit_pass(ce_l3vpn_syslog_ilm_limit))
                printk_syslog_ext(
                    4, "ILM_MPLS", "RESOURCE_ALLOCATED", 1,
                    "The number of ILM entries allocated is greater than hardware capacity.");
            return 0;
        default:
            CE_L3VPN_FAIL("0", CE_ERR_UNKNOWN_OWNER, "FATAL ERROR ! unknown owner:%u", owner);
            return 1;
    }
}

void ce_l3vpn_syslog_set_clock(ce_l3vpn_clock_fn_t fn) {
    ce_l3vpn_syslog_clock = fn != nullptr ? fn : wall_clock;
}

void ce_l3vpn_syslog_reset(void) {
    ce_l3vpn_syslog_vc_ftn_limit = ce_l3vpn_syslog_limit_t{};
    ce_l3vpn_syslog_ilm_limit = ce_l3vpn_syslog_limit_t{};
}
