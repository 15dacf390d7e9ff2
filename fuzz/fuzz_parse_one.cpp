// Input: [record kind][is_add][packed record]. The record goes through its
// parser as the table callbacks would hand it over; a parsed FTN, VC-FTN or
// ILM add then goes through the attribute checks, and every parsed record
// through the dumps, so the log formats run on whatever the wire carried.
#include <cstring>

#include "app/proc/ce_l3vpn_dump.h"
#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_msg_op.h"
#include "app/proc/ce_l3vpn_msg_parse.h"
#include "fuzz/fuzz_checks.h"

namespace {

enum { FZ_FTN, FZ_VC_FTN, FZ_ILM, FZ_IN_ADJ, FZ_STATUS_CNT, FZ_KINDS };

const ProtobufCMessageDescriptor *const kDescs[FZ_KINDS] = {
    &p_mpls__mom_msg_ftn__descriptor, &u_mpls__udp_vc_ftn__descriptor,
    &p_mpls__mom_msg_ilm__descriptor, &s_route__in_sub_adj__descriptor,
    &s_mpls__srte_status_cnt__descriptor,
};

constexpr uint8_t kPoison = 0xA5;

bool all_zero(const uint8_t *p, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (p[i] != 0) return false;
    return true;
}

// Keys and next hops are compared byte by byte: a parsed record must leave
// no stale byte in them, whatever the output held before.
const char *check_padding(const ce_msg_comm_t &m) {
    if (!all_zero(m.rsv, sizeof m.rsv)) return "msg rsv not cleared";
    if (!all_zero(m.nhop.rsv, sizeof m.nhop.rsv)) return "nhop rsv not cleared";
    if (!all_zero(m.data.rsv, sizeof m.data.rsv)) return "data rsv not cleared";
    switch (m.owner) {
    case CE_OWNER_FTN:
        if (!all_zero(m.key.ftn.rsv, sizeof m.key.ftn.rsv)) return "ftn key rsv not cleared";
        break;
    case CE_OWNER_VC_FTN:
        if (!all_zero(m.key.vc_ftn.rsv, sizeof m.key.vc_ftn.rsv)) return "vc key rsv not cleared";
        break;
    case CE_OWNER_ILM:
        if (!all_zero(m.key.ilm.rsv, sizeof m.key.ilm.rsv)) return "ilm key rsv not cleared";
        break;
    default: break;
    }
    return nullptr;
}

const char *check_parsed(const ce_msg_comm_t &m, uint32_t owner, uint8_t is_add) {
    if (m.owner != owner) return "owner";
    if (m.msg_event != (is_add ? CE_MSG_EVENT_ADD : CE_MSG_EVENT_DEL)) return "msg_event";
    if (m.nhop.pro > CE_PRO_IPV6) return "nhop family";
    if (m.data.n_labels > CE_MPLS_MAX_LABELS) return "label depth";
    if (const char *bad = check_padding(m)) return bad;
    // The text form must agree with itself whatever the record holds.
    char big[4096];
    int len = ce_l3vpn_msg_comm_to_text(&m, big, sizeof big);
    if (len < 0 || static_cast<size_t>(len) >= sizeof big) return "msg text length";
    if (std::strlen(big) != static_cast<size_t>(len)) return "msg text not terminated";
    char small[17];
    if (ce_l3vpn_msg_comm_to_text(&m, small, sizeof small) != len) return "msg text bounded length";
    if (std::strncmp(small, big, sizeof small - 1) != 0 || small[sizeof small - 1] != '\0')
        return "msg text bounded copy";
    return nullptr;
}

// The results a parser may give: success, the address codes, 4, and for the
// in-adjacency 1.
bool known_result(int rv, bool in_adj) {
    switch (rv) {
    case SS_E_NONE:
    case CE_MSG_ADDR_NULL:
    case CE_MSG_ADDR_LEN:
    case CE_MSG_ADDR_MEMBER:
    case CE_MSG_PARSE_INVALID: return true;
    case CE_MSG_PARSE_BAD_OWNER: return in_adj;
    default: return false;
    }
}

typedef int (*fz_check_fn)(const ce_msg_comm_t *msg);

const char *run_entry(const ProtobufCMessage *rec, int kind, uint8_t is_add) {
    ce_msg_comm_t m;
    std::memset(&m, kPoison, sizeof m);
    int rv = 0;
    uint32_t owner = 0;
    fz_check_fn check = nullptr;
    switch (kind) {
    case FZ_FTN:
        rv = ce_l3vpn_msg_ftn_parse(&m, reinterpret_cast<const PMpls__MomMsgFtn *>(rec), is_add);
        owner = CE_OWNER_FTN;
        check = ce_l3_ftn_msg_attr_check;
        break;
    case FZ_VC_FTN:
        rv = ce_l3vpn_msg_vc_ftn_parse(&m, reinterpret_cast<const UMpls__UdpVcFtn *>(rec), is_add);
        owner = CE_OWNER_VC_FTN;
        check = ce_l3_vc_ftn_msg_attr_check;
        break;
    default:
        rv = ce_l3vpn_msg_ilm_parse(&m, reinterpret_cast<const PMpls__MomMsgIlm *>(rec), is_add);
        owner = CE_OWNER_ILM;
        check = ce_l3_ilm_msg_attr_check;
        break;
    }
    if (!known_result(rv, false)) return "unexpected parse result";
    if (rv != SS_E_NONE) return nullptr;
    if (const char *bad = check_parsed(m, owner, is_add)) return bad;
    if (kind == FZ_ILM && m.key.ilm.inlabel == 1 && m.data.opcode != CE_OP_DROP)
        return "in-label 1 not dropped";
    ce_l3vpn_dump_msg_comm(&m);
    if (is_add) {
        int c = check(&m);
        if (c != 0 && c != 4) return "unexpected check result";
    }
    return nullptr;
}

const char *run_in_adj(const SRoute__InSubAdj *rec) {
    ce_msg_comm_t m;
    std::memset(&m, kPoison, sizeof m);
    uint64_t mpls_id = 0;
    int rv = ce_l3vpn_msg_in_adj_parse(&m, &mpls_id, rec);
    if (!known_result(rv, true)) return "unexpected in_adj result";
    if (rv != SS_E_NONE) return nullptr;
    if (mpls_id != rec->index->mplsid) return "in_adj mpls id";
    if (m.msg_event != 0) return "in_adj msg_event";
    if (m.owner < CE_OWNER_FTN || m.owner > CE_OWNER_ILM) return "in_adj owner";
    if (!all_zero(m.key.raw, sizeof m.key.raw)) return "in_adj key not cleared";
    if (const char *bad = check_padding(m)) return bad;
    ce_l3vpn_dump_msg_comm(&m);
    return nullptr;
}

const char *run_status_cnt(const SMpls__SrteStatusCnt *rec) {
    ce_msg_status_cnt_t c;
    std::memset(&c, kPoison, sizeof c);
    int rv = ce_l3vpn_msg_status_cnt_parse(&c, rec);
    if (rv != SS_E_NONE && rv != CE_MSG_PARSE_INVALID) return "unexpected status_cnt result";
    if (rv != SS_E_NONE) return nullptr;
    if (c.index != rec->index->tunnel_id || c.bytes != rec->bytes || c.pkts != rec->pkts)
        return "status_cnt words";
    if (c.v6_bytes != 0 || c.v6_pkts != 0 || c.enable != 0) return "status_cnt not cleared";
    ce_l3vpn_dump_msg_status_cnt(&c);
    return nullptr;
}

}  // namespace

void fuzz_parse_init(void) {
    // Every log line is formatted; with no zlog handle none is written.
    ce_l3vpn_dbg_level = CE_L3VPN_DEBUG;
    ce_l3vpn_zlog_handle = 0;
}

const char *fuzz_parse_one(const uint8_t *data, size_t size) {
    if (size < 2) return nullptr;
    int kind = data[0] % FZ_KINDS;
    uint8_t is_add = data[1];
    ProtobufCMessage *rec = protobuf_c_message_unpack(kDescs[kind], nullptr, size - 2, data + 2);
    if (rec == nullptr) return nullptr;
    const char *bad = nullptr;
    switch (kind) {
    case FZ_IN_ADJ: bad = run_in_adj(reinterpret_cast<const SRoute__InSubAdj *>(rec)); break;
    case FZ_STATUS_CNT:
        bad = run_status_cnt(reinterpret_cast<const SMpls__SrteStatusCnt *>(rec));
        break;
    default: bad = run_entry(rec, kind, is_add); break;
    }
    protobuf_c_message_free_unpacked(rec, nullptr);
    return bad;
}
