#include "app/proc/ce_l3vpn_msg_op.h"

#include <malloc.h>

#include <cstring>

#include "app/proc/ce_l3vpn_app.h"
#include "app/proc/ce_l3vpn_cap.h"
#include "app/proc/ce_l3vpn_cnt.h"
#include "app/proc/ce_l3vpn_dump.h"
#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_main.h"
#include "app/proc/ce_l3vpn_msg_parse.h"
#include "app/proc/ce_l3vpn_refuse.h"
#include "app/proc/ce_l3vpn_stats.h"
#include "app/proc/ce_l3vpn_switch.h"
#include "app/proc/ce_l3vpn_tbl.h"
#include "platform/runtime/tq_global.h"

namespace {
// ---- subscriptions and data sync ---------------------------------------------

struct ce_l3_sub_t {
    ce_l3vpn_tbl_idx_t tbl;
    ss_rt_tbl_func_t add;
    ss_rt_tbl_func_t del;
};

// Subscription order of the input tables.
const ce_l3_sub_t kSubs[] = {
    {CE_TBL_GLOBAL_ENABLE, ce_l3_mpls_enable_set, ce_l3_mpls_enable_del},
    {CE_TBL_LABEL_SWITCH, ce_l3_ifx_lab_sw_set, ce_l3_ifx_lab_sw_del},
    {CE_TBL_VPN_TTL, ce_l3_ttl_copy_set, ce_l3_ttl_copy_del},
    {CE_TBL_FTN, ce_l3_ftn_add, ce_l3_ftn_del},
    {CE_TBL_VC_FTN, ce_l3_vc_ftn_add, ce_l3_vc_ftn_del},
    {CE_TBL_ILM, ce_l3_ilm_add, ce_l3_ilm_del},
    {CE_TBL_STATUS_CNT, ce_l3_status_cnt_add, nullptr},
    {CE_TBL_TUN_SC, ce_l3_tunnel_sc_add, ce_l3_tunnel_sc_del},
    {CE_TBL_DATA_INTF, ce_l3_data_if_flag_add, ce_l3_data_if_flag_del},
    {CE_TBL_IF_CLEAR_CNT, ce_l3_status_cnt_clr_enable, nullptr},
};

struct ce_l3_ds_t {
    ce_l3vpn_tbl_idx_t tbl;
    uint32_t mode;  // 1: only this daemon's owner slice
};

// Outputs that a data sync rewrites and sweeps (the ability record and the
// interface counters are rewritten by their own writers).
const ce_l3_ds_t kDsTables[] = {
    {CE_TBL_UDP_MPLS_ENABLE, 0}, {CE_TBL_UDP_TTL_COPY, 0},   {CE_TBL_UDP_LAB_SW, 0},
    {CE_TBL_FTN_RT, 1},          {CE_TBL_VC_FTN_VIR_RT, 1},  {CE_TBL_ILM_VIR_RT, 1},
    {CE_TBL_UDP_ILM, 0},         {CE_TBL_FTN_IN_ADJ, 1},     {CE_TBL_VC_FTN_IN_ADJ, 1},
    {CE_TBL_ILM_IN_ADJ, 1},      {CE_TBL_SRTE_STATUS_CNT, 0},
};

// Inputs replayed into the forwarding state, in this order.
const ce_l3vpn_tbl_idx_t kReplay[] = {
    CE_TBL_GLOBAL_ENABLE, CE_TBL_LABEL_SWITCH, CE_TBL_VPN_TTL, CE_TBL_FTN,
    CE_TBL_VC_FTN,        CE_TBL_ILM,          CE_TBL_TUN_SC,  CE_TBL_DATA_INTF,
};

// Own inner adjacencies read back, by owner 1, 7 and 8.
const ce_l3vpn_tbl_idx_t kInAdjReadBack[] = {CE_TBL_FTN_IN_ADJ, CE_TBL_ILM_IN_ADJ,
                                             CE_TBL_VC_FTN_IN_ADJ};

int ce_l3_read_back(void) {
    int rv = 0;
    ss_rt_tbl_t *ttl = ce_l3vpn_tbl_handles[CE_TBL_UDP_TTL_COPY];
    if (ttl != nullptr)
        rv |= tq_mom_scan_sync(ce_l3vpn_global, ttl->db, ttl->item, TQ_MOM_MODE_TABLE,
                               ce_l3_ttl_copy_bak_cb, nullptr);
    for (ce_l3vpn_tbl_idx_t idx : kInAdjReadBack) {
        ss_rt_tbl_t *t = ce_l3vpn_tbl_handles[idx];
        if (t != nullptr)
            rv |= tq_mom_scan_sync(ce_l3vpn_global, t->db, t->item, TQ_MOM_MODE_OWNER,
                                   ce_l3_in_adj_bak_cb, nullptr);
    }
    return rv;
}

// ---- repair of outputs changed behind the daemon's back ---------------------------

// A change by another client to one of the outputs (a delete, a rewrite, a
// flush) runs the data sync again a second later: the sync rewrites exactly
// what differs from the forwarding state and sweeps what it does not hold.
// Notices that follow within that second ride on the same sync.
constexpr uint32_t kRepairDelayS = 1;
tq_timer_t *repair_timer = nullptr;
bool repair_pending = false;
bool repair_ability = false;  // the ability record is not part of the sync: sent again apart
bool repair_drift = false;    // the repair is for a drift (else: a sync that could not read)

int ce_l3_repair_cb(void *) {
    repair_pending = false;
    // While the link is down or coming back, the sync that its return runs
    // repairs the outputs too; writes made now would fail.
    if (!ss_rt_tbl_sub_all_ok()) return 0;
    if (repair_drift) {
        CE_L3VPN_LOG(CE_L3VPN_WARN, "outputs changed by another client, data sync again");
        CE_L3VPN_ERR_REC(CE_ERR_OUTPUT_DRIFT);
    }
    repair_drift = false;
    return ce_l3_data_check();
}

void ce_l3_repair_soon(void) {
    if (repair_pending) return;
    repair_pending = true;
    tq_thread_insert_timer(tq_global_master(ce_l3vpn_global), &repair_timer, ce_l3_repair_cb,
                           nullptr, kRepairDelayS, "ds repair");
}

void ce_l3_drift_cb(ss_rt_tbl_t *table) {
    if (table == ce_l3vpn_tbl_handles[CE_TBL_FWD_ABILITY]) repair_ability = true;
    repair_drift = true;
    if (!repair_pending)
        CE_L3VPN_LOG(CE_L3VPN_INFO, "output %s changed by another client", ss_rt_tbl_name(table));
    ce_l3_repair_soon();
}

void ce_l3_watch_outputs(void) {
    for (const ce_l3_ds_t &d : kDsTables)
        ss_rt_tbl_watch_detail(ce_l3vpn_tbl_handles[d.tbl], d.mode, ce_l3_drift_cb);
    ss_rt_tbl_watch_detail(ce_l3vpn_tbl_handles[CE_TBL_FWD_ABILITY], TQ_MOM_MODE_TABLE, ce_l3_drift_cb);
}

// ---- FTN, VC-FTN and ILM handlers --------------------------------------------

typedef int (*ce_l3_parse_fn)(ce_msg_comm_t *out, const void *wire, uint8_t is_add);

struct ce_l3_handler_t {
    ce_l3_parse_fn parse;
    uint8_t is_add;
    const char *start;       // INFO on entry
    const char *parse_fail;  // ERROR with the parser's result
    const char *dump;        // DEBUG with the dump's result
    const char *end;         // DEBUG at the end
    ce_l3vpn_err_code_t code;
};

int parse_ftn(ce_msg_comm_t *out, const void *w, uint8_t add) {
    return ce_l3vpn_msg_ftn_parse(out, static_cast<const PMpls__MomMsgFtn *>(w), add);
}
int parse_vc_ftn(ce_msg_comm_t *out, const void *w, uint8_t add) {
    return ce_l3vpn_msg_vc_ftn_parse(out, static_cast<const UMpls__UdpVcFtn *>(w), add);
}
int parse_ilm(ce_msg_comm_t *out, const void *w, uint8_t add) {
    return ce_l3vpn_msg_ilm_parse(out, static_cast<const PMpls__MomMsgIlm *>(w), add);
}

const ce_l3_handler_t kFtnAdd = {parse_ftn, 1, ">>>>> add ftn", "Fail, rv %d, ftn msg parse",
                                 "dump ftn==>%d", "<<<<< ftn op Over\n", CE_ERR_FTN_ADD};
const ce_l3_handler_t kFtnDel = {parse_ftn, 0, ">>>>> del ftn", "Fail, rv %d, ftn msg parse",
                                 "dump ftn==>%d", "<<<<< ftn op Over\n", CE_ERR_FTN_DEL};
const ce_l3_handler_t kVcFtnAdd = {parse_vc_ftn, 1, ">>>>> add vc ftn",
                                   "Fail, rv %d, vc ftn msg parse", "dump vc ftn==>%d",
                                   "<<<<< vc ftn op Over\n", CE_ERR_VC_FTN_ADD};
const ce_l3_handler_t kVcFtnDel = {parse_vc_ftn, 0, ">>>>> del vc ftn",
                                   "Fail, rv %d, vc ftn msg parse", "dump vc ftn==>%d",
                                   "<<<<< vc ftn op Over\n", CE_ERR_VC_FTN_DEL};
const ce_l3_handler_t kIlmAdd = {parse_ilm, 1, ">>>>> add ilm", "Fail, rv %d, ilm msg parse",
                                 "dump ilm==>%d", "<<<<< ilm op Over\n", CE_ERR_ILM_ADD};
const ce_l3_handler_t kIlmDel = {parse_ilm, 0, ">>>>> del ilm", "Fail, rv %d, ilm msg parse",
                                 "dump ilm==>%d", "<<<<< ilm op Over\n", CE_ERR_ILM_DEL};

// Once an entry has parsed, the table library always sees success: failures
// of the application layer show in the log and the error statistics only.
int ce_l3_handle(const ce_l3_handler_t &h, const void *wire) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, h.start);
    ce_msg_comm_t msg;
    ce_l3vpn_err_last_fail = 0;
    int rv = h.parse(&msg, wire, h.is_add);
    if (rv != 0) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, h.parse_fail, rv);
        CE_L3VPN_ERR_REC(CE_ERR_APP_GET_RV);
        ce_l3vpn_refuse_record(wire, rv);
        return rv;
    }
    CE_L3VPN_ERR_REC(h.code);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, h.dump, ce_l3vpn_dump_msg_comm(&msg));
    ce_l3vpn_refuse_set_input(wire);
    ce_l3_comm_msg_op(&msg);
    ce_l3vpn_refuse_set_input(nullptr);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, h.end);
    return rv;
}

// ---- attribute checks ----------------------------------------------------------

bool nhop_present(const ce_msg_comm_t *m) {
    return !mpls_is_ip_zero(m->nhop.ip, m->nhop.pro) && m->nhop.ifx != 0;
}

constexpr uint32_t bit(uint32_t op) { return 1u << op; }
constexpr uint32_t kIlmNhopOps = bit(CE_OP_PUSH) | bit(CE_OP_POP) | bit(CE_OP_SWAP) |
                                 bit(CE_OP_SWAP_PUSH) | bit(CE_OP_POP_L3NEXTHOP) |
                                 bit(CE_OP_DLVR_TO_IP);
constexpr uint32_t kLabelOps = bit(CE_OP_PUSH) | bit(CE_OP_SWAP) | bit(CE_OP_SWAP_PUSH);

bool ipv4_mapped(const uint8_t ip[16]) {
    static const uint8_t prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    return memcmp(ip, prefix, sizeof prefix) == 0;
}

}  // namespace

int ce_l3vpn_fun_subscribe(void) {
    ss_rt_tbl_reg_ds_func(ce_l3_data_check);
    CE_L3VPN_LOG(CE_L3VPN_INFO, "<<<<<< SUBSCRIBE BEGIN \n");
    int rv = 0;
    for (const ce_l3_sub_t &s : kSubs)
        rv |= ss_rt_tbl_subscribe_detail(ce_l3vpn_tbl_handles[s.tbl], s.add, s.del, nullptr, 0);
    CE_L3VPN_LOG(CE_L3VPN_INFO, "<<<<<< SUBSCRIBE OVER \n");
    ce_l3_watch_outputs();
    if (rv != 0) CE_L3VPN_LOG(CE_L3VPN_ERROR, "subscribe fail");
    return rv;
}

// The outputs are read back only into an empty state (the first sync of a
// process); a live state is what the outputs must show, not the other way round.
// A read that fails ends the sync before anything is removed or swept: an
// input that could not be read is not an input that went. It is tried again.
int ce_l3_data_check(void) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, ">>>>> DS BEGIN\n");
    ce_l3vpn_stats_ds_begin();
    const bool live = ce_l3vpn_app_ds_live();
    int rv = live ? 0 : ce_l3_read_back();
    for (const ce_l3_ds_t &d : kDsTables)
        rv |= ss_rt_tbl_ds_begin_detail(ce_l3vpn_tbl_handles[d.tbl], 3600, d.mode);
    ce_l3vpn_app_ds_begin();
    for (ce_l3vpn_tbl_idx_t idx : kReplay) rv |= ss_rt_tbl_scan_detail(ce_l3vpn_tbl_handles[idx], nullptr, 0);
    if (live)
        ce_l3vpn_cnt_publish_all();
    else
        rv |= ss_rt_tbl_scan_detail(ce_l3vpn_tbl_handles[CE_TBL_SRTE_STATUS_CNT], ce_l3_status_cnt_bak_cb, 0);
    if (rv != 0) {
        ce_l3vpn_app_ds_abort();
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "Fail, rv %d, data sync read, again in %us", rv, kRepairDelayS);
        ce_l3_repair_soon();
        return 0;
    }
    ce_l3vpn_app_ds_settle();
    for (const ce_l3_ds_t &d : kDsTables) ss_rt_tbl_ds_end_detail(ce_l3vpn_tbl_handles[d.tbl], d.mode);
    // The ability record is not part of the sweep: sent again when another client touched it.
    if (repair_ability && ce_l3vpn_cap_subscribed) ce_l3vpn_cap_notify_pi();
    repair_ability = false;
    ce_l3vpn_app_ds_over();
    // The sync's passing memory (held-back adds, the sweep's key sets) goes back
    // to the system rather than staying in the daemon's resident size.
    malloc_trim(0);
    ce_l3vpn_stats_ds_end();
    CE_L3VPN_LOG(CE_L3VPN_INFO, "<<<<< DS OVER \n");
    return 0;
}

int ce_l3_comm_msg_op(ce_msg_comm_t *msg) {
    if (msg->nhop.pro == CE_PRO_IPV6 && ipv4_mapped(msg->nhop.ip)) {
        CE_L3VPN_LOG(CE_L3VPN_DEBUG, "nhop is ipv4-mapped-ipv6 %v, convert to ipv4", msg->nhop.ip);
        uint8_t v4[4];
        memcpy(v4, msg->nhop.ip + 12, sizeof v4);
        memset(msg->nhop.ip, 0, sizeof msg->nhop.ip);
        memcpy(msg->nhop.ip, v4, sizeof v4);
        msg->nhop.pro = CE_PRO_IPV4;
    }
    int (*check)(const ce_msg_comm_t *) = nullptr;
    switch (msg->owner) {
    case CE_OWNER_FTN: check = ce_l3_ftn_msg_attr_check; break;
    case CE_OWNER_VC_FTN: check = ce_l3_vc_ftn_msg_attr_check; break;
    case CE_OWNER_ILM: check = ce_l3_ilm_msg_attr_check; break;
    default:
        CE_L3VPN_FAIL("0", CE_ERR_UNKNOWN_OWNER, "FATAL ERROR ! unknown owner:%u", msg->owner);
        return 1;
    }
    switch (msg->msg_event) {
    case CE_MSG_EVENT_ADD: {
        ce_l3vpn_err_last_fail = 0;
        int rv = check(msg);
        if (rv == 0) rv = ce_l3vpn_cap_label_check(msg);
        if (rv != 0) {
            CE_L3VPN_LOG(CE_L3VPN_ERROR, "Fail, rv %d, comm_msg check", rv);
            CE_L3VPN_ERR_REC(CE_ERR_APP_GET_RV);
            ce_l3vpn_refuse_msg(msg, CE_REFUSE_INVALID, ce_l3vpn_refuse_last_check());
            return rv;
        }
        return ce_l3vpn_app_add(msg);
    }
    case CE_MSG_EVENT_DEL: return ce_l3vpn_app_del(msg);
    default:
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "error msg event, %d", msg->msg_event);
        return 4;
    }
}

namespace {
// The FTN and VC-FTN checks: the same three steps with their own texts.
struct ce_l3_tunnel_check_t {
    const char *nhop_cond;
    const char *opcode_cond;
    uint32_t opcodes;  // bit per allowed opcode
};

const ce_l3_tunnel_check_t kFtnCheck = {
    "mpls_is_ip_zero(&ftn->nhop.nh_ip, ftn->nhop.pro) == false && ftn->nhop.nh_ifx != 0",
    "mpls_is_opcode_with_ftn(data->opcode)", bit(CE_OP_PUSH) | bit(CE_OP_DLVR_TO_IP)};
const ce_l3_tunnel_check_t kVcFtnCheck = {
    "mpls_is_ip_zero(&vc_ftn->nhop.nh_ip, vc_ftn->nhop.pro) == false && vc_ftn->nhop.nh_ifx != 0",
    "mpls_is_opcode_with_vc_ftn(data->opcode)", bit(CE_OP_PUSH)};

int tunnel_attr_check(const ce_l3_tunnel_check_t &c, const ce_msg_comm_t *m) {
    const ce_msg_data_t *data = &m->data;
    if (!nhop_present(m)) {
        CE_L3VPN_FAIL(c.nhop_cond, CE_ERR_NHOP_EMPTY, "");
        return 4;
    }
    if (data->opcode >= 32 || (c.opcodes & bit(data->opcode)) == 0) {
        CE_L3VPN_FAIL(c.opcode_cond, CE_ERR_OPCODE, "%u", data->opcode);
        return 4;
    }
    if (!SS_MPLS_CHECK_LABEL_DEPTH_VALID(data->n_labels)) {
        CE_L3VPN_FAIL("SS_MPLS_CHECK_LABEL_DEPTH_VALID(data->n_labels)", CE_ERR_LABEL_DEPTH, "%u",
                      data->n_labels);
        return 4;
    }
    return 0;
}
}  // namespace

int ce_l3_ftn_msg_attr_check(const ce_msg_comm_t *ftn) { return tunnel_attr_check(kFtnCheck, ftn); }

int ce_l3_vc_ftn_msg_attr_check(const ce_msg_comm_t *vc_ftn) {
    return tunnel_attr_check(kVcFtnCheck, vc_ftn);
}

int ce_l3_ilm_msg_attr_check(const ce_msg_comm_t *ilm) {
    const ce_msg_data_t *data = &ilm->data;
    const uint32_t op = data->opcode;
    if (!SS_MPLS_CHECK_LABEL_DEPTH_VALID(data->n_labels)) {
        CE_L3VPN_FAIL("SS_MPLS_CHECK_LABEL_DEPTH_VALID(data->n_labels)", CE_ERR_LABEL_DEPTH, "%u",
                      data->n_labels);
        return 4;
    }
    if (!SS_MPLS_CHECK_OPCODE_VALID(op)) {
        CE_L3VPN_FAIL("SS_MPLS_CHECK_OPCODE_VALID(data->opcode)", CE_ERR_OPCODE, "%u", op);
        return 4;
    }
    if ((kIlmNhopOps & bit(op)) != 0 && !nhop_present(ilm)) {
        CE_L3VPN_FAIL("!mpls_is_ip_zero(&ilm->nhop.nh_ip, ilm->nhop.pro) && ilm->nhop.nh_ifx != 0",
                      CE_ERR_NHOP_EMPTY, "opcode with nexthop");
        return 4;
    }
    if ((kLabelOps & bit(op)) != 0) {
        if (data->n_labels == 0) {
            CE_L3VPN_FAIL("data->n_labels > 0", CE_ERR_LABEL_DEPTH, "opcode with label");
            return 4;
        }
    } else if (data->n_labels != 0) {
        CE_L3VPN_FAIL("data->n_labels == 0", CE_ERR_LABEL_DEPTH, "opcode without label");
        return 4;
    }
    if (op == CE_OP_SWAP_PUSH && data->n_labels == 1) {
        CE_L3VPN_FAIL("data->n_labels > 1", CE_ERR_LABEL_DEPTH, "opcode with more than 1 label");
        return 4;
    }
    if ((op == CE_OP_POP_L2DSTPORT || op == CE_OP_POP_L2SWITCH) && data->ilm_vc_ifx == 0) {
        CE_L3VPN_FAIL("data->vc_ifx != 0", CE_ERR_VC_IFX_ZERO, "");
        return 4;
    }
    return 0;
}

int ce_l3_ftn_add(void *value, void *) { return ce_l3_handle(kFtnAdd, value); }
int ce_l3_ftn_del(void *value, void *) { return ce_l3_handle(kFtnDel, value); }
int ce_l3_vc_ftn_add(void *value, void *) { return ce_l3_handle(kVcFtnAdd, value); }
int ce_l3_vc_ftn_del(void *value, void *) { return ce_l3_handle(kVcFtnDel, value); }
int ce_l3_ilm_add(void *value, void *) { return ce_l3_handle(kIlmAdd, value); }
int ce_l3_ilm_del(void *value, void *) { return ce_l3_handle(kIlmDel, value); }
