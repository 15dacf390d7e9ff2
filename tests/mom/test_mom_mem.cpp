// The in-memory MOM: notices, scans, data sync, failures and connections.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "p_intf.pb-c.h"
#include "platform/mom/tq_mom_name.h"
#include "s_route.pb-c.h"
#include "tests/support/mom_mem.h"
#include "u_mpls.pb-c.h"

namespace {

struct seen_t {
    uint32_t cmd, flag, error;
    std::string key;    // Redis key of the record, "" without one
    std::string bytes;  // packed record
    bool operator==(const seen_t &) const = default;
};

std::ostream &operator<<(std::ostream &os, const seen_t &s) {
    return os << "{" << s.cmd << "," << s.flag << "," << s.error << "," << s.key << "}";
}

struct recorder_t {
    std::vector<seen_t> seen;
    std::vector<uint32_t> reconn;
    int connects = 0;
};

const ProtobufCMessage *record_of(const tq_mom_msg_t *msg) {
    if (msg->cmd == TQ_MOM_CMD_HSET || msg->cmd == TQ_MOM_CMD_HSCAN) {
        auto *res = static_cast<const tq_mom_hash_res_t *>(msg->value);
        return res == nullptr ? nullptr : res->value;
    }
    return static_cast<const ProtobufCMessage *>(msg->value);
}

seen_t seen_of(uint32_t cmd, uint32_t flag, const ProtobufCMessage *m, uint32_t error = 0) {
    seen_t s{cmd, flag, error, "", ""};
    if (m != nullptr) {
        tq_mom_record_key(m, s.key);
        tq_mom_pack(m, s.bytes);
    }
    return s;
}

int record_cb(void *, tq_mom_msg_t *msg, void *arg) {
    static_cast<recorder_t *>(arg)->seen.push_back(
        seen_of(msg->cmd, msg->flag, record_of(msg), msg->error));
    return 0;
}

struct ilm_t {
    UMpls__UdpIlmKey key = U_MPLS__UDP_ILM_KEY__INIT;
    UMpls__UdpIlm item = U_MPLS__UDP_ILM__INIT;
    ilm_t(uint32_t label, uint32_t swap) { key.in_label = label, item.index = &key, item.swap_label = swap; }
    const ProtobufCMessage *msg() const { return &item.base; }
};

struct adj_t {
    SRoute__InSubAdjKey key = S_ROUTE__IN_SUB_ADJ_KEY__INIT;
    SRoute__InSubAdj item = S_ROUTE__IN_SUB_ADJ__INIT;
    adj_t(uint32_t owner, uint64_t id, uint32_t ttl = 0) {
        key.t_rt_owner = owner, key.mplsid = id, item.index = &key, item.ttl = ttl;
    }
    const ProtobufCMessage *msg() const { return &item.base; }
};

// A record rebuilt from its key alone, as a delete notice carries it.
seen_t del_of(const ProtobufCMessageDescriptor *desc, const std::string &redis_key) {
    mom_mem_msg_ptr m(tq_mom_item_from_key(desc, redis_key));
    return seen_of(TQ_MOM_CMD_DEL, 0, m.get());
}

class MomMem : public ::testing::Test {
protected:
    ~MomMem() override { mom_mem_free(mom); }
    tq_mom_client_t *mom = mom_mem_new();
    tq_global_t ctx = mom_mem_ctx(mom);
    recorder_t rec;
    const seen_t marker{TQ_MOM_CMD_END, TQ_MOM_FLAG_SCAN_OVER, 0, "", ""};
};

TEST_F(MomMem, NoticesArriveInWriteOrderOnDispatch) {
    ilm_t old(9, 1), a(1, 100), b(2, 200), c(3, 300);
    ASSERT_EQ(tq_mom_set_sync(&ctx, 10, old.msg()), 0);
    ASSERT_EQ(tq_mom_subscribe(&ctx, 10, a.msg(), 0, record_cb, &rec), 0);
    EXPECT_EQ(mom_mem_dispatch_all(mom), 1);
    EXPECT_EQ(rec.seen, std::vector<seen_t>{marker});  // flags 0: no existing records
    rec.seen.clear();

    uint32_t opt = 0;
    ASSERT_EQ(tq_mom_set_sync(&ctx, 10, a.msg()), 0);
    ASSERT_EQ(tq_mom_set_ext(&ctx, 10, &opt, b.msg(), 1, 0), 0);
    ASSERT_EQ(tq_mom_publish(&ctx, 10, c.msg(), 1, 0), 0);
    ASSERT_EQ(tq_mom_del(&ctx, 10, b.msg(), 1, 0), 0);
    ASSERT_EQ(tq_mom_set_sync(&ctx, 6, a.msg()), 0);  // another database
    EXPECT_TRUE(rec.seen.empty());
    EXPECT_EQ(mom_mem_pending(mom), 4u);

    // b is gone when its set notice is read: only its delete arrives.
    EXPECT_EQ(mom_mem_dispatch(mom), 3);
    EXPECT_EQ(rec.seen, (std::vector<seen_t>{seen_of(1, 0, a.msg()), seen_of(1, 0, c.msg()),
                                             del_of(b.msg()->descriptor, "u_mpls.udp_ilm|2")}));
    EXPECT_EQ(mom_mem_keys(mom, 10), (std::vector<std::string>{"u_mpls.udp_ilm|1",
                                                               "u_mpls.udp_ilm|9"}));
}

TEST_F(MomMem, ExistingRecordsComeSortedBeforeTheMarker) {
    ilm_t a(20, 1), b(3, 2);
    tq_mom_set_sync(&ctx, 10, b.msg());
    tq_mom_set_sync(&ctx, 10, a.msg());
    ASSERT_EQ(tq_mom_subscribe(&ctx, 10, a.msg(), TQ_MOM_SUB_EXISTING, record_cb, &rec), 0);
    mom_mem_dispatch_all(mom);
    EXPECT_EQ(rec.seen, (std::vector<seen_t>{seen_of(24, 0, a.msg()), seen_of(24, 0, b.msg()),
                                             marker}));
}

TEST_F(MomMem, HashWritesMergeFieldsAndNotifyWholeRecord) {
    PIntf__Intfindex idx = P_INTF__INTFINDEX__INIT;
    idx.index = 5;
    PIntf__DataIntf first = P_INTF__DATA_INTF__INIT, second = P_INTF__DATA_INTF__INIT,
                    both = P_INTF__DATA_INTF__INIT;
    first.index = second.index = both.index = &idx;
    first.dev = both.dev = 1;
    second.slot = both.slot = 2;
    tq_mom_subscribe(&ctx, 4, &first.base, 0, record_cb, &rec);
    mom_mem_dispatch_all(mom);
    rec.seen.clear();

    ASSERT_EQ(tq_mom_hmset(&ctx, 4, &first.base, 1, 0), 0);
    ASSERT_EQ(tq_mom_hmset_sync(&ctx, 4, &second.base), 0);
    mom_mem_dispatch_all(mom);
    seen_t whole = seen_of(TQ_MOM_CMD_HSET, 0, &both.base);
    EXPECT_EQ(rec.seen, (std::vector<seen_t>{whole, whole}));
    EXPECT_EQ(mom_mem_type(mom, 4, "p_intf.data_intf|5"), 2);

    ProtobufCMessage *out = nullptr;
    ASSERT_EQ(tq_mom_get_sync(&ctx, 4, &first.base, &out), 0);
    mom_mem_msg_ptr got(out);
    EXPECT_EQ(seen_of(4, 0, got.get()), whole);

    ilm_t str(1, 1);
    tq_mom_set_sync(&ctx, 10, str.msg());
    EXPECT_EQ(tq_mom_hmset_sync(&ctx, 10, str.msg()), TQ_MOM_ERR);  // a string record: wrong type
}

TEST_F(MomMem, DataSyncSweepsOnlyStaleRecordsOfTheSlice) {
    adj_t a7(7, 1), b7(7, 2, 64), c7(7, 3), d8(8, 1);
    for (const adj_t *r : {&a7, &b7, &c7, &d8}) tq_mom_set_sync(&ctx, 10, r->msg());
    tq_mom_subscribe(&ctx, 10, a7.msg(), 0, record_cb, &rec);
    mom_mem_dispatch_all(mom);
    rec.seen.clear();

    ASSERT_EQ(tq_mom_dsbegin_sync(&ctx, 10, a7.msg(), TQ_MOM_MODE_OWNER, 3600, 0), 0);
    EXPECT_TRUE(mom_mem_marked(mom, 10, "s_route.in_sub_adj|7|0|0||2"));
    EXPECT_FALSE(mom_mem_marked(mom, 10, "s_route.in_sub_adj|8|0|0||1"));
    tq_mom_set_sync(&ctx, 10, b7.msg());  // rewritten: survives
    recorder_t ds;
    ASSERT_EQ(tq_mom_dsend(&ctx, 10, a7.msg(), TQ_MOM_MODE_OWNER, record_cb, &ds), 0);
    mom_mem_dispatch_all(mom);

    const ProtobufCMessageDescriptor *d = a7.msg()->descriptor;
    EXPECT_EQ(rec.seen, (std::vector<seen_t>{seen_of(1, 0, b7.msg()),
                                             del_of(d, "s_route.in_sub_adj|7|0|0||1"),
                                             del_of(d, "s_route.in_sub_adj|7|0|0||3")}));
    EXPECT_EQ(ds.seen, (std::vector<seen_t>{{TQ_MOM_CMD_END, TQ_MOM_FLAG_PEXPIREDEL_OVER, 0, "", ""}}));
    EXPECT_EQ(mom_mem_keys(mom, 10), (std::vector<std::string>{"s_route.in_sub_adj|7|0|0||2",
                                                               "s_route.in_sub_adj|8|0|0||1"}));

    PIntf__Intfindex idx = P_INTF__INTFINDEX__INIT;
    PIntf__DataIfCounters cnt = P_INTF__DATA_IF_COUNTERS__INIT;
    cnt.index = &idx;
    tq_mom_hmset_sync(&ctx, 4, &cnt.base);
    tq_mom_dsbegin_sync(&ctx, 4, &cnt.base, TQ_MOM_MODE_TABLE, 3600, 0);
    ds.seen.clear();
    tq_mom_dsend(&ctx, 4, &cnt.base, TQ_MOM_MODE_TABLE, record_cb, &ds);
    mom_mem_dispatch_all(mom);
    EXPECT_EQ(ds.seen, (std::vector<seen_t>{{TQ_MOM_CMD_END, TQ_MOM_FLAG_PEXPIREFIELD_OVER, 0, "", ""}}));
    EXPECT_EQ(mom_mem_count_records(mom, 4, &p_intf__data_if_counters__descriptor), 0u);
}

int reconn_cb(void *, uint32_t db, uint32_t type, void *arg) {
    return static_cast<recorder_t *>(arg)->reconn.push_back(db * 10 + type), 0;
}
int conn_cb(void *, void *arg) { return ++static_cast<recorder_t *>(arg)->connects, 0; }

TEST_F(MomMem, ConnectAndConnectionLoss) {
    ASSERT_EQ(tq_mom_client_connect(&ctx, 6, conn_cb, &rec), 0);
    EXPECT_EQ(rec.connects, 0);
    mom_mem_dispatch(mom);
    EXPECT_EQ(rec.connects, 1);
    ASSERT_EQ(tq_mom_client_set_reconnect_cb(&ctx, 6, reconn_cb, &rec), 0);

    ilm_t a(1, 1);
    mom_mem_conn_lost(mom, 6);
    EXPECT_FALSE(mom_mem_connected(mom, 6));
    EXPECT_EQ(tq_mom_set_sync(&ctx, 6, a.msg()), TQ_MOM_ERR_CONN);
    mom_mem_conn_back(mom, 6);
    EXPECT_EQ(tq_mom_set_sync(&ctx, 6, a.msg()), 0);
    EXPECT_EQ(rec.reconn, (std::vector<uint32_t>{61, 62}));
}

}  // namespace
