#include "app/proc/ce_l3vpn_refuse.h"

#include <array>
#include <map>
#include <string>
#include <time.h>

#include "app/proc/ce_l3vpn_dbg.h"
#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_msg.h"
#include "format/at_snprintf.h"
#include "platform/mom/tq_mom_name.h"

namespace {
constexpr std::array<const char *, CE_REFUSE_NUM> kReasonNames = {
    "decode", "key", "type", "invalid", "capacity", "value"};

constexpr const char *kLine = "refused tbl:%s key:%s reason:%s %s";
constexpr const char *kHeldBack = "refused: %llu more lines not logged in the last %d ms";
constexpr const char *kDumpHead = "\n%-40s %-10s %12s\n";
constexpr const char *kDumpRow = "%-40s %-10s %12llu\n";
constexpr const char *kDumpTotal = "%-40s %-10s %12llu\n";

// Tables of the entry inputs, by owner.
constexpr const char *kEntryTables[] = {"", "p_mpls.mom_msg_ftn", "u_mpls.udp_vc_ftn",
                                        "p_mpls.mom_msg_ilm"};
constexpr const char *kMomBad[] = {"value does not decode", "key does not match its record",
                                   "another type under the key"};
constexpr ce_refuse_reason_t kMomReason[] = {CE_REFUSE_DECODE, CE_REFUSE_KEY, CE_REFUSE_TYPE};

struct refuse_state_t {
    std::map<std::string, std::array<uint64_t, CE_REFUSE_NUM>, std::less<>> counts;  // by table
    uint64_t total = 0;
    uint64_t unlogged = 0;     // since the start
    uint64_t held_back = 0;    // in the current window
    uint32_t window_lines = 0;
    int64_t window_start_ms = -1;
    const ProtobufCMessage *input = nullptr;
};

refuse_state_t &state() {
    static refuse_state_t s;
    return s;
}

int64_t now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// True when one more line fits the current window; a new window first tells
// how many lines the last one held back.
bool log_pass() {
    refuse_state_t &s = state();
    int64_t now = now_ms();
    if (s.window_start_ms < 0 || now - s.window_start_ms >= CE_REFUSE_LOG_WINDOW_MS) {
        if (s.held_back != 0)
            CE_L3VPN_LOG(CE_L3VPN_WARN, kHeldBack, static_cast<unsigned long long>(s.held_back),
                         CE_REFUSE_LOG_WINDOW_MS);
        s.window_start_ms = now;
        s.window_lines = 0;
        s.held_back = 0;
    }
    if (s.window_lines < CE_REFUSE_LOG_BURST) {
        ++s.window_lines;
        return true;
    }
    ++s.held_back;
    ++s.unlogged;
    return false;
}

// The entry a message names, in the words of the debug output.
std::string describe(const ce_msg_comm_t &m) {
    char nhop[96];
    if (m.nhop.pro == CE_PRO_IPV4)
        at_snprintf(nhop, sizeof nhop, "nhop:%a ifx:%u", ce_ip_v4_word(m.nhop.ip), m.nhop.ifx);
    else
        at_snprintf(nhop, sizeof nhop, "nhop:%v ifx:%u", m.nhop.ip, m.nhop.ifx);
    char key[160];
    switch (m.owner) {
        case CE_OWNER_FTN:
            if (m.key.ftn.pro == CE_PRO_IPV4)
                at_snprintf(key, sizeof key, "vrf:%u %a/%u %s", m.key.ftn.vrf,
                            ce_ip_v4_word(m.key.ftn.ip), m.key.ftn.mask_len, nhop);
            else
                at_snprintf(key, sizeof key, "vrf:%u %v/%u %s", m.key.ftn.vrf, m.key.ftn.ip,
                            m.key.ftn.mask_len, nhop);
            break;
        case CE_OWNER_VC_FTN:
            at_snprintf(key, sizeof key, "vc_ifx:%u %s", m.key.vc_ftn.vc_ifx, nhop);
            break;
        default:
            at_snprintf(key, sizeof key, "in_label:%u %s", m.key.ilm.inlabel, nhop);
            break;
    }
    return key;
}
}  // namespace

void ce_l3vpn_refuse_set_input(const void *wire) {
    state().input = static_cast<const ProtobufCMessage *>(wire);
}

void ce_l3vpn_refuse_msg(const ce_msg_comm_t *msg, ce_refuse_reason_t reason, const char *detail) {
    std::string redis_key;
    const ProtobufCMessage *in = state().input;
    if (in != nullptr && tq_mom_record_key(in, redis_key) == 0) {
        ce_l3vpn_refuse_redis_key(redis_key, reason, detail);
        return;
    }
    uint32_t owner = msg->owner <= CE_OWNER_ILM ? msg->owner : 0;
    ce_l3vpn_refuse(kEntryTables[owner], describe(*msg), reason, detail);
}

void ce_l3vpn_refuse_record(const void *wire, int rv) {
    const auto *rec = static_cast<const ProtobufCMessage *>(wire);
    std::string key;
    if (rec == nullptr) return;
    if (tq_mom_record_key(rec, key) != 0) key = tq_mom_table_name(rec->descriptor);
    std::string detail = std::string(ce_l3vpn_refuse_last_check()) + ", rv " + std::to_string(rv);
    ce_l3vpn_refuse_redis_key(key, CE_REFUSE_INVALID, detail);
}

const char *ce_l3vpn_refuse_last_check(void) {
    uint32_t row = ce_l3vpn_err_last_fail;
    if (row == 0 || row >= CE_ERR_ROWS) return "check failed";
    return ce_l3vpn_err_tbl[row].name != nullptr ? ce_l3vpn_err_tbl[row].name : "check failed";
}

void ce_l3vpn_refuse_mom_bad(const char *redis_key, uint32_t why, void *) {
    if (why >= std::size(kMomReason)) return;
    ce_l3vpn_refuse_redis_key(redis_key, kMomReason[why], kMomBad[why]);
}

const char *ce_l3vpn_refuse_reason_name(uint32_t reason) {
    return reason < kReasonNames.size() ? kReasonNames[reason] : "unknown";
}

void ce_l3vpn_refuse(std::string_view table, std::string_view key, ce_refuse_reason_t reason,
                     std::string_view detail) {
    refuse_state_t &s = state();
    auto it = s.counts.find(table);
    if (it == s.counts.end()) it = s.counts.emplace(std::string(table), std::array<uint64_t, CE_REFUSE_NUM>{}).first;
    ++it->second[reason];
    ++s.total;
    // Counted whatever the level; the limiter only sees lines that would print.
    if (ce_l3vpn_dbg_level < CE_L3VPN_WARN || !log_pass()) return;
    std::string t(table), k(key), d(detail);
    CE_L3VPN_LOG(CE_L3VPN_WARN, kLine, t.c_str(), k.c_str(), ce_l3vpn_refuse_reason_name(reason),
                 d.c_str());
}

void ce_l3vpn_refuse_redis_key(std::string_view redis_key, ce_refuse_reason_t reason,
                               std::string_view detail) {
    size_t bar = redis_key.find('|');
    std::string_view table = redis_key.substr(0, bar);
    std::string_view key = bar == std::string_view::npos ? "" : redis_key.substr(bar + 1);
    ce_l3vpn_refuse(table, key, reason, detail);
}

void ce_l3vpn_refuse_walk(ce_refuse_walk_fn fn, void *arg) {
    for (const auto &[table, by_reason] : state().counts)
        for (uint32_t r = 0; r < CE_REFUSE_NUM; ++r)
            if (by_reason[r] != 0) fn(table.c_str(), ce_l3vpn_refuse_reason_name(r), by_reason[r], arg);
}

uint64_t ce_l3vpn_refuse_count(std::string_view table, ce_refuse_reason_t reason) {
    const auto &counts = state().counts;
    auto it = counts.find(table);
    return it == counts.end() || reason >= CE_REFUSE_NUM ? 0 : it->second[reason];
}

uint64_t ce_l3vpn_refuse_total(void) { return state().total; }
uint64_t ce_l3vpn_refuse_unlogged(void) { return state().unlogged; }

int ce_l3vpn_refuse_dump(void) {
    ce_l3vpn_dbg_print(kDumpHead, "table", "reason", "count");
    ce_l3vpn_refuse_walk(
        [](const char *table, const char *reason, uint64_t count, void *) {
            ce_l3vpn_dbg_print(kDumpRow, table, reason, static_cast<unsigned long long>(count));
        },
        nullptr);
    ce_l3vpn_dbg_print(kDumpTotal, "total", "", static_cast<unsigned long long>(state().total));
    return 0;
}

void ce_l3vpn_refuse_reset(void) { state() = refuse_state_t{}; }
