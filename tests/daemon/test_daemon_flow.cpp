// Records written into the input tables, through the table client and the
// handlers, into the forwarding state and the lower layers' records. Output
// keys are compared as key texts: every key field, in field order.
#include "app/proc/ce_l3vpn_msg_parse.h"
#include "daemon/daemon_fixture.h"

namespace {
using strs = std::vector<std::string>;
using u32s = std::vector<uint32_t>;

TEST_F(DaemonTest, EveryInputReachesItsHandlerAndEndsAsOutputRecords) {
    const struct {
        json rec;
        ce_l3vpn_err_code_t add_row, del_row;
    } steps[] = {
        {{{"table", "p_mpls.mom_conf_global_enable"}, {"mpls_enable", true}}, CE_ERR_MPLS_ENABLE,
         CE_ERR_MPLS_DISABLE},
        {{{"table", "p_mpls.mom_conf_vpn_ttl"}, {"vpn_ttl_enable", true}}, CE_ERR_TTL_COPY_ENABLE,
         CE_ERR_TTL_COPY_DISABLE},
        // Any non-zero value switches it on.
        {{{"table", "p_mpls.mom_conf_label_switch"}, {"index", {{"ifx", 33}}}, {"enable", 2}},
         CE_ERR_LAB_SW_ENABLE, CE_ERR_LAB_SW_DISABLE},
        {e2e_ftn(5, "192.0.2.0", 24, 7, "10.1.1.1", {100}), CE_ERR_FTN_ADD, CE_ERR_FTN_DEL},
        {e2e_vc_ftn(40, "10.1.1.3", 9, {300, 301}, 4, 12, 1), CE_ERR_VC_FTN_ADD, CE_ERR_VC_FTN_DEL},
        {e2e_ilm(0x12345, "10.1.1.2", 8, {200}, CE_OP_SWAP), CE_ERR_ILM_ADD, CE_ERR_ILM_DEL},
    };
    for (const auto &s : steps) {
        put(s.rec);
        EXPECT_EQ(1u, rows(s.add_row)) << s.rec["table"];
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

    for (const auto &s : steps) {
        drop(s.rec);
        EXPECT_EQ(1u, rows(s.del_row)) << s.rec["table"];
    }
    for (uint32_t db : {6u, 8u, 10u}) EXPECT_TRUE(mom_mem_keys(mom_, db).empty()) << db;
    EXPECT_EQ(strs{"p_mpls.mom_conf_fwd_ability"}, mom_mem_keys(mom_, 4));
}

// A record that does not parse is refused; one that parses but fails its check
// still succeeds for the table client. Either way nothing is added, and the
// refusal's log line says why.
TEST_F(DaemonTest, RefusedAddsLeaveNoTrace) {
    json bsid = e2e_ftn(5, "192.0.2.0", 24, 7, "10.1.1.1", {100});
    bsid["index"]["bsid"] = 9;
    json vc_pop = e2e_vc_ftn(40, "10.1.1.3", 9, {});
    vc_pop["opcode"] = CE_OP_POP;
    const struct {
        json rec;
        ss_rt_tbl_func_t add;
        int rv;
        ce_l3vpn_err_code_t row;
        const char *log;
    } cases[] = {
        {bsid, ce_l3_ftn_add, CE_MSG_PARSE_INVALID, CE_ERR_APP_GET_RV,
         "fail:ftn->index->bsid == 0 code:25 bsid = 9\n"},
        // In-label beyond 20 bits.
        {e2e_ilm(0x100000, "10.1.1.2", 8, {200}, CE_OP_SWAP), ce_l3_ilm_add, CE_MSG_PARSE_INVALID,
         CE_ERR_LABEL_INVALID,
         "fail:SS_MPLS_CHECK_LABEL_VALID(ilm->index->in_label) code:24 in_labels:1048576\n"},
        {e2e_ftn(5, "192.0.2.0", 24, 7, "10.1.1.1", {100}, CE_OP_SWAP), ce_l3_ftn_add, 0, CE_ERR_OPCODE,
         "fail:mpls_is_opcode_with_ftn(data->opcode) code:26 3\n"},
        // The next hop is checked before the opcode.
        {e2e_ftn(5, "192.0.2.0", 24, 5, "0.0.0.0", {100}, CE_OP_SWAP), ce_l3_ftn_add, 0,
         CE_ERR_NHOP_EMPTY,
         "fail:mpls_is_ip_zero(&ftn->nhop.nh_ip, ftn->nhop.pro) == false && ftn->nhop.nh_ifx != 0 code:27 \n"},
        {vc_pop, ce_l3_vc_ftn_add, 0, CE_ERR_OPCODE,
         "fail:mpls_is_opcode_with_vc_ftn(data->opcode) code:26 2\n"},
        {e2e_ilm(500, "10.1.1.2", 8, {200}, CE_OP_SWAP_PUSH), ce_l3_ilm_add, 0, CE_ERR_LABEL_DEPTH,
         "fail:data->n_labels > 1 code:23 opcode with more than 1 label\n"},
        // No vc_ifx.
        {e2e_ilm(501, "0.0.0.0", 0, {}, CE_OP_POP_L2SWITCH), ce_l3_ilm_add, 0, CE_ERR_VC_IFX_ZERO,
         "fail:data->vc_ifx != 0 code:29 \n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.log);
        EXPECT_EQ(c.rv, c.add(wire(c.rec), nullptr));
        EXPECT_EQ(1u, rows(c.row));
        EXPECT_EQ(1u, rows(CE_ERR_APP_GET_RV));
        // The handler's own row counts only what parses.
        EXPECT_EQ(c.rv == 0 ? 1u : 0u, rows(CE_ERR_FTN_ADD) + rows(CE_ERR_VC_FTN_ADD) + rows(CE_ERR_ILM_ADD));
        EXPECT_EQ(0u, entries(CE_OWNER_FTN) + entries(CE_OWNER_VC_FTN) + entries(CE_OWNER_ILM));
        EXPECT_TRUE(has(take_log(), c.log));
        clear_rows();
    }
    EXPECT_TRUE(mom_mem_keys(mom_, 6).empty() && mom_mem_keys(mom_, 10).empty());
}

TEST_F(DaemonTest, DeleteIsNeverChecked) {
    const json ilm = e2e_ilm(500, "10.1.1.2", 8, {200}, CE_OP_SWAP_PUSH);  // one label: refused on add
    put(ilm);
    ASSERT_EQ(0u, entries(CE_OWNER_ILM));
    ce_msg_comm_t m;  // the same entry in place, as an earlier run left it
    ASSERT_EQ(0, ce_l3vpn_msg_ilm_parse(&m, reinterpret_cast<PMpls__MomMsgIlm *>(wire(ilm)), 1));
    ASSERT_EQ(0, ce_l3vpn_app_add(&m));
    ASSERT_EQ(1u, entries(CE_OWNER_ILM));
    clear_rows();
    drop(ilm);
    EXPECT_EQ(1u, rows(CE_ERR_ILM_DEL));
    EXPECT_EQ(0u, rows(CE_ERR_LABEL_DEPTH) + rows(CE_ERR_APP_GET_RV));
    EXPECT_EQ(0u, entries(CE_OWNER_ILM));
    EXPECT_TRUE(mom_mem_keys(mom_, 10).empty());
}

TEST_F(DaemonTest, Ipv4MappedNextHopIsConvertedForAddsAndDeletes) {
    const json ftn = e2e_ftn(5, "192.0.2.0", 24, 7, "::ffff:10.1.1.1", {100});
    put(ftn);
    ASSERT_EQ(1u, keys(6, kCommRt).size());
    EXPECT_TRUE(has(keys(6, kCommRt)[0], "|7|v4:10.1.1.1|"));
    EXPECT_TRUE(has(take_log(), "nhop is ipv4-mapped-ipv6 ::ffff:10.1.1.1, convert to ipv4"));
    drop(ftn);  // the delete finds the IPv4 next hop
    EXPECT_EQ(0u, entries(CE_OWNER_FTN));
    EXPECT_TRUE(keys(6, kCommRt).empty());
}
}  // namespace
