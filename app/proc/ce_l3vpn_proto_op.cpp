#include "app/proc/ce_l3vpn_proto_op.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_msg.h"
#include "app/proc/ce_l3vpn_tbl.h"
#include "p_libpub.pb-c.h"
#include "platform/mom/tq_mom.h"
#include "p_mpls.pb-c.h"
#include "s_route.pb-c.h"
#include "u_mpls.pb-c.h"

namespace {
// One p_libpub.ip with room for either form. Records point into it, so it is
// filled in place and never copied.
struct ce_ip_buf_t {
    PLibpub__Ip ip = P_LIBPUB__IP__INIT;
    PLibpub__Ipv4 v4 = P_LIBPUB__IPV4__INIT;
    PLibpub__Ipv6 v6 = P_LIBPUB__IPV6__INIT;
    uint8_t bytes[16] = {};

    ce_ip_buf_t() = default;
    ce_ip_buf_t(const ce_ip_buf_t &) = delete;
    ce_ip_buf_t &operator=(const ce_ip_buf_t &) = delete;

    // pro 0: v4 with the first four bytes as stored (network order in memory);
    // otherwise v6 with all sixteen.
    PLibpub__Ip *fill(uint8_t pro, const uint8_t addr[16]) {
        memcpy(bytes, addr, sizeof bytes);
        if (pro == CE_PRO_IPV4) {
            memcpy(&v4.data, bytes, sizeof v4.data);
            ip.addr_case = P_LIBPUB__IP__ADDR_V4;
            ip.v4 = &v4;
        } else {
            v6.data.len = sizeof bytes;
            v6.data.data = bytes;
            ip.addr_case = P_LIBPUB__IP__ADDR_V6;
            ip.v6 = &v6;
        }
        return &ip;
    }
};

// The local tunnel address: the source of the tunnels this switch starts,
// carried by every route key (tnl_dip) and adjacency key (ip) so the lower
// layers can tie the two together. It comes from ce_l3vpn_set_local_tnl_addr
// (at start-up from L3VPN_LOCAL_TNL_V4 / L3VPN_LOCAL_TNL_V6, see
// ce_l3vpn_proto_op_init); until set it is the loopback 127.0.0.1 / ::1.
uint8_t ce_l3vpn_local_tnl_v4[16] = {127, 0, 0, 1};
uint8_t ce_l3vpn_local_tnl_v6[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
// The one shared message of the local tunnel address, rebuilt before each write.
ce_ip_buf_t ce_l3vpn_local_tnl_ip;

PLibpub__Ip *local_tnl_ip(uint32_t pro) {
    if (pro == CE_PRO_IPV4) return ce_l3vpn_local_tnl_ip.fill(CE_PRO_IPV4, ce_l3vpn_local_tnl_v4);
    return ce_l3vpn_local_tnl_ip.fill(CE_PRO_IPV6, ce_l3vpn_local_tnl_v6);
}

const char *add_word(uint8_t add) { return add ? "add" : "del"; }
const char *enable_word(uint8_t enable) { return enable ? "enable" : "disable"; }

// The rows one kind of write counts: success-add, success-delete, error.
struct ce_proto_rows_t {
    ce_l3vpn_err_code_t add;
    ce_l3vpn_err_code_t del;
    ce_l3vpn_err_code_t err;
};

void count_row(ce_l3vpn_err_code_t code, long line) {
    ce_l3vpn_err_tbl[code].line = static_cast<uint32_t>(line);
    ce_l3vpn_err_tbl[code].count++;
}

// Sets the record (add) or deletes it by its key (del). The add or delete row
// is counted on every attempt and the error row on top of it when the library
// refuses: the double count is intended.
// While a probe runs, a write reads instead: does the store hold the record
// exactly as this write would make it? Nothing is written or counted.
struct ce_proto_probe_t {
    bool active;
    bool held;
};
ce_proto_probe_t probe;

bool store_holds(ss_rt_tbl_t *table, const ProtobufCMessage *rec) {
    ProtobufCMessage *stored = nullptr;
    if (ss_rt_tbl_get_str(table, rec, 0, &stored) != SS_E_NONE || stored == nullptr) return false;
    std::string want(protobuf_c_message_get_packed_size(rec), '\0');
    std::string have(protobuf_c_message_get_packed_size(stored), '\0');
    protobuf_c_message_pack(rec, reinterpret_cast<uint8_t *>(want.data()));
    protobuf_c_message_pack(stored, reinterpret_cast<uint8_t *>(have.data()));
    tq_mom_free(stored);
    return want == have;
}

int proto_write(const char *func, long line, ce_l3vpn_tbl_idx_t tbl, const ProtobufCMessage *rec,
                uint8_t add, const ce_proto_rows_t &rows) {
    ss_rt_tbl_t *table = ce_l3vpn_tbl_handles[tbl];
    if (probe.active) {
        probe.held = add && store_holds(table, rec);
        return SS_E_NONE;
    }
    int rv;
    if (add) {
        rv = ss_rt_tbl_add_str(table, rec, 1, 0);
        count_row(rows.add, line);
    } else {
        rv = ss_rt_tbl_del_str(table, rec, 1, 0);
        count_row(rows.del, line);
        if (rv == SS_E_NONE) return rv;
    }
    if (rv != SS_E_NONE) {
        count_row(rows.err, line);
        CE_L3VPN_LOG_FN(func, CE_L3VPN_ERROR, "fail:%s code:%d ", "rv == SS_E_NONE",
                        static_cast<int>(rows.err));
    }
    return rv;
}

#define CE_PROTO_WRITE(tbl, rec, add, rows) \
    proto_write(__func__, __LINE__, (tbl), &(rec).base, (add), (rows))

constexpr ce_proto_rows_t kMplsRows{CE_ERR_HW_MPLS_ENABLE, CE_ERR_HW_MPLS_DISABLE,
                                    CE_ERR_HW_MPLS_OP};
constexpr ce_proto_rows_t kTtlRows{CE_ERR_HW_TTL_COPY_ENABLE, CE_ERR_HW_TTL_COPY_DISABLE,
                                   CE_ERR_HW_TTL_COPY};
constexpr ce_proto_rows_t kLabSwRows{CE_ERR_HW_LAB_SW_ENABLE, CE_ERR_HW_LAB_SW_DISABLE,
                                     CE_ERR_HW_LAB_SW};
constexpr ce_proto_rows_t kFtnRtRows{CE_ERR_HW_FTN_RT_ADD, CE_ERR_HW_FTN_RT_DEL, CE_ERR_HW_FTN_RT};
constexpr ce_proto_rows_t kVcFtnVirRows{CE_ERR_HW_VC_FTN_VIR_RT_ADD, CE_ERR_HW_VC_FTN_VIR_RT_DEL,
                                        CE_ERR_HW_VC_FTN_VIR_RT};
constexpr ce_proto_rows_t kIlmVirRows{CE_ERR_HW_ILM_VIR_RT_ADD, CE_ERR_HW_ILM_VIR_RT_DEL,
                                      CE_ERR_HW_ILM_VIR_RT};
constexpr ce_proto_rows_t kIlmRows{CE_ERR_HW_ILM_ADD, CE_ERR_HW_ILM_DEL, CE_ERR_HW_ILM};

// ---- virtual-route key addresses ------------------------------------------------

// VC-FTN: 232.0.0.0/32 or ff08::/128.
void vc_ftn_vir_addr(uint8_t pro, uint8_t out[16], uint32_t *mask_len) {
    memset(out, 0, 16);
    if (pro == CE_PRO_IPV4) {
        out[0] = 232;
        *mask_len = 32;
    } else {
        out[0] = 0xff;
        out[1] = 0x08;
        *mask_len = 128;
    }
}

// ILM: 231.x.y.z/32 from the in-label's low 24 bits, or ff07:0000 followed by
// the in-label in network order and eight zero bytes, /128.
void ilm_vir_addr(uint8_t pro, uint32_t in_label, uint8_t out[16], uint32_t *mask_len) {
    memset(out, 0, 16);
    if (pro == CE_PRO_IPV4) {
        out[0] = 231;
        out[1] = static_cast<uint8_t>(in_label >> 16);
        out[2] = static_cast<uint8_t>(in_label >> 8);
        out[3] = static_cast<uint8_t>(in_label);
        *mask_len = 32;
    } else {
        out[0] = 0xff;
        out[1] = 0x07;
        uint32_t be = htonl(in_label);
        memcpy(out + 4, &be, sizeof be);
        *mask_len = 128;
    }
}

// ---- EF ------------------------------------------------------------------------------

int ftn_rt_op(const char *func, ce_nhop_node_t *nhop, uint8_t add) {
    const ce_app_node_t *app = nhop->app_node;
    const ce_in_adj_node_t *in_adj = nhop->in_adj;

    ce_ip_buf_t prefix, nh_ip;
    SRoute__CommRtKey key = S_ROUTE__COMM_RT_KEY__INIT;
    key.t_rt_owner = CE_RT_OWNER_FTN;
    key.vrf = app->key.ftn.vrf;
    key.ip = prefix.fill(app->key.ftn.pro, app->key.ftn.ip);
    key.mask_len = app->key.ftn.mask_len;
    key.nh_ifx = nhop->nhop.ifx;
    key.nh_ip = nh_ip.fill(nhop->nhop.pro, nhop->nhop.ip);
    key.tnl_ifx = 0;
    key.tnl_dip = local_tnl_ip(in_adj->pro);
    key.mpls_id = in_adj->mpls_id;

    SRoute__CommRt rec = S_ROUTE__COMM_RT__INIT;
    rec.index = &key;
    if (add) {
        rec.rt_type = S_ROUTE__ROUTE_TYPE_E__NETWORK;
        rec.weight = nhop->nhop_attr.weight;
        rec.priority = nhop->nhop_attr.seq;
        rec.nh_ifx_vrf = 0;
        rec.nh_ifx_type = nhop->nhop_attr.ifx_type;
        rec.fast_switch_id = 0;
    }
    return proto_write(func, __LINE__, CE_TBL_FTN_RT, &rec.base, add, kFtnRtRows);
}

// The virtual route of a VC-FTN or ILM next hop: a made-up host route whose
// address names the entry.
int vir_rt_op_call_ef(const char *func, ce_nhop_node_t *nhop, uint8_t add, bool is_ilm) {
    const ce_app_node_t *app = nhop->app_node;
    const ce_in_adj_node_t *in_adj = nhop->in_adj;
    uint8_t pro = nhop->nhop.pro;

    uint8_t vir_addr[16];
    uint32_t mask_len = 0;
    if (is_ilm)
        ilm_vir_addr(pro, app->key.ilm.inlabel, vir_addr, &mask_len);
    else
        vc_ftn_vir_addr(pro, vir_addr, &mask_len);

    ce_ip_buf_t ip, nh_ip;
    SRoute__VirRtKey key = S_ROUTE__VIR_RT_KEY__INIT;
    key.t_rt_owner = is_ilm ? CE_RT_OWNER_ILM : CE_RT_OWNER_VC_FTN;
    key.protocol = pro != CE_PRO_IPV4 ? 1 : 0;
    key.nh_proto = key.protocol;
    key.ip = ip.fill(pro, vir_addr);
    key.mask_len = mask_len;
    key.vrf = is_ilm ? 0 : app->key.vc_ftn.vc_ifx;
    key.nh_ifx = nhop->nhop.ifx;
    key.nh_ip = nh_ip.fill(pro, nhop->nhop.ip);
    key.tnl_ifx = is_ilm ? 0 : in_adj->data.vc_ifx;
    key.tnl_dip = local_tnl_ip(in_adj->pro);
    key.mpls_id = in_adj->mpls_id;

    SRoute__VirRt rec = S_ROUTE__VIR_RT__INIT;
    rec.index = &key;
    if (add) {
        rec.rt_type = S_ROUTE__ROUTE_TYPE_E__NETWORK;
        rec.weight = nhop->nhop_attr.weight;
        rec.priority = nhop->nhop_attr.seq;
        rec.iftype = P_INTF__INTFTYPE_E__UNKNOWN;
    }
    if (is_ilm) return proto_write(func, __LINE__, CE_TBL_ILM_VIR_RT, &rec.base, add, kIlmVirRows);
    return proto_write(func, __LINE__, CE_TBL_VC_FTN_VIR_RT, &rec.base, add, kVcFtnVirRows);
}

// The route of a next hop by its entry's owner, without the log line.
int rt_op_by_owner(const char *func, ce_nhop_node_t *nhop, uint8_t add) {
    switch (nhop->app_node->owner) {
        case CE_OWNER_FTN: return ftn_rt_op(func, nhop, add);
        case CE_OWNER_VC_FTN: return vir_rt_op_call_ef(func, nhop, add, false);
        case CE_OWNER_ILM: return vir_rt_op_call_ef(func, nhop, add, true);
        default: return 1;
    }
}

int ce_l3vpn_ftn_op_call_ef(ce_nhop_node_t *nhop, uint8_t add) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, "hw %s ftn to ef", add_word(add));
    return ftn_rt_op(__func__, nhop, add);
}

int ce_l3vpn_vc_ftn_op_call_ef(ce_nhop_node_t *nhop, uint8_t add) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, "hw %s l2vpn virtual route to ef", add_word(add));
    return vir_rt_op_call_ef(__func__, nhop, add, false);
}

int ce_l3vpn_ilm_op_call_ef(ce_nhop_node_t *nhop, uint8_t add) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, "hw %s ilm virtual route to ef", add_word(add));
    return vir_rt_op_call_ef(__func__, nhop, add, true);
}

// ---- UC ------------------------------------------------------------------------------

struct ce_in_adj_uc_t {
    uint32_t rt_owner;
    ce_l3vpn_tbl_idx_t tbl;
    ce_proto_rows_t rows;
    bool vc;   // VC-FTN: the key's ifx and the VC words come from the node
    bool ilm;  // ILM: the key's ifx and the record's vrf carry the node's ILM words,
               // so that the node read back after a restart has the same key
};

constexpr ce_in_adj_uc_t kFtnInAdj{
    CE_RT_OWNER_FTN,
    CE_TBL_FTN_IN_ADJ,
    {CE_ERR_HW_FTN_IN_ADJ_ADD, CE_ERR_HW_FTN_IN_ADJ_DEL, CE_ERR_HW_FTN_IN_ADJ},
    false, false};
constexpr ce_in_adj_uc_t kVcFtnInAdj{
    CE_RT_OWNER_VC_FTN,
    CE_TBL_VC_FTN_IN_ADJ,
    {CE_ERR_HW_VC_FTN_IN_ADJ_ADD, CE_ERR_HW_VC_FTN_IN_ADJ_DEL, CE_ERR_HW_VC_FTN_IN_ADJ},
    true, false};
constexpr ce_in_adj_uc_t kIlmInAdj{
    CE_RT_OWNER_ILM,
    CE_TBL_ILM_IN_ADJ,
    {CE_ERR_HW_ILM_IN_ADJ_ADD, CE_ERR_HW_ILM_IN_ADJ_DEL, CE_ERR_HW_ILM_IN_ADJ},
    false, true};

int in_adj_op_call_uc(const char *func, const ce_in_adj_uc_t &uc, ce_in_adj_node_t *in_adj,
                      uint8_t add, uint32_t ttl) {
    const ce_msg_data_t &d = in_adj->data;
    SRoute__InSubAdjKey key = S_ROUTE__IN_SUB_ADJ_KEY__INIT;
    key.t_rt_owner = uc.rt_owner;
    key.ifx = uc.vc ? d.vc_ifx : uc.ilm ? d.ilm_vc_ifx : 0;
    key.protocol = in_adj->pro != CE_PRO_IPV4 ? 1 : 0;
    key.ip = local_tnl_ip(in_adj->pro);
    key.mplsid = in_adj->mpls_id;

    uint32_t labels[CE_MPLS_MAX_LABELS];
    size_t n_labels = std::min<size_t>(d.n_labels, CE_MPLS_MAX_LABELS);
    memcpy(labels, d.labels, n_labels * sizeof labels[0]);

    SRoute__InSubAdj rec = S_ROUTE__IN_SUB_ADJ__INIT;
    rec.index = &key;
    if (add) {
        rec.ttl = ttl;
        rec.exp = 0;
        rec.vc_mode = uc.vc ? d.vc_mode : 0;
        rec.sd_vid = uc.vc ? d.sd_vid : 0;
        rec.cw = uc.vc ? d.cw : 0;
        rec.opcode = d.opcode;
        rec.ext_mode = 0;
        rec.ttl_map = false;
        rec.vrf = uc.ilm ? d.vrf : 0;
        rec.mask_len = 0;
        rec.rcs_rt = false;
        rec.n_labels = n_labels;
        rec.labels = n_labels != 0 ? labels : nullptr;
        rec.stat_id = 0;
    }
    return proto_write(func, __LINE__, uc.tbl, &rec.base, add, uc.rows);
}

int in_adj_op_ftn_call_uc(ce_in_adj_node_t *in_adj, uint8_t add, uint32_t ttl) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, "hw ftn %s inner_adj to uc", add_word(add));
    return in_adj_op_call_uc(__func__, kFtnInAdj, in_adj, add, ttl);
}

int in_adj_op_vc_ftn_call_uc(ce_in_adj_node_t *in_adj, uint8_t add, uint32_t ttl) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, "hw  vc_ftn %s inner_adj to uc", add_word(add));
    return in_adj_op_call_uc(__func__, kVcFtnInAdj, in_adj, add, ttl);
}

int in_adj_op_ilm_call_uc(ce_in_adj_node_t *in_adj, uint8_t add, uint32_t ttl) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, "hw ilm %s inner_adj to uc", add_word(add));
    return in_adj_op_call_uc(__func__, kIlmInAdj, in_adj, add, ttl);
}

// ---- FE ------------------------------------------------------------------------------

// The global switches: enable sets the record with enable = true, disable
// deletes it (nothing ever writes false).
template <typename Rec>
int switch_write(const char *func, ce_l3vpn_tbl_idx_t tbl, Rec rec, uint8_t enable,
                 const ce_proto_rows_t &rows) {
    if (enable) rec.enable = true;
    return proto_write(func, __LINE__, tbl, &rec.base, enable ? 1 : 0, rows);
}
}  // namespace

int ce_l3vpn_mpls_enable_hw_op(uint8_t enable) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, "hw mpls %s to FE", enable_word(enable));
    return switch_write(__func__, CE_TBL_UDP_MPLS_ENABLE,
                        UMpls__UdpMplsEnable U_MPLS__UDP_MPLS_ENABLE__INIT, enable, kMplsRows);
}

int ce_l3vpn_ttl_copy_hw_op(uint8_t enable) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, "hw ttl copy %s to FE", enable_word(enable));
    return switch_write(__func__, CE_TBL_UDP_TTL_COPY,
                        UMpls__UdpTtlCopyEnable U_MPLS__UDP_TTL_COPY_ENABLE__INIT, enable,
                        kTtlRows);
}

int ce_l3vpn_lab_sw_hw_op(uint32_t ifx, uint8_t enable) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, "hw ifx:%u label-switching %s to FE", ifx, enable_word(enable));
    UMpls__UdpLabSwIndex key = U_MPLS__UDP_LAB_SW_INDEX__INIT;
    key.ifx = ifx;
    UMpls__UdpLabSw rec = U_MPLS__UDP_LAB_SW__INIT;
    rec.index = &key;
    return switch_write(__func__, CE_TBL_UDP_LAB_SW, rec, enable, kLabSwRows);
}

int ce_l3vpn_proto_ability_notify(const ce_l3vpn_ability_t *ability) {
    CE_L3VPN_CHK_NULL(ability);
    CE_L3VPN_LOG(CE_L3VPN_INFO, "notify ability to PI \n");
    PMpls__MomConfFwdAbility rec = P_MPLS__MOM_CONF_FWD_ABILITY__INIT;
    rec.pw_cw_support = ability->pw_cw_support != 0;
    rec.vpls_aging_timer_support = ability->vpls_aging_timer_support != 0;
    rec.vpls_multi_if_support = ability->vpls_multi_if_support != 0;
    rec.vpls_mac_thrsh_support = ability->vpls_mac_thrsh_support != 0;
    rec.vpls_static_mac_reserve = ability->vpls_static_mac_reserve != 0;
    rec.max_pw_cnt = ability->max_pw_cnt;
    rec.max_vll_cnt = ability->max_vll_cnt;
    rec.max_vpls_cnt = ability->max_vpls_cnt;
    rec.max_switch_vfi_cnt = ability->max_switch_vfi_cnt;
    rec.max_mac_per_vpls = ability->max_mac_per_vpls;
    rec.max_pw_count_per_vpls = ability->max_pw_count_per_vpls;
    rec.max_label_index = ability->max_label_index;
    rec.vpws_type_support = ability->vpws_type_support;
    rec.mpls_gre_support = ability->mpls_gre_support;
    rec.mpls_te_support = ability->mpls_te_support;
    rec.max_v4_ftn_cnt = ability->max_v4_ftn_cnt;
    rec.max_v6_ftn_cnt = ability->max_v6_ftn_cnt;
    rec.max_ilm_cnt = ability->max_ilm_cnt;
    rec.ecmp_size = ability->ecmp_size;
    rec.max_lbl_dpth = ability->max_lbl_dpth;
    rec.max_ecmp_paths = ability->max_ecmp_paths;
    rec.max_service_class = ability->max_service_class;
    rec.mpls_base_support = ability->mpls_base_support != 0;
    rec.mpls_l2vpn_support = ability->mpls_l2vpn_support != 0;
    rec.mpls_l2_rt_port_support = false;

    int rv = ss_rt_tbl_add_str(ce_l3vpn_tbl_handles[CE_TBL_FWD_ABILITY], &rec.base, 1, 0);
    if (rv != SS_E_NONE) {
        CE_L3VPN_FAIL("rv == SS_E_NONE", CE_ERR_HW_NOTIFY_ABILITY, "");
        return rv;
    }
    CE_L3VPN_ERR_REC(CE_ERR_NOTIFY_ABILITY);
    return rv;
}

int ce_l3vpn_app_op_call_ef(ce_nhop_node_t *nhop, uint8_t add) {
    CE_L3VPN_CHK_NULL(nhop);
    CE_L3VPN_CHK_NULL_NAME(nhop->app_node, "app_node");
    CE_L3VPN_CHK_NULL_NAME(nhop->in_adj, "in_adj");
    uint32_t owner = nhop->app_node->owner;
    switch (owner) {
        case CE_OWNER_FTN:
            return ce_l3vpn_ftn_op_call_ef(nhop, add);
        case CE_OWNER_VC_FTN:
            return ce_l3vpn_vc_ftn_op_call_ef(nhop, add);
        case CE_OWNER_ILM:
            return ce_l3vpn_ilm_op_call_ef(nhop, add);
        default:
            CE_L3VPN_FAIL("0", CE_ERR_UNKNOWN_OWNER, "FATAL ERROR ! unknown owner:%u", owner);
            return 1;
    }
}

int ce_l3vpn_in_adj_op_call_uc(ce_in_adj_node_t *in_adj, uint8_t add, uint32_t ttl) {
    CE_L3VPN_CHK_NULL(in_adj);
    switch (in_adj->owner) {
        case CE_OWNER_FTN:
            return in_adj_op_ftn_call_uc(in_adj, add, ttl);
        case CE_OWNER_VC_FTN:
            return in_adj_op_vc_ftn_call_uc(in_adj, add, ttl);
        case CE_OWNER_ILM:
            return in_adj_op_ilm_call_uc(in_adj, add, ttl);
        default:
            return 0;
    }
}

namespace {
int udp_ilm_op(const char *func, ce_app_node_t *app, ce_in_adj_node_t *in_adj, uint8_t add,
               uint8_t ttl_copy) {
    UMpls__UdpIlmKey key = U_MPLS__UDP_ILM_KEY__INIT;
    key.in_label = app->key.ilm.inlabel;
    UMpls__UdpIlm rec = U_MPLS__UDP_ILM__INIT;
    rec.index = &key;
    if (add) {
        const ce_msg_data_t &d = in_adj->data;
        uint32_t op = d.opcode;
        rec.opcode = op;
        rec.swap_label =
            (op == CE_OP_SWAP || op == CE_OP_SWAP_PUSH) ? d.labels[0] : CE_MPLS_LABEL_NONE;
        rec.vrf_id = (op == CE_OP_POP_L3SWITCH || op == CE_OP_POP_DLVR_LOCAL) ? d.vrf : 0;
        rec.vc_ifx = (op == CE_OP_POP_L2DSTPORT || op == CE_OP_POP_L2SWITCH) ? d.ilm_vc_ifx : 0;
        rec.ttl_copy = ttl_copy != 0;
    }
    return proto_write(func, __LINE__, CE_TBL_UDP_ILM, &rec.base, add, kIlmRows);
}

// Runs one write as a probe.
template <typename Fn>
bool probe_held(Fn &&write) {
    probe = {true, false};
    write();
    bool held = probe.held;
    probe = {false, false};
    return held;
}
}  // namespace

int ce_l3vpn_ilm_op_hw(ce_app_node_t *app, ce_in_adj_node_t *in_adj, uint8_t add,
                       uint8_t ttl_copy) {
    CE_L3VPN_CHK_NULL(app);
    if (add) CE_L3VPN_CHK_NULL(in_adj);
    CE_L3VPN_LOG(CE_L3VPN_INFO, "hw %s ilm's inlabel to FE", add_word(add));
    return udp_ilm_op(__func__, app, in_adj, add, ttl_copy);
}

bool ce_l3vpn_ef_route_held(ce_nhop_node_t *nhop) {
    if (nhop == nullptr || nhop->app_node == nullptr || nhop->in_adj == nullptr) return false;
    return probe_held([&] { rt_op_by_owner(__func__, nhop, 1); });
}

bool ce_l3vpn_ilm_fe_held(ce_app_node_t *app, ce_in_adj_node_t *in_adj, uint8_t ttl_copy) {
    if (app == nullptr || in_adj == nullptr) return false;
    return probe_held([&] { udp_ilm_op(__func__, app, in_adj, 1, ttl_copy); });
}

void ce_l3vpn_set_local_tnl_addr(const uint8_t v4[4], const uint8_t v6[16]) {
    if (v4 != nullptr) {
        memset(ce_l3vpn_local_tnl_v4, 0, sizeof ce_l3vpn_local_tnl_v4);
        memcpy(ce_l3vpn_local_tnl_v4, v4, 4);
    }
    if (v6 != nullptr) memcpy(ce_l3vpn_local_tnl_v6, v6, sizeof ce_l3vpn_local_tnl_v6);
}

// A variable that is not an address of its family is reported and ignored.
void ce_l3vpn_proto_op_init(void) {
    uint8_t v4[4] = {}, v6[16] = {};
    const char *s4 = getenv("L3VPN_LOCAL_TNL_V4");
    const char *s6 = getenv("L3VPN_LOCAL_TNL_V6");
    bool ok4 = s4 != nullptr && inet_pton(AF_INET, s4, v4) == 1;
    bool ok6 = s6 != nullptr && inet_pton(AF_INET6, s6, v6) == 1;
    if (s4 != nullptr && !ok4)
        CE_L3VPN_LOG(CE_L3VPN_WARN, "bad L3VPN_LOCAL_TNL_V4:%s, ignored", s4);
    if (s6 != nullptr && !ok6)
        CE_L3VPN_LOG(CE_L3VPN_WARN, "bad L3VPN_LOCAL_TNL_V6:%s, ignored", s6);
    ce_l3vpn_set_local_tnl_addr(ok4 ? v4 : nullptr, ok6 ? v6 : nullptr);
}
