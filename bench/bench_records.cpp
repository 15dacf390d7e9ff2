#include "bench/bench_records.h"

#include <cstring>

#include "p_libpub.pb-c.h"
#include "p_mpls.pb-c.h"
#include "platform/mom/tq_mom_name.h"
#include "u_mpls.pb-c.h"

namespace {
// An IPv4 address as the wire holds it: the four bytes in memory order.
struct v4_addr_t {
    PLibpub__Ip ip = P_LIBPUB__IP__INIT;
    PLibpub__Ipv4 v4 = P_LIBPUB__IPV4__INIT;

    explicit v4_addr_t(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
        const uint8_t bytes[4] = {a, b, c, d};
        memcpy(&v4.data, bytes, 4);
        ip.addr_case = P_LIBPUB__IP__ADDR_V4;
        ip.v4 = &v4;
    }
    v4_addr_t(const v4_addr_t &) = delete;
};

struct nh_t {
    uint8_t last;  // 192.0.2.<last>
    uint32_t ifx;
};
constexpr nh_t kNh[2] = {{1, 101}, {2, 102}};

bench_rec_t finish(uint32_t db, const ProtobufCMessage *m) {
    bench_rec_t r{db, m->descriptor, {}, {}};
    tq_mom_record_key(m, r.key);
    tq_mom_pack(m, r.bytes);
    return r;
}
}  // namespace

const bench_out_tbl_t bench_out_tables[] = {
    {6, "s_route.comm_rt"}, {6, "s_route.vir_rt"},         {10, "u_mpls.udp_ilm"},
    {10, "s_route.in_sub_adj"}, {8, "u_mpls.udp_mpls_enable"}, {8, "u_mpls.udp_ttl_copy_enable"},
    {8, "u_mpls.udp_lab_sw"},
};
const size_t bench_out_table_num = sizeof bench_out_tables / sizeof bench_out_tables[0];

bool bench_is_output(uint32_t db, const std::string &key) {
    for (const bench_out_tbl_t &t : bench_out_tables) {
        size_t n = strlen(t.table);
        if (t.db == db && key.compare(0, n, t.table) == 0 && (key.size() == n || key[n] == '|'))
            return true;
    }
    return false;
}

// 10.<hi>.<lo>.0/24 in vrf 1 + i % vrfs, label per prefix.
bench_rec_t bench_ftn_rec(uint32_t i, uint32_t vrfs, uint32_t nh, uint32_t salt) {
    v4_addr_t prefix(10, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i), 0);
    v4_addr_t con(192, 0, 2, kNh[nh & 1].last);
    PMpls__FtnIndex idx = P_MPLS__FTN_INDEX__INIT;
    idx.vrf_id = 1 + i % vrfs;
    idx.prefix = &prefix.ip;
    idx.prefix_len = 24;
    idx.out_ifx = kNh[nh & 1].ifx;
    idx.con_nh = &con.ip;
    idx.lb_cnt = 1;
    idx.lb_st_0 = 100000 + (i + salt * 7919) % 400000;
    idx.opcode = P_MPLS__OPCODE_T__PUSH;
    PMpls__MomMsgFtn ftn = P_MPLS__MOM_MSG_FTN__INIT;
    ftn.index = &idx;
    return finish(6, &ftn.base);
}

// Virtual-circuit interface 100000 + i, pseudowire label per circuit over a shared one.
bench_rec_t bench_vc_ftn_rec(uint32_t i, uint32_t salt) {
    v4_addr_t con(192, 0, 2, kNh[i & 1].last);
    UMpls__UdpVcFtnKey key = U_MPLS__UDP_VC_FTN_KEY__INIT;
    key.vc_ifx = 100000 + i;
    key.co_nhop = &con.ip;
    key.out_ifx = kNh[i & 1].ifx;
    uint32_t labels[2] = {500000 + (i + salt * 7919) % 400000, 16};
    UMpls__UdpVcFtn vc = U_MPLS__UDP_VC_FTN__INIT;
    vc.index = &key;
    vc.opcode = P_MPLS__OPCODE_T__PUSH;
    vc.n_label_stack = 2;
    vc.label_stack = labels;
    vc.vc_mode = 5;
    vc.sd_vid = 1 + i % 4000;
    vc.cw = i & 1;
    return finish(6, &vc.base);
}

// In-label 1000 + i; the opcode cycles over five kinds of label operation.
bench_rec_t bench_ilm_rec(uint32_t i, uint32_t salt) {
    static constexpr PMpls__OpcodeT kOps[] = {P_MPLS__OPCODE_T__POP, P_MPLS__OPCODE_T__SWAP,
                                              P_MPLS__OPCODE_T__SWAP_PUSH,
                                              P_MPLS__OPCODE_T__POP_L3SWITCH,
                                              P_MPLS__OPCODE_T__PUSH};
    const PMpls__OpcodeT op = kOps[i % 5];
    const bool has_nh = op != P_MPLS__OPCODE_T__POP_L3SWITCH;
    v4_addr_t con(has_nh ? 192 : 0, 0, has_nh ? 2 : 0, has_nh ? kNh[i & 1].last : 0);
    PMpls__IlmIndex idx = P_MPLS__ILM_INDEX__INIT;
    idx.in_label = 1000 + i;
    idx.co_nhop = &con.ip;
    idx.out_ifx = has_nh ? kNh[i & 1].ifx : 0;
    idx.opcode = op;
    const uint32_t out = 600000 + (i + salt * 7919) % 400000;
    if (op == P_MPLS__OPCODE_T__SWAP || op == P_MPLS__OPCODE_T__PUSH) {
        idx.lb_cnt = 1;
        idx.lb_st_0 = out;
    } else if (op == P_MPLS__OPCODE_T__SWAP_PUSH) {
        idx.lb_cnt = 2;
        idx.lb_st_0 = out;
        idx.lb_st_1 = 17;
    }
    PMpls__MomMsgIlm ilm = P_MPLS__MOM_MSG_ILM__INIT;
    ilm.index = &idx;
    if (!has_nh) ilm.vrfid = 1 + i % 4;
    return finish(6, &ilm.base);
}

uint32_t bench_load_entries(const bench_load_cfg_t &cfg) { return cfg.ftn + cfg.vc_ftn + cfg.ilm; }

std::vector<bench_rec_t> bench_load_build(const bench_load_cfg_t &cfg) {
    std::vector<bench_rec_t> out;
    out.reserve(cfg.ftn * 2 + cfg.vc_ftn + cfg.ilm);
    for (uint32_t i = 0; i < cfg.ftn; ++i)
        for (uint32_t nh = 0; nh < 2; ++nh) out.push_back(bench_ftn_rec(i, cfg.vrfs, nh, cfg.salt));
    for (uint32_t i = 0; i < cfg.vc_ftn; ++i) out.push_back(bench_vc_ftn_rec(i, cfg.salt));
    for (uint32_t i = 0; i < cfg.ilm; ++i) out.push_back(bench_ilm_rec(i, cfg.salt));
    return out;
}
