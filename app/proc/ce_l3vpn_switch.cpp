#include "app/proc/ce_l3vpn_switch.h"

#include "app/proc/ce_l3vpn_app.h"
#include "app/proc/ce_l3vpn_dump.h"
#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_refuse.h"
#include "app/proc/ce_l3vpn_msg_parse.h"
#include "app/proc/ce_l3vpn_proto_op.h"
#include "p_mpls.pb-c.h"
#include "s_route.pb-c.h"
#include "u_mpls.pb-c.h"

namespace {
const char *on_off(bool on) { return on ? "enable" : "disable"; }

// The read-back check of an inner adjacency: 0, or the result to give.
int in_adj_check(const ce_msg_comm_t *m) {
    const uint32_t op = m->data.opcode;
    const uint32_t label_num = m->data.n_labels;
    if (m->owner < CE_OWNER_FTN || m->owner > CE_OWNER_ILM) {
        CE_L3VPN_FAIL("0", CE_ERR_UNKNOWN_OWNER, "FATAL ERROR ! unknown owner:%u", m->owner);
        return 1;
    }
    if (!SS_MPLS_CHECK_OPCODE_VALID(op)) {
        CE_L3VPN_FAIL("SS_MPLS_CHECK_OPCODE_VALID(opcode)", CE_ERR_OPCODE, "%u", op);
        return 4;
    }
    if (!SS_MPLS_CHECK_LABEL_DEPTH_VALID(label_num)) {
        CE_L3VPN_FAIL("SS_MPLS_CHECK_LABEL_DEPTH_VALID(label_num)", CE_ERR_LABEL_DEPTH, "%u",
                      label_num);
        return 4;
    }
    bool needs_label = op == CE_OP_PUSH || op == CE_OP_SWAP || op == CE_OP_SWAP_PUSH;
    if (needs_label && label_num == 0) {
        CE_L3VPN_FAIL("label_num > 0", CE_ERR_LABEL_DEPTH, "opcode:%u must with label", op);
        return 4;
    }
    if (!needs_label && label_num != 0) {
        CE_L3VPN_FAIL("label_num == 0", CE_ERR_LABEL_DEPTH, "opcode:%u must without label", op);
        return 4;
    }
    return 0;
}
}  // namespace

int ce_l3_mpls_enable_set(void *value, void *) {
    auto *mpls_en = static_cast<PMpls__MomConfGlobalEnable *>(value);
    CE_L3VPN_CHK_NULL(mpls_en);
    CE_L3VPN_LOG(CE_L3VPN_INFO, ">>>>> mpls %s", on_off(mpls_en->mpls_enable));
    ce_l3vpn_app_mpls_enable_op(mpls_en->mpls_enable ? 1 : 0);
    CE_L3VPN_ERR_REC(mpls_en->mpls_enable ? CE_ERR_MPLS_ENABLE : CE_ERR_MPLS_DISABLE);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "<<<<< mpls op Over\n");
    return 0;
}

// The deleted record is not read: MPLS goes off whatever it held.
int ce_l3_mpls_enable_del(void *, void *) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, ">>>>> mpls disable");
    ce_l3vpn_app_mpls_enable_op(0);
    CE_L3VPN_ERR_REC(CE_ERR_MPLS_DISABLE);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "<<<<< mpls op Over\n");
    return 0;
}

int ce_l3_ttl_copy_set(void *value, void *) {
    auto *ttl_copy = static_cast<PMpls__MomConfVpnTtl *>(value);
    CE_L3VPN_CHK_NULL(ttl_copy);
    CE_L3VPN_LOG(CE_L3VPN_INFO, ">>>>> ttl copy %s", on_off(ttl_copy->vpn_ttl_enable));
    ce_l3vpn_app_ttl_copy_op(ttl_copy->vpn_ttl_enable ? 1 : 0);
    CE_L3VPN_ERR_REC(ttl_copy->vpn_ttl_enable ? CE_ERR_TTL_COPY_ENABLE : CE_ERR_TTL_COPY_DISABLE);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "<<<<< ttl copy op Over\n");
    return 0;
}

int ce_l3_ttl_copy_del(void *, void *) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, ">>>>> ttl copy disable");
    ce_l3vpn_app_ttl_copy_op(0);
    CE_L3VPN_ERR_REC(CE_ERR_TTL_COPY_DISABLE);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "<<<<< ttl copy op Over\n");
    return 0;
}

int ce_l3_ifx_lab_sw_set(void *value, void *) {
    auto *lab_sw = static_cast<PMpls__MomConfLabelSwitch *>(value);
    CE_L3VPN_CHK_NULL(lab_sw);
    CE_L3VPN_CHK_NULL(lab_sw->index);
    bool on = lab_sw->enable != 0;
    CE_L3VPN_LOG(CE_L3VPN_INFO, ">>>>> label-switching %s ifx: %u", on_off(on), lab_sw->index->ifx);
    ce_l3vpn_lab_sw_hw_op(lab_sw->index->ifx, on ? 1 : 0);
    CE_L3VPN_ERR_REC(on ? CE_ERR_LAB_SW_ENABLE : CE_ERR_LAB_SW_DISABLE);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "<<<<< label-switching op Over\n");
    return 0;
}

int ce_l3_ifx_lab_sw_del(void *value, void *) {
    auto *lab_sw = static_cast<PMpls__MomConfLabelSwitch *>(value);
    CE_L3VPN_CHK_NULL(lab_sw);
    CE_L3VPN_CHK_NULL(lab_sw->index);
    CE_L3VPN_LOG(CE_L3VPN_INFO, ">>>>> label-switching disable ifx: %u", lab_sw->index->ifx);
    ce_l3vpn_lab_sw_hw_op(lab_sw->index->ifx, 0);
    CE_L3VPN_ERR_REC(CE_ERR_LAB_SW_DISABLE);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "<<<<< label-switching op Over\n");
    return 0;
}

int ce_l3_ttl_copy_bak_cb(void *, tq_mom_msg_t *reply, void *) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, ">>>>> ttl_bak_cb");
    auto *ttl_copy = reply != nullptr ? static_cast<UMpls__UdpTtlCopyEnable *>(reply->value) : nullptr;
    CE_L3VPN_CHK_NULL(ttl_copy);
    CE_L3VPN_ERR_REC(CE_ERR_TTL_COPY_CB);
    int rv = ce_ttl_copy_enable_recover(ttl_copy->enable ? 1 : 0);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "<<<<< ttl_bak_cb \n");
    return rv;
}

int ce_l3_in_adj_bak_cb(void *, tq_mom_msg_t *reply, void *) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, ">>>>> in_adj_bak_cb");
    auto *in_adj = reply != nullptr ? static_cast<SRoute__InSubAdj *>(reply->value) : nullptr;
    ce_msg_comm_t msg;
    uint64_t mpls_id = 0;
    ce_l3vpn_err_last_fail = 0;
    int rv = ce_l3vpn_msg_in_adj_parse(&msg, &mpls_id, in_adj);
    if (rv != 0) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "Fail, rv %d, inner adj msg parse", rv);
        CE_L3VPN_ERR_REC(CE_ERR_APP_GET_RV);
        ce_l3vpn_refuse_record(in_adj, rv);
        return rv;
    }
    CE_L3VPN_ERR_REC(CE_ERR_IN_ADJ_CB);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "trans inner adj to comm msg:%d, ", ce_l3vpn_dump_msg_comm(&msg));
    rv = in_adj_check(&msg);
    if (rv != 0) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "Fail, rv %d, inner adj check", rv);
        CE_L3VPN_ERR_REC(CE_ERR_APP_GET_RV);
        ce_l3vpn_refuse_record(in_adj, rv);
        return rv;
    }
    rv = ce_l3vpn_app_in_adj_recover(&msg, mpls_id);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "<<<<< in_adj_bak_cb \n");
    return rv;
}
