// Parser tables: every refusal with its code, error rows and log lines, and
// every accepted record compared whole against one built field by field; then
// the dumps operators read, of such records.
#include <arpa/inet.h>

#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "app/proc/ce_l3vpn_dump.h"
#include "app/proc/ce_l3vpn_msg_parse.h"
#include "foundation/zlog_capture.h"

namespace {
// Rows of the error statistics table that counted since the last call.
using RowDelta = std::map<int, uint32_t>;
RowDelta take_rows() {
    RowDelta d;
    for (int i = 0; i < CE_ERR_ROWS; ++i)
        if (uint32_t n = std::exchange(ce_l3vpn_err_tbl[i].count, 0)) d[i] = n;
    return d;
}

// IPv4 words travel in memory order: htonl(0x0a000001) is 10.0.0.1.
void put_v4(uint8_t *ip, uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
    ip[0] = a, ip[1] = b, ip[2] = c, ip[3] = d;
}
void v6_bytes(uint8_t *ip, uint8_t seed) {
    for (int i = 0; i < 16; ++i) ip[i] = static_cast<uint8_t>(seed + i);
}

enum class A { Unset, V4, V4Missing, V6, V4b };

// One p_libpub.ip with its members; not movable (the record points into itself).
struct Addr {
    PLibpub__Ip ip = P_LIBPUB__IP__INIT;
    PLibpub__Ipv4 v4 = P_LIBPUB__IPV4__INIT;
    PLibpub__Ipv6 v6 = P_LIBPUB__IPV6__INIT;
    PLibpub__Ipv4b v4b = P_LIBPUB__IPV4B__INIT;
    uint8_t bytes[17] = {};
    Addr() = default;
    Addr(const Addr &) = delete;

    // word: the IPv4 value, or the seed of the 16-byte pattern; len: bytes given.
    PLibpub__Ip *set(A kind, uint32_t word = 0, size_t len = 16) {
        ip = P_LIBPUB__IP__INIT;
        v6_bytes(bytes, static_cast<uint8_t>(word));
        v4.data = word;
        v6.data = v4b.data = {len, len ? bytes : nullptr};
        switch (kind) {
        case A::Unset: break;
        case A::V4: ip.addr_case = P_LIBPUB__IP__ADDR_V4, ip.v4 = &v4; break;
        case A::V4Missing: ip.addr_case = P_LIBPUB__IP__ADDR_V4; break;
        case A::V6: ip.addr_case = P_LIBPUB__IP__ADDR_V6, ip.v6 = &v6; break;
        case A::V4b: ip.addr_case = P_LIBPUB__IP__ADDR_V4B, ip.v4b = &v4b; break;
        }
        return &ip;
    }
};

struct FtnWire {
    PMpls__MomMsgFtn msg = P_MPLS__MOM_MSG_FTN__INIT;
    PMpls__FtnIndex idx = P_MPLS__FTN_INDEX__INIT;
    Addr prefix, con_nh;
    FtnWire() {
        msg.index = &idx;
        idx.vrf_id = 5, idx.prefix_len = 16, idx.out_ifx = 7, idx.opcode = CE_OP_PUSH;
        idx.prefix = prefix.set(A::V4, htonl(0x0a010000));
        idx.con_nh = con_nh.set(A::V4, htonl(0x0a000001));
        idx.lb_cnt = 2, idx.lb_st_0 = 100, idx.lb_st_1 = 200;
    }
};
struct VcFtnWire {
    UMpls__UdpVcFtn msg = U_MPLS__UDP_VC_FTN__INIT;
    UMpls__UdpVcFtnKey idx = U_MPLS__UDP_VC_FTN_KEY__INIT;
    Addr co_nhop;
    uint32_t labels[12] = {16, 3, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26};
    VcFtnWire() {
        msg.index = &idx;
        idx.vc_ifx = 40, idx.out_ifx = 9, idx.co_nhop = co_nhop.set(A::V4, htonl(0x0a000002));
        msg.opcode = CE_OP_PUSH, msg.n_label_stack = 3, msg.label_stack = labels;
        msg.vc_mode = 0x105, msg.sd_vid = 100, msg.cw = 1;
    }
};
struct IlmWire {
    PMpls__MomMsgIlm msg = P_MPLS__MOM_MSG_ILM__INIT;
    PMpls__IlmIndex idx = P_MPLS__ILM_INDEX__INIT;
    Addr co_nhop;
    IlmWire() {
        msg.index = &idx, msg.vrfid = 7, msg.vc_ifx = 8;
        idx.in_label = 100, idx.out_ifx = 3, idx.opcode = CE_OP_SWAP, idx.lb_cnt = 1, idx.lb_st_0 = 200;
        idx.co_nhop = co_nhop.set(A::V4, htonl(0x0a000003));
    }
};
struct InAdjWire {
    SRoute__InSubAdj msg = S_ROUTE__IN_SUB_ADJ__INIT;
    SRoute__InSubAdjKey idx = S_ROUTE__IN_SUB_ADJ_KEY__INIT;
    Addr ip;
    uint32_t labels[9] = {16, 3};
    InAdjWire() {
        msg.index = &idx;
        idx.t_rt_owner = CE_RT_OWNER_FTN, idx.ifx = 44, idx.mplsid = 0x500000009ull;
        idx.ip = ip.set(A::V4, htonl(0x0a000004));
        msg.opcode = CE_OP_PUSH, msg.n_labels = 2, msg.labels = labels;
        msg.vc_mode = 0x104, msg.sd_vid = 10, msg.cw = 1, msg.vrf = 6;
    }
};

using M = ce_msg_comm_t;
using Parser = std::function<int(M *)>;
template <typename W> using Edit = std::function<void(W &)>;

Parser ftn(Edit<FtnWire> e, uint8_t add = 1) {
    return [=](M *o) { FtnWire w; e(w); return ce_l3vpn_msg_ftn_parse(o, &w.msg, add); };
}
Parser vc(Edit<VcFtnWire> e, uint8_t add = 1) {
    return [=](M *o) { VcFtnWire w; e(w); return ce_l3vpn_msg_vc_ftn_parse(o, &w.msg, add); };
}
Parser ilm(Edit<IlmWire> e, uint8_t add = 1) {
    return [=](M *o) { IlmWire w; e(w); return ce_l3vpn_msg_ilm_parse(o, &w.msg, add); };
}
// The in_adj parser also hands back the record's MPLS id.
Parser in_adj(Edit<InAdjWire> e) {
    return [=](M *o) {
        InAdjWire w;
        e(w);
        uint64_t id = 0;
        int rv = ce_l3vpn_msg_in_adj_parse(o, &id, &w.msg);
        return rv == 0 && id != w.idx.mplsid ? -100 : rv;
    };
}

struct Refusal {
    const char *name;
    Parser run;
    int rv;
    RowDelta rows;
    std::vector<std::string> logs;
};
// A missing record or index: 4, the parse row, and the name of what was missing.
Refusal missing(const char *name, Parser run) {
    return {name, run, 4, {{CE_ERR_APP_PARSE, 1}}, {std::string("Fail, ") + name + " NULL, "}};
}

// Every reason of refusal once, with the rows it counts and the lines it logs.
TEST(MsgParse, RefusalsReturnTheirCodeCountTheirRowsAndLog) {
    const Refusal cases[] = {
        missing("ftn", [](M *o) { return ce_l3vpn_msg_ftn_parse(o, nullptr, 1); }),
        missing("vc_ftn->index", vc([](auto &w) { w.msg.index = nullptr; })),
        missing("ilm->index", ilm([](auto &w) { w.msg.index = nullptr; })),
        missing("in_adj->labels", in_adj([](auto &w) { w.msg.labels = nullptr; })),
        missing("StatusCnt", [](M *) {
            ce_msg_status_cnt_t c;
            return ce_l3vpn_msg_status_cnt_parse(&c, nullptr);
        }),
        {"ftn bsid", ftn([](auto &w) { w.idx.bsid = 5; }), 4, {{25, 1}},
         {"fail:ftn->index->bsid == 0 code:25 bsid = 5"}},
        // Address refusals: no address -4, no member -11, not 16 bytes -6.
        {"ftn prefix unset", ftn([](auto &w) { w.prefix.set(A::Unset); }), -11, {{37, 1}},
         {"Fail, rv -11, ftn key's prefix"}},
        {"ftn prefix v4b no bytes", ftn([](auto &w) { w.prefix.set(A::V4b, 1, 0); }), -6, {{37, 1}},
         {"Fail, rv -6, ftn key's prefix"}},
        {"ftn no con_nh", ftn([](auto &w) { w.idx.con_nh = nullptr; }), -4, {{37, 2}},
         {"Fail, rv -4, nhop parse", "Fail, rv -4, ftn nhop"}},
        {"ftn con_nh v6 15", ftn([](auto &w) { w.con_nh.set(A::V6, 1, 15); }), -6, {{37, 2}},
         {"Fail, rv -6, nhop parse", "Fail, rv -6, ftn nhop"}},
        {"vc co_nhop v4b 17", vc([](auto &w) { w.co_nhop.set(A::V4b, 1, 17); }), -6, {{37, 2}},
         {"Fail, rv -6, vc_ftn nhop"}},
        {"ilm co_nhop v4 missing", ilm([](auto &w) { w.co_nhop.set(A::V4Missing); }), -11,
         {{37, 2}}, {"Fail, rv -11, ilm nhop"}},
        {"ftn depth 9", ftn([](auto &w) { w.idx.lb_cnt = 9; }), 4, {{23, 1}},
         {"fail:SS_MPLS_CHECK_LABEL_DEPTH_VALID(ftn->index->lb_cnt) code:23 9"}},
        {"vc add depth 12", vc([](auto &w) { w.msg.n_label_stack = 12; }), 4, {{23, 1}, {37, 1}},
         {"fail:SS_MPLS_CHECK_LABEL_DEPTH_VALID(n_label_stack) code:23 error depth 12",
          "Fail, rv 4, vc_ftn label_stack"}},
        {"vc labels null", vc([](auto &w) { w.msg.label_stack = nullptr; }), 4, {{36, 1}, {37, 1}},
         {"Fail, label_stack NULL, ", "Fail, rv 4, vc_ftn label_stack"}},
        {"ilm in_label 2^20", ilm([](auto &w) { w.idx.in_label = 1048576; }), 4, {{24, 1}},
         {"fail:SS_MPLS_CHECK_LABEL_VALID(ilm->index->in_label) code:24 in_labels:1048576"}},
        {"in_adj owner 3", in_adj([](auto &w) { w.idx.t_rt_owner = 3; }), 1, {{38, 1}},
         {"fail:0 code:38 FATAL ERROR ! unknown owner:0"}},
    };
    for (const auto &c : cases) {
        ce_msg_comm_t out;
        take_rows();
        ZlogCapture log;
        EXPECT_EQ(c.run(&out), c.rv) << c.name;
        EXPECT_EQ(take_rows(), c.rows) << c.name;
        for (const std::string &line : c.logs) EXPECT_TRUE(has(log.text(), line)) << c.name;
    }
}

ce_msg_comm_t blank(uint32_t owner, uint8_t event) {
    ce_msg_comm_t e;
    memset(&e, 0, sizeof e);
    e.msg_event = event, e.owner = owner;
    if (event == CE_MSG_EVENT_ADD) e.nhop_attr.weight = 1;
    return e;
}
ce_msg_comm_t ftn_expect(uint8_t event) {
    ce_msg_comm_t e = blank(CE_OWNER_FTN, event);
    e.key.ftn.mask_len = 16, e.key.ftn.vrf = 5, e.nhop.ifx = 7;
    put_v4(e.key.ftn.ip, 10, 1, 0, 0);
    put_v4(e.nhop.ip, 10, 0, 0, 1);
    e.data = {CE_OP_PUSH, 2, {}, {100, 200}, {}, {}, 0, 0};
    return e;
}
ce_msg_comm_t vc_expect(uint8_t event) {
    ce_msg_comm_t e = blank(CE_OWNER_VC_FTN, event);
    e.key.vc_ftn.vc_ifx = 40, e.nhop.ifx = 9;
    put_v4(e.nhop.ip, 10, 0, 0, 2);
    if (event == CE_MSG_EVENT_ADD) e.data = {CE_OP_PUSH, 3, {}, {16, 3, 17}, {5}, {100}, 1, 40};
    return e;
}
ce_msg_comm_t ilm_expect(uint8_t event) {
    ce_msg_comm_t e = blank(CE_OWNER_ILM, event);
    e.key.ilm.inlabel = 100, e.nhop.ifx = 3;
    put_v4(e.nhop.ip, 10, 0, 0, 3);
    e.data.opcode = CE_OP_SWAP, e.data.n_labels = 1, e.data.labels[0] = 200;
    if (event == CE_MSG_EVENT_ADD) e.data.vrf = 7, e.data.ilm_vc_ifx = 8;
    return e;
}
// The in_adj parser takes the owner from the record and sets no event.
ce_msg_comm_t in_adj_expect(uint8_t owner) {
    ce_msg_comm_t e = blank(owner, 0);
    e.data = {CE_OP_PUSH, 2, {}, {16, 3}, {}, {}, 0, 0};
    if (owner == CE_OWNER_VC_FTN) e.data.vc_mode = 4, e.data.sd_vid = 10, e.data.cw = 1, e.data.vc_ifx = 44;
    if (owner == CE_OWNER_ILM) e.data.vrf = 6, e.data.ilm_vc_ifx = 44;
    return e;
}

// The base record of a parser with one edit.
template <typename F> std::function<M()> want(M (*base)(uint8_t), F edit, uint8_t event = 1) {
    return [=] { M e = base(event); edit(e); return e; };
}
constexpr auto kSame = [](auto &) {};

TEST(MsgParse, AcceptedRecordsMatchWhole) {
    const struct {
        const char *name;
        Parser run;
        std::function<M()> expect;
    } cases[] = {
        {"ftn add", ftn(kSame), want(ftn_expect, kSame)},
        {"ftn no labels", ftn([](auto &w) { w.idx.lb_cnt = 0; }),
         want(ftn_expect, [](M &e) { e.data.n_labels = 0, e.data.labels[0] = e.data.labels[1] = 0; })},
        // An implicit null stays (marked) only on top of the stack.
        {"ftn {3,3,100}",
         ftn([](auto &w) { w.idx.lb_cnt = 3, w.idx.lb_st_0 = w.idx.lb_st_1 = 3, w.idx.lb_st_2 = 100; }),
         want(ftn_expect, [](M &e) { e.data.labels[0] = CE_MPLS_LABEL_NONE, e.data.labels[1] = 100; })},
        {"ftn depth 8, inner 3 dropped",
         ftn([](auto &w) { w.idx.lb_cnt = 8, w.idx.lb_st_3 = 3, w.idx.lb_st_5 = 6; }),
         want(ftn_expect, [](M &e) { e.data.n_labels = 7, e.data.labels[4] = 6; })},
        // The key's family follows the connected next hop, not the prefix.
        {"ftn v6 con_nh keys v6", ftn([](auto &w) { w.con_nh.set(A::V6, 0x20); }),
         want(ftn_expect, [](M &e) { e.key.ftn.pro = e.nhop.pro = 1, v6_bytes(e.nhop.ip, 0x20); })},
        {"ftn v6 prefix, v4 con_nh", ftn([](auto &w) { w.prefix.set(A::V6, 0x30); }),
         want(ftn_expect, [](M &e) { v6_bytes(e.key.ftn.ip, 0x30); })},
        {"ftn v4b prefix 16", ftn([](auto &w) { w.prefix.set(A::V4b, 0x40); }),
         want(ftn_expect, [](M &e) { v6_bytes(e.key.ftn.ip, 0x40); })},
        {"vc add", vc(kSame), want(vc_expect, kSame)},
        {"vc del ignores 12 labels", vc([](auto &w) { w.msg.n_label_stack = 12; }, 0),
         want(vc_expect, kSame, CE_MSG_EVENT_DEL)},
        {"vc add 8 labels", vc([](auto &w) { w.msg.n_label_stack = 8; }), want(vc_expect, [](M &e) {
             e.data.n_labels = 8;
             for (int i = 3; i < 8; ++i) e.data.labels[i] = 15 + i;
         })},
        {"ilm add, bsid ignored", ilm([](auto &w) { w.idx.bsid = 9; }), want(ilm_expect, kSame)},
        {"ilm del", ilm(kSame, 0), want(ilm_expect, kSame, CE_MSG_EVENT_DEL)},
        {"ilm in_label 2^20-1", ilm([](auto &w) { w.idx.in_label = 1048575; }),
         want(ilm_expect, [](M &e) { e.key.ilm.inlabel = 1048575; })},
        {"ilm in_label 1 drops", ilm([](auto &w) { w.idx.in_label = 1; }),
         want(ilm_expect, [](M &e) { e.key.ilm.inlabel = 1, e.data.opcode = CE_OP_DROP; })},
        {"in_adj ftn", in_adj(kSame), want(in_adj_expect, kSame, CE_OWNER_FTN)},
        {"in_adj vc_ftn v6", in_adj([](auto &w) { w.idx.t_rt_owner = 8, w.idx.protocol = 1; }),
         want(in_adj_expect, [](M &e) { e.nhop.pro = 1; }, CE_OWNER_VC_FTN)},
        {"in_adj ilm", in_adj([](auto &w) { w.idx.t_rt_owner = 7; }),
         want(in_adj_expect, kSame, CE_OWNER_ILM)},
    };
    for (const auto &c : cases) {
        ce_msg_comm_t out, want = c.expect();
        memset(&out, 0xAB, sizeof out);
        take_rows();
        ASSERT_EQ(c.run(&out), 0) << c.name;
        EXPECT_EQ(memcmp(&out, &want, sizeof out), 0) << c.name;
        EXPECT_TRUE(take_rows().empty()) << c.name;
    }
}

uint64_t now_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000 + uint64_t(ts.tv_nsec) / 1000000;
}

// The wire's own timestamp is ignored: the entry is stamped when parsed.
TEST(MsgParse, StatusCntIsStampedWithTheMonotonicClockAndDumped) {
    SMpls__SrteStatusCnt msg = S_MPLS__SRTE_STATUS_CNT__INIT;
    SMpls__SrteCountIndex idx = S_MPLS__SRTE_COUNT_INDEX__INIT;
    msg.index = &idx, idx.tunnel_id = 12, msg.timestamp = 1, msg.bytes = 5000000000ull, msg.pkts = 77;
    ce_msg_status_cnt_t out, want;
    memset(&out, 0xAB, sizeof out);
    uint64_t lo = now_ms();
    ASSERT_EQ(ce_l3vpn_msg_status_cnt_parse(&out, &msg), 0);
    EXPECT_LE(lo, out.timestamp);
    EXPECT_LE(out.timestamp, now_ms());
    memset(&want, 0, sizeof want);
    want.index = 12, want.timestamp = out.timestamp, want.bytes = 5000000000ull, want.pkts = 77;
    EXPECT_EQ(memcmp(&out, &want, sizeof out), 0);

    out.timestamp = 123456789012ull;  // past 32 bits, as bytes is
    ZlogCapture log;
    EXPECT_EQ(ce_l3vpn_dump_msg_status_cnt(&out), 0);
    EXPECT_TRUE(has(log.text(), "\t V4: status_cnt==>timestamp:123456789012, bytes:5000000000, pkts:77\n"));
}

// The ILM record with an IPv6 next hop and an implicit null on top.
ce_msg_comm_t ilm_v6() {
    ce_msg_comm_t m = ilm_expect(CE_MSG_EVENT_ADD);
    memset(m.nhop.ip, 0, sizeof m.nhop.ip);
    m.nhop.pro = CE_PRO_IPV6, m.nhop.ip[0] = 0xfe, m.nhop.ip[1] = 0x80, m.nhop.ip[15] = 1;
    m.data.labels[0] = CE_MPLS_LABEL_NONE;
    return m;
}

TEST(MsgDump, CommLogsEveryPart) {
    ce_msg_comm_t ftn = ftn_expect(CE_MSG_EVENT_DEL), ilm = ilm_v6(), vc = vc_expect(CE_MSG_EVENT_ADD);
    ZlogCapture log;
    EXPECT_EQ(ce_l3vpn_dump_msg_comm(&ftn), 0);
    EXPECT_EQ(ce_l3vpn_dump_msg_comm(&ilm), 0);
    EXPECT_EQ(ce_l3vpn_dump_msg_comm(&vc), 0);
    EXPECT_EQ(ce_l3vpn_dump_msg_comm(nullptr), 4);
    std::string t = log.text();
    const char *lines[] = {
        "\t onwer:ftn, msg_event:del,\n",
        "\t key==>pro:0, vrf:5, mask_len:16, ip:010.001.000.000\n",
        "\t nhop==>pro:0, ip:010.000.000.001, ifx:7\n",
        "\t nhop_attr==>vrf:0, ifx_type:0, weight:0, seq:0\n",
        "\t data==>opcode:PUSH, n_label:2\n",
        " label stack: lab0:100 lab1:200 lab2:0 ",
        "\t onwer:ilm, msg_event:add,\n",
        "\t key==>inlabel:100\n",
        "\t nhop==>pro:1, ip:fe80::1, ifx:3\n",
        "\t data==>opcode:SWAP, n_label:1\n",
        " label stack: lab0:1048576 lab1:0 ",
        "\t vrf:7, vc_ifx:8\n",
        "\t onwer:vc_ftn, msg_event:add,\n",
        "\t key==>vc_ifx:40\n",
        "\t vc_mode:5, sd_vid:100, cw:1, vc_ifx:40\n",
        "Fail, msg NULL, ",
    };
    for (const char *line : lines) EXPECT_TRUE(has(t, line));
}

TEST(MsgDump, TextIsAlignedAndBounded) {
    ce_msg_comm_t m = ilm_v6();
    char buf[512];
    int n = ce_l3vpn_msg_comm_to_text(&m, buf, sizeof buf);
    const std::string want =
        "owner      : ilm        event : add\n"
        "key        : inlabel 100\n"
        "nhop       : fe80::1  pro 1  ifx 3\n"
        "nhop_attr  : vrf 0  ifx_type 0  weight 1  seq 0\n"
        "opcode     : SWAP (3)\n"
        "labels     : 1 [imp-null]\n"
        "ilm        : vrf 7  vc_ifx 8\n";
    EXPECT_EQ(buf, want);
    EXPECT_EQ(n, static_cast<int>(want.size()));
    char small[20];
    EXPECT_EQ(ce_l3vpn_msg_comm_to_text(&m, small, sizeof small), n);
    EXPECT_EQ(std::string(small), want.substr(0, 19));
    EXPECT_EQ(ce_l3vpn_msg_comm_to_text(&m, nullptr, 0), n);
}
}  // namespace
