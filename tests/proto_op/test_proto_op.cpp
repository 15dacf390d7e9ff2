// Lower-layer programming: every record as it lands in the MOM, field by field.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_proto_op.h"
#include "app/proc/ce_l3vpn_tbl.h"
#include "p_libpub.pb-c.h"
#include "s_route.pb-c.h"
#include "support/mom_mem.h"
#include "u_mpls.pb-c.h"

namespace {
struct nodes_t {
    ce_app_node_t app{};
    ce_nhop_node_t nhop{};
    ce_in_adj_node_t in_adj{};
    nodes_t(uint32_t owner, uint8_t pro) {
        app.owner = in_adj.owner = owner;
        nhop.app_node = &app;
        nhop.in_adj = &in_adj;
        nhop.nhop.pro = pro;
        in_adj.pro = pro;
        if (pro == CE_PRO_IPV4)
            nhop.nhop.ip[0] = 10, nhop.nhop.ip[3] = 2;  // 10.0.0.2
        else
            nhop.nhop.ip[0] = 0x20, nhop.nhop.ip[1] = 0x01, nhop.nhop.ip[15] = 2;  // 2001::2
        nhop.nhop.ifx = 9;
        nhop.nhop_attr = {0, 6, 3, 2};    // vrf, ifx_type, weight, seq
        in_adj.mpls_id = 0x100000001ull;  // {high 1, low 1}
    }
};

// The bytes of an address as written: v4 data in memory order, or v6 data.
std::string ip_bytes(const PLibpub__Ip *ip) {
    if (ip == nullptr) return "none";
    if (ip->addr_case == P_LIBPUB__IP__ADDR_V4)
        return std::string(reinterpret_cast<const char *>(&ip->v4->data), 4);
    if (ip->addr_case == P_LIBPUB__IP__ADDR_V6)
        return std::string(reinterpret_cast<const char *>(ip->v6->data.data), ip->v6->data.len);
    return "other";
}
std::string bytes(std::initializer_list<int> b) {
    std::string s;
    for (int v : b) s.push_back(static_cast<char>(v));
    return s;
}
const std::string kLocalV4 = bytes({127, 0, 0, 1});

::testing::AssertionResult has(const std::string &text, const std::string &part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "no \"" << part << "\" in:\n" << text;
}

class ProtoOpTest : public ::testing::Test {
protected:
    void SetUp() override {
        mom_ = mom_mem_new();
        ctx_ = mom_mem_ctx(mom_);
        ss_rt_tbl_reset_for_test();
        ce_l3_table_init(&ctx_);
        for (ce_l3vpn_err_row_t &r : ce_l3vpn_err_tbl) r.count = 0;
        const uint8_t v4[4] = {127, 0, 0, 1},
                      v6[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
        ce_l3vpn_set_local_tnl_addr(v4, v6);
        ce_l3vpn_dbg_level = CE_L3VPN_DEBUG;
        ce_l3vpn_zlog_handle = 1;
        testing::internal::CaptureStderr();
    }
    void TearDown() override {
        log_ += testing::internal::GetCapturedStderr();
        ss_rt_tbl_reset_for_test();
        mom_mem_free(mom_);
    }
    const std::string &log() {
        log_ += testing::internal::GetCapturedStderr();
        testing::internal::CaptureStderr();
        return log_;
    }
    // The one record of a table (keys beginning with prefix), decoded; null if not exactly one.
    template <typename T>
    T *only(uint32_t db, const ProtobufCMessageDescriptor *desc, std::string *key = nullptr) {
        std::string prefix = std::string(desc->name) + "|", found;
        int n = 0;
        for (const std::string &k : mom_mem_keys(mom_, db))
            if (k == desc->name || k.rfind(prefix, 0) == 0) ++n, found = k;
        if (n != 1) return nullptr;
        if (key != nullptr) *key = found;
        std::string text = found.size() > prefix.size() ? found.substr(prefix.size()) : "";
        held_ = mom_mem_get(mom_, db, desc, text);
        return reinterpret_cast<T *>(held_.get());
    }
    size_t count(uint32_t db, const ProtobufCMessageDescriptor *desc) {
        return mom_mem_count_records(mom_, db, desc);
    }
    uint32_t rows(ce_l3vpn_err_code_t c) { return ce_l3vpn_err_tbl[c].count; }

    tq_mom_client_t *mom_ = nullptr;
    tq_global_t ctx_{};
    mom_mem_msg_ptr held_;
    std::string log_;
};

TEST_F(ProtoOpTest, FtnRouteCarriesPrefixNextHopTunnelAndId) {
    nodes_t n(CE_OWNER_FTN, CE_PRO_IPV6);
    n.app.key.ftn = {CE_PRO_IPV4, 24, {}, 5, {192, 0, 2, 0}};
    ASSERT_EQ(0, ce_l3vpn_app_op_call_ef(&n.nhop, 1));
    std::string key;
    auto *r = only<SRoute__CommRt>(6, &s_route__comm_rt__descriptor, &key);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ("s_route.comm_rt|1|5|v4:192.0.2.0|24|9|v6:2001::2|0|v6:::1|4294967297", key);
    EXPECT_EQ(S_ROUTE__ROUTE_TYPE_E__NETWORK, r->rt_type);
    EXPECT_EQ((std::vector<uint32_t>{3, 2, 0, 6, 0}),
              (std::vector<uint32_t>{r->weight, r->priority, r->nh_ifx_vrf, r->nh_ifx_type, r->fast_switch_id}));
    EXPECT_EQ(1u, rows(CE_ERR_HW_FTN_RT_ADD));
    EXPECT_TRUE(has(log(), ": hw add ftn to ef"));

    ASSERT_EQ(0, ce_l3vpn_app_op_call_ef(&n.nhop, 0));
    EXPECT_EQ(0u, count(6, &s_route__comm_rt__descriptor));
    EXPECT_EQ(1u, rows(CE_ERR_HW_FTN_RT_DEL));
    EXPECT_EQ(0u, rows(CE_ERR_HW_FTN_RT));
}

struct vir_case_t {
    uint32_t owner;
    uint8_t pro;
    const char *key_text;  // the Redis key the lower layers look for: names the whole entry
};

class VirRouteTest : public ProtoOpTest, public ::testing::WithParamInterface<vir_case_t> {};

TEST_P(VirRouteTest, KeyNamesTheEntry) {
    const vir_case_t &c = GetParam();
    nodes_t n(c.owner, c.pro);
    n.app.key.ilm.inlabel = 0x12345;  // shares its place with the VC-FTN vc_ifx
    n.in_adj.data.vc_ifx = 77;
    ASSERT_EQ(0, ce_l3vpn_app_op_call_ef(&n.nhop, 1));
    std::string key;
    auto *r = only<SRoute__VirRt>(6, &s_route__vir_rt__descriptor, &key);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(c.key_text, key);
    bool ilm = c.owner == CE_OWNER_ILM;
    EXPECT_EQ(3u + 2u, r->weight + r->priority);
    EXPECT_EQ(P_INTF__INTFTYPE_E__UNKNOWN, r->iftype);
    EXPECT_EQ(1u, rows(ilm ? CE_ERR_HW_ILM_VIR_RT_ADD : CE_ERR_HW_VC_FTN_VIR_RT_ADD));
    EXPECT_TRUE(has(
        log(), ilm ? ": hw add ilm virtual route to ef" : ": hw add l2vpn virtual route to ef"));
}

INSTANTIATE_TEST_SUITE_P(
    Addresses, VirRouteTest,
    ::testing::Values(
        vir_case_t{CE_OWNER_ILM, CE_PRO_IPV4,
                   "s_route.vir_rt|7|0|32|0|v4:231.1.35.69|9|v4:10.0.0.2|0|0|v4:127.0.0.1|4294967297"},
        vir_case_t{CE_OWNER_ILM, CE_PRO_IPV6,
                   "s_route.vir_rt|7|1|128|0|v6:ff07:0:1:2345::|9|v6:2001::2|1|0|v6:::1|4294967297"},
        vir_case_t{CE_OWNER_VC_FTN, CE_PRO_IPV4,
                   "s_route.vir_rt|8|0|32|74565|v4:232.0.0.0|9|v4:10.0.0.2|0|77|v4:127.0.0.1|4294967297"},
        vir_case_t{CE_OWNER_VC_FTN, CE_PRO_IPV6,
                   "s_route.vir_rt|8|1|128|74565|v6:ff08::|9|v6:2001::2|1|77|v6:::1|4294967297"}));

TEST_F(ProtoOpTest, UnknownOwnerWritesNothing) {
    nodes_t n(4, CE_PRO_IPV4);
    EXPECT_EQ(1, ce_l3vpn_app_op_call_ef(&n.nhop, 1));
    EXPECT_EQ(1u, rows(CE_ERR_UNKNOWN_OWNER));
    EXPECT_TRUE(mom_mem_keys(mom_, 6).empty());
    EXPECT_TRUE(has(log(), "fail:0 code:38 FATAL ERROR ! unknown owner:4"));
    EXPECT_EQ(0, ce_l3vpn_in_adj_op_call_uc(&n.in_adj, 1, 255));
    EXPECT_TRUE(mom_mem_keys(mom_, 10).empty());
}

struct adj_case_t {
    uint32_t owner;
    uint32_t rt_owner;
    const char *log;
    ce_l3vpn_err_code_t add_row;
};

class InSubAdjTest : public ProtoOpTest, public ::testing::WithParamInterface<adj_case_t> {};

TEST_P(InSubAdjTest, AdjacencyRecord) {
    const adj_case_t &c = GetParam();
    nodes_t n(c.owner, CE_PRO_IPV4);
    n.in_adj.data = ce_msg_data_t{CE_OP_PUSH, 2, {}, {100, 200, 300}, {4}, {5}, 1, 66};
    ASSERT_EQ(0, ce_l3vpn_in_adj_op_call_uc(&n.in_adj, 1, 255));
    auto *r = only<SRoute__InSubAdj>(10, &s_route__in_sub_adj__descriptor);
    ASSERT_NE(nullptr, r);
    bool vc = c.owner == CE_OWNER_VC_FTN;
    EXPECT_EQ(c.rt_owner, r->index->t_rt_owner);
    EXPECT_EQ(vc ? 66u : 0u, r->index->ifx);
    EXPECT_EQ(kLocalV4, ip_bytes(r->index->ip));
    EXPECT_EQ(0x100000001ull, r->index->mplsid);
    EXPECT_EQ((std::vector<uint32_t>{255, 0, vc ? 4u : 0u, vc ? 5u : 0u, vc ? 1u : 0u, 1, 0}),
              (std::vector<uint32_t>{r->ttl, r->exp, r->vc_mode, r->sd_vid, r->cw, r->opcode,
                                     r->ext_mode + r->vrf + r->mask_len + r->stat_id}));
    EXPECT_EQ((std::vector<uint32_t>{100, 200}), std::vector<uint32_t>(r->labels, r->labels + r->n_labels));
    EXPECT_EQ(1u, rows(c.add_row));
    EXPECT_TRUE(has(log(), c.log));

    ASSERT_EQ(0, ce_l3vpn_in_adj_op_call_uc(&n.in_adj, 0, 255));
    EXPECT_TRUE(mom_mem_keys(mom_, 10).empty());
}

INSTANTIATE_TEST_SUITE_P(
    Owners, InSubAdjTest,
    ::testing::Values(
        adj_case_t{CE_OWNER_FTN, 1, ": hw ftn add inner_adj to uc", CE_ERR_HW_FTN_IN_ADJ_ADD},
        adj_case_t{CE_OWNER_VC_FTN, 8, ": hw  vc_ftn add inner_adj to uc",
                   CE_ERR_HW_VC_FTN_IN_ADJ_ADD},
        adj_case_t{CE_OWNER_ILM, 7, ": hw ilm add inner_adj to uc", CE_ERR_HW_ILM_IN_ADJ_ADD}));

struct ilm_case_t {
    uint8_t opcode;
    uint32_t swap_label, vrf_id, vc_ifx;
};

class IlmInLabelTest : public ProtoOpTest, public ::testing::WithParamInterface<ilm_case_t> {};

TEST_P(IlmInLabelTest, OpcodeDecidesTheWords) {
    const ilm_case_t &c = GetParam();
    nodes_t n(CE_OWNER_ILM, CE_PRO_IPV4);
    n.app.key.ilm.inlabel = 4660;
    n.in_adj.data.opcode = c.opcode;
    n.in_adj.data.n_labels = 1;
    n.in_adj.data.labels[0] = 500;
    n.in_adj.data.vrf = 12;
    n.in_adj.data.ilm_vc_ifx = 34;
    ASSERT_EQ(0, ce_l3vpn_ilm_op_hw(&n.app, &n.in_adj, 1, 1));
    auto *r = only<UMpls__UdpIlm>(10, &u_mpls__udp_ilm__descriptor);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(4660u, r->index->in_label);
    EXPECT_EQ(c.opcode, r->opcode);
    EXPECT_EQ(c.swap_label, r->swap_label);
    EXPECT_EQ(c.vrf_id, r->vrf_id);
    EXPECT_EQ(c.vc_ifx, r->vc_ifx);
    EXPECT_TRUE(r->ttl_copy);
    ASSERT_EQ(0, ce_l3vpn_ilm_op_hw(&n.app, &n.in_adj, 0, 1));
    EXPECT_EQ(0u, count(10, &u_mpls__udp_ilm__descriptor));
    EXPECT_EQ(1u, rows(CE_ERR_HW_ILM_ADD));
    EXPECT_EQ(1u, rows(CE_ERR_HW_ILM_DEL));
}

INSTANTIATE_TEST_SUITE_P(Opcodes, IlmInLabelTest,
                         ::testing::Values(ilm_case_t{CE_OP_SWAP, 500, 0, 0},
                                           ilm_case_t{CE_OP_SWAP_PUSH, 500, 0, 0},
                                           ilm_case_t{CE_OP_POP_L3SWITCH, 0x100000, 12, 0},
                                           ilm_case_t{CE_OP_POP_DLVR_LOCAL, 0x100000, 12, 0},
                                           ilm_case_t{CE_OP_POP_L2DSTPORT, 0x100000, 0, 34},
                                           ilm_case_t{CE_OP_POP_L2SWITCH, 0x100000, 0, 34},
                                           ilm_case_t{CE_OP_POP_L3NEXTHOP, 0x100000, 0, 0}));

TEST_F(ProtoOpTest, SwitchesSetTrueAndDeleteOnDisable) {
    struct {
        int (*op)(uint8_t);
        const ProtobufCMessageDescriptor *desc;
        ce_l3vpn_err_code_t on, off;
        const char *log;
    } cases[] = {
        {ce_l3vpn_mpls_enable_hw_op, &u_mpls__udp_mpls_enable__descriptor, CE_ERR_HW_MPLS_ENABLE,
         CE_ERR_HW_MPLS_DISABLE, ": hw mpls disable to FE"},
        {ce_l3vpn_ttl_copy_hw_op, &u_mpls__udp_ttl_copy_enable__descriptor,
         CE_ERR_HW_TTL_COPY_ENABLE, CE_ERR_HW_TTL_COPY_DISABLE, ": hw ttl copy disable to FE"},
        {[](uint8_t on) { return ce_l3vpn_lab_sw_hw_op(21, on); }, &u_mpls__udp_lab_sw__descriptor,
         CE_ERR_HW_LAB_SW_ENABLE, CE_ERR_HW_LAB_SW_DISABLE,
         ": hw ifx:21 label-switching disable to FE"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.desc->name);
        ASSERT_EQ(0, c.op(1));
        // enable is field 5 of every switch record; the lab_sw key sits in front of it.
        auto *m = only<ProtobufCMessage>(8, c.desc);
        ASSERT_NE(nullptr, m);
        const ProtobufCFieldDescriptor *f =
            protobuf_c_message_descriptor_get_field_by_name(c.desc, "enable");
        EXPECT_TRUE(*reinterpret_cast<const protobuf_c_boolean *>(
            reinterpret_cast<const char *>(m) + f->offset));
        ASSERT_EQ(0, c.op(0));
        EXPECT_EQ(0u, count(8, c.desc));
        EXPECT_EQ(1u, rows(c.on));
        EXPECT_EQ(1u, rows(c.off));
        EXPECT_TRUE(has(log(), c.log));
    }
    EXPECT_EQ(3u,
              mom_mem_op_count(mom_, MOM_MEM_OP_SET));  // the enables only: false is never written
}

TEST_F(ProtoOpTest, FailedWritesCountBothRows) {
    nodes_t n(CE_OWNER_FTN, CE_PRO_IPV4);
    mom_mem_fail_next(mom_, MOM_MEM_OP_SET, 1, TQ_MOM_ERR);
    EXPECT_NE(0, ce_l3vpn_app_op_call_ef(&n.nhop, 1));
    EXPECT_EQ(1u, rows(CE_ERR_HW_FTN_RT_ADD));
    EXPECT_EQ(1u, rows(CE_ERR_HW_FTN_RT));
    EXPECT_EQ(0u, count(6, &s_route__comm_rt__descriptor));
    EXPECT_TRUE(has(log(), ": fail:rv == SS_E_NONE code:70 "));

    mom_mem_fail_next(mom_, MOM_MEM_OP_DEL, 1, TQ_MOM_ERR);
    EXPECT_NE(0, ce_l3vpn_mpls_enable_hw_op(0));
    EXPECT_EQ(1u, rows(CE_ERR_HW_MPLS_DISABLE));
    EXPECT_EQ(1u, rows(CE_ERR_HW_MPLS_OP));
    EXPECT_TRUE(has(log(), ": fail:rv == SS_E_NONE code:61 "));
}

TEST_F(ProtoOpTest, LocalTunnelAddressFromEnvironment) {
    nodes_t n(CE_OWNER_FTN, CE_PRO_IPV4);
    setenv("L3VPN_LOCAL_TNL_V4", "192.0.2.7", 1);
    setenv("L3VPN_LOCAL_TNL_V6", "not-an-address", 1);
    ce_l3vpn_proto_op_init();
    unsetenv("L3VPN_LOCAL_TNL_V4");
    unsetenv("L3VPN_LOCAL_TNL_V6");
    ASSERT_EQ(0, ce_l3vpn_in_adj_op_call_uc(&n.in_adj, 1, 0));
    auto *r = only<SRoute__InSubAdj>(10, &s_route__in_sub_adj__descriptor);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(bytes({192, 0, 2, 7}), ip_bytes(r->index->ip));
    EXPECT_EQ(0u, r->ttl);
    n.in_adj.pro = CE_PRO_IPV6;  // the v6 form kept its default
    ASSERT_EQ(0, ce_l3vpn_in_adj_op_call_uc(&n.in_adj, 1, 0));
    EXPECT_EQ(2u, count(10, &s_route__in_sub_adj__descriptor));
    EXPECT_TRUE(has(log(), "bad L3VPN_LOCAL_TNL_V6:not-an-address, ignored"));
}
}  // namespace
