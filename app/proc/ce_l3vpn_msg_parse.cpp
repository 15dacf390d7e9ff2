#include "app/proc/ce_l3vpn_msg_parse.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include "app/proc/ce_l3vpn_err.h"

namespace {
constexpr size_t kAddrBytes = 16;

void set_event(ce_msg_comm_t *out, uint8_t is_add, uint32_t owner) {
    std::memset(out, 0, sizeof *out);
    out->msg_event = is_add ? CE_MSG_EVENT_ADD : CE_MSG_EVENT_DEL;
    out->owner = owner;
}

// An added next hop starts with the default attributes; a delete leaves them 0.
void set_add_attr(ce_msg_comm_t *out) {
    out->nhop_attr.vrf = 0;
    out->nhop_attr.ifx_type = 0;
    out->nhop_attr.weight = 1;
    out->nhop_attr.seq = 0;
}

// FTN and ILM keys carry six label slots; a depth of 7 or 8 reads zeros beyond.
template <typename Index>
void copy_wire_labels(ce_msg_data_t *data, const Index *idx) {
    const uint32_t wire[CE_MPLS_MAX_LABELS] = {idx->lb_st_0, idx->lb_st_1, idx->lb_st_2,
                                               idx->lb_st_3, idx->lb_st_4, idx->lb_st_5};
    ce_msg_label_normalise(data, wire, idx->lb_cnt);
}

uint8_t addr_family(const PLibpub__Ip *addr) {
    return addr->addr_case == P_LIBPUB__IP__ADDR_V4 ? CE_PRO_IPV4 : CE_PRO_IPV6;
}

uint64_t monotonic_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}
}  // namespace

int ce_msg_addr_parse(uint8_t ip[16], uint8_t *pro, const PLibpub__Ip *addr) {
    if (addr == nullptr) return CE_MSG_ADDR_NULL;
    if (addr->addr_case == P_LIBPUB__IP__ADDR_V4) {
        if (addr->v4 == nullptr) return CE_MSG_ADDR_MEMBER;
        std::memcpy(ip, &addr->v4->data, sizeof addr->v4->data);
        *pro = CE_PRO_IPV4;
        return SS_E_NONE;
    }
    // v4b arrives in the same 16-byte form as v6 and is read the same way.
    const ProtobufCBinaryData *bytes = nullptr;
    if (addr->addr_case == P_LIBPUB__IP__ADDR_V4B) {
        if (addr->v4b != nullptr) bytes = &addr->v4b->data;
    } else if (addr->v6 != nullptr) {
        bytes = &addr->v6->data;
    }
    if (bytes == nullptr) return CE_MSG_ADDR_MEMBER;
    if (bytes->data == nullptr || bytes->len != kAddrBytes) return CE_MSG_ADDR_LEN;
    std::memcpy(ip, bytes->data, kAddrBytes);
    *pro = CE_PRO_IPV6;
    return SS_E_NONE;
}

int ce_msg_nhop_parse(ce_nhop_t *nhop, const PLibpub__Ip *addr, uint32_t ifx) {
    int rv = ce_msg_addr_parse(nhop->ip, &nhop->pro, addr);
    if (rv != SS_E_NONE) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "Fail, rv %d, nhop parse", rv);
        CE_L3VPN_ERR_REC(CE_ERR_APP_GET_RV);
        return rv;
    }
    nhop->ifx = ifx;
    return SS_E_NONE;
}

int ce_msg_label_stack_parse(ce_msg_data_t *data, size_t n_label_stack,
                             const uint32_t *label_stack) {
    if (!SS_MPLS_CHECK_LABEL_DEPTH_VALID(n_label_stack)) {
        CE_L3VPN_FAIL("SS_MPLS_CHECK_LABEL_DEPTH_VALID(n_label_stack)", CE_ERR_LABEL_DEPTH,
                      "error depth %u", static_cast<unsigned>(n_label_stack));
        return CE_MSG_PARSE_INVALID;
    }
    if (n_label_stack != 0) CE_L3VPN_CHK_NULL_NAME(label_stack, "label_stack");
    std::copy_n(label_stack, n_label_stack, data->labels);
    data->n_labels = static_cast<uint8_t>(n_label_stack);
    return SS_E_NONE;
}

int ce_l3vpn_msg_ftn_parse(ce_msg_comm_t *out, const PMpls__MomMsgFtn *ftn, uint8_t is_add) {
    CE_L3VPN_CHK_NULL_NAME(ftn, "ftn");
    CE_L3VPN_CHK_NULL_NAME(ftn->index, "ftn->index");
    const PMpls__FtnIndex *idx = ftn->index;
    if (idx->bsid != 0) {
        CE_L3VPN_FAIL("ftn->index->bsid == 0", CE_ERR_BSID, "bsid = %d",
                      static_cast<int>(idx->bsid));
        return CE_MSG_PARSE_INVALID;
    }

    set_event(out, is_add, CE_OWNER_FTN);
    out->key.ftn.mask_len = static_cast<uint8_t>(idx->prefix_len);
    out->key.ftn.vrf = idx->vrf_id;
    // The key's family follows the connected next hop, not the prefix. A
    // missing con_nh fails below as a missing next hop.
    if (idx->con_nh != nullptr) out->key.ftn.pro = addr_family(idx->con_nh);

    uint8_t prefix_pro = 0;  // the prefix keeps its own form; its family is not the key's
    int rv = ce_msg_addr_parse(out->key.ftn.ip, &prefix_pro, idx->prefix);
    if (rv != SS_E_NONE) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "Fail, rv %d, ftn key's prefix", rv);
        CE_L3VPN_ERR_REC(CE_ERR_APP_GET_RV);
        return rv;
    }
    rv = ce_msg_nhop_parse(&out->nhop, idx->con_nh, idx->out_ifx);
    if (rv != SS_E_NONE) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "Fail, rv %d, ftn nhop", rv);
        CE_L3VPN_ERR_REC(CE_ERR_APP_GET_RV);
        return rv;
    }

    out->data.opcode = static_cast<uint8_t>(idx->opcode);
    if (!SS_MPLS_CHECK_LABEL_DEPTH_VALID(idx->lb_cnt)) {
        CE_L3VPN_FAIL("SS_MPLS_CHECK_LABEL_DEPTH_VALID(ftn->index->lb_cnt)", CE_ERR_LABEL_DEPTH,
                      "%u", idx->lb_cnt);
        return CE_MSG_PARSE_INVALID;
    }
    copy_wire_labels(&out->data, idx);
    if (is_add) set_add_attr(out);
    return SS_E_NONE;
}

int ce_l3vpn_msg_vc_ftn_parse(ce_msg_comm_t *out, const UMpls__UdpVcFtn *vc_ftn, uint8_t is_add) {
    CE_L3VPN_CHK_NULL_NAME(vc_ftn, "vc_ftn");
    CE_L3VPN_CHK_NULL_NAME(vc_ftn->index, "vc_ftn->index");
    const UMpls__UdpVcFtnKey *idx = vc_ftn->index;

    set_event(out, is_add, CE_OWNER_VC_FTN);
    out->key.vc_ftn.vc_ifx = idx->vc_ifx;
    int rv = ce_msg_nhop_parse(&out->nhop, idx->co_nhop, idx->out_ifx);
    if (rv != SS_E_NONE) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "Fail, rv %d, vc_ftn nhop", rv);
        CE_L3VPN_ERR_REC(CE_ERR_APP_GET_RV);
        return rv;
    }
    // A delete needs only the key and the next hop; the stack is not looked at.
    if (!is_add) return SS_E_NONE;

    set_add_attr(out);
    out->data.opcode = static_cast<uint8_t>(vc_ftn->opcode);
    rv = ce_msg_label_stack_parse(&out->data, vc_ftn->n_label_stack, vc_ftn->label_stack);
    if (rv != SS_E_NONE) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "Fail, rv %d, vc_ftn label_stack", rv);
        CE_L3VPN_ERR_REC(CE_ERR_APP_GET_RV);
        return rv;
    }
    out->data.vc_mode = vc_ftn->vc_mode & 0xFF;
    out->data.sd_vid = vc_ftn->sd_vid;
    out->data.cw = vc_ftn->cw;
    out->data.vc_ifx = idx->vc_ifx;
    return SS_E_NONE;
}

int ce_l3vpn_msg_ilm_parse(ce_msg_comm_t *out, const PMpls__MomMsgIlm *ilm, uint8_t is_add) {
    CE_L3VPN_CHK_NULL_NAME(ilm, "ilm");
    CE_L3VPN_CHK_NULL_NAME(ilm->index, "ilm->index");
    const PMpls__IlmIndex *idx = ilm->index;
    if (!SS_MPLS_CHECK_LABEL_VALID(idx->in_label)) {
        CE_L3VPN_FAIL("SS_MPLS_CHECK_LABEL_VALID(ilm->index->in_label)", CE_ERR_LABEL_INVALID,
                      "in_labels:%u", idx->in_label);
        return CE_MSG_PARSE_INVALID;
    }

    set_event(out, is_add, CE_OWNER_ILM);
    out->key.ilm.inlabel = idx->in_label;
    int rv = ce_msg_nhop_parse(&out->nhop, idx->co_nhop, idx->out_ifx);
    if (rv != SS_E_NONE) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "Fail, rv %d, ilm nhop", rv);
        CE_L3VPN_ERR_REC(CE_ERR_APP_GET_RV);
        return rv;
    }

    // In-label 1 (router alert) is always dropped, whatever the wire asks.
    out->data.opcode = idx->in_label == 1 ? static_cast<uint8_t>(CE_OP_DROP)
                                          : static_cast<uint8_t>(idx->opcode);
    if (!SS_MPLS_CHECK_LABEL_DEPTH_VALID(idx->lb_cnt)) {
        CE_L3VPN_FAIL("SS_MPLS_CHECK_LABEL_DEPTH_VALID(ilm->index->lb_cnt)", CE_ERR_LABEL_DEPTH,
                      "n_labels:%u", idx->lb_cnt);
        return CE_MSG_PARSE_INVALID;
    }
    copy_wire_labels(&out->data, idx);
    if (is_add) {
        set_add_attr(out);
        out->data.vrf = ilm->vrfid;
        out->data.ilm_vc_ifx = ilm->vc_ifx;
    }
    return SS_E_NONE;
}

namespace {
// Owner-specific words of a read-back inner adjacency.
typedef void (*ce_in_adj_fill_fn)(ce_msg_data_t *data, const SRoute__InSubAdj *in_adj);

void fill_ftn(ce_msg_data_t *, const SRoute__InSubAdj *) {}

void fill_vc_ftn(ce_msg_data_t *data, const SRoute__InSubAdj *in_adj) {
    data->vc_mode = in_adj->vc_mode & 0xFF;
    data->sd_vid = in_adj->sd_vid;
    data->cw = in_adj->cw;
    data->vc_ifx = in_adj->index->ifx;
}

void fill_ilm(ce_msg_data_t *data, const SRoute__InSubAdj *in_adj) {
    data->vrf = in_adj->vrf;
    data->ilm_vc_ifx = in_adj->index->ifx;
}

struct ce_in_adj_owner_t {
    uint32_t rt_owner;  // t_rt_owner on the wire
    uint32_t owner;
    ce_in_adj_fill_fn fill;
};

constexpr ce_in_adj_owner_t kInAdjOwners[] = {
    {CE_RT_OWNER_FTN, CE_OWNER_FTN, fill_ftn},
    {CE_RT_OWNER_VC_FTN, CE_OWNER_VC_FTN, fill_vc_ftn},
    {CE_RT_OWNER_ILM, CE_OWNER_ILM, fill_ilm},
};

const ce_in_adj_owner_t *in_adj_owner(uint32_t rt_owner) {
    for (const auto &o : kInAdjOwners)
        if (o.rt_owner == rt_owner) return &o;
    return nullptr;
}
}  // namespace

int ce_l3vpn_msg_in_adj_parse(ce_msg_comm_t *out, uint64_t *mpls_id,
                              const SRoute__InSubAdj *in_adj) {
    CE_L3VPN_CHK_NULL_NAME(in_adj, "in_adj");
    CE_L3VPN_CHK_NULL_NAME(in_adj->index, "in_adj->index");
    const SRoute__InSubAdjKey *idx = in_adj->index;

    std::memset(out, 0, sizeof *out);
    out->nhop.pro = idx->protocol != 0 ? CE_PRO_IPV6 : CE_PRO_IPV4;
    if (mpls_id != nullptr) *mpls_id = idx->mplsid;
    const ce_in_adj_owner_t *owner = in_adj_owner(idx->t_rt_owner);

    if (!SS_MPLS_CHECK_LABEL_DEPTH_VALID(in_adj->n_labels)) {
        CE_L3VPN_FAIL("SS_MPLS_CHECK_LABEL_DEPTH_VALID(in_adj->n_labels)", CE_ERR_LABEL_DEPTH,
                      "n_labels:%u", static_cast<unsigned>(in_adj->n_labels));
        return CE_MSG_PARSE_INVALID;
    }
    if (in_adj->n_labels != 0) CE_L3VPN_CHK_NULL_NAME(in_adj->labels, "in_adj->labels");

    out->owner = owner != nullptr ? owner->owner : 0;
    if (owner == nullptr) {
        CE_L3VPN_FAIL("0", CE_ERR_UNKNOWN_OWNER, "FATAL ERROR ! unknown owner:%u", out->owner);
        return CE_MSG_PARSE_BAD_OWNER;
    }
    out->data.n_labels = static_cast<uint8_t>(in_adj->n_labels);
    std::copy_n(in_adj->labels, in_adj->n_labels, out->data.labels);
    out->data.opcode = static_cast<uint8_t>(in_adj->opcode);
    owner->fill(&out->data, in_adj);
    return SS_E_NONE;
}

int ce_l3vpn_msg_status_cnt_parse(ce_msg_status_cnt_t *out,
                                  const SMpls__SrteStatusCnt *status_cnt) {
    CE_L3VPN_CHK_NULL_NAME(status_cnt, "StatusCnt");
    CE_L3VPN_CHK_NULL_NAME(status_cnt->index, "StatusCnt->index");
    std::memset(out, 0, sizeof *out);
    out->index = status_cnt->index->tunnel_id;
    out->bytes = status_cnt->bytes;
    out->pkts = status_cnt->pkts;
    out->timestamp = monotonic_ms();
    return SS_E_NONE;
}
