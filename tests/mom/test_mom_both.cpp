// What every MOM client must do alike, run on the in-memory MOM and on the
// Redis client: notices in write order, existing records before the marker,
// hash writes, data sync of a slice, and calls refused while disconnected.
#include <algorithm>

#include "mom/mom_records.h"
#include "p_intf.pb-c.h"
#include "support/test_mom.h"

namespace {

const seen_t kMarker{TQ_MOM_CMD_END, TQ_MOM_FLAG_SCAN_OVER, "", ""};

class MomBoth : public ::testing::TestWithParam<const char *> {
protected:
    void SetUp() override {
        if (!test_mom_can_run(GetParam())) GTEST_SKIP() << "no redis-server binary found";
        std::string why;
        mom_ = test_mom_new(GetParam(), why);
        ASSERT_NE(nullptr, mom_) << why;
        ctx_ = mom_->ctx();
        for (uint32_t db : {4u, 6u, 10u}) ASSERT_EQ(0, tq_mom_client_connect_sync(&ctx_, db));
    }
    // Subscribes and waits for the end marker, which is all that comes.
    void subscribe(uint32_t db, const ProtobufCMessage *item) {
        ASSERT_EQ(0, tq_mom_subscribe(&ctx_, db, item, 0, record_cb, &seen_));
        ASSERT_TRUE(mom_->settle());
        ASSERT_EQ(seen_, std::vector<seen_t>{kMarker});
        seen_.clear();
    }
    std::unique_ptr<test_mom_t> mom_;
    tq_global_t ctx_{};
    std::vector<seen_t> seen_;
};

TEST_P(MomBoth, NoticesArriveInWriteOrder) {
    ilm_t old(9, 1), a(1, 100), b(2, 200), c(3, 300);
    ASSERT_EQ(0, tq_mom_set_sync(&ctx_, 10, old.msg()));
    subscribe(10, a.msg());  // flags 0: the existing record is not delivered
    uint32_t batch = 0;
    ASSERT_EQ(0, tq_mom_set_sync(&ctx_, 10, a.msg()));
    ASSERT_EQ(0, tq_mom_set_ext(&ctx_, 10, &batch, b.msg(), 1, 0));
    ASSERT_EQ(0, tq_mom_publish(&ctx_, 10, c.msg(), 1, 0));
    ASSERT_EQ(0, tq_mom_del(&ctx_, 10, b.msg(), 1, 0));
    ASSERT_EQ(0, tq_mom_set_sync(&ctx_, 6, a.msg()));  // another database
    ASSERT_TRUE(mom_->settle());
    // b is gone when its set notice is read: only its delete, with the key alone, arrives.
    EXPECT_EQ(seen_, (std::vector<seen_t>{seen_of(1, 0, a.msg()), seen_of(1, 0, c.msg()),
                                          seen_of(TQ_MOM_CMD_DEL, 0, ilm_t(2, 0).msg())}));
    EXPECT_EQ(mom_->keys(10), (std::vector<std::string>{"u_mpls.udp_ilm|1", "u_mpls.udp_ilm|9"}));
}

TEST_P(MomBoth, ExistingRecordsComeBeforeTheMarker) {
    ilm_t a(20, 1), b(3, 2);
    tq_mom_set_sync(&ctx_, 10, b.msg());
    tq_mom_set_sync(&ctx_, 10, a.msg());
    ASSERT_EQ(0, tq_mom_subscribe(&ctx_, 10, a.msg(), TQ_MOM_SUB_EXISTING, record_cb, &seen_));
    ASSERT_TRUE(mom_->settle());
    ASSERT_EQ(3u, seen_.size());
    std::sort(seen_.begin(), seen_.begin() + 2);
    EXPECT_EQ(seen_, (std::vector<seen_t>{seen_of(24, 0, a.msg()), seen_of(24, 0, b.msg()), kMarker}));
}

TEST_P(MomBoth, HashWritesMergeFieldsAndNotifyTheWholeRecord) {
    PIntf__Intfindex idx = P_INTF__INTFINDEX__INIT;
    idx.index = 5;
    PIntf__DataIntf first = P_INTF__DATA_INTF__INIT, second = P_INTF__DATA_INTF__INIT,
                    both = P_INTF__DATA_INTF__INIT;
    first.index = second.index = both.index = &idx;
    first.dev = both.dev = 1;
    second.slot = both.slot = 2;
    subscribe(4, &first.base);
    ASSERT_EQ(0, tq_mom_hmset(&ctx_, 4, &first.base, 1, 0));
    ASSERT_EQ(0, tq_mom_hmset_sync(&ctx_, 4, &second.base));
    ASSERT_TRUE(mom_->settle());
    seen_t whole = seen_of(TQ_MOM_CMD_HSET, 0, &both.base);
    EXPECT_EQ(seen_, (std::vector<seen_t>{whole, whole}));
    ProtobufCMessage *out = nullptr;
    ASSERT_EQ(0, tq_mom_get_sync(&ctx_, 4, &first.base, &out));
    EXPECT_EQ(whole, seen_of(TQ_MOM_CMD_HSET, 0, out));
    tq_mom_free(out);
    ilm_t str(1, 1);
    tq_mom_set_sync(&ctx_, 10, str.msg());
    EXPECT_EQ(TQ_MOM_ERR, tq_mom_hmset_sync(&ctx_, 10, str.msg()));  // a string record: wrong type
}

TEST_P(MomBoth, DataSyncSweepsOnlyStaleRecordsOfTheSlice) {
    adj_t a7(7, 1), b7(7, 2, 64), c7(7, 3), d8(8, 1);
    for (const adj_t *r : {&a7, &b7, &c7, &d8}) tq_mom_set_sync(&ctx_, 10, r->msg());
    subscribe(10, a7.msg());
    ASSERT_EQ(0, tq_mom_dsbegin_sync(&ctx_, 10, a7.msg(), TQ_MOM_MODE_OWNER, 3600, 0));
    tq_mom_set_sync(&ctx_, 10, b7.msg());  // rewritten: survives
    std::vector<seen_t> end;
    ASSERT_EQ(0, tq_mom_dsend(&ctx_, 10, a7.msg(), TQ_MOM_MODE_OWNER, record_cb, &end));
    ASSERT_TRUE(mom_->settle());
    ASSERT_EQ(3u, seen_.size());
    std::sort(seen_.begin() + 1, seen_.end());  // the sweep deletes in no set order
    // a7 and c7 carry nothing but their key, as a delete notice does.
    EXPECT_EQ(seen_, (std::vector<seen_t>{seen_of(1, 0, b7.msg()), seen_of(TQ_MOM_CMD_DEL, 0, a7.msg()),
                                          seen_of(TQ_MOM_CMD_DEL, 0, c7.msg())}));
    EXPECT_EQ(end, (std::vector<seen_t>{{TQ_MOM_CMD_END, TQ_MOM_FLAG_PEXPIREDEL_OVER, "", ""}}));
    EXPECT_EQ(mom_->keys(10), (std::vector<std::string>{"s_route.in_sub_adj|7|0|0||2",
                                                       "s_route.in_sub_adj|8|0|0||1"}));

    // A hash table says so in its end marker; a rewrite clears the mark there too.
    PIntf__Intfindex i1 = P_INTF__INTFINDEX__INIT, i2 = P_INTF__INTFINDEX__INIT;
    i1.index = 1, i2.index = 2;
    PIntf__DataIfCounters c1 = P_INTF__DATA_IF_COUNTERS__INIT, c2 = P_INTF__DATA_IF_COUNTERS__INIT;
    c1.index = &i1, c2.index = &i2;
    c1.last_clear_time = c2.last_clear_time = const_cast<char *>("never");
    tq_mom_hmset_sync(&ctx_, 4, &c1.base);
    tq_mom_hmset_sync(&ctx_, 4, &c2.base);
    tq_mom_dsbegin_sync(&ctx_, 4, &c1.base, TQ_MOM_MODE_TABLE, 3600, 0);
    tq_mom_hmset(&ctx_, 4, &c2.base, 1, 0);
    end.clear();
    tq_mom_dsend(&ctx_, 4, &c1.base, TQ_MOM_MODE_TABLE, record_cb, &end);
    ASSERT_TRUE(mom_->settle());
    EXPECT_EQ(end, (std::vector<seen_t>{{TQ_MOM_CMD_END, TQ_MOM_FLAG_PEXPIREFIELD_OVER, "", ""}}));
    EXPECT_EQ(mom_->keys(4), std::vector<std::string>{"p_intf.data_if_counters|2"});
    EXPECT_EQ(TQ_MOM_ERR_PARAM, tq_mom_dsbegin_sync(&ctx_, 4, &c1.base, TQ_MOM_MODE_TABLE, 0, 0));
}

int reconn_cb(void *, uint32_t db, uint32_t type, void *arg) {
    return static_cast<std::vector<uint32_t> *>(arg)->push_back(db * 10 + type), 0;
}
int conn_cb(void *, void *arg) { return ++*static_cast<int *>(arg), 0; }

TEST_P(MomBoth, ConnectOnTheLoopAndRefuseWhileLost) {
    int connects = 0;
    std::vector<uint32_t> reports;
    ASSERT_EQ(0, tq_mom_client_connect(&ctx_, 6, conn_cb, &connects));
    EXPECT_EQ(0, connects);
    ASSERT_TRUE(mom_->settle());
    EXPECT_EQ(1, connects);
    ASSERT_EQ(0, tq_mom_client_set_reconnect_cb(&ctx_, 6, reconn_cb, &reports));
    ilm_t a(1, 1);
    mom_->cut(6);
    EXPECT_EQ(TQ_MOM_ERR_CONN, tq_mom_set_sync(&ctx_, 6, a.msg()));
    mom_->restore(6);
    EXPECT_EQ(0, tq_mom_set_sync(&ctx_, 6, a.msg()));
    EXPECT_EQ(reports, (std::vector<uint32_t>{61, 62}));  // db 6: lost, then back
}

INSTANTIATE_TEST_SUITE_P(Mom, MomBoth, ::testing::Values("mem", "redis"),
                         [](const auto &info) { return std::string(info.param); });

}  // namespace
