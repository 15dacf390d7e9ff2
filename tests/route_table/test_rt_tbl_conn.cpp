// Connections per database and the reports of a lost connection.
#include "rt_tbl_test.h"

namespace {

int g_conn_runs = 0;
int on_conn() { return ++g_conn_runs, 0; }
uint32_t g_reconn_db = 0;
int on_reconn(uint32_t db) { return g_reconn_db = db, 0; }
int g_ds_runs = 0;
int on_ds() { return ++g_ds_runs, 0; }
int on_rec(void *, void *) { return 0; }

// Three tables on two databases: the second table of db 6 shares its connection.
class RtTblConn : public RtTblTest {
protected:
    void SetUp() override {
        RtTblTest::SetUp();
        if (IsSkipped()) return;
        g_conn_runs = 0;
        g_reconn_db = 0;
        g_ds_runs = 0;
        init(4);
        t_[0] = ilm_tbl(6);
        t_[1] = intf_tbl(10);
        t_[2] = intf_tbl(6);
    }
    void connect() {
        ASSERT_EQ(0, ss_rt_tbl_connect_db(on_conn));
        ASSERT_TRUE(mom_->settle());
    }
    ss_rt_tbl_t *t_[3] = {};
};

TEST_P(RtTblConn, ThreeTablesOnTwoDatabasesOpenTwoConnections) {
    EXPECT_EQ(-4, ss_rt_tbl_connect_db(nullptr));
    EXPECT_EQ(RT_ST_NULL, t_[0]->conn_st);
    ASSERT_EQ(0, ss_rt_tbl_connect_db(on_conn));
    EXPECT_EQ(0, g_conn_runs);  // the callbacks come from the loop
    ASSERT_TRUE(mom_->settle());
    EXPECT_EQ(1, g_conn_runs);
    EXPECT_EQ(RT_ST_OK, t_[0]->conn_st);
    EXPECT_EQ(RT_ST_OK, t_[1]->conn_st);
    EXPECT_EQ(RT_ST_IGNORE, t_[2]->conn_st);
    EXPECT_EQ(1, hist(RT_HIST_CONN_CB).data1);
    EXPECT_EQ(10, hist(RT_HIST_CONN_CB).data2);
}

TEST_P(RtTblConn, ConnectedFunctionWaitsForEveryDatabase) {
    ss_rt_tbl_ctl.conn_func = on_conn;
    ss_rt_tbl_ctl.dbg_level = RT_DBG_WARNING;
    std::string out = stdout_of([&] { EXPECT_EQ(0, tbl_conn_cb(&ctx_, t_[1])); });
    EXPECT_TRUE(has(out, "[WARN ]tbl_conn_cb:"));
    EXPECT_TRUE(has(out, "|not all db conn ok\n"));
    EXPECT_EQ(0, g_conn_runs);
    EXPECT_EQ(0, tbl_conn_cb(&ctx_, t_[0]));
    EXPECT_EQ(1, g_conn_runs);
    // A repeated connection is counted and still reports all up.
    out = stdout_of([&] { EXPECT_EQ(0, tbl_conn_cb(&ctx_, t_[0])); });
    EXPECT_TRUE(has(out, "|connect repeate\n"));
    EXPECT_EQ(2, g_conn_runs);
    EXPECT_EQ(1u, hist(RT_HIST_CONN_REPEAT).count);
    EXPECT_EQ(6, hist(RT_HIST_CONN_REPEAT).data2);
    EXPECT_EQ(-4, tbl_conn_cb(&ctx_, nullptr));
}

TEST_P(RtTblConn, LostConnectionEndsTheProcess) {
    connect();
    EXPECT_EXIT(mom_->cut(10), testing::ExitedWithCode(77), "");
}

// With exit cleared the tables wait for their end markers again, and the data
// sync runs once more when every one is back.
TEST_P(RtTblConn, LostConnectionOnlyLogsWithExitCleared) {
    connect();
    ss_rt_tbl_reg_ds_func(on_ds);
    for (ss_rt_tbl_t *t : t_) ASSERT_EQ(0, ss_rt_tbl_subscribe_detail(t, on_rec, on_rec, nullptr, 0));
    ASSERT_TRUE(mom_->settle());
    ASSERT_EQ(1, g_ds_runs);
    ss_rt_tbl_reg_reconnect(on_reconn, 0);
    ss_rt_tbl_ctl.dbg_level = RT_DBG_BRIEF;
    std::string out = stdout_of([&] { mom_->cut(10); });
    EXPECT_TRUE(has(out, "|table:0 db:10 type:1\n"));
    EXPECT_TRUE(has(out, "|conn error\n"));
    EXPECT_EQ(0u, g_reconn_db);
    EXPECT_EQ(RT_ST_NULL, t_[1]->sub_st);
    mom_->restore(10);
    EXPECT_EQ(10u, g_reconn_db);
    ASSERT_TRUE(mom_->settle());
    EXPECT_EQ(2, g_ds_runs);
    for (ss_rt_tbl_t *t : t_) EXPECT_EQ(RT_ST_OK, t->sub_st);
    EXPECT_EQ(0, tbl_reconn_cb(&ctx_, 6, 5, t_[0]));
    EXPECT_EQ(-4, tbl_reconn_cb(&ctx_, 6, 1, nullptr));
}

RT_TBL_ON_BOTH_MOMS(RtTblConn);

}  // namespace
