// Records written into the input tables, through the table client and the
// handlers, into the forwarding state and the lower layers' records. Output
// keys are compared as key texts: every key field, in field order.
#include "app/proc/ce_l3vpn_msg_parse.h"
#include "daemon/daemon_fixture.h"

namespace {
using strs = std::vector<std::string>;
using u32s = std::vector<uint32_t>;

TEST_F(DaemonTest, EveryInputReachesItsHandlerAndEndsAsOutputRecords) {
    PMpls__MomConfGlobalEnable mpls = P_MPLS__MOM_CONF_GLOBAL_ENABLE__INIT;
    mpls.mpls_enable = 1;
    PMpls__MomConfVpnTtl ttl = P_MPLS__MOM_CONF_VPN_TTL__INIT;
    ttl.vpn_ttl_enable = 1;
    auto *ls = keyed<PMpls__MomConfLabelSwitch>(&p_mpls__mom_conf_label_switch__descriptor, "33|0");
    ls->enable = 2;  // any non-zero value switches it on
    ftn_w ftn("192.0.2.0", 24, "10.1.1.1", 7, CE_OP_PUSH, {100});
    vc_ftn_w vc(40, "10.1.1.3", 9, {300, 301});
    ilm_w ilm(0x12345, "10.1.1.2", 8, CE_OP_SWAP, {200});
    struct step_t {
        uint32_t db;
        const ProtobufCMessage *rec;
        ce_l3vpn_err_code_t add_row, del_row;
    } const steps[] = {
        {4, &mpls.base, CE_ERR_MPLS_ENABLE, CE_ERR_MPLS_DISABLE},
        {4, &ttl.base, CE_ERR_TTL_COPY_ENABLE, CE_ERR_TTL_COPY_DISABLE},
        {4, &ls->base, CE_ERR_LAB_SW_ENABLE, CE_ERR_LAB_SW_DISABLE},
        {6, &ftn.msg.base, CE_ERR_FTN_ADD, CE_ERR_FTN_DEL},
        {6, &vc.msg.base, CE_ERR_VC_FTN_ADD, CE_ERR_VC_FTN_DEL},
        {6, &ilm.msg.base, CE_ERR_ILM_ADD, CE_ERR_ILM_DEL},
    };
    for (const step_t &s : steps) {
        put(s.db, s.rec);
        EXPECT_EQ(1u, rows(s.add_row)) << s.rec->descriptor->name;
    }
    EXPECT_EQ(0u, rows(CE_ERR_APP_GET_RV));
    EXPECT_EQ((strs{"u_mpls.udp_lab_sw|33", "u_mpls.udp_mpls_enable", "u_mpls.udp_ttl_copy_enable"}),
              mom_mem_keys(mom_, 8));

    // owner|vrf|prefix|mask|nh_ifx|nh_ip|tnl_ifx|tnl_dip|mpls_id
    const std::string rt_key = "1|5|v4:192.0.2.0|24|7|v4:10.1.1.1|0|v4:127.0.0.1|1";
    EXPECT_EQ(strs{rt_key}, keys(6, kCommRt));
    EXPECT_EQ(1u, get<SRoute__CommRt>(6, kCommRt, rt_key)->weight);
    // owner|protocol|mask|vrf|ip|nh_ifx|nh_ip|nh_proto|tnl_ifx|tnl_dip|mpls_id
    EXPECT_EQ((strs{"7|0|32|0|v4:231.1.35.69|8|v4:10.1.1.2|0|0|v4:127.0.0.1|3",
                    "8|0|32|40|v4:232.0.0.0|9|v4:10.1.1.3|0|40|v4:127.0.0.1|2"}), keys(6, kVirRt));
    // owner|ifx|protocol|ip|mplsid
    EXPECT_EQ((strs{"1|0|0|v4:127.0.0.1|1", "7|0|0|v4:127.0.0.1|3", "8|40|0|v4:127.0.0.1|2"}),
              keys(10, kAdj));
    EXPECT_EQ(u32s{100}, labels_of(get<SRoute__InSubAdj>(10, kAdj, "1|0|0|v4:127.0.0.1|1")));
    auto *vc_adj = get<SRoute__InSubAdj>(10, kAdj, "8|40|0|v4:127.0.0.1|2");
    EXPECT_EQ((u32s{300, 301}), labels_of(vc_adj));
    EXPECT_EQ((u32s{4, 12, 1}), (u32s{vc_adj->vc_mode, vc_adj->sd_vid, vc_adj->cw}));
    auto *fe_ilm = get<UMpls__UdpIlm>(10, kIlm, "74565");
    ASSERT_NE(fe_ilm, nullptr);
    EXPECT_EQ(200u, fe_ilm->swap_label);

    for (const step_t &s : steps) {
        drop(s.db, s.rec);
        EXPECT_EQ(1u, rows(s.del_row)) << s.rec->descriptor->name;
    }
    for (uint32_t db : {6u, 8u, 10u}) EXPECT_TRUE(mom_mem_keys(mom_, db).empty()) << db;
    EXPECT_EQ(strs{"p_mpls.mom_conf_fwd_ability"}, mom_mem_keys(mom_, 4));
}

// A record that does not parse is refused; one that parses but fails its check
// still succeeds for the table client. Either way nothing is added.
TEST_F(DaemonTest, RefusedAddsLeaveNoTrace) {
    ftn_w bsid("192.0.2.0", 24, "10.1.1.1", 7, CE_OP_PUSH, {100});
    bsid.idx.bsid = 9;
    ilm_w wide(0x100000, "10.1.1.2", 8, CE_OP_SWAP, {200});  // in-label beyond 20 bits
    ftn_w swap("192.0.2.0", 24, "10.1.1.1", 7, CE_OP_SWAP, {100});
    ftn_w zero_nh("192.0.2.0", 24, "0.0.0.0", 5, CE_OP_SWAP, {100});  // next hop before opcode
    vc_ftn_w vc_pop(40, "10.1.1.3", 9, {});
    vc_pop.msg.opcode = CE_OP_POP;
    ilm_w swap_push(500, "10.1.1.2", 8, CE_OP_SWAP_PUSH, {200});
    ilm_w l2_pop(501, "0.0.0.0", 0, CE_OP_POP_L2SWITCH, {});  // no vc_ifx
    const struct {
        const ProtobufCMessage *rec;
        ss_rt_tbl_func_t add;
        int rv;
        ce_l3vpn_err_code_t row;
    } cases[] = {
        {&bsid.msg.base, ce_l3_ftn_add, CE_MSG_PARSE_INVALID, CE_ERR_APP_GET_RV},
        {&wide.msg.base, ce_l3_ilm_add, CE_MSG_PARSE_INVALID, CE_ERR_APP_GET_RV},
        {&swap.msg.base, ce_l3_ftn_add, 0, CE_ERR_OPCODE},
        {&zero_nh.msg.base, ce_l3_ftn_add, 0, CE_ERR_NHOP_EMPTY},
        {&vc_pop.msg.base, ce_l3_vc_ftn_add, 0, CE_ERR_OPCODE},
        {&swap_push.msg.base, ce_l3_ilm_add, 0, CE_ERR_LABEL_DEPTH},
        {&l2_pop.msg.base, ce_l3_ilm_add, 0, CE_ERR_VC_IFX_ZERO},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.rv, c.add(const_cast<ProtobufCMessage *>(c.rec), nullptr)) << c.row;
        EXPECT_EQ(1u, rows(c.row)) << c.row;
        EXPECT_EQ(1u, rows(CE_ERR_APP_GET_RV)) << c.row;
        // The handler's own row counts only what parses.
        EXPECT_EQ(c.rv == 0 ? 1u : 0u, rows(CE_ERR_FTN_ADD) + rows(CE_ERR_VC_FTN_ADD) + rows(CE_ERR_ILM_ADD))
            << c.row;
        EXPECT_EQ(0u, entries(CE_OWNER_FTN) + entries(CE_OWNER_VC_FTN) + entries(CE_OWNER_ILM));
        clear_rows();
    }
    EXPECT_TRUE(mom_mem_keys(mom_, 6).empty() && mom_mem_keys(mom_, 10).empty());
    EXPECT_TRUE(has(take_log(), "fail:mpls_is_opcode_with_ftn(data->opcode) code:26 3"));
}

TEST_F(DaemonTest, DeleteIsNeverChecked) {
    ilm_w ilm(500, "10.1.1.2", 8, CE_OP_SWAP_PUSH, {200});  // one label: refused on add
    put(6, &ilm.msg.base);
    ASSERT_EQ(0u, entries(CE_OWNER_ILM));
    ce_msg_comm_t m;  // the same entry in place, as an earlier run left it
    ASSERT_EQ(0, ce_l3vpn_msg_ilm_parse(&m, &ilm.msg, 1));
    ASSERT_EQ(0, ce_l3vpn_app_add(&m));
    ASSERT_EQ(1u, entries(CE_OWNER_ILM));
    clear_rows();
    drop(6, &ilm.msg.base);
    EXPECT_EQ(1u, rows(CE_ERR_ILM_DEL));
    EXPECT_EQ(0u, rows(CE_ERR_LABEL_DEPTH) + rows(CE_ERR_APP_GET_RV));
    EXPECT_EQ(0u, entries(CE_OWNER_ILM));
    EXPECT_TRUE(mom_mem_keys(mom_, 10).empty());
}

TEST_F(DaemonTest, Ipv4MappedNextHopIsConvertedForAddsAndDeletes) {
    ftn_w ftn("192.0.2.0", 24, "::ffff:10.1.1.1", 7, CE_OP_PUSH, {100});
    put(6, &ftn.msg.base);
    ASSERT_EQ(1u, keys(6, kCommRt).size());
    EXPECT_TRUE(has(keys(6, kCommRt)[0], "|7|v4:10.1.1.1|"));
    EXPECT_TRUE(has(take_log(), "nhop is ipv4-mapped-ipv6 ::ffff:10.1.1.1, convert to ipv4"));
    drop(6, &ftn.msg.base);  // the delete finds the IPv4 next hop
    EXPECT_EQ(0u, entries(CE_OWNER_FTN));
    EXPECT_TRUE(keys(6, kCommRt).empty());
}
}  // namespace
