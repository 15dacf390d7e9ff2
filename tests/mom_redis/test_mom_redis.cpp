// The MOM client on a real Redis: notices, end markers, scans, data sync,
// pipelined writes, reads, bad values and connection loss.
#include <hiredis/hiredis.h>

#include <set>
#include <string>
#include <vector>

#include "mom_redis_env.h"
#include "platform/mom/tq_mom.h"
#include "platform/mom/tq_mom_name.h"
#include "platform/mom/tq_mom_redis.h"
#include "platform/runtime/tq_global.h"
#include "s_route.pb-c.h"
#include "u_mpls.pb-c.h"

namespace {

// A string-table record: udp_ilm keyed by its in-label.
struct ilm_t {
    UMpls__UdpIlmKey key = U_MPLS__UDP_ILM_KEY__INIT;
    UMpls__UdpIlm item = U_MPLS__UDP_ILM__INIT;
    ilm_t(uint32_t label, uint32_t opcode) { key.in_label = label, item.index = &key, item.opcode = opcode; }
    const ProtobufCMessage *msg() const { return &item.base; }
};

// A hash-table record: udp_lab_sw keyed by its interface.
struct lab_sw_t {
    UMpls__UdpLabSwIndex key = U_MPLS__UDP_LAB_SW_INDEX__INIT;
    UMpls__UdpLabSw item = U_MPLS__UDP_LAB_SW__INIT;
    explicit lab_sw_t(uint32_t ifx) { key.ifx = ifx, item.index = &key, item.enable = true; }
    const ProtobufCMessage *msg() const { return &item.base; }
};

// An owner-sliced record: in_sub_adj keyed by owner and mplsid.
struct adj_t {
    SRoute__InSubAdjKey key = S_ROUTE__IN_SUB_ADJ_KEY__INIT;
    SRoute__InSubAdj item = S_ROUTE__IN_SUB_ADJ__INIT;
    adj_t(uint32_t owner, uint64_t id, uint32_t ttl) { key.t_rt_owner = owner, key.mplsid = id, item.index = &key, item.ttl = ttl; }
    const ProtobufCMessage *msg() const { return &item.base; }
};

std::string rkey(const ProtobufCMessage *m) {
    std::string k;
    tq_mom_record_key(m, k);
    return k;
}

std::string packed(const ProtobufCMessage *m) {
    std::string b;
    tq_mom_pack(m, b);
    return b;
}

struct seen_t {
    uint32_t cmd, flag;
    std::string key, bytes;
    bool operator==(const seen_t &) const = default;
};

void PrintTo(const seen_t &s, std::ostream *os) {
    *os << "{cmd " << s.cmd << " flag " << s.flag << " " << s.key << " (" << s.bytes.size()
        << " bytes)}";
}

// Notice recorder: the record's key and packed bytes, which outlive the notice.
int record_cb(void *, tq_mom_msg_t *msg, void *arg) {
    auto *seen = static_cast<std::vector<seen_t> *>(arg);
    bool hash = msg->cmd == TQ_MOM_CMD_HSET || msg->cmd == TQ_MOM_CMD_HSCAN;
    const auto *m = static_cast<const ProtobufCMessage *>(
        hash ? static_cast<tq_mom_hash_res_t *>(msg->value)->value : msg->value);
    seen->push_back({msg->cmd, msg->flag, m ? rkey(m) : "", m ? packed(m) : ""});
    return 0;
}

int ds_cb(void *, tq_mom_msg_t *msg, void *arg) { return *static_cast<uint32_t *>(arg) = msg->flag, 0; }

struct reconn_t {
    std::vector<uint32_t> types;
};
int reconn_cb(void *, uint32_t, uint32_t type, void *arg) { return static_cast<reconn_t *>(arg)->types.push_back(type), 0; }

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
    void subscribe(const ProtobufCMessage *item, std::vector<seen_t> &seen, uint32_t flags = 0) {
        size_t before = seen.size();
        ASSERT_EQ(TQ_MOM_OK, tq_mom_subscribe(&ctx_, DB, item, flags, record_cb, &seen));
        ASSERT_TRUE(pump([&] { return !seen.empty() && seen.back().cmd == TQ_MOM_CMD_END; }));
        seen.erase(seen.begin() + before, seen.end());
    }
    void set_at_once(const ProtobufCMessage *m) { tq_mom_set_ext(&ctx_, DB, &AT_ONCE, m, 1, 0); }

    tq_mom_client_t *mom_ = nullptr;
    tq_global_t ctx_{};
};

TEST_F(RedisMom, NoticesOfAnotherWriterArriveInOrder) {
    ilm_t gone(20, 8), expiring(30, 9);  // notices of their end carry the key alone
    cli_->set(rkey(gone.msg()), packed(gone.msg()));
    cli_->set(rkey(expiring.msg()), packed(expiring.msg()));
    std::vector<seen_t> seen;
    ilm_t any(0, 0);
    lab_sw_t any_sw(0);
    UMpls__UdpMplsEnable enable = U_MPLS__UDP_MPLS_ENABLE__INIT;
    subscribe(any.msg(), seen);
    subscribe(any_sw.msg(), seen);
    subscribe(&enable.base, seen);
    ASSERT_TRUE(seen.empty()) << "flags 0 deliver no existing record";

    ilm_t set(10, 3), pub(40, 5);
    lab_sw_t hash(7);
    std::vector<std::pair<std::string, std::string>> fields;
    ASSERT_EQ(0, tq_mom_hash_fields(hash.msg(), fields));
    std::vector<std::string> hset = {"HSET", rkey(hash.msg())};
    for (auto &[f, v] : fields) hset.insert(hset.end(), {f, v});
    enable.enable = true;

    cli_->set(rkey(set.msg()), packed(set.msg()));
    cli_->command(hset);
    cli_->del(rkey(gone.msg()));
    cli_->command({"PEXPIRE", rkey(expiring.msg()), "1"});
    usleep(5000);
    cli_->command({"EXISTS", rkey(expiring.msg())});  // expires it now
    cli_->command({"PUBLISH", tq_mom_channel(DB, any.item.base.descriptor), packed(pub.msg())});
    cli_->set("u_mpls.udp_mpls_enable", packed(&enable.base));
    ASSERT_TRUE(pump([&] { return seen.size() >= 6; }));

    ilm_t gone_key(20, 0), expiring_key(30, 0);
    std::vector<seen_t> want = {
        {TQ_MOM_CMD_SET, 0, rkey(set.msg()), packed(set.msg())},
        {TQ_MOM_CMD_HSET, 0, rkey(hash.msg()), packed(hash.msg())},
        {TQ_MOM_CMD_DEL, 0, rkey(gone.msg()), packed(gone_key.msg())},
        {TQ_MOM_CMD_DEL, 0, rkey(expiring.msg()), packed(expiring_key.msg())},
        {TQ_MOM_CMD_SET, 0, rkey(pub.msg()), packed(pub.msg())},
        {TQ_MOM_CMD_SET, 0, "u_mpls.udp_mpls_enable", packed(&enable.base)},
    };
    EXPECT_EQ(want, seen);
    EXPECT_EQ(0u, tq_mom_redis_bad_values(mom_));
}

TEST_F(RedisMom, DataSyncSweepsWhatWasNotRewrittenInOneRoundTripEach) {
    const uint32_t OWNER = 7, OTHER = 1, N = 10000;
    for (uint32_t i = 0; i < N; ++i) {
        adj_t r(OWNER, i, 1);
        tq_mom_set_ext(&ctx_, DB, &BATCH, r.msg(), 1, 0);
    }
    for (uint32_t i = 0; i < 100; ++i) {
        adj_t r(OTHER, i, 1);
        tq_mom_set_ext(&ctx_, DB, &BATCH, r.msg(), 1, 0);
    }
    adj_t slice(OWNER, 0, 0);
    ProtobufCMessage *out = nullptr;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_get_sync(&ctx_, DB, slice.msg(), &out));  // drains the writes
    tq_mom_free(out);

    uint64_t sent = tq_mom_redis_commands(mom_);
    long evals = info_number("commandstats", "cmdstat_eval");
    ASSERT_EQ(TQ_MOM_OK, tq_mom_dsbegin_sync(&ctx_, DB, slice.msg(), TQ_MOM_MODE_OWNER, 3600, 0));
    EXPECT_EQ(1u, tq_mom_redis_commands(mom_) - sent);
    EXPECT_EQ(1, info_number("commandstats", "cmdstat_eval") - evals);

    for (uint32_t i = 0; i < N; i += 2) {
        adj_t r(OWNER, i, 2);
        tq_mom_set_ext(&ctx_, DB, &BATCH, r.msg(), 1, 0);
    }
    uint32_t flag = 0;
    sent = tq_mom_redis_commands(mom_);
    ASSERT_EQ(TQ_MOM_OK, tq_mom_dsend(&ctx_, DB, slice.msg(), TQ_MOM_MODE_OWNER, ds_cb, &flag));
    EXPECT_EQ(TQ_MOM_FLAG_PEXPIREDEL_OVER, flag);
    EXPECT_EQ(1u, tq_mom_redis_commands(mom_) - sent);

    std::vector<std::string> left = cli_->keys("s_route.in_sub_adj|7|*");
    ASSERT_EQ(N / 2, left.size());
    for (const std::string &k : left) {
        uint64_t id = std::stoull(k.substr(k.rfind('|') + 1));
        EXPECT_EQ(0u, id % 2) << k;
    }
    std::vector<std::string> others = cli_->keys("s_route.in_sub_adj|1|*");
    ASSERT_EQ(100u, others.size());
    EXPECT_EQ("-1", cli_->command({"PTTL", others[0]})) << "other owners are never marked";
}

TEST_F(RedisMom, PipelinedWritesFlushWhenTheBatchFillsOrTheTurnEnds) {
    ilm_t first(0, 9);
    tq_mom_set_ext(&ctx_, DB, &BATCH, first.msg(), 1, 0);
    EXPECT_EQ("0", cli_->command({"DBSIZE"})) << "a batched write waits for the end of the turn";
    turn();
    EXPECT_EQ("1", cli_->command({"DBSIZE"}));

    ilm_t now(1, 9);
    set_at_once(now.msg());
    EXPECT_TRUE(wait_until([&] { return cli_->command({"DBSIZE"}) == "2"; }, 1000))
        << "set option non-zero: sent without waiting for the turn";

    const uint32_t N = 100000;
    for (uint32_t i = 0; i < N; ++i) {
        ilm_t r(i, i % 13);
        ASSERT_EQ(TQ_MOM_OK, tq_mom_set_ext(&ctx_, DB, &BATCH, r.msg(), 1, 0));
        if (i == 2000) {
            EXPECT_LE(1000, std::stol(cli_->command({"DBSIZE"}))) << "full batches go";
        }
    }
    ilm_t last(N - 1, 0);
    ProtobufCMessage *out = nullptr;
    ASSERT_EQ(TQ_MOM_OK, tq_mom_get_sync(&ctx_, DB, last.msg(), &out));
    EXPECT_EQ((N - 1) % 13, reinterpret_cast<UMpls__UdpIlm *>(out)->opcode);
    tq_mom_free(out);
    EXPECT_EQ(std::to_string(N), cli_->command({"DBSIZE"}));
    EXPECT_EQ(0u, tq_mom_redis_write_errors(mom_));
}

TEST_F(RedisMom, BadValueIsCountedAndSkipped) {
    std::vector<seen_t> seen;
    ilm_t tmpl(0, 0), good(2, 6);
    subscribe(tmpl.msg(), seen);
    cli_->set("u_mpls.udp_ilm|1", "\xff\xff\xff");
    cli_->set(rkey(good.msg()), packed(good.msg()));
    ASSERT_TRUE(pump([&] { return !seen.empty(); }));
    pump([] { return false; }, 50);
    ASSERT_EQ(1u, seen.size());
    EXPECT_EQ(rkey(good.msg()), seen[0].key);
    EXPECT_EQ(1u, tq_mom_redis_bad_values(mom_));
    ilm_t bad(1, 0);
    ProtobufCMessage *out = nullptr;
    EXPECT_EQ(TQ_MOM_ERR_NOT_FOUND, tq_mom_get_sync(&ctx_, DB, bad.msg(), &out));
    EXPECT_EQ(2u, tq_mom_redis_bad_values(mom_));
}

TEST_F(RedisMom, LostServerIsReportedAndTheLinkComesBack) {
    reconn_t rc;
    std::vector<seen_t> seen;
    ilm_t tmpl(0, 0), after(3, 3);
    ASSERT_EQ(TQ_MOM_OK, tq_mom_client_set_reconnect_cb(&ctx_, DB, reconn_cb, &rc));
    subscribe(tmpl.msg(), seen);
    server_->kill_hard();
    ASSERT_TRUE(pump([&] { return !rc.types.empty(); }));
    EXPECT_EQ(std::vector<uint32_t>{TQ_MOM_CONN_LOST}, rc.types);
    EXPECT_EQ(TQ_MOM_ERR_CONN, tq_mom_set_sync(&ctx_, DB, after.msg()));

    ASSERT_TRUE(server_->start());
    redis_cli_t cli(server_->socket());
    cli.select(DB);
    ASSERT_TRUE(pump([&] { return rc.types.size() == 2; }, 5000));
    EXPECT_EQ(TQ_MOM_CONN_BACK, rc.types[1]);
    cli.set(rkey(after.msg()), packed(after.msg()));
    ASSERT_TRUE(pump([&] { return !seen.empty(); })) << "subscriptions are back";
    EXPECT_EQ(TQ_MOM_CMD_SET, seen[0].cmd);
    EXPECT_EQ(TQ_MOM_OK, tq_mom_set_sync(&ctx_, DB, after.msg()));
}

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
    EXPECT_EQ(7u, got.size()) << got;
    for (char ch : std::string("K$hgxEl")) EXPECT_NE(std::string::npos, got.find(ch)) << got;
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
