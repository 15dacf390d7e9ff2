// Add and delete of FTN, VC-FTN and ILM next hops and the global switches,
// checked on what lands in the MOM and in the databases.
#include "app_fixture.h"
#include "app/proc/ce_l3vpn_refuse.h"

namespace {
using AppAddDelTest = AppTest;
using strs = std::vector<std::string>;

std::vector<uint32_t> nh_ifxs(const std::vector<SRoute__CommRt *> &rts) {
    std::vector<uint32_t> out;
    for (const SRoute__CommRt *r : rts) out.push_back(r->index->nh_ifx);
    std::sort(out.begin(), out.end());
    return out;
}

TEST_F(AppAddDelTest, FtnNextHopsShareOneInAdjUntilTheLastGoes) {
    ce_msg_comm_t m1 = ftn_msg(1, nh4(2, 9), CE_OP_PUSH, {100});
    ce_msg_comm_t m2 = ftn_msg(1, nh4(3, 10), CE_OP_PUSH, {100});
    ASSERT_EQ(0, ce_l3vpn_app_add(&m1));
    ASSERT_EQ(0, ce_l3vpn_app_add(&m2));
    EXPECT_EQ(strs{"1|0|0|v4:127.0.0.1|1"}, keys(10, kAdj));  // owner|ifx|protocol|ip|mplsid
    EXPECT_EQ(1u, rows(CE_ERR_HW_FTN_IN_ADJ_ADD));
    std::vector<SRoute__CommRt *> rts = ftn_routes();
    EXPECT_EQ((std::vector<uint32_t>{9, 10}), nh_ifxs(rts));
    for (const SRoute__CommRt *r : rts) EXPECT_EQ(1u, r->index->mpls_id);
    EXPECT_EQ(4, live_nodes());  // app, two nhops, one in_adj

    ce_msg_comm_t d = as_del(m1);
    ASSERT_EQ(0, ce_l3vpn_app_del(&d));
    EXPECT_EQ(std::vector<uint32_t>{10}, nh_ifxs(ftn_routes()));
    EXPECT_EQ(1u, uc(CE_RT_OWNER_FTN).size());
    EXPECT_EQ(3, live_nodes());

    d = as_del(m2);
    ASSERT_EQ(0, ce_l3vpn_app_del(&d));
    EXPECT_TRUE(ftn_routes().empty());
    EXPECT_TRUE(uc(CE_RT_OWNER_FTN).empty());
    EXPECT_EQ(1u, rows(CE_ERR_HW_FTN_IN_ADJ_DEL));
    EXPECT_EQ(4u, rows(CE_ERR_HW_FTN_RT_DEL));  // each installed route is withdrawn twice
    EXPECT_EQ(0u, ce_in_adj_db.tbl.count + db(CE_OWNER_FTN)->tbl.count + db(CE_OWNER_FTN)->v4_count);
    EXPECT_EQ(0, live_nodes());
    std::string log = take_log();
    EXPECT_TRUE(has(log, ": no nhop ref, del in adj "));
    EXPECT_TRUE(has(log, ": no ref, del app node "));
}

// The in_adj key is owner, family and labels: other prefixes share one, other
// families and owners get their own, each with the next id.
TEST_F(AppAddDelTest, InAdjPerOwnerFamilyAndLabels) {
    ce_msg_comm_t m4 = ftn_msg(1, nh4(2, 9), CE_OP_PUSH, {100});
    ce_msg_comm_t m6 = ftn_msg(1, nh6(2, 9), CE_OP_PUSH, {100});
    m6.key = m4.key;  // one entry, two next hops
    ce_msg_comm_t other_prefix = ftn_msg(2, nh4(3, 7), CE_OP_PUSH, {100});
    ce_msg_comm_t ilm = ilm_msg(16, nh4(2, 9), CE_OP_SWAP, {100});
    for (ce_msg_comm_t *m : {&m4, &m6, &other_prefix, &ilm}) ASSERT_EQ(0, ce_l3vpn_app_add(m));
    EXPECT_EQ(2u, app_of(m4)->nhop_num);
    EXPECT_EQ(3u, ftn_routes().size());
    // The adjacency carries the local address of its family.
    EXPECT_EQ((strs{"1|0|0|v4:127.0.0.1|1", "1|0|1|v6:::1|2", "7|0|0|v4:127.0.0.1|3"}), keys(10, kAdj));
    EXPECT_EQ(2u, ce_in_adj_db.v4_count);
    EXPECT_EQ(1u, ce_in_adj_db.v6_count);
    EXPECT_TRUE(has(take_log(), ": alloc mpls id high:0 low:3"));
}

TEST_F(AppAddDelTest, VcFtnLabelChangeRebindsToANewId) {
    ce_msg_comm_t a = vc_ftn_msg(100, nh4(2, 9), {200});
    ce_msg_comm_t b = vc_ftn_msg(100, nh4(2, 9), {300});
    ASSERT_EQ(0, ce_l3vpn_app_add(&a));
    ASSERT_EQ(0, ce_l3vpn_app_add(&b));
    std::vector<SRoute__VirRt *> rts = vir_routes(CE_RT_OWNER_VC_FTN);
    ASSERT_EQ(1u, rts.size());
    EXPECT_EQ(2u, rts[0]->index->mpls_id);
    EXPECT_EQ(strs{"8|100|0|v4:127.0.0.1|2"}, keys(10, kAdj));
    EXPECT_EQ(std::vector<uint32_t>{300}, labels_of(uc(CE_RT_OWNER_VC_FTN)[0]));
    EXPECT_EQ(1u, rows(CE_ERR_HW_VC_FTN_IN_ADJ_DEL));
    EXPECT_EQ(1u, rows(CE_ERR_HW_VC_FTN_VIR_RT_DEL));
    EXPECT_EQ(3, live_nodes());  // the old in_adj is gone
    std::string log = take_log();
    EXPECT_TRUE(has(log, ": del old virtual route to ef"));
    EXPECT_TRUE(has(log, ": unbind old in adj"));
    EXPECT_TRUE(has(log, ": same node, need not bind"));
}

TEST_F(AppAddDelTest, SecondOpcodeWaitsUntilTheFirstIsDeleted) {
    ce_msg_comm_t push = ftn_msg(1, nh4(2, 9), CE_OP_PUSH, {100});
    ce_msg_comm_t swap = ftn_msg(1, nh4(3, 10), CE_OP_SWAP, {200});
    ASSERT_EQ(0, ce_l3vpn_app_add(&push));
    ASSERT_EQ(0, ce_l3vpn_app_add(&swap));
    EXPECT_EQ(std::vector<uint32_t>{9}, nh_ifxs(ftn_routes()));
    EXPECT_EQ(2u, uc(CE_RT_OWNER_FTN).size());
    EXPECT_TRUE(has(take_log(),
                    ": app node 's first opcode DON'T match new opcode. will not set to EF."));

    ce_msg_comm_t d = as_del(push);
    ASSERT_EQ(0, ce_l3vpn_app_del(&d));
    std::vector<SRoute__CommRt *> rts = ftn_routes();
    ASSERT_EQ(1u, rts.size());
    EXPECT_EQ(10u, rts[0]->index->nh_ifx);
    EXPECT_EQ(2u, rts[0]->index->mpls_id);
    std::string log = take_log();
    EXPECT_TRUE(has(log, ": wk nhop node, because opcode POP or change, first_opcode: 1"));
    EXPECT_TRUE(has(log, ": app node set new first_opcode: 3"));
}

class IlmMultiActionTest : public AppTest, public ::testing::WithParamInterface<bool> {};

TEST_P(IlmMultiActionTest, FeOnceAndEfByOpcodeMix) {
    bool multi = GetParam();
    ce_l3vpn_cap_tbl[CE_CAP_ILM_MULTI_ACTION].cur_bool = multi ? 1 : 0;
    ce_msg_comm_t pop = ilm_msg(0x12345, nh4(2, 9), CE_OP_POP, {});
    ce_msg_comm_t swap = ilm_msg(0x12345, nh4(3, 10), CE_OP_SWAP, {500});
    ce_msg_comm_t push = ilm_msg(0x12345, nh4(4, 11), CE_OP_PUSH, {600});
    for (ce_msg_comm_t *m : {&pop, &swap, &push}) ASSERT_EQ(0, ce_l3vpn_app_add(m));
    EXPECT_EQ(1u, rows(CE_ERR_HW_ILM_ADD));
    ASSERT_EQ(1u, fe_ilms().size());
    EXPECT_EQ(uint32_t(CE_OP_POP), fe_ilms()[0]->opcode);
    EXPECT_EQ(0x100000u, fe_ilms()[0]->swap_label);
    // PUSH never mixes with POP; SWAP does when the ability is on.
    EXPECT_EQ(multi ? 2u : 1u, vir_routes(CE_RT_OWNER_ILM).size());
    EXPECT_TRUE(has(take_log(), ": nhop_num: 2, need not set ilm to FE_L3VPN"));

    ce_msg_comm_t d = as_del(swap);  // not the first opcode: FE untouched
    ASSERT_EQ(0, ce_l3vpn_app_del(&d));
    EXPECT_EQ(1u, rows(CE_ERR_HW_ILM_ADD));
    EXPECT_EQ(0u, rows(CE_ERR_HW_ILM_DEL));
    EXPECT_EQ(1u, vir_routes(CE_RT_OWNER_ILM).size());

    d = as_del(pop);  // the first opcode goes: PUSH takes over, in FE and EF
    ASSERT_EQ(0, ce_l3vpn_app_del(&d));
    EXPECT_EQ(2u, rows(CE_ERR_HW_ILM_ADD));
    ASSERT_EQ(1u, fe_ilms().size());
    EXPECT_EQ(uint32_t(CE_OP_PUSH), fe_ilms()[0]->opcode);
    std::vector<SRoute__VirRt *> rts = vir_routes(CE_RT_OWNER_ILM);
    ASSERT_EQ(1u, rts.size());
    EXPECT_EQ(11u, rts[0]->index->nh_ifx);

    d = as_del(push);
    ASSERT_EQ(0, ce_l3vpn_app_del(&d));
    EXPECT_EQ(1u, rows(CE_ERR_HW_ILM_DEL));
    EXPECT_TRUE(fe_ilms().empty() && vir_routes(CE_RT_OWNER_ILM).empty());
    EXPECT_TRUE(uc(CE_RT_OWNER_ILM).empty());
    EXPECT_EQ(0, live_nodes());
}
INSTANTIATE_TEST_SUITE_P(AbilityOffOn, IlmMultiActionTest, ::testing::Bool());

// FE's in-label is the oldest next hop's: when that one goes and the next
// shares its opcode but not its label, FE takes the next one's swap label.
TEST_F(AppAddDelTest, IlmInLabelFollowsTheOldestNextHop) {
    ce_msg_comm_t a = ilm_msg(40, nh4(2, 9), CE_OP_SWAP, {100});
    ce_msg_comm_t b = ilm_msg(40, nh4(3, 10), CE_OP_SWAP, {200});
    ce_msg_comm_t c = ilm_msg(40, nh4(4, 11), CE_OP_SWAP, {200});
    for (ce_msg_comm_t *m : {&a, &b, &c}) ASSERT_EQ(0, ce_l3vpn_app_add(m));
    const struct {
        ce_msg_comm_t *gone;
        uint32_t swap_label, fe_adds;
    } steps[] = {{&c, 100, 1}, {&a, 200, 2}};  // a newer one goes: FE untouched
    for (const auto &st : steps) {
        ce_msg_comm_t d = as_del(*st.gone);
        ASSERT_EQ(0, ce_l3vpn_app_del(&d));
        ASSERT_EQ(1u, fe_ilms().size());
        EXPECT_EQ(st.swap_label, fe_ilms()[0]->swap_label);
        EXPECT_EQ(st.fe_adds, rows(CE_ERR_HW_ILM_ADD));
    }
}

TEST_F(AppAddDelTest, TtlCopyRewritesAdjacenciesAndIlmsOnlyOnChange) {
    ce_msg_comm_t ftn = ftn_msg(1, nh4(2, 9), CE_OP_PUSH, {100});
    ce_msg_comm_t ilm = ilm_msg(16, nh4(2, 9), CE_OP_SWAP, {500});
    ce_msg_comm_t vc = vc_ftn_msg(100, nh4(2, 9), {200});
    for (ce_msg_comm_t *m : {&ftn, &ilm, &vc}) ASSERT_EQ(0, ce_l3vpn_app_add(m));
    // The TTL of the FTN, ILM and VC-FTN adjacencies, and FE's ILM flag.
    auto ttls = [&] {
        return std::vector<uint32_t>{uc(CE_RT_OWNER_FTN)[0]->ttl, uc(CE_RT_OWNER_ILM)[0]->ttl,
                                     uc(CE_RT_OWNER_VC_FTN)[0]->ttl, uint32_t(fe_ilms()[0]->ttl_copy)};
    };
    const ce_l3vpn_err_code_t rewritten[] = {CE_ERR_HW_FTN_IN_ADJ_ADD, CE_ERR_HW_ILM_IN_ADJ_ADD,
                                             CE_ERR_HW_VC_FTN_IN_ADJ_ADD, CE_ERR_HW_ILM_ADD};

    ASSERT_EQ(0, ce_l3vpn_app_ttl_copy_op(1));
    EXPECT_EQ((std::vector<uint32_t>{0, 0, 255, 1}), ttls());  // VC-FTN keeps 255
    ASSERT_EQ(0, ce_l3vpn_app_ttl_copy_op(1));  // no change: only the switch record again
    for (ce_l3vpn_err_code_t r : rewritten) EXPECT_EQ(2u, rows(r)) << r;
    EXPECT_EQ(2u, rows(CE_ERR_HW_TTL_COPY_ENABLE));

    ASSERT_EQ(0, ce_l3vpn_app_ttl_copy_op(0));
    EXPECT_EQ((std::vector<uint32_t>{255, 255, 255, 0}), ttls());
    EXPECT_EQ(1u, rows(CE_ERR_HW_TTL_COPY_DISABLE));

    ASSERT_EQ(0, ce_ttl_copy_enable_recover(1));
    EXPECT_TRUE(has(take_log(), ": recover ttl_copy to YES"));
    ASSERT_EQ(0, ce_l3vpn_app_ttl_copy_op(1));
    EXPECT_EQ(255u, uc(CE_RT_OWNER_FTN)[0]->ttl);  // FE already had it: nothing rewritten
    EXPECT_EQ(3u, rows(CE_ERR_HW_ILM_ADD));
    EXPECT_EQ(3u, rows(CE_ERR_HW_TTL_COPY_ENABLE));
}

// The record itself is checked with the lower-layer writes; here only that a
// repeat is not written again.
TEST_F(AppAddDelTest, MplsSwitchWrittenOnlyOnChange) {
    for (uint8_t on : {1, 1, 0, 0}) ASSERT_EQ(0, ce_l3vpn_app_mpls_enable_op(on));
    EXPECT_EQ(1u, rows(CE_ERR_HW_MPLS_ENABLE));
    EXPECT_EQ(1u, rows(CE_ERR_HW_MPLS_DISABLE));
}

TEST_F(AppAddDelTest, ZeroAddressOrInterfaceStaysOutOfEf) {
    ce_msg_comm_t zero_ip = ftn_msg(1, nh_t{CE_PRO_IPV4, {}, 9}, CE_OP_PUSH, {100});
    ce_msg_comm_t zero_ifx = ftn_msg(1, nh4(2, 0), CE_OP_PUSH, {100});
    ASSERT_EQ(0, ce_l3vpn_app_add(&zero_ip));
    ASSERT_EQ(0, ce_l3vpn_app_add(&zero_ifx));
    EXPECT_EQ(2u, app_of(zero_ip)->nhop_num);
    EXPECT_TRUE(ftn_routes().empty());
    std::string log = take_log();
    EXPECT_TRUE(has(log, ": zero con_nhop:000.000.000.000 or ifx:9 or opcode:1, wouldn't set to EF"));
    EXPECT_TRUE(has(log, ": zero con_nhop:010.000.000.002 or ifx:0 or opcode:1, wouldn't set to EF"));
}

// Over capacity nothing is created and the alarm goes out; the record waits:
// a newer version keeps its place (counted once), a delete takes it out of
// line, the next delete of a programmed entry lets the oldest in, and a data
// sync that no longer sees its input drops it.
TEST_F(AppAddDelTest, CapacityFullRecordsWaitInOrder) {
    ce_l3vpn_cap_tbl[CE_CAP_VC_FTN].cur_int32 = 1;
    ce_msg_comm_t a = vc_ftn_msg(100, nh4(2, 9), {200});
    ce_msg_comm_t b = vc_ftn_msg(101, nh4(2, 9), {201});
    ce_msg_comm_t c = vc_ftn_msg(102, nh4(2, 9), {202});
    ASSERT_EQ(0, ce_l3vpn_app_add(&a));
    const int32_t one_entry = live_nodes();
    EXPECT_EQ(11, ce_l3vpn_app_add(&b));
    EXPECT_EQ(11, ce_l3vpn_app_add(&c));
    EXPECT_EQ(2u, rows(CE_ERR_VC_FTN_FULL));
    EXPECT_EQ(1u, ce_l3vpn_syslog_vc_ftn_limit.interval);  // the alarm went out
    EXPECT_EQ(one_entry, live_nodes());
    EXPECT_EQ(1u, uc(CE_RT_OWNER_VC_FTN).size());
    EXPECT_TRUE(has(take_log(), ": CAP  FULL"));
    b.data.labels[0] = 301;
    EXPECT_EQ(11, ce_l3vpn_app_add(&b));
    EXPECT_EQ(2u, ce_l3vpn_app_wait_count(CE_OWNER_VC_FTN));
    EXPECT_EQ(2u, ce_l3vpn_refuse_count("u_mpls.udp_vc_ftn", CE_REFUSE_CAPACITY));

    ce_msg_comm_t del_c = as_del(c);
    EXPECT_EQ(0, ce_l3vpn_app_del(&del_c));
    EXPECT_EQ(0u, rows(CE_ERR_APP_NODE_NOT_FOUND));
    ce_msg_comm_t del_a = as_del(a);
    ASSERT_EQ(0, ce_l3vpn_app_del(&del_a));
    ASSERT_NE(nullptr, app_of(b));
    EXPECT_EQ(301u, ce_nhop_of(app_of(b)->nhop_list.next)->in_adj->data.labels[0]);
    EXPECT_EQ(0u, ce_l3vpn_app_wait_count(CE_OWNER_VC_FTN));

    ASSERT_EQ(11, ce_l3vpn_app_add(&c));
    ce_l3vpn_app_ds_begin();
    ce_l3vpn_app_add(&b);
    ce_l3vpn_app_ds_settle();
    EXPECT_EQ(0u, ce_l3vpn_app_wait_count(CE_OWNER_VC_FTN));
    EXPECT_NE(nullptr, app_of(b));
    ce_l3vpn_refuse_reset();
}

// A next hop is its address and interface, and its labels except for VC-FTN;
// a delete that matches no entry or next hop gives 7.
TEST_F(AppAddDelTest, DeleteFindsTheNextHopByItsIdentity) {
    ce_msg_comm_t d = as_del(ftn_msg(1, nh4(2, 9), CE_OP_PUSH, {100}));
    EXPECT_EQ(7, ce_l3vpn_app_del(&d));
    EXPECT_EQ(1u, rows(CE_ERR_APP_NODE_NOT_FOUND));
    const struct { ce_msg_comm_t m; int other_labels_rv; } cases[] = {
        {ftn_msg(1, nh4(2, 9), CE_OP_PUSH, {100}), 7},
        {ilm_msg(16, nh4(2, 9), CE_OP_SWAP, {100}), 7},
        {vc_ftn_msg(100, nh4(2, 9), {100}), 0},
    };
    for (const auto &c : cases) {
        ce_msg_comm_t m = c.m;
        ASSERT_EQ(0, ce_l3vpn_app_add(&m));
        d = as_del(m);
        d.nhop.ifx = 8;
        EXPECT_EQ(7, ce_l3vpn_app_del(&d)) << m.owner;
        d = as_del(m);
        d.data.labels[0] = 101;
        EXPECT_EQ(c.other_labels_rv, ce_l3vpn_app_del(&d)) << m.owner;
    }
    EXPECT_EQ(5u, rows(CE_ERR_NHOP_NODE_NOT_FOUND));
    EXPECT_EQ(6, live_nodes());  // the FTN and ILM entries stay
}

// ---- failures: every add that cannot finish leaves the state as it found it ------

struct fail_case_t {
    const char *name;
    int pre;           // adds made before: 0 none, 1 the FTN entry, 2 the VC-FTN entry
    bool vc;           // the failing add is the VC-FTN label change
    unsigned mem_nth;  // node allocation to fail (0 none)
    unsigned tbl_nth;  // keyed-table allocation to fail (0 none)
    ce_l3vpn_err_code_t row;
    const char *text;
};

class AddFailureTest : public AppTest, public ::testing::WithParamInterface<fail_case_t> {};

TEST_P(AddFailureTest, RollsBack) {
    const fail_case_t &c = GetParam();
    ce_msg_comm_t first = ftn_msg(1, nh4(2, 9), CE_OP_PUSH, {100});
    ce_msg_comm_t vc = vc_ftn_msg(100, nh4(2, 9), {200});
    if (c.pre != 0) {
        ASSERT_EQ(0, ce_l3vpn_app_add(c.pre == 1 ? &first : &vc));
    }
    ce_msg_comm_t m = c.vc ? vc_ftn_msg(100, nh4(2, 9), {300})
                           : ftn_msg(1, nh4(3, 10), CE_OP_PUSH, {101});
    ce_app_node_t *vc_app = c.vc ? app_of(vc) : nullptr;
    ce_in_adj_node_t *vc_adj = c.vc ? ce_app_node_oldest_nhop(vc_app)->in_adj : nullptr;
    // Entries, in_adjs, next hops of the earlier entry, and the records in EF and UC.
    auto state = [&] {
        return std::vector<size_t>{db(CE_OWNER_FTN)->tbl.count, db(CE_OWNER_VC_FTN)->tbl.count,
                                   ce_in_adj_db.tbl.count,
                                   c.pre == 0 ? 0u : app_of(c.pre == 1 ? first : vc)->nhop_num,
                                   mom_mem_keys(mom_, 6).size(), mom_mem_keys(mom_, 10).size()};
    };
    const std::vector<size_t> before = state();
    const int32_t nodes = live_nodes();
    take_log();

    ce_l3vpn_mem_fail_at(c.mem_nth);
    keyed_tbl_fail_alloc_at(c.tbl_nth);
    EXPECT_EQ(11, ce_l3vpn_app_add(&m));
    EXPECT_EQ(1u, rows(c.row));
    EXPECT_TRUE(has(take_log(), c.text));
    EXPECT_EQ(before, state());
    // A refused node allocation stays counted; everything allocated was freed again.
    EXPECT_EQ(nodes + (c.mem_nth ? 1 : 0), live_nodes());
    if (c.vc) {
        EXPECT_EQ(vc_adj, ce_app_node_oldest_nhop(vc_app)->in_adj);
    }
}

INSTANTIATE_TEST_SUITE_P(
    NoMemory, AddFailureTest,
    ::testing::Values(
        fail_case_t{"AppNode", 0, false, 1, 0, CE_ERR_APP_DB_MALLOC, ": app node, no memory"},
        fail_case_t{"NhopOfNewEntry", 0, false, 2, 0, CE_ERR_NHOP_NODE_ADD, ": nhop node, no memory"},
        fail_case_t{"InAdjOfNewEntry", 0, false, 3, 0, CE_ERR_APP_DB_MALLOC, ": in_adj node, no memory"},
        fail_case_t{"NhopOfOldEntry", 1, false, 1, 0, CE_ERR_NHOP_NODE_ADD, ": nhop node, no memory"},
        fail_case_t{"InAdjOfOldEntry", 1, false, 2, 0, CE_ERR_APP_DB_MALLOC, ": in_adj node, no memory"},
        fail_case_t{"InAdjOfOldNhop", 2, true, 1, 0, CE_ERR_APP_DB_MALLOC, ": in_adj node, no memory"},
        fail_case_t{"AppInsert", 0, false, 0, 1, CE_ERR_APP_NODE_ADD, ": add app entry fail"},
        fail_case_t{"InAdjInsert", 0, false, 0, 3, CE_ERR_IN_ADJ_NODE_ADD, ": add in adj entry fail"},
        fail_case_t{"InAdjInsertOldNhop", 2, true, 0, 1, CE_ERR_IN_ADJ_NODE_ADD,
                    ": add in adj entry fail"}),
    [](const ::testing::TestParamInfo<fail_case_t> &i) { return std::string(i.param.name); });
}  // namespace
