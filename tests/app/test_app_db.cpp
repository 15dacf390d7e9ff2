// The app-node and in_adj databases: keys and counts, refusals and their logs,
// MPLS ids and the gate in front of UC.
#include "app_fixture.h"

namespace {
using AppDbTest = AppTest;

TEST_F(AppDbTest, FtnKeysDifferingInFamilyAreCountedApart) {
    ce_msg_comm_t m4 = ftn_msg(1, nh4(2, 9), CE_OP_PUSH, {100});
    ce_msg_comm_t m6 = m4;
    m6.key.ftn.pro = CE_PRO_IPV6;
    ce_app_node_t *a6 = ce_app_node_db_new_app_node(&m6);
    ASSERT_EQ(0, ce_app_node_db_add_entry(ce_app_node_db_new_app_node(&m4)));
    ASSERT_EQ(0, ce_app_node_db_add_entry(a6));
    EXPECT_EQ(1u, db(CE_OWNER_FTN)->v4_count);
    EXPECT_EQ(1u, db(CE_OWNER_FTN)->v6_count);
    ce_app_node_db_del_entry(a6);
    EXPECT_EQ(0u, db(CE_OWNER_FTN)->v6_count);
    EXPECT_EQ(nullptr, app_of(m6));
    EXPECT_EQ(1, live_nodes());
    EXPECT_TRUE(has(take_log(), "free app node, entry:"));
}

TEST_F(AppDbTest, UnknownOwnerInvalidDatabaseAndMissingEntry) {
    EXPECT_EQ(nullptr, ce_app_node_db_get_owner_db(9));
    EXPECT_EQ(1u, rows(CE_ERR_UNKNOWN_OWNER));
    ce_msg_comm_t m = app_msg(9, nh4(2, 9), CE_OP_PUSH, {});
    ce_app_node_t *a = ce_app_node_db_new_app_node(&m);
    EXPECT_EQ(1, ce_app_node_db_add_entry(a));
    EXPECT_EQ(nullptr, ce_app_node_db_get_entry(&m));
    EXPECT_EQ(1, ce_app_node_db_walkthrough(9, [](ce_app_node_t *, void *) { return 0; }, nullptr));
    ce_app_node_db_free_app_node(a);
    std::string log = take_log();
    EXPECT_TRUE(has(log, ": unknown owner:9"));
    EXPECT_TRUE(has(log, ": error owner, when get db"));

    db(CE_OWNER_ILM)->valid = 0;
    m = ilm_msg(77, nh4(2, 9), CE_OP_POP, {});
    a = ce_app_node_db_new_app_node(&m);
    EXPECT_EQ(16, ce_app_node_db_add_entry(a));
    EXPECT_EQ(1u, rows(CE_ERR_APP_DB_CREATE_DB));
    EXPECT_TRUE(has(take_log(), ": fail:db->valid code:42 "));
    db(CE_OWNER_ILM)->valid = 1;

    ce_app_node_db_del_entry(a);  // never added: the key is printed
    EXPECT_TRUE(has(take_log(), "no such ilm, key==>inlabel:77"));
    ce_app_node_db_free_app_node(a);
    EXPECT_EQ(0, live_nodes());
}

TEST_F(AppDbTest, RecoveredIdsRaiseTheFloor) {
    ce_msg_comm_t r1 = ftn_msg(1, nh4(2, 9), CE_OP_PUSH, {100});
    ce_msg_comm_t r2 = ftn_msg(1, nh4(2, 9), CE_OP_PUSH, {200});
    EXPECT_EQ(0, ce_l3vpn_app_in_adj_recover(&r1, (3ull << 32) | 7));
    EXPECT_EQ(0, ce_l3vpn_app_in_adj_recover(&r2, (1ull << 32) | 2));
    EXPECT_TRUE(has(take_log(), ": recover in adj owner:ftn, proto:0, mpls_id:{high 3, low 7}"));
    ce_msg_comm_t fresh = ftn_msg(1, nh4(2, 9), CE_OP_PUSH, {300});
    EXPECT_EQ((4ull << 32) | 1, ce_in_adj_node_get_or_add(&fresh)->mpls_id);

    // A second recovery of a live key keeps the id it has.
    EXPECT_EQ(8, ce_l3vpn_app_in_adj_recover(&r1, (9ull << 32) | 9));
    EXPECT_EQ((3ull << 32) | 7, ce_l3vpn_in_adj_db_get_entry(&r1)->mpls_id);
    ce_l3vpn_in_adj_db_get_entry(&r2)->mpls_id = 0;
    EXPECT_EQ(8, ce_in_adj_node_recover(&r2, 5));
    EXPECT_EQ(5ull, ce_l3vpn_in_adj_db_get_entry(&r2)->mpls_id);
    EXPECT_TRUE(has(take_log(), ": how could this node exist?"));
    EXPECT_EQ(3u, ce_in_adj_db.tbl.count);
    EXPECT_TRUE(uc(CE_RT_OWNER_FTN).empty());  // recovery writes nothing

    ce_msg_comm_t m = ftn_msg(1, nh4(2, 9), CE_OP_PUSH, {400});
    const int32_t nodes = live_nodes();
    ce_l3vpn_mem_fail_at(1);
    EXPECT_EQ(2, ce_in_adj_node_recover(&m, 1));
    EXPECT_EQ(1u, rows(CE_ERR_APP_DB_MALLOC));
    keyed_tbl_fail_alloc_at(1);
    EXPECT_EQ(1, ce_in_adj_node_recover(&m, 1));
    EXPECT_EQ(1u, rows(CE_ERR_IN_ADJ_NODE_ADD));
    std::string log = take_log();
    EXPECT_TRUE(has(log, ": in_adj node, no memory"));
    EXPECT_TRUE(has(log, ": add in adj entry fail"));
    EXPECT_EQ(3u, ce_in_adj_db.tbl.count);
    EXPECT_EQ(nodes + 1, live_nodes());  // the refused allocation stays counted
}

// Only PUSH, POP, SWAP, SWAP_PUSH, POP_L3NEXTHOP and DLVR_TO_IP reach UC.
TEST_F(AppDbTest, GateProgramsOnlyUcOpcodes) {
    for (uint8_t op = 0; op <= CE_OP_MAX; ++op) {
        ce_msg_comm_t m = ftn_msg(1, nh4(2, 9), op, {100});
        ce_in_adj_node_t *n = ce_in_adj_node_get_or_add(&m);
        ASSERT_NE(nullptr, n);
        EXPECT_EQ(0, ce_in_adj_op_hw(n, CE_HW_ADD));
    }
    std::vector<uint32_t> ops;
    for (SRoute__InSubAdj *r : uc(CE_RT_OWNER_FTN)) ops.push_back(r->opcode);
    std::sort(ops.begin(), ops.end());
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 3, 4, 6, 9}), ops);

    ce_msg_comm_t bad = app_msg(5, nh4(2, 9), CE_OP_PUSH, {100});
    ce_in_adj_node_t stray{};
    stray.owner = 5;
    stray.data = bad.data;
    EXPECT_EQ(0, ce_in_adj_op_hw(&stray, CE_HW_ADD));
    EXPECT_EQ(6u, keys(10, kAdj).size());
}
}  // namespace
