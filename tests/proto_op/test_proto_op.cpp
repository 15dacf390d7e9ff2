// Lower-layer programming: every record as it lands in the MOM, by the key the
// lower layers look it up with and by its fields.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "app/proc/ce_l3vpn_proto_op.h"
#include "app/proc/ce_l3vpn_tbl.h"
#include "foundation/zlog_capture.h"
#include "platform/mom/tq_mom_mem.h"
#include "s_route.pb-c.h"
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
        nhop.nhop.pro = in_adj.pro = pro;
        if (pro == CE_PRO_IPV4)
            nhop.nhop.ip[0] = 10, nhop.nhop.ip[3] = 2;  // 10.0.0.2
        else
            nhop.nhop.ip[0] = 0x20, nhop.nhop.ip[1] = 0x01, nhop.nhop.ip[15] = 2;  // 2001::2
        nhop.nhop.ifx = 9;
        nhop.nhop_attr = {0, 6, 3, 2};    // vrf, ifx_type, weight, seq
        in_adj.mpls_id = 0x100000001ull;  // {high 1, low 1}
    }
};

class ProtoOpTest : public ::testing::Test {
protected:
    void SetUp() override {
        ss_rt_tbl_reset_for_test();
        ce_l3_table_init(&ctx_);
        for (ce_l3vpn_err_row_t &r : ce_l3vpn_err_tbl) r.count = 0;
        const uint8_t v4[16] = {127, 0, 0, 1}, v6[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
        ce_l3vpn_set_local_tnl_addr(v4, v6);
    }
    void TearDown() override {
        ss_rt_tbl_reset_for_test();
        mom_mem_free(mom_);
    }
    // The one record of a table, decoded, with its key; null if not exactly one.
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
    bool empty(uint32_t db) { return mom_mem_keys(mom_, db).empty(); }
    uint32_t rows(ce_l3vpn_err_code_t c) { return ce_l3vpn_err_tbl[c].count; }

    tq_mom_client_t *mom_ = mom_mem_new();
    tq_global_t ctx_ = mom_mem_ctx(mom_);
    mom_mem_msg_ptr held_;
    ZlogCapture log_;
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
    EXPECT_TRUE(has(log_.text(), ": hw add ftn to ef"));

    ASSERT_EQ(0, ce_l3vpn_app_op_call_ef(&n.nhop, 0));
    EXPECT_TRUE(empty(6));
    EXPECT_EQ(1u, rows(CE_ERR_HW_FTN_RT_DEL));
    EXPECT_EQ(0u, rows(CE_ERR_HW_FTN_RT));
}

// The virtual route's key names the whole entry: a multicast-form address made
// from the in-label (ILM) or a fixed one (VC-FTN), in the next hop's family.
TEST_F(ProtoOpTest, VirtualRouteKeys) {
    const struct {
        uint32_t owner;
        uint8_t pro;
        const char *key;
    } cases[] = {
        {CE_OWNER_ILM, CE_PRO_IPV4,
         "s_route.vir_rt|7|0|32|0|v4:231.1.35.69|9|v4:10.0.0.2|0|0|v4:127.0.0.1|4294967297"},
        {CE_OWNER_ILM, CE_PRO_IPV6,
         "s_route.vir_rt|7|1|128|0|v6:ff07:0:1:2345::|9|v6:2001::2|1|0|v6:::1|4294967297"},
        {CE_OWNER_VC_FTN, CE_PRO_IPV4,
         "s_route.vir_rt|8|0|32|74565|v4:232.0.0.0|9|v4:10.0.0.2|0|77|v4:127.0.0.1|4294967297"},
        {CE_OWNER_VC_FTN, CE_PRO_IPV6,
         "s_route.vir_rt|8|1|128|74565|v6:ff08::|9|v6:2001::2|1|77|v6:::1|4294967297"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.key);
        nodes_t n(c.owner, c.pro);
        n.app.key.ilm.inlabel = 0x12345;  // shares its place with the VC-FTN vc_ifx
        n.in_adj.data.vc_ifx = 77;
        ASSERT_EQ(0, ce_l3vpn_app_op_call_ef(&n.nhop, 1));
        std::string key;
        auto *r = only<SRoute__VirRt>(6, &s_route__vir_rt__descriptor, &key);
        ASSERT_NE(nullptr, r);
        EXPECT_EQ(c.key, key);
        EXPECT_EQ((std::vector<uint32_t>{3, 2}), (std::vector<uint32_t>{r->weight, r->priority}));
        EXPECT_EQ(P_INTF__INTFTYPE_E__UNKNOWN, r->iftype);
        ASSERT_EQ(0, ce_l3vpn_app_op_call_ef(&n.nhop, 0));
        EXPECT_TRUE(empty(6));
    }
    EXPECT_EQ(2u, rows(CE_ERR_HW_ILM_VIR_RT_ADD));
    EXPECT_EQ(2u, rows(CE_ERR_HW_VC_FTN_VIR_RT_DEL));
    EXPECT_TRUE(has(log_.text(), ": hw add ilm virtual route to ef"));
    EXPECT_TRUE(has(log_.text(), ": hw add l2vpn virtual route to ef"));
}

// Only the VC-FTN adjacency carries the pseudowire words; the ILM one carries its
// vrf and interface, so that the adjacency read back has the key it was made with.
TEST_F(ProtoOpTest, InnerAdjacencyPerOwner) {
    const struct {
        uint32_t owner;
        const char *key, *log;
        ce_l3vpn_err_code_t add_row;
    } cases[] = {
        {CE_OWNER_FTN, "s_route.in_sub_adj|1|0|0|v4:127.0.0.1|4294967297",
         ": hw ftn add inner_adj to uc", CE_ERR_HW_FTN_IN_ADJ_ADD},
        {CE_OWNER_VC_FTN, "s_route.in_sub_adj|8|66|0|v4:127.0.0.1|4294967297",
         ": hw  vc_ftn add inner_adj to uc", CE_ERR_HW_VC_FTN_IN_ADJ_ADD},
        {CE_OWNER_ILM, "s_route.in_sub_adj|7|5|0|v4:127.0.0.1|4294967297",
         ": hw ilm add inner_adj to uc", CE_ERR_HW_ILM_IN_ADJ_ADD},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.key);
        nodes_t n(c.owner, CE_PRO_IPV4);
        n.in_adj.data = ce_msg_data_t{CE_OP_PUSH, 2, {}, {100, 200, 300}, {4}, {5}, 1, 66};
        ASSERT_EQ(0, ce_l3vpn_in_adj_op_call_uc(&n.in_adj, 1, 255));
        std::string key;
        auto *r = only<SRoute__InSubAdj>(10, &s_route__in_sub_adj__descriptor, &key);
        ASSERT_NE(nullptr, r);
        EXPECT_EQ(c.key, key);
        bool vc = c.owner == CE_OWNER_VC_FTN, ilm = c.owner == CE_OWNER_ILM;
        EXPECT_EQ((std::vector<uint32_t>{255, 0, vc ? 4u : 0u, vc ? 5u : 0u, vc ? 1u : 0u, 1, ilm ? 4u : 0u}),
                  (std::vector<uint32_t>{r->ttl, r->exp, r->vc_mode, r->sd_vid, r->cw, r->opcode,
                                         r->ext_mode + r->vrf + r->mask_len + r->stat_id}));
        EXPECT_EQ((std::vector<uint32_t>{100, 200}), std::vector<uint32_t>(r->labels, r->labels + r->n_labels));
        EXPECT_EQ(1u, rows(c.add_row));
        EXPECT_TRUE(has(log_.text(), c.log));
        ASSERT_EQ(0, ce_l3vpn_in_adj_op_call_uc(&n.in_adj, 0, 255));
        EXPECT_TRUE(empty(10));
    }
}

// The opcode decides whether the swap label, the VRF or the VC interface is written.
TEST_F(ProtoOpTest, IlmInLabelWordsByOpcode) {
    const struct {
        uint8_t opcode;
        uint32_t swap_label, vrf_id, vc_ifx;
    } cases[] = {
        {CE_OP_SWAP, 500, 0, 0},
        {CE_OP_SWAP_PUSH, 500, 0, 0},
        {CE_OP_POP_L3SWITCH, 0x100000, 12, 0},
        {CE_OP_POP_DLVR_LOCAL, 0x100000, 12, 0},
        {CE_OP_POP_L2DSTPORT, 0x100000, 0, 34},
        {CE_OP_POP_L2SWITCH, 0x100000, 0, 34},
        {CE_OP_POP_L3NEXTHOP, 0x100000, 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(unsigned(c.opcode));
        nodes_t n(CE_OWNER_ILM, CE_PRO_IPV4);
        n.app.key.ilm.inlabel = 4660;
        n.in_adj.data = ce_msg_data_t{c.opcode, 1, {}, {500}, {12}, {34}, 0, 0};  // vrf, vc_ifx
        ASSERT_EQ(0, ce_l3vpn_ilm_op_hw(&n.app, &n.in_adj, 1, 1));
        auto *r = only<UMpls__UdpIlm>(10, &u_mpls__udp_ilm__descriptor);
        ASSERT_NE(nullptr, r);
        EXPECT_EQ((std::vector<uint32_t>{4660, c.opcode, c.swap_label, c.vrf_id, c.vc_ifx, 1}),
                  (std::vector<uint32_t>{r->index->in_label, r->opcode, r->swap_label, r->vrf_id,
                                         r->vc_ifx, uint32_t(r->ttl_copy)}));
        ASSERT_EQ(0, ce_l3vpn_ilm_op_hw(&n.app, &n.in_adj, 0, 1));
        EXPECT_TRUE(empty(10));
    }
    EXPECT_EQ(7u, rows(CE_ERR_HW_ILM_ADD));
    EXPECT_EQ(7u, rows(CE_ERR_HW_ILM_DEL));
}

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
        auto *m = only<ProtobufCMessage>(8, c.desc);
        ASSERT_NE(nullptr, m);
        const ProtobufCFieldDescriptor *f =
            protobuf_c_message_descriptor_get_field_by_name(c.desc, "enable");
        EXPECT_TRUE(*reinterpret_cast<const protobuf_c_boolean *>(
            reinterpret_cast<const char *>(m) + f->offset));
        ASSERT_EQ(0, c.op(0));
        EXPECT_TRUE(empty(8));
        EXPECT_EQ(1u, rows(c.on));
        EXPECT_EQ(1u, rows(c.off));
        EXPECT_TRUE(has(log_.text(), c.log));
    }
    // The enables only: false is never written.
    EXPECT_EQ(3u, mom_mem_op_count(mom_, MOM_MEM_OP_SET));
}

// A refused write counts its add or delete row and the error row on top; an
// unknown owner writes nothing.
TEST_F(ProtoOpTest, FailedWritesCountBothRows) {
    nodes_t bad(4, CE_PRO_IPV4);
    EXPECT_EQ(1, ce_l3vpn_app_op_call_ef(&bad.nhop, 1));
    EXPECT_EQ(1u, rows(CE_ERR_UNKNOWN_OWNER));
    EXPECT_TRUE(has(log_.text(), "fail:0 code:38 FATAL ERROR ! unknown owner:4"));
    EXPECT_EQ(0, ce_l3vpn_in_adj_op_call_uc(&bad.in_adj, 1, 255));
    EXPECT_TRUE(empty(6) && empty(10));

    nodes_t n(CE_OWNER_FTN, CE_PRO_IPV4);
    mom_mem_fail_next(mom_, MOM_MEM_OP_SET, 1, TQ_MOM_ERR);
    EXPECT_NE(0, ce_l3vpn_app_op_call_ef(&n.nhop, 1));
    EXPECT_EQ(1u, rows(CE_ERR_HW_FTN_RT_ADD));
    EXPECT_EQ(1u, rows(CE_ERR_HW_FTN_RT));
    EXPECT_TRUE(empty(6));
    EXPECT_TRUE(has(log_.text(), ": fail:rv == SS_E_NONE code:70 "));

    mom_mem_fail_next(mom_, MOM_MEM_OP_DEL, 1, TQ_MOM_ERR);
    EXPECT_NE(0, ce_l3vpn_mpls_enable_hw_op(0));
    EXPECT_EQ(1u, rows(CE_ERR_HW_MPLS_DISABLE));
    EXPECT_EQ(1u, rows(CE_ERR_HW_MPLS_OP));
    EXPECT_TRUE(has(log_.text(), ": fail:rv == SS_E_NONE code:61 "));
}

TEST_F(ProtoOpTest, LocalTunnelAddressFromEnvironment) {
    nodes_t n(CE_OWNER_FTN, CE_PRO_IPV4);
    setenv("L3VPN_LOCAL_TNL_V4", "192.0.2.7", 1);
    setenv("L3VPN_LOCAL_TNL_V6", "not-an-address", 1);
    ce_l3vpn_proto_op_init();
    unsetenv("L3VPN_LOCAL_TNL_V4");
    unsetenv("L3VPN_LOCAL_TNL_V6");
    ASSERT_EQ(0, ce_l3vpn_in_adj_op_call_uc(&n.in_adj, 1, 0));
    n.in_adj.pro = CE_PRO_IPV6;  // the v6 form kept its default
    ASSERT_EQ(0, ce_l3vpn_in_adj_op_call_uc(&n.in_adj, 1, 0));
    EXPECT_EQ((std::vector<std::string>{"s_route.in_sub_adj|1|0|0|v4:192.0.2.7|4294967297",
                                        "s_route.in_sub_adj|1|0|1|v6:::1|4294967297"}),
              mom_mem_keys(mom_, 10));
    EXPECT_TRUE(has(log_.text(), "bad L3VPN_LOCAL_TNL_V6:not-an-address, ignored"));
}
}  // namespace
