// Notices through tbl_msg_cb, the data-sync trigger, writes and data sync.
#include "rt_tbl_test.h"
#include "s_route.pb-c.h"

namespace {

struct Calls {
    int add = 0, del = 0;
};
int on_add(void *, void *arg) { return ++static_cast<Calls *>(arg)->add, 0; }
int on_del(void *, void *arg) { return ++static_cast<Calls *>(arg)->del, 0; }

int g_ds_runs = 0;
int on_ds() { return ++g_ds_runs, 0; }

class RtTblTraffic : public RtTblTest {
protected:
    void SetUp() override {
        RtTblTest::SetUp();
        if (IsSkipped()) return;
        g_ds_runs = 0;
        init(8);
    }
    int notice(ss_rt_tbl_t *t, uint32_t cmd, void *value, uint32_t error = 0) {
        tq_mom_msg_t msg{cmd, 0, value, error};
        return tbl_msg_cb(&ctx_, &msg, t);
    }
    // Records of the table, or of its owner slice (mode 1), as a scan finds them.
    size_t records(const ss_rt_tbl_t *t, uint32_t mode) {
        size_t n = 0;
        auto count = [](void *, tq_mom_msg_t *, void *arg) { return ++*static_cast<size_t *>(arg), 0; };
        EXPECT_EQ(0, tq_mom_scan_sync(&ctx_, t->db, t->item, mode, count, &n));
        return n;
    }
    Calls calls_;
};

enum Value { REC, NONE, RES_NULL_VALUE, RES_ERROR };

// String commands (1 set, 24, 3 del) want a string table and a record; hash
// commands (4, 6) a hash table and a result with a value and no error.
TEST_P(RtTblTraffic, EachCommandAgainstEachDataType) {
    struct Case {
        uint32_t cmd;
        bool hash_tbl;
        Value value;
        int rv, add, del;
        uint32_t add_msg, del_msg;
    } cases[] = {
        {1, false, REC, 0, 1, 0, 1, 0},    {24, false, REC, 0, 1, 0, 1, 0},
        {1, true, REC, -1, 0, 0, 1, 0},    {24, true, REC, -1, 0, 0, 1, 0},
        {1, false, NONE, -11, 0, 0, 1, 0}, {3, false, REC, 0, 0, 1, 0, 1},
        {3, true, REC, 0, 0, 1, 0, 1},     {3, true, NONE, -11, 0, 0, 0, 1},
        {4, true, REC, 0, 1, 0, 1, 0},     {6, true, REC, 0, 1, 0, 1, 0},
        {4, false, REC, -1, 0, 0, 1, 0},   {6, true, NONE, -11, 0, 0, 1, 0},
        {4, true, RES_NULL_VALUE, -11, 0, 0, 1, 0},
        {4, true, RES_ERROR, -11, 0, 0, 1, 0},
        {7, false, REC, 0, 0, 0, 0, 0},    {2, true, NONE, 0, 0, 0, 0, 0},
    };
    int n = 0;
    for (const Case &c : cases) {
        SCOPED_TRACE(n++);
        ss_rt_tbl_t *t = c.hash_tbl ? intf_tbl(4) : ilm_tbl(6);
        ASSERT_NE(nullptr, t);
        Calls calls;
        t->add_func = on_add, t->del_func = on_del, t->arg = &calls;
        bool hash_cmd = c.cmd == 4 || c.cmd == 6;
        tq_mom_hash_res_t res{c.value == RES_NULL_VALUE ? nullptr : &ilm_.base,
                              c.value == RES_ERROR ? 5u : 0u};
        void *value = c.value == NONE ? nullptr : hash_cmd ? static_cast<void *>(&res) : &ilm_;
        uint32_t asserts = hist(RT_HIST_ASSERT).count;
        EXPECT_EQ(c.rv, notice(t, c.cmd, value));
        EXPECT_EQ(c.add, calls.add);
        EXPECT_EQ(c.del, calls.del);
        EXPECT_EQ(c.add_msg, t->cnt.add_msg);
        EXPECT_EQ(c.del_msg, t->cnt.del_msg);
        EXPECT_EQ(asserts + (c.rv != 0), hist(RT_HIST_ASSERT).count);
        if (c.rv != 0) {
            EXPECT_EQ(c.rv, hist(RT_HIST_ASSERT).data1);
        }
        if (ss_rt_tbl_ctl.tbl_cur_num == 8) ss_rt_tbl_reset_for_test(), init(8);
    }
}

TEST_P(RtTblTraffic, RefusedNoticesAndTheirOrder) {
    ss_rt_tbl_t *t = ilm_tbl(6);
    tq_mom_msg_t msg{1, 0, nullptr, 0};
    EXPECT_EQ(-4, tbl_msg_cb(nullptr, &msg, t));
    EXPECT_EQ(-4, tbl_msg_cb(&ctx_, nullptr, t));
    // An error notice is refused before the handle is looked at.
    EXPECT_EQ(-11, notice(nullptr, 1, nullptr, 3));
    EXPECT_EQ(-11, hist(RT_HIST_ASSERT).data1);
    EXPECT_EQ(-4, notice(nullptr, 1, nullptr));
    EXPECT_EQ(-4, notice(reinterpret_cast<ss_rt_tbl_t *>(reinterpret_cast<char *>(t) + 1), 29, nullptr));
    EXPECT_EQ(5u, hist(RT_HIST_ASSERT).count);
    tq_mom_msg_t bad{29, 3, nullptr, 2}, end{29, 3, nullptr, 0};
    EXPECT_EQ(-11, tbl_ds_cb(&ctx_, &bad, nullptr));
    EXPECT_EQ(-4, tbl_ds_cb(&ctx_, nullptr, t));
    EXPECT_EQ(-4, tbl_ds_cb(&ctx_, &end, nullptr));
    EXPECT_EQ(0, tbl_ds_cb(&ctx_, &end, t));
    EXPECT_EQ(8u, hist(RT_HIST_ASSERT).count);
}

TEST_P(RtTblTraffic, DataSyncRunsWhenTheLastSubscribedTableEnds) {
    ss_rt_tbl_t *t[4] = {ilm_tbl(6), intf_tbl(4), ilm_tbl(10), intf_tbl(6)};
    ss_rt_tbl_reg_ds_func(on_ds);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(0, ss_rt_tbl_subscribe_detail(t[i], on_add, nullptr, &calls_, 0));
    EXPECT_EQ(RT_ST_NULL, t[0]->sub_st);
    EXPECT_EQ(RT_ST_IGNORE, t[3]->sub_st);  // never subscribed: does not hold the set up
    for (int i : {2, 0}) EXPECT_EQ(0, notice(t[i], 29, nullptr));
    EXPECT_EQ(0, g_ds_runs);
    EXPECT_EQ(0, notice(t[1], 29, nullptr));
    EXPECT_EQ(1, g_ds_runs);
    EXPECT_EQ(1, hist(RT_HIST_SUB_CB).data1);
    EXPECT_EQ(4, hist(RT_HIST_SUB_CB).data2);
    EXPECT_EQ(0, notice(t[0], 29, nullptr));
    EXPECT_EQ(2, g_ds_runs);
    EXPECT_EQ(2u, hist(RT_HIST_SUB_CB).count);
    EXPECT_EQ(RT_ST_OK, t[1]->sub_st);
    // Through the MOM: the markers of the three subscriptions fire it each.
    ASSERT_TRUE(mom_->settle());
    EXPECT_EQ(5, g_ds_runs);
}

TEST_P(RtTblTraffic, WritesSkipAndReads) {
    ss_rt_tbl_t *t = ilm_tbl(8);
    ilm_.swap_label = 77;
    EXPECT_EQ(0, add_ilm(t, 4660));
    const std::vector<std::string> stored = {"u_mpls.udp_ilm|4660"};
    EXPECT_EQ(stored, mom_->keys(8));
    ss_rt_tbl_set_skip(t, 1);
    ss_rt_tbl_ctl.dbg_level = RT_DBG_INFO;
    std::string out = stdout_of([&] {
        EXPECT_EQ(0, add_ilm(t, 1));
        ilm_key_.in_label = 4660;
        EXPECT_EQ(0, ss_rt_tbl_del_str(t, &ilm_.base, 1, 0));
        EXPECT_EQ(0, ss_rt_tbl_publish(t, &ilm_.base, 1, 0));
    });
    EXPECT_TRUE(has(out, "|tbl:u_mpls.udp_ilm op_cnt:2 is_skip:1\n"));
    EXPECT_TRUE(has(out, "|cnt_del_op:1 skip\n"));
    EXPECT_EQ(stored, mom_->keys(8));
    ProtobufCMessage *got = nullptr;
    EXPECT_EQ(0, ss_rt_tbl_get_str(t, &ilm_.base, 0, &got));  // reads even while skipped
    EXPECT_EQ(77u, got ? reinterpret_cast<UMpls__UdpIlm *>(got)->swap_label : 0);
    tq_mom_free(got);
    ss_rt_tbl_set_skip(t, 0);
    EXPECT_EQ(0, ss_rt_tbl_del_str(t, &ilm_.base, 1, 0));
    EXPECT_EQ(std::vector<std::string>(), mom_->keys(8));
}

// Records rewritten between begin and end survive; the rest are swept and
// their deletes reach the subscriber.
TEST_P(RtTblTraffic, DataSyncCycleSweepsWhatWasNotRewritten) {
    ss_rt_tbl_t *t = ilm_tbl(10);
    ASSERT_EQ(0, ss_rt_tbl_subscribe_detail(t, on_add, on_del, &calls_, 0));
    ASSERT_TRUE(mom_->settle());
    EXPECT_EQ(RT_ST_OK, t->sub_st);
    for (uint32_t l : {1u, 2u, 3u}) add_ilm(t, l);
    ASSERT_TRUE(mom_->settle());
    EXPECT_EQ(3, calls_.add);
    EXPECT_EQ(0, ss_rt_tbl_ds_begin_detail(t, 3600, 0));
    for (uint32_t l : {1u, 3u}) add_ilm(t, l);
    EXPECT_EQ(0, ss_rt_tbl_ds_end_detail(t, 0));
    ASSERT_TRUE(mom_->settle());
    EXPECT_EQ(1, calls_.del);
    EXPECT_EQ(1u, t->cnt.del_msg);
    EXPECT_EQ(std::vector<std::string>({"u_mpls.udp_ilm|1", "u_mpls.udp_ilm|3"}), mom_->keys(10));
}

// An owner slice cycle leaves the other owners' records alone.
TEST_P(RtTblTraffic, OwnerSliceCycle) {
    SRoute__InSubAdj item = S_ROUTE__IN_SUB_ADJ__INIT;
    SRoute__InSubAdjKey key = S_ROUTE__IN_SUB_ADJ_KEY__INIT;
    ss_rt_tbl_t *owner[2];
    for (uint32_t i = 0; i < 2; ++i) {
        key.t_rt_owner = i == 0 ? 1 : 7;
        owner[i] = ss_rt_tbl_create_detail(10, RT_MOM_DATA_STRING, &item, sizeof item,
                                           offsetof(SRoute__InSubAdj, index), &key, sizeof key);
        ASSERT_NE(nullptr, owner[i]);
    }
    item.index = &key;
    for (uint32_t o : {1u, 7u})
        for (uint32_t ifx : {10u, 11u}) {
            key.t_rt_owner = o, key.ifx = ifx;
            ASSERT_EQ(0, ss_rt_tbl_add_str(owner[o == 1 ? 0 : 1], &item.base, 1, 0));
        }
    EXPECT_EQ(0, ss_rt_tbl_ds_begin_detail(owner[0], 3600, 1));
    key.t_rt_owner = 1, key.ifx = 11;
    ss_rt_tbl_add_str(owner[0], &item.base, 1, 0);
    ss_rt_tbl_ctl.dbg_level = RT_DBG_BRIEF;
    std::string out = stdout_of([&] {
        EXPECT_EQ(0, ss_rt_tbl_ds_end_detail(owner[0], 1));
        mom_->settle();
    });
    EXPECT_TRUE(has(out, "|table:0 cmd:29 flag:PEXPIREDEL_OVER(DS END)(3)\n"));
    EXPECT_EQ(1u, records(owner[0], 1));
    EXPECT_EQ(2u, records(owner[1], 1));
    EXPECT_EQ(3u, records(owner[1], 0));
}

RT_TBL_ON_BOTH_MOMS(RtTblTraffic);

}  // namespace
