#include "app/proc/ce_l3vpn_cap.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "app/proc/ce_l3vpn_app.h"
#include "app/proc/ce_l3vpn_app_node_db.h"
#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_msg.h"
#include "app/proc/ce_l3vpn_refuse.h"

namespace {
constexpr ce_l3vpn_cap_t cap_bool(const char *name, const char *path, bool def) {
    return ce_l3vpn_cap_t{name, path, CE_CAP_KIND_BOOL, 0, 0, 0, static_cast<uint8_t>(def)};
}
constexpr ce_l3vpn_cap_t cap_int32(const char *name, const char *path, int32_t def) {
    return ce_l3vpn_cap_t{name, path, CE_CAP_KIND_INT32, 0, def, 0, 0};
}
}  // namespace

// Row 4's short name lacks the "e" of its path; lookups by message use the path.
ce_l3vpn_cap_t ce_l3vpn_cap_tbl[CE_CAP_NUM] = {
    cap_bool("support_mpls", "s_mpls/l3vpn/ability/support_mpls", false),
    cap_bool("ilm_multi_action", "s_mpls/l3vpn/ability/ilm_multi_action", false),
    cap_bool("sched_per_packet", "s_mpls/l3vpn/ability/sched_per_packet", false),
    cap_int32("ecmp_max_path", "s_mpls/l3vpn/capacity/ecmp_max_path", 0),
    cap_int32("encap_label_dpth", "s_mpls/l3vpn/capacity/encap_label_depth", 5),
    cap_int32("ftnv4", "s_mpls/l3vpn/capacity/ftnv4", 4000),
    cap_int32("ftnv6", "s_mpls/l3vpn/capacity/ftnv6", 4000),
    cap_int32("vc_ftn", "s_mpls/l3vpn/capacity/vc_ftn", 20000),
    cap_int32("ilm", "s_mpls/l3vpn/capacity/ilm", 4000),
    cap_int32("ecmp_size", "s_mpls/l3vpn/capacity/ecmp_size", 1000),
};

void *ce_l3vpn_cap_handle = nullptr;
bool ce_l3vpn_cap_subscribed = false;

namespace {
ce_l3vpn_cap_t *cap_by_path(const char *path) {
    for (ce_l3vpn_cap_t &c : ce_l3vpn_cap_tbl)
        if (strcmp(c.path, path) == 0) return &c;
    return nullptr;
}

const ce_l3vpn_cap_t *cap_by_name(const char *name) {
    if (name == nullptr) return nullptr;
    for (const ce_l3vpn_cap_t &c : ce_l3vpn_cap_tbl)
        if (strcmp(c.name, name) == 0) return &c;
    return nullptr;
}

constexpr const char *kValueDetail = "value:\"%s\" %s";

void refuse_value(const char *path, const std::string &value, const char *why) {
    char detail[LIBS_CAP_VALUE_MAX + 64];
    snprintf(detail, sizeof detail, kValueDetail, value.c_str(), why);
    ce_l3vpn_refuse("capability", path, CE_REFUSE_VALUE, detail);
}

uint32_t cur(ce_l3vpn_cap_idx_t idx) {
    return static_cast<uint32_t>(ce_l3vpn_cap_tbl[idx].cur_int32);
}
int32_t cur_signed(ce_l3vpn_cap_idx_t idx) { return ce_l3vpn_cap_tbl[idx].cur_int32; }

// A value the service cannot give leaves the default in force; one that is
// stored but not usable is also refused by name.
void cap_read(ce_l3vpn_cap_t &c) {
    int rv;
    if (c.kind == CE_CAP_KIND_INT32) {
        int32_t v = 0;
        rv = libs_cap_ce_get_g_cap_int32(ce_l3vpn_cap_handle, c.path, &v);
        if (rv == 0 && !ce_l3vpn_cap_value_ok(c, v)) rv = LIBS_CAP_ERR;
        c.cur_int32 = rv == 0 ? v : c.def_int32;
    } else {
        bool b = false;
        rv = libs_cap_ce_get_g_cap_bool(ce_l3vpn_cap_handle, c.path, &b);
        c.cur_bool = rv == 0 ? b : c.def_bool;
    }
    std::string text;
    if (rv == LIBS_CAP_ERR && libs_cap_ce_get_g_cap_text(ce_l3vpn_cap_handle, c.path, &text) == 0)
        refuse_value(c.path, text, "not usable, default kept");
}

void cap_subscribe(const ce_l3vpn_cap_t &c) {
    if (c.kind == CE_CAP_KIND_INT32)
        libs_cap_ce_subscribe_g_cap_int32(ce_l3vpn_cap_handle, c.path,
                                          ce_l3vpn_cap_int32_chg_callback);
    else
        libs_cap_ce_subscribe_g_cap_bool(ce_l3vpn_cap_handle, c.path,
                                         ce_l3vpn_cap_bool_chg_callback);
}


int cap_global_ready(void) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, "wake up from global cap ready. get global cap, notify to PI \n");
    for (ce_l3vpn_cap_t &c : ce_l3vpn_cap_tbl) cap_read(c);
    ce_l3vpn_cap_notify_pi();
    if (ce_l3vpn_cap_subscribed) return 0;
    ce_l3vpn_cap_subscribed = true;
    for (const ce_l3vpn_cap_t &c : ce_l3vpn_cap_tbl) cap_subscribe(c);
    ce_l3vpn_fun_subscribe();
    return 0;
}

// Stores the value of a change message; -11 when it does not parse, -7 when
// its path is not one of ours.
template <typename V>
int cap_apply_change(libs_cap_msg_t *pmsg,
                     int (*extract)(const libs_cap_msg_t *, uint32_t, char *, V *, uint32_t *),
                     bool (*store)(ce_l3vpn_cap_t &, V)) {
    char key[LIBS_CAP_PATH_MAX] = {};
    V value{};
    uint32_t aux = 0;
    std::string text(pmsg->value, strnlen(pmsg->value, sizeof pmsg->value));
    if (extract(pmsg, sizeof key, key, &value, &aux) != 0) {
        refuse_value(pmsg->path, text, "does not parse, previous value kept");
        return -11;
    }
    ce_l3vpn_cap_t *c = cap_by_path(key);
    if (c == nullptr) return -7;
    if (!store(*c, value)) {
        refuse_value(c->path, text, "out of range, previous value kept");
        return -11;
    }
    return 0;
}

bool store_int32(ce_l3vpn_cap_t &c, int32_t v) {
    if (!ce_l3vpn_cap_value_ok(c, v)) return false;
    c.cur_int32 = v;
    return true;
}
bool store_bool(ce_l3vpn_cap_t &c, bool v) {
    c.cur_bool = v ? 1 : 0;
    return true;
}

template <typename V>
int cap_chg_callback(const char *func, const char *text, libs_cap_msg_t *pmsg,
                     int (*extract)(const libs_cap_msg_t *, uint32_t, char *, V *, uint32_t *),
                     bool (*store)(ce_l3vpn_cap_t &, V)) {
    if (pmsg->event == LIBS_CAP_MSG_SUB_OK) {
        CE_L3VPN_LOG_FN(func, CE_L3VPN_DEBUG, "subscribe OK.");
        return 0;
    }
    if (pmsg->event != LIBS_CAP_MSG_CHANGED) return 0;
    CE_L3VPN_LOG_FN(func, CE_L3VPN_INFO, "%s", text);
    int rv = cap_apply_change(pmsg, extract, store);
    if (rv == 0) {
        ce_l3vpn_cap_notify_pi();
        // A raised capacity or path limit lets waiting entries in.
        ce_l3vpn_app_wait_drain_all();
        return 0;
    }
    CE_L3VPN_LOG_FN(func, CE_L3VPN_ERROR, "Fail, rv %d, pmsg parse", rv);
    CE_L3VPN_ERR_REC(CE_ERR_APP_GET_RV);
    return rv;
}

int cap_full(const char *func, uint32_t count, ce_l3vpn_cap_idx_t idx, ce_l3vpn_err_code_t row,
             const char *fmt) {
    int32_t cap = ce_l3vpn_cap_tbl[idx].cur_int32;
    if (static_cast<int64_t>(count) < cap) return 0;
    CE_L3VPN_ERR_REC(row);
    CE_L3VPN_LOG_FN(func, CE_L3VPN_WARN, fmt, static_cast<int>(count), cap);
    return 6;
}

const char *kind_name(uint32_t kind) { return kind == CE_CAP_KIND_INT32 ? "int32" : "bool"; }
}  // namespace

void ce_l3_cap_set_def(void) {
    for (ce_l3vpn_cap_t &c : ce_l3vpn_cap_tbl) {
        if (c.kind == CE_CAP_KIND_BOOL)
            c.cur_bool = c.def_bool;
        else
            c.cur_int32 = c.def_int32;
    }
}

int ce_l3vpn_cap_init(void *global, const char *mod_name) {
    CE_L3VPN_CHK_NULL(global);
    CE_L3VPN_CHK_NULL(mod_name);
    ce_l3vpn_cap_handle = global;

    CE_L3VPN_LOG(CE_L3VPN_INFO, "set default capcity");
    ce_l3_cap_set_def();

    int rv = SS_E_NONE;
    if (libs_cap_event_callback_reg(mod_name, ce_l3_cap_reg_callback, 1) != 0)
        rv = -11;
    else if (libs_cap_init(global, mod_name) != 0)
        rv = -17;
    if (rv != SS_E_NONE) {
        CE_L3VPN_FAIL("rv == SS_E_NONE", CE_ERR_CAP_INIT, "lib_scap init");
        return rv;
    }
    CE_L3VPN_LOG(CE_L3VPN_INFO, "start waiting for global-cap-ready callback \n");
    return 0;
}

int ce_l3_cap_reg_callback(uint32_t event) {
    if (event == LIBS_CAP_EVT_GLOBAL_READY) return cap_global_ready();
    if (event == LIBS_CAP_EVT_FE_L3VPN_READY)
        CE_L3VPN_LOG(CE_L3VPN_INFO, "wake up from FE l3vpn cap ready. Do nothing \n");
    return 0;
}

int ce_l3vpn_cap_int32_chg_callback(void *, libs_cap_msg_t *pmsg) {
    CE_L3VPN_CHK_NULL(pmsg);
    return cap_chg_callback<int32_t>(__func__, "int32 CAP change callback.\n", pmsg,
                                     libs_cap_ce_get_g_cap_int32_by_pmsg, store_int32);
}

int ce_l3vpn_cap_bool_chg_callback(void *, libs_cap_msg_t *pmsg) {
    CE_L3VPN_CHK_NULL(pmsg);
    return cap_chg_callback<bool>(__func__, "bool CAP change callback.\n", pmsg,
                                  libs_cap_ce_get_g_cap_bool_by_pmsg, store_bool);
}

// The test is count below capacity: a capacity of 0 refuses every entry.
int ce_l3vpn_cap_app_check(uint32_t owner) {
    const ce_app_db_t *db = ce_app_node_db_get_owner_db(owner);
    if (db == nullptr) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "error owner, when get db");
        return 1;
    }
    switch (owner) {
        case CE_OWNER_FTN:
            return 0;  // no FTN limit is enforced
        case CE_OWNER_VC_FTN:
            return cap_full(__func__, db->tbl.count, CE_CAP_VC_FTN, CE_ERR_VC_FTN_FULL,
                            "vc ftn full, cur:%d, cap:%d");
        case CE_OWNER_ILM:
            return cap_full(__func__, db->tbl.count, CE_CAP_ILM, CE_ERR_ILM_FULL,
                            "ilm full, cur:%d, cap:%d");
        default:
            CE_L3VPN_FAIL("0", CE_ERR_UNKNOWN_OWNER, "FATAL ERROR ! unknown owner:%u", owner);
            return 1;
    }
}

uint32_t ce_l3vpn_cap_app_room_left(uint32_t owner) {
    const ce_app_db_t *db = ce_app_node_db_get_owner_db(owner);
    if (db == nullptr) return 0;
    if (owner != CE_OWNER_VC_FTN && owner != CE_OWNER_ILM) return UINT32_MAX;
    int64_t cap = cur_signed(owner == CE_OWNER_VC_FTN ? CE_CAP_VC_FTN : CE_CAP_ILM);
    return static_cast<uint32_t>(std::max<int64_t>(0, cap - db->tbl.count));
}

bool ce_l3vpn_cap_app_room(uint32_t owner) { return ce_l3vpn_cap_app_room_left(owner) > 0; }

bool ce_l3vpn_cap_nhop_room(const ce_msg_comm_t *msg) {
    int32_t max = cur_signed(CE_CAP_ECMP_MAX_PATH);
    if (max <= 0) return true;
    const ce_app_node_t *app = ce_app_node_db_get_entry(msg);
    return app == nullptr || static_cast<int64_t>(app->nhop_num) < max;
}

std::string ce_l3vpn_cap_full_text(uint32_t owner) {
    const ce_app_db_t *db = ce_app_node_db_get_owner_db(owner);
    ce_l3vpn_cap_idx_t idx = owner == CE_OWNER_VC_FTN ? CE_CAP_VC_FTN : CE_CAP_ILM;
    char text[96];
    snprintf(text, sizeof text, "%s full, cur:%u, cap:%d", owner == CE_OWNER_VC_FTN ? "vc ftn" : "ilm",
             db != nullptr ? db->tbl.count : 0, cur_signed(idx));
    return text;
}

std::string ce_l3vpn_cap_ecmp_text(uint32_t paths) {
    char text[64];
    snprintf(text, sizeof text, "ecmp full, paths:%u, cap:%d", paths, cur_signed(CE_CAP_ECMP_MAX_PATH));
    return text;
}

int ce_l3vpn_cap_label_check(const ce_msg_comm_t *msg) {
    int32_t depth = cur_signed(CE_CAP_ENCAP_LABEL_DPTH);
    if (depth <= 0 || msg->data.n_labels <= depth) return 0;
    CE_L3VPN_FAIL("data->n_labels <= encap_label_dpth", CE_ERR_LABEL_DEPTH, "depth:%u cap:%d",
                  msg->data.n_labels, depth);
    return 4;
}

bool ce_l3vpn_cap_value_ok(const ce_l3vpn_cap_t &c, int32_t value) {
    if (c.kind != CE_CAP_KIND_INT32) return true;
    if (value < 0) return false;
    return &c != &ce_l3vpn_cap_tbl[CE_CAP_ENCAP_LABEL_DPTH] || value <= CE_MPLS_MAX_LABELS;
}

// Positions follow the forwarding-ability record; the constants are the
// platform's fixed L2VPN figures, the rest comes from the table.
void ce_l3vpn_cap_build_ability(ce_l3vpn_ability_t *a) {
    *a = ce_l3vpn_ability_t{};
    a->pw_cw_support = 0;
    a->vpls_aging_timer_support = 1;
    a->vpls_multi_if_support = 0;
    a->vpls_mac_thrsh_support = 0;
    a->vpls_static_mac_reserve = 1;
    a->max_pw_cnt = 1000;
    a->max_vll_cnt = 500;
    a->max_vpls_cnt = 2000;
    a->max_switch_vfi_cnt = 2000;
    a->max_mac_per_vpls = 96000;
    a->max_pw_count_per_vpls = 256;
    a->max_label_index = 48;
    a->vpws_type_support = 0xFFFFF;
    a->mpls_gre_support = 0;
    a->mpls_te_support = 0;
    a->max_v4_ftn_cnt = cur(CE_CAP_FTNV4);
    a->max_v6_ftn_cnt = cur(CE_CAP_FTNV6);
    a->max_ilm_cnt = cur(CE_CAP_ILM);
    a->ecmp_size = cur(CE_CAP_ECMP_SIZE);
    a->max_lbl_dpth = cur(CE_CAP_ENCAP_LABEL_DPTH);
    a->max_ecmp_paths = cur(CE_CAP_ECMP_MAX_PATH);
    a->max_service_class = 0;
    a->mpls_base_support = ce_l3vpn_cap_tbl[CE_CAP_SUPPORT_MPLS].cur_bool;
    a->mpls_l2vpn_support = 0;
}

int32_t ce_l3vpn_cap_get_int32(const char *short_name) {
    const ce_l3vpn_cap_t *c = cap_by_name(short_name);
    return (c != nullptr && c->kind == CE_CAP_KIND_INT32) ? c->cur_int32 : -1;
}

bool ce_l3vpn_cap_get_bool(const char *short_name) {
    const ce_l3vpn_cap_t *c = cap_by_name(short_name);
    return c != nullptr && c->kind == CE_CAP_KIND_BOOL && c->cur_bool != 0;
}

bool ce_l3vpn_cap_ilm_multi_action(void) {
    return ce_l3vpn_cap_tbl[CE_CAP_ILM_MULTI_ACTION].cur_bool != 0;
}

int ce_l3vpn_cap_dump(int is_form) {
    if (is_form == 1) {
        printf("\n%-18s %-42s %-6s %8s %8s\n", "name", "path", "kind", "current", "default");
        printf("%.86s\n",
               "-----------------------------------------------------------------------------------"
               "---");
    }
    for (const ce_l3vpn_cap_t &c : ce_l3vpn_cap_tbl) {
        bool i32 = c.kind == CE_CAP_KIND_INT32;
        printf("%-18s %-42s %-6s %8d %8d\n", c.name, c.path, kind_name(c.kind),
               i32 ? c.cur_int32 : c.cur_bool, i32 ? c.def_int32 : c.def_bool);
    }
    return 0;
}

int ce_l3vpn_cap_notify_pi(void) {
    ce_l3vpn_ability_t ability;
    ce_l3vpn_cap_build_ability(&ability);
    return ce_l3vpn_proto_ability_notify(&ability);
}
