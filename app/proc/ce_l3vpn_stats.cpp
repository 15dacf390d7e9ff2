#include "app/proc/ce_l3vpn_stats.h"

#include <time.h>

#include <charconv>
#include <cstdint>
#include <cstring>

#include "app/proc/ce_l3vpn_app.h"
#include "app/proc/ce_l3vpn_cap.h"
#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_main.h"
#include "app/proc/ce_l3vpn_refuse.h"
#include "app/proc/ce_l3vpn_tbl.h"
#include "platform/mom/tq_mom_redis.h"
#include "platform/runtime/tq_global.h"

namespace {

enum stats_metric_t {
    M_ENTRIES,
    M_NHOPS,
    M_ADJ,
    M_MPLS_ID,
    M_CAP_USED,
    M_CAP_LIMIT,
    M_WAITING,
    M_REFUSED,
    M_NOTICES,
    M_DS,
    M_DS_DURATION,
    M_DS_END,
    M_LINK_UP,
    M_RECONNECTS,
    M_COMMANDS,
    M_WRITE_ERRORS,
    M_LOWER_WRITES,
    M_LOWER_DELETES,
    M_MEM,
    M_NUM
};

struct stats_def_t {
    const char *name;
    ce_stats_type_t type;
    const char *help;
};

// The metrics, in the order they are served. Counters are named without
// their "_total" (the sample adds it), as OpenMetrics names the family.
constexpr stats_def_t kDefs[M_NUM] = {
    {"l3vpn_entries", CE_STATS_GAUGE, "Forwarding entries held, by owner."},
    {"l3vpn_next_hops", CE_STATS_GAUGE, "Next hops of the entries held, by owner."},
    {"l3vpn_adjacencies", CE_STATS_GAUGE, "Inner adjacencies held; each one holds an MPLS id."},
    {"l3vpn_mpls_id_highest", CE_STATS_GAUGE,
     "Highest MPLS id handed out (high part * 2^32 + low part); ids are never reused."},
    {"l3vpn_capacity_used", CE_STATS_GAUGE, "Entries counted against each capacity."},
    {"l3vpn_capacity_limit", CE_STATS_GAUGE, "Capacity in force, from the capability service."},
    {"l3vpn_waiting_records", CE_STATS_GAUGE, "Records kept aside until there is room, by owner."},
    {"l3vpn_refused_records", CE_STATS_COUNTER, "Input records not taken, by table and reason."},
    {"l3vpn_notices", CE_STATS_COUNTER, "Input notices handled, by kind and event."},
    {"l3vpn_data_syncs", CE_STATS_COUNTER, "Data syncs completed."},
    {"l3vpn_data_sync_last_duration_seconds", CE_STATS_GAUGE,
     "How long the last completed data sync took."},
    {"l3vpn_data_sync_last_end_timestamp_seconds", CE_STATS_GAUGE,
     "When the last completed data sync ended (unix time)."},
    {"l3vpn_redis_link_up", CE_STATS_GAUGE, "1 while the link to the MOM's Redis is up."},
    {"l3vpn_redis_reconnects", CE_STATS_COUNTER, "Times the link to the MOM's Redis came back."},
    {"l3vpn_redis_commands", CE_STATS_COUNTER, "Commands sent on the MOM command connection."},
    {"l3vpn_redis_write_errors", CE_STATS_COUNTER, "Error replies to writes to the MOM."},
    {"l3vpn_lower_writes", CE_STATS_COUNTER, "Records written to the lower layers, by table."},
    {"l3vpn_lower_deletes", CE_STATS_COUNTER, "Records deleted from the lower layers, by table."},
    {"l3vpn_memory_nodes", CE_STATS_GAUGE, "Database nodes allocated (the memory counter)."},
};

// The text layout of both forms.
constexpr const char *kHelpLine = "# HELP ";
constexpr const char *kTypeLine = "# TYPE ";
constexpr const char *kTypeNames[] = {"gauge", "counter"};
constexpr const char *kCounterSuffix = "_total";
constexpr const char *kEof = "# EOF\n";

// Notices handled: the accepted-message rows of the error statistics.
struct notice_row_t {
    ce_l3vpn_err_code_t row;
    const char *kind;
    const char *event;
};
constexpr notice_row_t kNotices[] = {
    {CE_ERR_MPLS_ENABLE, "mpls", "enable"},
    {CE_ERR_MPLS_DISABLE, "mpls", "disable"},
    {CE_ERR_TTL_COPY_ENABLE, "ttl_copy", "enable"},
    {CE_ERR_TTL_COPY_DISABLE, "ttl_copy", "disable"},
    {CE_ERR_LAB_SW_ENABLE, "label_switch", "enable"},
    {CE_ERR_LAB_SW_DISABLE, "label_switch", "disable"},
    {CE_ERR_FTN_ADD, "ftn", "add"},
    {CE_ERR_FTN_DEL, "ftn", "del"},
    {CE_ERR_VC_FTN_ADD, "vc_ftn", "add"},
    {CE_ERR_VC_FTN_DEL, "vc_ftn", "del"},
    {CE_ERR_ILM_ADD, "ilm", "add"},
    {CE_ERR_ILM_DEL, "ilm", "del"},
    {CE_ERR_IN_ADJ_CB, "in_adj", "read_back"},
    {CE_ERR_TTL_COPY_CB, "ttl_copy", "read_back"},
};

// Capacities: the capability row and the database count it limits.
struct cap_row_t {
    const char *kind;
    ce_l3vpn_cap_idx_t cap;
    uint32_t owner;
    int family;  // -1 every entry, else CE_PRO_IPV4 / CE_PRO_IPV6
};
constexpr cap_row_t kCaps[] = {
    {"ftnv4", CE_CAP_FTNV4, CE_OWNER_FTN, CE_PRO_IPV4},
    {"ftnv6", CE_CAP_FTNV6, CE_OWNER_FTN, CE_PRO_IPV6},
    {"vc_ftn", CE_CAP_VC_FTN, CE_OWNER_VC_FTN, -1},
    {"ilm", CE_CAP_ILM, CE_OWNER_ILM, -1},
};

// The output tables; the slices of one Redis table are told apart by owner.
struct lower_row_t {
    ce_l3vpn_tbl_idx_t tbl;
    const char *owner;  // null: the whole table
};
constexpr lower_row_t kLower[] = {
    {CE_TBL_UDP_MPLS_ENABLE, nullptr}, {CE_TBL_UDP_TTL_COPY, nullptr},
    {CE_TBL_UDP_LAB_SW, nullptr},      {CE_TBL_FWD_ABILITY, nullptr},
    {CE_TBL_FTN_RT, "ftn"},            {CE_TBL_VC_FTN_VIR_RT, "vc_ftn"},
    {CE_TBL_ILM_VIR_RT, "ilm"},        {CE_TBL_UDP_ILM, nullptr},
    {CE_TBL_FTN_IN_ADJ, "ftn"},        {CE_TBL_VC_FTN_IN_ADJ, "vc_ftn"},
    {CE_TBL_ILM_IN_ADJ, "ilm"},        {CE_TBL_SRTE_STATUS_CNT, nullptr},
    {CE_TBL_DATA_IF_COUNTERS, nullptr},
};

constexpr uint32_t kOwners[] = {CE_OWNER_FTN, CE_OWNER_VC_FTN, CE_OWNER_ILM};

struct ds_stats_t {
    double count = 0;
    timespec begin{};
    double last_duration = 0;
    double last_end = 0;
};
ds_stats_t ds;

// Whole microseconds as seconds: the text stays short ("0.000597", not a
// float's every digit).
double seconds(const timespec &ts) {
    int64_t us = static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
    return static_cast<double>(us) / 1e6;
}

class collector_t {
public:
    void add(stats_metric_t m, ce_stats_labels_t labels, double value) {
        const stats_def_t &d = kDefs[m];
        rows.push_back({d.name, d.help, d.type, std::move(labels), value});
    }
    std::vector<ce_stats_row_t> rows;
};

const ce_app_db_t *valid_db(uint32_t owner) {
    const ce_app_db_t *db = ce_app_node_db_get_owner_db(owner);
    return db != nullptr && db->valid ? db : nullptr;
}

int add_nhops(ce_app_node_t *node, void *arg) {
    *static_cast<double *>(arg) += node->nhop_num;
    return 0;
}

void collect_entries(collector_t &c) {
    for (uint32_t owner : kOwners) {
        const ce_app_db_t *db = valid_db(owner);
        c.add(M_ENTRIES, {{"owner", ce_owner_name(owner)}}, db != nullptr ? db->tbl.count : 0);
    }
    for (uint32_t owner : kOwners) {
        double nhops = 0;
        if (valid_db(owner) != nullptr) ce_app_node_db_walkthrough(owner, add_nhops, &nhops);
        c.add(M_NHOPS, {{"owner", ce_owner_name(owner)}}, nhops);
    }
    c.add(M_ADJ, {}, ce_in_adj_db.valid ? ce_in_adj_db.tbl.count : 0);
    c.add(M_MPLS_ID, {}, static_cast<double>(ce_in_adj_mpls_id));
}

void collect_capacity(collector_t &c) {
    for (const cap_row_t &k : kCaps) {
        const ce_app_db_t *db = valid_db(k.owner);
        double used = db == nullptr ? 0 : k.family == CE_PRO_IPV6 ? db->v6_count
                                      : k.family == CE_PRO_IPV4   ? db->v4_count
                                                                  : db->tbl.count;
        c.add(M_CAP_USED, {{"kind", k.kind}}, used);
    }
    for (const cap_row_t &k : kCaps) c.add(M_CAP_LIMIT, {{"kind", k.kind}}, ce_l3vpn_cap_tbl[k.cap].cur_int32);
    for (uint32_t owner : kOwners)
        c.add(M_WAITING, {{"owner", ce_owner_name(owner)}},
              static_cast<double>(ce_l3vpn_app_wait_count(owner)));
}

void add_refused(const char *table, const char *reason, uint64_t count, void *arg) {
    static_cast<collector_t *>(arg)->add(M_REFUSED, {{"table", table}, {"reason", reason}},
                                         static_cast<double>(count));
}

// Counts moved into history by "show-info is_clean:1" still count here.
void collect_events(collector_t &c) {
    ce_l3vpn_refuse_walk(add_refused, &c);
    for (const notice_row_t &n : kNotices) {
        const ce_l3vpn_err_row_t &r = ce_l3vpn_err_tbl[n.row];
        c.add(M_NOTICES, {{"kind", n.kind}, {"event", n.event}},
              static_cast<double>(r.count) + r.history);
    }
    c.add(M_DS, {}, ds.count);
    c.add(M_DS_DURATION, {}, ds.last_duration);
    c.add(M_DS_END, {}, ds.last_end);
}

// Another client than the Redis one (or none) reads as a link down and zeros.
void collect_mom(collector_t &c) {
    tq_mom_client_t *mom = ce_l3vpn_global != nullptr ? static_cast<tq_global_t *>(ce_l3vpn_global)->mom
                                                      : nullptr;
    c.add(M_LINK_UP, {}, tq_mom_redis_link_up(mom) ? 1 : 0);
    c.add(M_RECONNECTS, {}, static_cast<double>(tq_mom_redis_reconnects(mom)));
    c.add(M_COMMANDS, {}, static_cast<double>(tq_mom_redis_commands(mom)));
    c.add(M_WRITE_ERRORS, {}, static_cast<double>(tq_mom_redis_write_errors(mom)));
}

ce_stats_labels_t lower_labels(const lower_row_t &l, const ss_rt_tbl_t *t) {
    ce_stats_labels_t labels{{"table", ss_rt_tbl_name(t)}};
    if (l.owner != nullptr) labels.emplace_back("owner", l.owner);
    return labels;
}

void collect_lower(collector_t &c) {
    for (stats_metric_t m : {M_LOWER_WRITES, M_LOWER_DELETES})
        for (const lower_row_t &l : kLower) {
            const ss_rt_tbl_t *t = ce_l3vpn_tbl_handles[l.tbl];
            if (t == nullptr || !t->valid) continue;
            c.add(m, lower_labels(l, t), m == M_LOWER_WRITES ? t->cnt.add_op : t->cnt.del_op);
        }
    c.add(M_MEM, {}, ce_l3vpn_mem_cnt);
}

void escape_to(std::string &out, const std::string &text) {
    for (char ch : text) {
        if (ch == '\\') out += "\\\\";
        else if (ch == '"') out += "\\\"";
        else if (ch == '\n') out += "\\n";
        else out += ch;
    }
}

// The shortest text that reads back as the same number ("3", "0.0125").
void value_to(std::string &out, double v) {
    char buf[64];
    auto res = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, res.ptr);
}

// The header lines of a metric: "# HELP name text", "# TYPE name type".
void header_to(std::string &out, const stats_def_t &d) {
    out += kHelpLine;
    out += d.name;
    out += ' ';
    escape_to(out, d.help);
    out += '\n';
    out += kTypeLine;
    out += d.name;
    out += ' ';
    out += kTypeNames[d.type];
    out += '\n';
}

// One sample line without its newline.
std::string sample_line(const ce_stats_row_t &row) {
    std::string out = row.name;
    if (row.type == CE_STATS_COUNTER) out += kCounterSuffix;
    if (!row.labels.empty()) {
        out += '{';
        for (size_t i = 0; i < row.labels.size(); ++i) {
            if (i > 0) out += ',';
            out += row.labels[i].first;
            out += "=\"";
            escape_to(out, row.labels[i].second);
            out += '"';
        }
        out += '}';
    }
    out += ' ';
    value_to(out, row.value);
    return out;
}

}  // namespace

std::vector<ce_stats_row_t> ce_l3vpn_stats_snapshot(void) {
    collector_t c;
    collect_entries(c);
    collect_capacity(c);
    collect_events(c);
    collect_mom(c);
    collect_lower(c);
    return std::move(c.rows);
}

// Every metric gets its header, also one without samples yet (no refusals).
// The rows come in the table's order, so one pass takes each metric's samples.
std::string ce_l3vpn_stats_openmetrics(const std::vector<ce_stats_row_t> &rows) {
    std::string out;
    size_t i = 0;
    for (const stats_def_t &d : kDefs) {
        header_to(out, d);
        for (; i < rows.size() && strcmp(rows[i].name, d.name) == 0; ++i)
            out += sample_line(rows[i]) + '\n';
    }
    out += kEof;
    return out;
}

std::string ce_l3vpn_stats_samples(const std::vector<ce_stats_row_t> &rows) {
    std::string out;
    for (const ce_stats_row_t &r : rows) out += sample_line(r) + '\n';
    return out;
}

void ce_l3vpn_stats_ds_begin(void) { clock_gettime(CLOCK_MONOTONIC, &ds.begin); }

void ce_l3vpn_stats_ds_end(void) {
    timespec now{}, wall{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    clock_gettime(CLOCK_REALTIME, &wall);
    ds.count += 1;
    timespec took{now.tv_sec - ds.begin.tv_sec, now.tv_nsec - ds.begin.tv_nsec};
    if (took.tv_nsec < 0) took = {took.tv_sec - 1, took.tv_nsec + 1000000000};
    ds.last_duration = seconds(took);
    ds.last_end = seconds(wall);
}
