// What every MOM client must do alike, run on the in-memory MOM and on the
// Redis client: notices in write order, existing records before the marker,
// hash writes and their zeros, data sync of a slice, and calls refused while
// disconnected.
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

// A hash write stores every scalar, a zero as an empty value, and leaves a
// sub-message it does not give as the record holds it.
TEST_P(MomBoth, HashWritesStoreZerosAndLeaveSubMessagesNotGiven) {
    PIntf__Intfindex idx = P_INTF__INTFINDEX__INIT;
    idx.index = 5;
    PIntf__DataIntf on = P_INTF__DATA_INTF__INIT, off = P_INTF__DATA_INTF__INIT;
    on.index = off.index = &idx;
    on.dev = off.dev = 1;
    on.statis_flag = 1;
    PIntf__ObjIfCounters cnt = P_INTF__OBJ_IF_COUNTERS__INIT;
    cnt.in_octets = 7;
    PIntf__DataIfCounters full = P_INTF__DATA_IF_COUNTERS__INIT,
                          partial = P_INTF__DATA_IF_COUNTERS__INIT,
                          merged = P_INTF__DATA_IF_COUNTERS__INIT;
    full.index = partial.index = merged.index = &idx;
    full.if_cnt = merged.if_cnt = &cnt;
    full.last_clear_time = const_cast<char *>("never");
    partial.last_clear_time = merged.last_clear_time = const_cast<char *>("");
    const struct {
        const char *what;
        const ProtobufCMessage *first, *second, *want;
    } cases[] = {
        {"a zero overwrites a 1", &on.base, &off.base, &off.base},
        {"no if_cnt: kept; an empty string: stored", &full.base, &partial.base, &merged.base},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        subscribe(4, c.first);
        ASSERT_EQ(0, tq_mom_hmset(&ctx_, 4, c.first, 1, 0));
        ASSERT_EQ(0, tq_mom_hmset_sync(&ctx_, 4, c.second));
        ASSERT_TRUE(mom_->settle());
        // Each notice reads the whole record when it is delivered.
        seen_t want = seen_of(TQ_MOM_CMD_HSET, 0, c.want);
        EXPECT_EQ(seen_, (std::vector<seen_t>{want, want}));
        ProtobufCMessage *out = nullptr;
        ASSERT_EQ(0, tq_mom_get_sync(&ctx_, 4, c.first, &out));
        EXPECT_EQ(want, seen_of(TQ_MOM_CMD_HSET, 0, out));
        tq_mom_free(out);
        seen_.clear();
    }
    ilm_t str(1, 1);
    tq_mom_set_sync(&ctx_, 10, str.msg());
    EXPECT_EQ(TQ_MOM_ERR, tq_mom_hmset_sync(&ctx_, 10, str.msg()));  // a string record: wrong type
}

// Marks live in the client: inside a sync an equal write changes nothing and
// says nothing; the end deletes exactly what was not written.
TEST_P(MomBoth, DataSyncSweepsOnlyStaleRecordsOfTheSlice) {
    adj_t a7(7, 1), b7(7, 2, 64), c7(7, 3), d8(8, 1), c7_new(7, 3, 5);
    for (const adj_t *r : {&a7, &b7, &c7, &d8}) tq_mom_set_sync(&ctx_, 10, r->msg());
    subscribe(10, a7.msg());
    ASSERT_EQ(0, tq_mom_dsbegin_sync(&ctx_, 10, a7.msg(), TQ_MOM_MODE_OWNER, 3600, 0));
    tq_mom_set_sync(&ctx_, 10, b7.msg());  // equal: survives, no notice
    uint32_t batch = 0;
    tq_mom_set_ext(&ctx_, 10, &batch, c7_new.msg(), 1, 0);  // changed: survives
    std::vector<seen_t> end;
    ASSERT_EQ(0, tq_mom_dsend(&ctx_, 10, a7.msg(), TQ_MOM_MODE_OWNER, record_cb, &end));
    ASSERT_TRUE(mom_->settle());
    // a7 carries nothing but its key, as a delete notice does.
    EXPECT_EQ(seen_, (std::vector<seen_t>{seen_of(1, 0, c7_new.msg()),
                                          seen_of(TQ_MOM_CMD_DEL, 0, a7.msg())}));
    EXPECT_EQ(end, (std::vector<seen_t>{{TQ_MOM_CMD_END, TQ_MOM_FLAG_PEXPIREDEL_OVER, "", ""}}));
    EXPECT_EQ(mom_->keys(10), (std::vector<std::string>{"s_route.in_sub_adj|7|0|0||2",
                                                       "s_route.in_sub_adj|7|0|0||3",
                                                       "s_route.in_sub_adj|8|0|0||1"}));

    // A hash table says so in its end marker; an equal hash write is silent too.
    PIntf__Intfindex i1 = P_INTF__INTFINDEX__INIT, i2 = P_INTF__INTFINDEX__INIT;
    i1.index = 1, i2.index = 2;
    PIntf__DataIfCounters c1 = P_INTF__DATA_IF_COUNTERS__INIT, c2 = P_INTF__DATA_IF_COUNTERS__INIT;
    c1.index = &i1, c2.index = &i2;
    c1.last_clear_time = c2.last_clear_time = const_cast<char *>("never");
    tq_mom_hmset_sync(&ctx_, 4, &c1.base);
    tq_mom_hmset_sync(&ctx_, 4, &c2.base);
    seen_.clear();
    subscribe(4, &c1.base);
    tq_mom_dsbegin_sync(&ctx_, 4, &c1.base, TQ_MOM_MODE_TABLE, 3600, 0);
    tq_mom_hmset(&ctx_, 4, &c2.base, 1, 0);
    end.clear();
    tq_mom_dsend(&ctx_, 4, &c1.base, TQ_MOM_MODE_TABLE, record_cb, &end);
    ASSERT_TRUE(mom_->settle());
    PIntf__DataIfCounters gone = P_INTF__DATA_IF_COUNTERS__INIT;
    gone.index = &i1;
    EXPECT_EQ(seen_, std::vector<seen_t>{seen_of(TQ_MOM_CMD_DEL, 0, &gone.base)}) << "no hset of c2";
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
    ilm_t a(1, 1), b(2, 1);
    ASSERT_EQ(0, tq_mom_set_sync(&ctx_, 6, b.msg()));
    ASSERT_EQ(0, tq_mom_dsbegin_sync(&ctx_, 6, b.msg(), TQ_MOM_MODE_TABLE, 3600, 0));
    mom_->cut(6);
    EXPECT_EQ(TQ_MOM_ERR_CONN, tq_mom_set_sync(&ctx_, 6, a.msg()));
    mom_->restore(6);
    EXPECT_EQ(0, tq_mom_set_sync(&ctx_, 6, a.msg()));
    EXPECT_EQ(reports, (std::vector<uint32_t>{61, 62}));  // db 6: lost, then back
    // The loss dropped the sync's marks: its end deletes nothing.
    ASSERT_EQ(0, tq_mom_dsend(&ctx_, 6, b.msg(), TQ_MOM_MODE_TABLE, nullptr, nullptr));
    EXPECT_EQ(mom_->keys(6), (std::vector<std::string>{"u_mpls.udp_ilm|1", "u_mpls.udp_ilm|2"}));
}

INSTANTIATE_TEST_SUITE_P(Mom, MomBoth, ::testing::Values("mem", "redis"),
                         [](const auto &info) { return std::string(info.param); });

}  // namespace
