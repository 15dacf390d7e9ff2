#include "l3vpn/ss_mpls_dbg.h"

#include <algorithm>
#include <cstring>

#include "app/proc/ce_l3vpn_err.h"

namespace {
// The path the log has always shown for these lines, kept so that operators'
// filters on it keep working.
constexpr const char kSrc[] = "app/proc/../../l3vpn/ss_mpls_dbg";
constexpr uint8_t kMaxLabels = 8;
}  // namespace

#define SS_MPLS_DBG_LOG(fmt, ...)                                                           \
    ce_l3vpn_log_emit(CE_L3VPN_DEBUG, kSrc, sizeof kSrc - 1, __func__, __LINE__, fmt,        \
                      ##__VA_ARGS__)

void mpls_zlog_print_label_stack(uint8_t n_label, const uint32_t *labels) {
    if (ce_l3vpn_dbg_level < CE_L3VPN_DEBUG) return;
    if (labels == nullptr || n_label == 0) {
        SS_MPLS_DBG_LOG("label stack: %s ", "nil");
        return;
    }
    if (n_label > kMaxLabels) {
        SS_MPLS_DBG_LOG("label stack: Error n_label:%u", static_cast<unsigned>(n_label));
        return;
    }
    uint32_t lab[kMaxLabels] = {};
    std::copy_n(labels, n_label, lab);
    SS_MPLS_DBG_LOG(" label stack: lab0:%u lab1:%u lab2:%u lab3:%u lab4:%u lab5:%u lab6:%u "
                    "lab7:%u",
                    lab[0], lab[1], lab[2], lab[3], lab[4], lab[5], lab[6], lab[7]);
}
