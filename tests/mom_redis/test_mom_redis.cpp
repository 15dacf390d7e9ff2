// The MOM client on a real Redis: notices, end markers, scans, data sync,
// pipelined writes, reads, bad values and connection loss.
#include <hiredis/hiredis.h>

#include <algorithm>
#include <cstdint>

#include "mom/mom_records.h"
#include "mom_redis_env.h"
#include "platform/mom/tq_mom_redis.h"
#include "platform/runtime/tq_global.h"

namespace {

int ds_cb(void *, tq_mom_msg_t *msg, void *arg) { return *static_cast<uint32_t *>(arg) = msg->flag, 0; }
int reconn_cb(void *, uint32_t, uint32_t type, void *arg) {
    return static_cast<std::vector<uint32_t> *>(arg)->push_back(type), 0;
}

std::string rkey(const ProtobufCMessage *m) { return seen_of(0, 0, m).key; }

const uint32_t DB = 6;
const uint32_t BATCH = 0, AT_ONCE = 1;

class RedisMom : public redis_env_t {
protected:
    void SetUp() override {
        redis_env_t::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        mom_ = tq_mom_redis_new(base_);
        ASSERT_NE(mom_, nullptr);
        ctx_ = {mom_, base_, "test"};
        ASSERT_EQ(TQ_MOM_OK, tq_mom_client_connect_sync(&ctx_, DB));
        cli_->select(DB);
    }
    void TearDown() override {
        if (mom_ != nullptr) tq_mom_client_free(mom_);
        redis_env_t::TearDown();
    }
    // Subscribes and drops what comes up to the end marker.
    void subscribe(const ProtobufCMessage *item, std::vector<seen_t> &seen) {
        size_t before = seen.size();
        ASSERT_EQ(TQ_MOM_OK, tq_mom_subscribe(&ctx_, DB, item, 0, record_cb, &seen));
        ASSERT_TRUE(pump([&] { return !seen.empty() && seen.back().cmd == TQ_MOM_CMD_END; }));
        seen.erase(seen.begin() + before, seen.end());
    }
    int batched(const ProtobufCMessage *m) { return tq_mom_set_ext(&ctx_, DB, &BATCH, m, 1, 0); }
    // A write by another program.
    void put(const ProtobufCMessage *m) {
        seen_t s = seen_of(0, 0, m);
        cli_->set(s.key, s.bytes);
    }

    tq_mom_client_t *mom_ = nullptr;
    tq_global_t ctx_{};
};

TEST_F(RedisMom, NoticesOfAnotherWriterArriveInOrder) {
    ilm_t gone(20, 8), expiring(30, 9);
    put(gone.msg());
    put(expiring.msg());
    UMpls__UdpLabSwIndex sw_key = U_MPLS__UDP_LAB_SW_INDEX__INIT;
    UMpls__UdpLabSw hash = U_MPLS__UDP_LAB_SW__INIT;  // a hash-table record
    sw_key.ifx = 7, hash.index = &sw_key, hash.enable = true;
    UMpls__UdpMplsEnable enable = U_MPLS__UDP_MPLS_ENABLE__INIT;  // a table of one record
    std::vector<seen_t> seen;
    subscribe(gone.msg(), seen);
    subscribe(&hash.base, seen);
    subscribe(&enable.base, seen);
    ASSERT_TRUE(seen.empty()) << "flags 0 deliver no existing record";

    ilm_t set(10, 3), pub(40, 5);
    std::vector<std::pair<std::string, std::string>> fields;
    ASSERT_EQ(0, tq_mom_hash_fields(&hash.base, fields));
    std::vector<std::string> hset = {"HSET", rkey(&hash.base)};
    for (auto &[f, v] : fields) hset.insert(hset.end(), {f, v});
    enable.enable = true;

    put(set.msg());
    cli_->command(hset);
    cli_->del(rkey(gone.msg()));
    cli_->command({"PEXPIRE", rkey(expiring.msg()), "1"});
    usleep(5000);
    cli_->command({"EXISTS", rkey(expiring.msg())});  // expires it now
    cli_->command({"PUBLISH", tq_mom_channel(DB, gone.item.base.descriptor), seen_of(0, 0, pub.msg()).bytes});
    cli_->set("u_mpls.udp_mpls_enable", seen_of(0, 0, &enable.base).bytes);
    ASSERT_TRUE(pump([&] { return seen.size() >= 6; }));

    std::vector<seen_t> want = {
        seen_of(TQ_MOM_CMD_SET, 0, set.msg()),
        seen_of(TQ_MOM_CMD_HSET, 0, &hash.base),
        seen_of(TQ_MOM_CMD_DEL, 0, ilm_t(20, 0).msg()),  // the ends carry the key alone
        seen_of(TQ_MOM_CMD_DEL, 0, ilm_t(30, 0).msg()),
        seen_of(TQ_MOM_CMD_SET, 0, pub.msg()),
        seen_of(TQ_MOM_CMD_SET, 0, &enable.base),
    };
    EXPECT_EQ(want, seen);
    EXPECT_EQ(0u, tq_mom_redis_bad_values(mom_));
}

// Keys of the store that carry an expiry, looked at in one pipeline.
size_t keys_with_ttl(uint32_t db, const std::vector<std::string> &keys) {
    redisContext *c = tq_redis_connect(tq_redis_addr_from_env(), 5000);
    if (c == nullptr) return SIZE_MAX;
    redisAppendCommand(c, "SELECT %u", db);
    for (const std::string &k : keys) redisAppendCommand(c, "PTTL %b", k.data(), k.size());
    size_t n = 0;
    for (size_t i = 0; i <= keys.size(); ++i) {
        void *r = nullptr;
        if (redisGetReply(c, &r) != REDIS_OK) n = SIZE_MAX;
        if (i > 0 && r != nullptr && static_cast<redisReply *>(r)->integer != -1) ++n;
        freeReplyObject(r);
    }
    redisFree(c);
    return n;
}

long info_field(redis_cli_t &cli, const std::string &section, const std::string &name) {
    std::string text = cli.command({"INFO", section});
    size_t at = text.find(name + ":");
    return at == std::string::npos ? -1 : std::strtol(text.c_str() + at + name.size() + 1, nullptr, 10);
}

// The sync writes nothing when it begins, an equal rewrite is silent, the end
// deletes exactly what was not written, and no call is slow for the server.
TEST_F(RedisMom, DataSyncMarksInTheClientAndNeverBlocksTheServer) {
    const uint32_t OWNER = 7, OTHER = 1, N = 20000;
    cli_->command({"CONFIG", "SET", "slowlog-log-slower-than", "10000"});
    std::vector<std::string> all;
    for (uint32_t i = 0; i < N; ++i) {
        adj_t a(OWNER, i, 1);
        batched(a.msg());
        all.push_back(rkey(a.msg()));
    }
    for (uint32_t i = 0; i < 100; ++i) batched(adj_t(OTHER, i, 1).msg());
    adj_t slice(OWNER, 0);
    std::vector<seen_t> seen;
    subscribe(slice.msg(), seen);  // also drains the writes
    cli_->command({"SLOWLOG", "RESET"});

    long dirty = info_field(*cli_, "persistence", "rdb_changes_since_last_save");
    ASSERT_EQ(TQ_MOM_OK, tq_mom_dsbegin_sync(&ctx_, DB, slice.msg(), TQ_MOM_MODE_OWNER, 3600, 0));
    EXPECT_EQ(dirty, info_field(*cli_, "persistence", "rdb_changes_since_last_save"));
    EXPECT_EQ(0u, keys_with_ttl(DB, all));

    // Even ids rewritten equal, ids ending in 1 changed, the rest left alone.
    std::vector<seen_t> want_sets, want_dels;
    for (uint32_t i = 0; i < N; ++i) {
        if (i % 2 == 0) {
            ASSERT_EQ(TQ_MOM_OK, batched(adj_t(OWNER, i, 1).msg()));
        } else if (i % 10 == 1) {
            adj_t changed(OWNER, i, 2);
            ASSERT_EQ(TQ_MOM_OK, i % 20 == 1 ? batched(changed.msg())
                                             : tq_mom_set_sync(&ctx_, DB, changed.msg()));
            want_sets.push_back(seen_of(TQ_MOM_CMD_SET, 0, changed.msg()));
        } else {
            want_dels.push_back(seen_of(TQ_MOM_CMD_DEL, 0, adj_t(OWNER, i, 0).msg()));
        }
    }
    uint32_t flag = 0;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_dsend(&ctx_, DB, slice.msg(), TQ_MOM_MODE_OWNER, ds_cb, &flag));
    EXPECT_EQ(TQ_MOM_FLAG_PEXPIREDEL_OVER, flag);
    size_t total = want_sets.size() + want_dels.size();
    ASSERT_TRUE(pump([&] { return seen.size() >= total; }, 20000)) << seen.size();
    pump([] { return false; }, 100);
    EXPECT_EQ("0", cli_->command({"SLOWLOG", "LEN"})) << cli_->command({"SLOWLOG", "GET"});

    // Every changed record's notice, then the sweep's deletes: none for an equal write.
    ASSERT_EQ(total, seen.size());
    std::vector<seen_t> sets(seen.begin(), seen.begin() + want_sets.size());
    std::vector<seen_t> dels(seen.begin() + want_sets.size(), seen.end());
    std::sort(dels.begin(), dels.end());
    std::sort(want_dels.begin(), want_dels.end());
    EXPECT_EQ(want_sets, sets);
    EXPECT_EQ(want_dels, dels);
    std::vector<std::string> left = cli_->keys("s_route.in_sub_adj|7|*");
    EXPECT_EQ(N - want_dels.size(), left.size());
    for (const std::string &k : left) {
        uint64_t id = std::stoull(k.substr(k.rfind('|') + 1));
        EXPECT_TRUE(id % 2 == 0 || id % 10 == 1) << k;
    }
    EXPECT_EQ(100u, cli_->keys("s_route.in_sub_adj|1|*").size()) << "other owners are untouched";
    EXPECT_EQ(0u, tq_mom_redis_write_errors(mom_));
}

// A flushed script cache does not lose a write made inside a sync.
TEST_F(RedisMom, DataSyncWritesSurviveAFlushedScriptCache) {
    ilm_t a(1, 1), b(2, 1);
    for (const ilm_t *r : {&a, &b}) ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(&ctx_, DB, r->msg()));
    ASSERT_EQ(TQ_MOM_OK, tq_mom_dsbegin_sync(&ctx_, DB, a.msg(), TQ_MOM_MODE_TABLE, 60, 0));
    ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(&ctx_, DB, a.msg()));  // loads the script
    ilm_t a2(1, 2), b2(2, 2);
    cli_->command({"SCRIPT", "FLUSH"});
    ASSERT_EQ(TQ_MOM_OK, tq_mom_set_sync(&ctx_, DB, b2.msg()));
    cli_->command({"SCRIPT", "FLUSH"});
    ASSERT_EQ(TQ_MOM_OK, batched(a2.msg()));  // refused in the pipeline, sent again
    uint32_t flag = 0;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_dsend(&ctx_, DB, a.msg(), TQ_MOM_MODE_TABLE, ds_cb, &flag));
    for (const ilm_t *r : {&a2, &b2}) {
        std::string got;
        EXPECT_TRUE(cli_->get(rkey(r->msg()), got));
        EXPECT_EQ(seen_of(0, 0, r->msg()).bytes, got);
    }
    EXPECT_EQ(0u, tq_mom_redis_write_errors(mom_));
}

TEST_F(RedisMom, PipelinedWritesFlushWhenTheBatchFillsOrTheTurnEnds) {
    batched(ilm_t(0, 9).msg());
    EXPECT_EQ("0", cli_->command({"DBSIZE"})) << "a batched write waits for the end of the turn";
    event_base_loop(base_, EVLOOP_NONBLOCK | EVLOOP_ONCE);
    EXPECT_EQ("1", cli_->command({"DBSIZE"}));
    tq_mom_set_ext(&ctx_, DB, &AT_ONCE, ilm_t(1, 9).msg(), 1, 0);
    EXPECT_TRUE(wait_until([&] { return cli_->command({"DBSIZE"}) == "2"; }, 1000))
        << "set option non-zero: sent without waiting for the turn";

    const uint32_t N = 100000;
    for (uint32_t i = 0; i < N; ++i) {
        ASSERT_EQ(TQ_MOM_OK, batched(ilm_t(i, i % 13).msg()));
        if (i == 2000) {
            EXPECT_LE(1000, std::stol(cli_->command({"DBSIZE"}))) << "full batches go";
        }
    }
    ProtobufCMessage *out = nullptr;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_get_sync(&ctx_, DB, ilm_t(N - 1, 0).msg(), &out));
    EXPECT_EQ((N - 1) % 13, reinterpret_cast<UMpls__UdpIlm *>(out)->opcode);
    tq_mom_free(out);
    EXPECT_EQ(std::to_string(N), cli_->command({"DBSIZE"}));
    EXPECT_EQ(0u, tq_mom_redis_write_errors(mom_));
}

TEST_F(RedisMom, BadValueIsCountedAndSkipped) {
    std::vector<seen_t> seen;
    ilm_t good(2, 6);
    subscribe(good.msg(), seen);
    cli_->set("u_mpls.udp_ilm|1", "\xff\xff\xff");
    put(good.msg());
    ASSERT_TRUE(pump([&] { return !seen.empty(); }));
    pump([] { return false; }, 50);
    EXPECT_EQ(seen, std::vector<seen_t>{seen_of(TQ_MOM_CMD_SET, 0, good.msg())});
    EXPECT_EQ(1u, tq_mom_redis_bad_values(mom_));
    ProtobufCMessage *out = nullptr;
    EXPECT_EQ(TQ_MOM_ERR_NOT_FOUND, tq_mom_get_sync(&ctx_, DB, ilm_t(1, 0).msg(), &out));
    EXPECT_EQ(2u, tq_mom_redis_bad_values(mom_));
}

TEST_F(RedisMom, LostServerIsReportedAndTheLinkComesBack) {
    std::vector<uint32_t> types;
    std::vector<seen_t> seen;
    ilm_t after(3, 3);
    ASSERT_EQ(TQ_MOM_OK, tq_mom_client_set_reconnect_cb(&ctx_, DB, reconn_cb, &types));
    subscribe(after.msg(), seen);
    server_->kill_hard();
    ASSERT_TRUE(pump([&] { return !types.empty(); }));
    EXPECT_EQ(std::vector<uint32_t>{TQ_MOM_CONN_LOST}, types);
    EXPECT_EQ(TQ_MOM_ERR_CONN, tq_mom_set_sync(&ctx_, DB, after.msg()));

    ASSERT_TRUE(server_->start());
    cli_ = std::make_unique<redis_cli_t>(server_->socket());
    cli_->select(DB);
    ASSERT_TRUE(pump([&] { return types.size() == 2; }, 5000));
    EXPECT_EQ(TQ_MOM_CONN_BACK, types[1]);
    ASSERT_TRUE(pump([&] { return !seen.empty(); }));
    EXPECT_EQ(TQ_MOM_CMD_END, seen[0].cmd);  // the subscription ends again: time to re-sync
    EXPECT_EQ(TQ_MOM_FLAG_SCAN_OVER, seen[0].flag);
    seen.clear();
    put(after.msg());
    ASSERT_TRUE(pump([&] { return !seen.empty(); })) << "subscriptions are back";
    EXPECT_EQ(TQ_MOM_CMD_SET, seen[0].cmd);
    EXPECT_EQ(TQ_MOM_OK, tq_mom_set_sync(&ctx_, DB, after.msg()));
}

// Classes another user of the server set are kept; the ones the client needs are added.
TEST_F(RedisMom, ConnectKeepsNoticeClassesAndAddsTheMissingOnes) {
    cli_->command({"CONFIG", "SET", "notify-keyspace-events", "El"});
    tq_mom_client_t *other = tq_mom_redis_new(base_);
    tq_global_t ctx2 = {other, base_, "other"};
    ASSERT_EQ(TQ_MOM_OK, tq_mom_client_connect_sync(&ctx2, 4));
    tq_mom_client_free(other);
    redisContext *c = tq_redis_connect(tq_redis_addr_from_env(), 1000);
    ASSERT_NE(c, nullptr);
    auto *r = static_cast<redisReply *>(redisCommand(c, "CONFIG GET notify-keyspace-events"));
    ASSERT_TRUE(r != nullptr && r->type == REDIS_REPLY_ARRAY && r->elements == 2);
    std::string got(r->element[1]->str, r->element[1]->len);
    freeReplyObject(r);
    redisFree(c);
    EXPECT_EQ(10u, got.size()) << got;
    for (char ch : std::string("K$hgxlsztE")) EXPECT_NE(std::string::npos, got.find(ch)) << got;
}

TEST(RedisAddr, ParsesUnixAndTcpAndRefusesTheRest) {
    struct {
        const char *text;
        int rv;
        bool is_unix;
        const char *path;
        int port;
    } cases[] = {
        {"unix:/tmp/x/redis.sock", 0, true, "/tmp/x/redis.sock", 0},
        {"10.0.0.2:6380", 0, false, "10.0.0.2", 6380},
        {"[::1]:7000", 0, false, "::1", 7000},
        {"unix:", -4, false, "kept", 1},
        {"host", -4, false, "kept", 1},
        {":6379", -4, false, "kept", 1},
        {"host:65536", -4, false, "kept", 1},
        {"host:12x", -4, false, "kept", 1},
    };
    for (const auto &c : cases) {
        tq_redis_addr_t a{false, "kept", 1};
        EXPECT_EQ(c.rv, tq_redis_addr_parse(c.text, a)) << c.text;
        EXPECT_EQ(c.is_unix, a.is_unix) << c.text;
        EXPECT_EQ(c.path, a.path) << c.text;
        EXPECT_EQ(c.port, a.port) << c.text;
    }
    setenv("MOM_REDIS", "nowhere", 1);
    EXPECT_EQ(std::make_pair(std::string("127.0.0.1"), 6379),
              std::make_pair(tq_redis_addr_from_env().path, tq_redis_addr_from_env().port));
    unsetenv("MOM_REDIS");
    EXPECT_EQ("a\\*b\\?\\[c\\]\\\\", tq_redis_glob_escape("a*b?[c]\\"));
}

}  // namespace
