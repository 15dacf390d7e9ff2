// Records written into the input tables, through the table client and the
// handlers, into the forwarding state and the lower layers' records. Output
// keys are compared as key texts: every key field, in field order.
#include "app/proc/ce_l3vpn_msg_parse.h"
#include "daemon/daemon_fixture.h"

namespace {
using strs = std::vector<std::string>;
const ProtobufCMessageDescriptor *const kCommRt = &s_route__comm_rt__descriptor;
const ProtobufCMessageDescriptor *const kVirRt = &s_route__vir_rt__descriptor;
const ProtobufCMessageDescriptor *const kAdj = &s_route__in_sub_adj__descriptor;

TEST_F(DaemonTest, EveryInputReachesItsHandlerAndEndsAsOutputRecords) {
    PMpls__MomConfGlobalEnable mpls = P_MPLS__MOM_CONF_GLOBAL_ENABLE__INIT;
    mpls.mpls_enable = 1;
    PMpls__MomConfVpnTtl ttl = P_MPLS__MOM_CONF_VPN_TTL__INIT;
    ttl.vpn_ttl_enable = 1;
    PMpls__LabelSwitchIndex ls_idx = P_MPLS__LABEL_SWITCH_INDEX__INIT;
    ls_idx.ifx = 33;
    PMpls__MomConfLabelSwitch ls = P_MPLS__MOM_CONF_LABEL_SWITCH__INIT;
    ls.index = &ls_idx;
    ls.enable = 2;  // any non-zero value switches it on
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
        {4, &ls.base, CE_ERR_LAB_SW_ENABLE, CE_ERR_LAB_SW_DISABLE},
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
              mom_mem_keys(mom(), 8));

    // owner|vrf|prefix|mask|nh_ifx|nh_ip|tnl_ifx|tnl_dip|mpls_id
    const std::string rt_key = "1|5|v4:192.0.2.0|24|7|v4:10.1.1.1|0|v4:127.0.0.1|1";
    EXPECT_EQ(strs{rt_key}, keys(6, kCommRt));
    EXPECT_EQ(1u, get<SRoute__CommRt>(6, kCommRt, rt_key)->weight);

    // owner|protocol|mask|vrf|ip|nh_ifx|nh_ip|nh_proto|tnl_ifx|tnl_dip|mpls_id
    EXPECT_EQ((strs{"7|0|32|0|v4:231.1.35.69|8|v4:10.1.1.2|0|0|v4:127.0.0.1|3",
                    "8|0|32|40|v4:232.0.0.0|9|v4:10.1.1.3|0|40|v4:127.0.0.1|2"}), keys(6, kVirRt));

    // owner|ifx|protocol|ip|mplsid; TTL copy is on: FTN and ILM carry 0, VC-FTN 255.
    EXPECT_EQ((strs{"1|0|0|v4:127.0.0.1|1", "7|0|0|v4:127.0.0.1|3", "8|40|0|v4:127.0.0.1|2"}),
              keys(10, kAdj));
    auto *ftn_adj = get<SRoute__InSubAdj>(10, kAdj, "1|0|0|v4:127.0.0.1|1");
    EXPECT_EQ(0u, ftn_adj->ttl);
    EXPECT_EQ(100u, ftn_adj->labels[0]);
    auto *vc_adj = get<SRoute__InSubAdj>(10, kAdj, "8|40|0|v4:127.0.0.1|2");
    EXPECT_EQ(255u, vc_adj->ttl);
    EXPECT_EQ(4u + 12u + 1u, vc_adj->vc_mode + vc_adj->sd_vid + vc_adj->cw);
    ASSERT_EQ(2u, vc_adj->n_labels);
    EXPECT_EQ(301u, vc_adj->labels[1]);

    auto *fe_ilm = get<UMpls__UdpIlm>(10, &u_mpls__udp_ilm__descriptor, "74565");
    ASSERT_NE(fe_ilm, nullptr);
    EXPECT_EQ(200u, fe_ilm->swap_label);
    EXPECT_TRUE(fe_ilm->ttl_copy);

    for (const step_t &s : steps) {
        drop(s.db, s.rec);
        EXPECT_EQ(1u, rows(s.del_row)) << s.rec->descriptor->name;
    }
    for (uint32_t db : {6u, 8u, 10u}) EXPECT_TRUE(mom_mem_keys(mom(), db).empty()) << db;
    EXPECT_EQ(strs{"p_mpls.mom_conf_fwd_ability"}, mom_mem_keys(mom(), 4));
}

// The handler of each failing or refused record, the row that names the failure.
struct refused_t {
    const ProtobufCMessage *rec;
    ss_rt_tbl_func_t add;
    ce_l3vpn_err_code_t row;
    uint32_t owner;
};

TEST_F(DaemonTest, ParseFailureLeavesNoTrace) {
    ftn_w ftn("192.0.2.0", 24, "10.1.1.1", 7, CE_OP_PUSH, {100});
    ftn.idx.bsid = 9;
    ilm_w ilm(0x100000, "10.1.1.2", 8, CE_OP_SWAP, {200});  // in-label beyond 20 bits
    const refused_t cases[] = {{&ftn.msg.base, ce_l3_ftn_add, CE_ERR_FTN_ADD, CE_OWNER_FTN},
                               {&ilm.msg.base, ce_l3_ilm_add, CE_ERR_ILM_ADD, CE_OWNER_ILM}};
    for (const refused_t &c : cases) {
        SCOPED_TRACE(c.rec->descriptor->name);
        EXPECT_EQ(CE_MSG_PARSE_INVALID, c.add(const_cast<ProtobufCMessage *>(c.rec), nullptr));
        EXPECT_EQ(1u, rows(CE_ERR_APP_GET_RV));
        put(6, c.rec);  // and through the table client
        EXPECT_EQ(2u, rows(CE_ERR_APP_GET_RV));
        EXPECT_EQ(0u, rows(c.row));  // the success row is not reached
        EXPECT_EQ(0u, entries(c.owner));
        clear_rows();
    }
    EXPECT_TRUE(mom_mem_keys(mom(), 10).empty());
    EXPECT_EQ(2u, mom_mem_keys(mom(), 6).size());  // the two inputs only
}

TEST_F(DaemonTest, AddFailingItsCheckStillSucceedsForTheTableClient) {
    ftn_w swap("192.0.2.0", 24, "10.1.1.1", 7, CE_OP_SWAP, {100});
    ftn_w zero_nh("192.0.2.0", 24, "0.0.0.0", 5, CE_OP_SWAP, {100});  // next hop before opcode
    vc_ftn_w vc_pop(40, "10.1.1.3", 9, {});
    vc_pop.msg.opcode = CE_OP_POP;
    ilm_w swap_push(500, "10.1.1.2", 8, CE_OP_SWAP_PUSH, {200});
    ilm_w l2_pop(501, "0.0.0.0", 0, CE_OP_POP_L2SWITCH, {});  // no vc_ifx
    const refused_t cases[] = {
        {&swap.msg.base, ce_l3_ftn_add, CE_ERR_OPCODE, CE_OWNER_FTN},
        {&zero_nh.msg.base, ce_l3_ftn_add, CE_ERR_NHOP_EMPTY, CE_OWNER_FTN},
        {&vc_pop.msg.base, ce_l3_vc_ftn_add, CE_ERR_OPCODE, CE_OWNER_VC_FTN},
        {&swap_push.msg.base, ce_l3_ilm_add, CE_ERR_LABEL_DEPTH, CE_OWNER_ILM},
        {&l2_pop.msg.base, ce_l3_ilm_add, CE_ERR_VC_IFX_ZERO, CE_OWNER_ILM},
    };
    for (const refused_t &c : cases) {
        EXPECT_EQ(0, c.add(const_cast<ProtobufCMessage *>(c.rec), nullptr));
        EXPECT_EQ(1u, rows(c.row)) << c.row;
        EXPECT_EQ(1u, rows(CE_ERR_APP_GET_RV)) << c.row;
        EXPECT_EQ(0u, entries(c.owner)) << c.row;
        clear_rows();
    }
    EXPECT_TRUE(mom_mem_keys(mom(), 10).empty());
    EXPECT_TRUE(has(take_log(), "fail:mpls_is_opcode_with_ftn(data->opcode) code:26 3"));
}

TEST_F(DaemonTest, DeleteIsNeverChecked) {
    ilm_w ilm(500, "10.1.1.2", 8, CE_OP_SWAP_PUSH, {200});  // one label: refused on add
    put(6, &ilm.msg.base);
    EXPECT_EQ(1u, rows(CE_ERR_LABEL_DEPTH));
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
    EXPECT_TRUE(mom_mem_keys(mom(), 10).empty());
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
