#include "app/proc/ce_l3vpn_dbg.h"

#include <arpa/inet.h>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "app/proc/ce_l3vpn_app.h"
#include "app/proc/ce_l3vpn_cap.h"
#include "app/proc/ce_l3vpn_cnt.h"
#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_logall.h"
#include "app/proc/ce_l3vpn_main.h"
#include "app/proc/ce_l3vpn_msg_op.h"
#include "app/proc/ce_l3vpn_refuse.h"
#include "app/proc/ce_l3vpn_stats.h"
#include "app/proc/ce_l3vpn_tbl.h"
#include "format/at_snprintf.h"
#include "p_intf.pb-c.h"
#include "p_libpub.pb-c.h"
#include "p_mpls.pb-c.h"
#include "s_mpls.pb-c.h"
#include "platform/ssat/ssat.h"

namespace {
int64_t arg_i(const ssat_args_t *a, int i) { return a->argv[i].i; }
uint32_t arg_u(const ssat_args_t *a, int i) { return static_cast<uint32_t>(a->argv[i].i); }

void print_separator() {
    ce_l3vpn_dbg_print("\n---------------------------------------------------------------------------------------");
}

void print_level_list() {
    ce_l3vpn_dbg_print("\n\t%d for %10s \n", 0, "FATAL");
    for (int lvl = 1; lvl <= 5; ++lvl) ce_l3vpn_dbg_print("\t%d for %10s \n", lvl, ce_l3vpn_dbg_level_name(lvl));
    ce_l3vpn_dbg_print("\t\n Current zlog debug level is: %d \n", ce_l3vpn_dbg_level);
}

// ---- test entries --------------------------------------------------------------

// One ILM test record; labels beyond LabelNum stay 0.
struct ilm_test_t {
    PLibpub__Ipv4 v4 = P_LIBPUB__IPV4__INIT;
    PLibpub__Ip co_nh = P_LIBPUB__IP__INIT;
    PMpls__IlmIndex index = P_MPLS__ILM_INDEX__INIT;
    PMpls__MomMsgIlm ilm = P_MPLS__MOM_MSG_ILM__INIT;
    PLibpub__Ipv4 fec_v4 = P_LIBPUB__IPV4__INIT;
    PLibpub__Ip fec = P_LIBPUB__IP__INIT;

    ilm_test_t(uint32_t inlabel, uint32_t nh, uint32_t ifx, uint32_t opcode, uint32_t n,
               const uint32_t lab[3]) {
        v4.data = nh;
        co_nh.addr_case = P_LIBPUB__IP__ADDR_V4;
        co_nh.v4 = &v4;
        index.in_label = inlabel;
        index.co_nhop = &co_nh;
        index.out_ifx = ifx;
        index.opcode = static_cast<int32_t>(opcode);
        index.lb_cnt = n;
        index.lb_st_0 = lab[0];
        index.lb_st_1 = lab[1];
        index.lb_st_2 = lab[2];
        ilm.index = &index;
    }
    void set_fec(uint32_t addr) {
        fec_v4.data = addr;
        fec.addr_case = P_LIBPUB__IP__ADDR_V4;
        fec.v4 = &fec_v4;
        ilm.fec_prefix = &fec;
        ilm.fec_prefixlen = 32;
    }
};

bool label_num_ok(int64_t n) {
    if (n > 3) {
        ce_l3vpn_dbg_print("error label_num:%d", static_cast<int>(n));
        return false;
    }
    return true;
}

// Adds 1 to an address stored in network byte order.
uint32_t v4_next(uint32_t addr) { return htonl(ntohl(addr) + 1); }

int cmd_add_ilm_test(const ssat_args_t *a) {
    if (!label_num_ok(arg_i(a, 6))) return 0;
    const uint32_t lab[3] = {arg_u(a, 7), arg_u(a, 8), arg_u(a, 9)};
    ilm_test_t t(arg_u(a, 0), a->argv[1].v4, arg_u(a, 2), arg_u(a, 3), arg_u(a, 6), lab);
    t.ilm.vrfid = arg_u(a, 4);
    t.ilm.vc_ifx = arg_u(a, 5);
    return ce_l3_ilm_add(&t.ilm, nullptr);
}

int cmd_del_ilm_test(const ssat_args_t *a) {
    if (!label_num_ok(arg_i(a, 4))) return 0;
    const uint32_t lab[3] = {arg_u(a, 5), arg_u(a, 6), arg_u(a, 7)};
    ilm_test_t t(arg_u(a, 0), a->argv[1].v4, arg_u(a, 2), arg_u(a, 3), arg_u(a, 4), lab);
    return ce_l3_ilm_del(&t.ilm, nullptr);
}

// Entry i gets in-label + i and FEC prefix + i.
int ilm_test_n(const ssat_args_t *a, int count, uint32_t fec, bool add) {
    if (count == 0) return 29;
    if (!label_num_ok(arg_i(a, 4))) return 0;
    const uint32_t lab[3] = {arg_u(a, 5), arg_u(a, 6), arg_u(a, 7)};
    for (int i = 0; i < count; ++i) {
        ilm_test_t t(arg_u(a, 0) + i, a->argv[1].v4, arg_u(a, 2), arg_u(a, 3), arg_u(a, 4), lab);
        t.set_fec(fec);
        fec = v4_next(fec);
        add ? ce_l3_ilm_add(&t.ilm, nullptr) : ce_l3_ilm_del(&t.ilm, nullptr);
    }
    return 0;
}

int cmd_add_ilm_test_n(const ssat_args_t *a) {
    return ilm_test_n(a, static_cast<int>(arg_i(a, 9)), a->argv[8].v4, true);
}

int cmd_del_ilm_test_n(const ssat_args_t *a) {
    return ilm_test_n(a, static_cast<int>(arg_i(a, 8)), 0, false);
}

int cmd_op_ftn_v6_test(const ssat_args_t *a) {
    if (!label_num_ok(arg_i(a, 6))) return 0;
    PLibpub__Ipv6 pre6 = P_LIBPUB__IPV6__INIT, nh6 = P_LIBPUB__IPV6__INIT;
    pre6.data = {16, const_cast<uint8_t *>(a->argv[2].v6)};
    nh6.data = {16, const_cast<uint8_t *>(a->argv[4].v6)};
    PLibpub__Ip prefix = P_LIBPUB__IP__INIT, con_nh = P_LIBPUB__IP__INIT;
    prefix.addr_case = P_LIBPUB__IP__ADDR_V6;
    prefix.v6 = &pre6;
    con_nh.addr_case = P_LIBPUB__IP__ADDR_V6;
    con_nh.v6 = &nh6;
    PMpls__FtnIndex index = P_MPLS__FTN_INDEX__INIT;
    index.vrf_id = arg_u(a, 1);
    index.prefix = &prefix;
    index.prefix_len = static_cast<int32_t>(arg_i(a, 3));
    index.con_nh = &con_nh;
    index.out_ifx = arg_u(a, 5);
    index.lb_cnt = arg_u(a, 6);
    index.lb_st_0 = arg_u(a, 7);
    index.lb_st_1 = arg_u(a, 8);
    index.lb_st_2 = arg_u(a, 9);
    index.opcode = CE_OP_PUSH;
    PMpls__MomMsgFtn ftn = P_MPLS__MOM_MSG_FTN__INIT;
    ftn.index = &index;
    return arg_i(a, 0) != 0 ? ce_l3_ftn_add(&ftn, nullptr) : ce_l3_ftn_del(&ftn, nullptr);
}

// ---- levels, overview, counters ---------------------------------------------------

int cmd_debug(const ssat_args_t *a) {
    ce_l3vpn_set_dbg_level(static_cast<int32_t>(arg_i(a, 0)));
    print_level_list();
    return 0;
}

void print_db_line(const char *name, uint32_t cur, uint32_t max) {
    ce_l3vpn_dbg_print("%16s %8u %8u\n", name, cur, max);
}

void print_stat_lines() {
    ce_l3vpn_dbg_print("\n%16s %8s %8s\n", "name", "current", "max_size");
    for (uint32_t owner = CE_OWNER_FTN; owner <= CE_OWNER_ILM; ++owner) {
        const ce_app_db_t *db = ce_app_node_db_get_owner_db(owner);
        if (db != nullptr && db->valid) print_db_line(db->tbl.name, db->tbl.count, db->tbl.maxsize);
    }
    if (ce_in_adj_db.valid)
        print_db_line(ce_in_adj_db.tbl.name, ce_in_adj_db.tbl.count, ce_in_adj_db.tbl.maxsize);
    print_db_line("status_cnt", ce_l3vpn_cnt_size(), 0);
    print_db_line("data_if", ce_l3vpn_data_if_size(), 0);
}

void print_err_rows(int is_clean) {
    ce_l3vpn_dbg_print("\n%20s %8s %8s %8s %8s %8s %8s\n", "name", "count", "history", "data1",
                       "data2", "line", "level");
    for (ce_l3vpn_err_row_t &r : ce_l3vpn_err_tbl) {
        if (r.name == nullptr) continue;
        if (r.count == 0 && r.history == 0) {
            if (r.level == 0)
                ce_l3vpn_dbg_print("%-20s %8d %8d %8d %8d %8d %8s\n", r.name, r.count, r.level,
                                   r.data1, r.data2, r.line, "NULL");
        } else if (r.level >= 4) {
            ce_l3vpn_dbg_print("\033[1;31m\n[ERROR]\n%20s %8d %8d %8d %8d %8d %8s\n\033[0m", r.name,
                               r.count, r.history, r.data1, r.data2, r.line,
                               ce_l3vpn_err_level_name(r.level));
        } else {
            ce_l3vpn_dbg_print("%-20s %8d %8d %8d %8d %8d %8s\n", r.name, r.count, r.history,
                               r.data1, r.data2, r.line, ce_l3vpn_err_level_name(r.level));
        }
    }
    if (is_clean != 1) return;
    for (ce_l3vpn_err_row_t &r : ce_l3vpn_err_tbl) {
        r.history += r.count;
        r.count = 0;
    }
}

int cmd_show_info(const ssat_args_t *a) {
    print_separator();
    print_level_list();
    print_separator();
    ce_l3vpn_cap_dump(1);
    print_separator();
    print_stat_lines();
    print_separator();
    print_err_rows(static_cast<int>(arg_i(a, 0)));
    print_separator();
    ce_l3vpn_dbg_print("\n");
    return 0;
}

int cmd_get_mem_cnt(const ssat_args_t *) {
    ce_l3vpn_dbg_print("\n[dbg] memory count:%u \n", ce_l3vpn_mem_cnt);
    return 0;
}

int cmd_dump_cap_info(const ssat_args_t *a) { return ce_l3vpn_cap_dump(static_cast<int>(arg_i(a, 0))); }

int cmd_dump_basic_info(const ssat_args_t *) {
    ce_l3vpn_dbg_print("\n[dbg] basic info \n");
    ce_l3vpn_dbg_print("%-12s %s\n", "ttl copy", ce_l3vpn_ttl_copy ? "enable" : "disable");
    ce_l3vpn_dbg_print("%-12s %s\n", "mpls", ce_l3vpn_mpls_enable ? "enable" : "disable");
    ce_l3vpn_dbg_print("%-12s {high %u, low %u}\n", "mpls id", ce_mpls_id_high(ce_in_adj_mpls_id),
                       ce_mpls_id_low(ce_in_adj_mpls_id));
    return 0;
}

// ---- look-ups and database dumps --------------------------------------------------

ce_app_node_t *lookup(uint32_t owner, const ce_msg_key_t &key) {
    ce_msg_comm_t msg;
    memset(&msg, 0, sizeof msg);
    msg.owner = owner;
    msg.key = key;
    return ce_app_node_db_get_entry(&msg);
}

int cmd_get_ilm(const ssat_args_t *a) {
    int64_t in_label = arg_i(a, 0);
    if (in_label > 0x100000) ce_l3vpn_dbg_print("invalid in label:%d", static_cast<int>(in_label));
    ce_msg_key_t key;
    memset(&key, 0, sizeof key);
    key.ilm.inlabel = static_cast<uint32_t>(in_label);
    ce_app_node_t *app = lookup(CE_OWNER_ILM, key);
    if (app == nullptr) {
        ce_l3vpn_dbg_print("\n[dbg] get ilm fail: in_label %d\n", static_cast<int>(in_label));
        return 0;
    }
    ce_l3vpn_dbg_print("\n[dbg] get ilm:%d\n", ce_l3vpn_dump_app_node(app, 1));
    return 0;
}

int cmd_get_vc_ftn(const ssat_args_t *a) {
    int64_t vc_ifx = arg_i(a, 0);
    if (vc_ifx < 0) ce_l3vpn_dbg_print("invalid vc_ifx:%d", static_cast<int>(vc_ifx));
    ce_msg_key_t key;
    memset(&key, 0, sizeof key);
    key.vc_ftn.vc_ifx = static_cast<uint32_t>(vc_ifx);
    ce_app_node_t *app = lookup(CE_OWNER_VC_FTN, key);
    if (app == nullptr) {
        ce_l3vpn_dbg_print("\n[dbg] get vc_ftn fail: vc_ifx %d\n", static_cast<int>(vc_ifx));
        return 0;
    }
    ce_l3vpn_dbg_print("\n[dbg] get vc_ftn:%d\n", ce_l3vpn_dump_app_node(app, 1));
    return 0;
}

// The IPv6 look-up checks the mask against 32 as well, on purpose.
ce_app_node_t *lookup_ftn(const ssat_args_t *a, uint8_t pro) {
    int64_t mask = arg_i(a, 2);
    if (mask > 32) ce_l3vpn_dbg_print("invalid mask:%d\n", static_cast<int>(mask));
    ce_msg_key_t key;
    memset(&key, 0, sizeof key);
    key.ftn.pro = pro;
    key.ftn.vrf = arg_u(a, 0);
    key.ftn.mask_len = static_cast<uint8_t>(mask);
    if (pro == CE_PRO_IPV4)
        memcpy(key.ftn.ip, &a->argv[1].v4, 4);
    else
        memcpy(key.ftn.ip, a->argv[1].v6, 16);
    return lookup(CE_OWNER_FTN, key);
}

int cmd_get_ftnv4(const ssat_args_t *a) {
    ce_app_node_t *app = lookup_ftn(a, CE_PRO_IPV4);
    if (app == nullptr) {
        ce_l3vpn_dbg_print("\n[dbg] get ftnv4 fail:vrf:%d ipv4:%a mask:%d\n", static_cast<int>(arg_i(a, 0)),
                           a->argv[1].v4, static_cast<int>(arg_i(a, 2)));
        return 0;
    }
    ce_l3vpn_dbg_print("\n[dbg] get ftnv4:%d\n", ce_l3vpn_dump_app_node(app, 1));
    return 0;
}

int cmd_get_ftnv6(const ssat_args_t *a) {
    ce_app_node_t *app = lookup_ftn(a, CE_PRO_IPV6);
    if (app == nullptr) {
        ce_l3vpn_dbg_print("\n[dbg] get ftnv6 fail:vrf:%d ipv4:%v mask:%d\n", static_cast<int>(arg_i(a, 0)),
                           a->argv[1].v6, static_cast<int>(arg_i(a, 2)));
        return 0;
    }
    ce_l3vpn_dbg_print("\n[dbg] get ftnv6:%d\n", ce_l3vpn_dump_app_node(app, 1));
    return 0;
}

int dump_db(const ssat_args_t *a, int (*dump)(int count, int is_form)) {
    int count = static_cast<int>(arg_i(a, 0));
    ce_l3vpn_dbg_print("[dbg] count:%d\n", count);
    int rv = dump(count, arg_i(a, 1) != 0);
    ce_l3vpn_dbg_print("[dbg] dump db:%d\n", rv);
    return 0;
}

int dump_ilm(int count, int form) { return ce_l3vpn_dump_app_db(CE_OWNER_ILM, count, form); }
int dump_vc_ftn(int count, int form) { return ce_l3vpn_dump_app_db(CE_OWNER_VC_FTN, count, form); }
int dump_ftn(int count, int form) { return ce_l3vpn_dump_app_db(CE_OWNER_FTN, count, form); }

int cmd_dump_ilm_db(const ssat_args_t *a) { return dump_db(a, dump_ilm); }
int cmd_dump_vc_ftn_db(const ssat_args_t *a) { return dump_db(a, dump_vc_ftn); }
int cmd_dump_ftn_db(const ssat_args_t *a) { return dump_db(a, dump_ftn); }
int cmd_dump_in_adj_db(const ssat_args_t *a) { return dump_db(a, ce_l3vpn_dump_in_adj_db); }

int cmd_get_in_adj_id(const ssat_args_t *) {
    ce_l3vpn_dbg_print("\n[dbg] current mpls id:{high %u, low %u}\n", ce_mpls_id_high(ce_in_adj_mpls_id),
                       ce_mpls_id_low(ce_in_adj_mpls_id));
    return 0;
}

int by_id_walk(ce_in_adj_node_t *node, void *arg) {
    if (node->mpls_id == *static_cast<uint64_t *>(arg))
        ce_l3vpn_dbg_print("\n[dbg] get in intf:%d\n", ce_l3vpn_dump_in_adj_node(node, 1));
    return 0;
}

int cmd_get_in_adj_by_id(const ssat_args_t *a) {
    uint64_t id = (static_cast<uint64_t>(arg_u(a, 0)) << 32) | arg_u(a, 1);
    ce_l3vpn_in_adj_db_walkthrough(by_id_walk, &id);
    return 0;
}

// ---- test records written into the MOM ---------------------------------------------

uint32_t tbl_db(ce_l3vpn_tbl_idx_t idx) {
    ss_rt_tbl_t *t = ce_l3vpn_tbl_handles[idx];
    return t != nullptr ? t->db : 0;
}

int cmd_status_cnt_op(const ssat_args_t *a) {
    SMpls__SrteCountIndex key = S_MPLS__SRTE_COUNT_INDEX__INIT;
    key.tunnel_id = arg_u(a, 1);
    key.protocol = arg_u(a, 2);
    SMpls__SrteStatusCnt rec = S_MPLS__SRTE_STATUS_CNT__INIT;
    rec.index = &key;
    rec.timestamp = arg_u(a, 3);
    rec.pkts = arg_u(a, 4);
    rec.bytes = arg_u(a, 5);
    uint32_t db = tbl_db(CE_TBL_STATUS_CNT);
    return arg_i(a, 0) != 0 ? tq_mom_set_sync(ce_l3vpn_global, db, &rec.base)
                            : tq_mom_del_sync(ce_l3vpn_global, db, &rec.base);
}

// Sets the flag of the interface's record and keeps the rest of it: a hash
// write stores every scalar it carries, zeros included.
int cmd_data_if_flag_op(const ssat_args_t *a) {
    PIntf__Intfindex key = P_INTF__INTFINDEX__INIT;
    key.index = arg_u(a, 1);
    PIntf__DataIntf rec = P_INTF__DATA_INTF__INIT;
    rec.index = &key;
    uint32_t db = tbl_db(CE_TBL_DATA_INTF);
    if (arg_i(a, 0) == 0) return tq_mom_del_sync(ce_l3vpn_global, db, &rec.base);
    ProtobufCMessage *stored = nullptr;
    if (tq_mom_get_sync(ce_l3vpn_global, db, &rec.base, &stored) == TQ_MOM_OK && stored != nullptr) {
        auto *old = reinterpret_cast<PIntf__DataIntf *>(stored);
        old->statis_flag = static_cast<int32_t>(arg_i(a, 2));
        int rv = tq_mom_hmset_sync(ce_l3vpn_global, db, stored);
        tq_mom_free(stored);
        return rv;
    }
    rec.statis_flag = static_cast<int32_t>(arg_i(a, 2));
    return tq_mom_hmset_sync(ce_l3vpn_global, db, &rec.base);
}

int cmd_tunnel_sc_op(const ssat_args_t *a) {
    PMpls__TeTunIndex key = P_MPLS__TE_TUN_INDEX__INIT;
    key.ifindex = arg_u(a, 1);
    PMpls__MomConfTeTunServiceClass rec = P_MPLS__MOM_CONF_TE_TUN_SERVICE_CLASS__INIT;
    rec.index = &key;
    rec.service_class = arg_u(a, 2);
    uint32_t db = tbl_db(CE_TBL_TUN_SC);
    return arg_i(a, 0) != 0 ? tq_mom_set_sync(ce_l3vpn_global, db, &rec.base)
                            : tq_mom_del_sync(ce_l3vpn_global, db, &rec.base);
}

int cmd_status_cnt_clr(const ssat_args_t *a) {
    if (arg_i(a, 0) == 0) return 0;
    PIntf__Intfindex key = P_INTF__INTFINDEX__INIT;
    key.index = arg_u(a, 1);
    PIntf__EvtIfclearcnt rec = P_INTF__EVT_IFCLEARCNT__INIT;
    rec.index = &key;
    rec.clear_count = 1;
    return tq_mom_publish(ce_l3vpn_global, tbl_db(CE_TBL_IF_CLEAR_CNT), &rec.base, 1, 0);
}

// Refusals by table and reason, then what waits for room.
int cmd_show_refused(const ssat_args_t *) {
    ce_l3vpn_refuse_dump();
    for (uint32_t owner : {CE_OWNER_FTN, CE_OWNER_VC_FTN, CE_OWNER_ILM})
        ce_l3vpn_dbg_print("waiting for room %-8s %zu\n", ce_owner_name(owner),
                           ce_l3vpn_app_wait_count(owner));
    ce_l3vpn_dbg_print("lines not logged %llu\n",
                       static_cast<unsigned long long>(ce_l3vpn_refuse_unlogged()));
    return 0;
}

// The figures of the metrics endpoint as "name{labels} value" lines; written
// whole, since a line may be longer than one print's buffer.
int cmd_show_stats(const ssat_args_t *) {
    const std::string text = ce_l3vpn_stats_samples(ce_l3vpn_stats_snapshot());
    fwrite(text.data(), 1, text.size(), stdout);
    return 0;
}

struct ce_l3vpn_cmd_t {
    const char *name;
    const char *fmt;
    ssat_cmd_func_t func;
};

const ce_l3vpn_cmd_t kCmds[] = {
    {"add-ilm-test", "inlabel:%d co_nh:%a ifx:%d opcode:%d vrf:%d VcIfx:%d LabelNum:%d lab1:%d lab2:%d lab3:%d ", cmd_add_ilm_test},
    {"del-ilm-test", "inlabel:%d co_nh:%a ifx:%d opcode:%d LabelNum:%d lab1:%d lab2:%d lab3:%d ", cmd_del_ilm_test},
    {"add-ilm-test-n", "inlabel:%d co_nh:%a ifx:%d opcode:%d LabelNum:%d lab1:%d lab2:%d lab3:%d fec_pre:%a count:%d", cmd_add_ilm_test_n},
    {"del-ilm-test-n", "inlabel:%d co_nh:%a ifx:%d opcode:%d LabelNum:%d lab1:%d lab2:%d lab3:%d count:%d", cmd_del_ilm_test_n},
    {"op-ftn-v6-test", "is_add:%d vrf:%d prefix:%v pre_len:%d co_nh:%v ifx:%d LabelNum:%d lab1:%d lab2:%d lab3:%d ", cmd_op_ftn_v6_test},
    {"debug", "level:%d", cmd_debug},
    {"show-info", "is_clean:%d is_detail:%d", cmd_show_info},
    {"get-mem_cnt", "void", cmd_get_mem_cnt},
    {"show-refused", "void", cmd_show_refused},
    {"show-stats", "void", cmd_show_stats},
    {"dump-cap-info", "is_form:%d", cmd_dump_cap_info},
    {"dump-basic-info", "void", cmd_dump_basic_info},
    {"get-ilm", "in_label:%d", cmd_get_ilm},
    {"dump-ilm-db", "count:%d is_form:%d", cmd_dump_ilm_db},
    {"get-vc-ftn", "vc_ifx:%d", cmd_get_vc_ftn},
    {"dump-vc-ftn-db", "count:%d is_form:%d", cmd_dump_vc_ftn_db},
    {"get-ftnv4", "vrf:%d ipv4:%a mask:%d", cmd_get_ftnv4},
    {"get-ftnv6", "vrf:%d ipv6:%v mask:%d", cmd_get_ftnv6},
    {"dump-ftn-db", "count:%d is_form:%d", cmd_dump_ftn_db},
    {"get-in-adj-id", "void (current id)", cmd_get_in_adj_id},
    {"get-in-adj-by-id", "high:%d low:%d", cmd_get_in_adj_by_id},
    {"dump-in-adj-db", "count:%d is_form:%d", cmd_dump_in_adj_db},
    {"status_cnt_op", "is_add:%d tunnel:%d proto:%d timestamp:%d pkts:%d bytes:%d", cmd_status_cnt_op},
    {"data_if_flag_op", "is_add:%d index:%d static_flag:%d ", cmd_data_if_flag_op},
    {"tunnel_sc_op", "is_add:%d tunnel_id:%d service_class:%d", cmd_tunnel_sc_op},
    {"status_cnt_clr", "is_add:%d, index:%d", cmd_status_cnt_clr},
};
}  // namespace

void ce_l3vpn_dbg_print(const char *fmt, ...) {
    char buf[1000];
    memset(buf, 0, sizeof buf);
    va_list ap;
    va_start(ap, fmt);
    at_vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    printf("%s", buf);
}

int ce_l3vpn_dbg_init(void *global, const char *mod_name) {
    int rv = ssat_lib_init(global, mod_name);
    if (rv != 0) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "ssat init error");
        return rv;
    }
    ss_rt_tbl_ut_init(mod_name);
    for (const ce_l3vpn_cmd_t &c : kCmds) ssat_reg_mod_cmd(mod_name, c.name, 0, c.fmt, c.func);
    return 0;
}
