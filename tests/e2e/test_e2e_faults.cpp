// Faults around a running daemon, one family a test: kills at points of a
// load with changes made while it is down, the store lost under it, its links
// dropped, its outputs changed behind its back, and a restart with nothing to
// do. Each ends where a fresh daemon on the same inputs ends.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <thread>

#include "e2e/e2e_faults.h"

namespace {

constexpr uint32_t kBulk = 250;  // FTNs and ILMs loaded on top of the base

class e2e_faults_t : public e2e_env_t {
protected:
    // Routes written so far.
    long routes() { return static_cast<long>(count({6, "s_route.comm_rt", 0}) + count({6, "s_route.vir_rt", 0})); }
    void expect_like(const e2e_state_t &got, const e2e_state_t &want) {
        e2e_diff_t d = e2e_diff(got, want);
        EXPECT_TRUE(d.same()) << d.lost << " lost, " << d.stale << " stale, " << d.wrong << " wrong\n" << d.text;
        EXPECT_EQ(got.problems, std::vector<std::string>{});
    }
    void apply(const e2e_change_t &c) {
        if (!c.del.empty()) unload(c.del);
        if (!c.add.empty()) load(c.add);
    }
};

// ---- (a) kill -9 at a point of a load, inputs changed while down --------------

enum kill_at_t { kLive, kInSync, kMidLoad, kAfterLoad };
struct kill_case_t {
    kill_at_t at;
    const char *change;
};

void PrintTo(const kill_case_t &c, std::ostream *os) { *os << c.at << " " << c.change; }
class e2e_kill_t : public e2e_faults_t, public ::testing::WithParamInterface<kill_case_t> {};

TEST_P(e2e_kill_t, EndsLikeAFreshDaemonWithTheSameIds) {
    const auto [at, change_name] = GetParam();
    const e2e_change_t &change = e2e_change(change_name);
    std::vector<json> in = e2e_base_inputs(), bulk = e2e_bulk_inputs(kBulk);
    in.insert(in.end(), bulk.begin(), bulk.end());
    const e2e_state_t &want = e2e_reference(e2e_apply(in, change));
    ASSERT_EQ(want.problems, std::vector<std::string>{});

    start(1);
    load(e2e_base_inputs());
    ASSERT_TRUE(wait_quiet(300));
    const long base_routes = routes();
    redis_cli_t sub(server_->socket());  // to kill on the 200th route write of the bulk
    ASSERT_TRUE(sub.psubscribe("__keyspace@6__:s_route.*"));
    if (at == kInSync) {  // the bulk waits in the store for the next start
        EXPECT_EQ(daemon_->stop(SIGKILL), 128 + SIGKILL);
        load(bulk);
        ASSERT_TRUE(start_daemon(1));
        ASSERT_EQ(sub.messages(20000, 200).size(), 200u);
    } else if (at == kMidLoad) {
        std::thread loading([&] { load(bulk); });
        EXPECT_EQ(sub.messages(20000, 200).size(), 200u);
        EXPECT_EQ(daemon_->stop(SIGKILL), 128 + SIGKILL);
        loading.join();
    } else {
        load(bulk);
        ASSERT_TRUE(wait_quiet(300));
    }
    if (at == kInSync || at == kAfterLoad) {
        EXPECT_EQ(daemon_->stop(SIGKILL), 128 + SIGKILL);
    }
    if (at == kMidLoad || at == kInSync) {
        ASSERT_LT(routes(), base_routes + 2 * kBulk) << "killed too late";
    }
    const e2e_state_t before = e2e_capture(*this);
    EXPECT_EQ(before.problems, std::vector<std::string>{}) << "right after the kill";

    apply(change);
    if (at != kLive) {
        ASSERT_TRUE(start_daemon(1));
    }
    const e2e_state_t after = e2e_settle(*this, want);
    expect_like(after, want);
    EXPECT_EQ(e2e_ids_changed(before, after), 0u) << "an entry changed its MPLS id";
    const std::string log = daemon_->log();
    const size_t error = log.find(" ERROR ");
    EXPECT_EQ(error, std::string::npos) << log.substr(error, log.find('\n', error) - error);
}

const kill_case_t kKillCases[] = {
    {kLive, "del_swap_nh"},      {kLive, "del_ttl"},          {kInSync, "del_ftn"},    {kInSync, "del_ttl"},
    {kInSync, "del_ilm_vrf"},    {kMidLoad, "del_ftn"},       {kMidLoad, "labels"},    {kMidLoad, "del_ilm_vrf"},
    {kAfterLoad, "del_ftn"},     {kAfterLoad, "labels"},      {kAfterLoad, "del_ttl"}, {kAfterLoad, "del_ilm_vrf"},
    {kAfterLoad, "del_swap_nh"},
};
std::string kill_name(const ::testing::TestParamInfo<kill_case_t> &info) {
    static const char *at[] = {"Live", "InSync", "MidLoad", "AfterLoad"};
    return std::string(at[info.param.at]) + "_" + info.param.change;
}
INSTANTIATE_TEST_SUITE_P(Faults, e2e_kill_t, ::testing::ValuesIn(kKillCases), kill_name);

// ---- (b) the store killed or shut down while the daemon is busy -----------------

struct lost_case_t {
    bool in_sync;   // else while loading
    bool shutdown;  // else SIGKILL
};
void PrintTo(const lost_case_t &c, std::ostream *os) { *os << c.in_sync << " " << c.shutdown; }
class e2e_lost_t : public e2e_faults_t, public ::testing::WithParamInterface<lost_case_t> {};

TEST_P(e2e_lost_t, Exits77WithALogLine) {
    const auto [in_sync, shutdown] = GetParam();
    std::vector<json> bulk = e2e_bulk_inputs(4 * kBulk);
    if (in_sync) load(bulk);
    start_daemon(1);
    if (!in_sync) {
        ASSERT_TRUE(wait_synced());
        load(bulk);
    }
    ASSERT_TRUE(wait_until([&] { return count({10, "s_route.in_sub_adj", 0}) > 0; }, 20000));
    const size_t logged = daemon_->log().size();
    redis_.reset();
    shutdown ? server_->stop() : server_->kill_hard();
    EXPECT_EQ(daemon_->wait_exit(10000), 77) << "never a signal (141: SIGPIPE)";
    std::string said = daemon_->log().substr(logged);
    std::transform(said.begin(), said.end(), said.begin(), ::tolower);
    EXPECT_NE(said.find("lost"), std::string::npos) << "no log line on the lost store:\n" << said;

    // As its supervisor: the store back (empty), the inputs written again.
    ASSERT_TRUE(server_->start());
    redis_ = std::make_unique<redis_cli_t>(server_->socket());
    load(bulk);
    ASSERT_TRUE(start_daemon(1));
    expect_like(e2e_settle(*this, e2e_reference(bulk)), e2e_reference(bulk));
}

INSTANTIATE_TEST_SUITE_P(Faults, e2e_lost_t,
                         ::testing::Values(lost_case_t{false, false}, lost_case_t{false, true},
                                           lost_case_t{true, false}, lost_case_t{true, true}),
                         [](const auto &info) {
                             return std::string(info.param.in_sync ? "InSync" : "Loading") +
                                    (info.param.shutdown ? "_Shutdown" : "_Killed");
                         });

// ---- (c) links dropped with reconnect-exit off, inputs changed meanwhile --------

struct link_case_t {
    const char *types;  // client types killed
    const char *change;
};
void PrintTo(const link_case_t &c, std::ostream *os) { *os << c.types << " " << c.change; }
class e2e_link_t : public e2e_faults_t, public ::testing::WithParamInterface<link_case_t> {
protected:
    // The Redis key and packed value l3vpn-ctl writes for rec, by way of a spare database.
    std::pair<std::string, std::string> packed(json rec) {
        rec["db"] = 9;
        load({rec});
        std::vector<std::string> k = keys(9, "*");
        EXPECT_EQ(k.size(), 1u);
        std::pair<std::string, std::string> out{k.at(0), redis(9, {"GET", k.at(0)})};
        redis(9, {"FLUSHDB"});
        return out;
    }
};

TEST_P(e2e_link_t, ResyncsToTheFreshState) {
    const auto [types, change_name] = GetParam();
    const e2e_change_t &change = e2e_change(change_name);
    const e2e_state_t &want = e2e_reference(e2e_apply(e2e_base_inputs(), change));
    start(1);
    dbg("tbl-set-reconn-exit is_exit:0");
    load(e2e_base_inputs());
    ASSERT_TRUE(wait_quiet(300));
    const e2e_state_t before = e2e_capture(*this);

    // The links go and the change is written in one transaction, so the
    // daemon cannot have seen any of it live.
    auto db_of = [](const json &r) { return r["table"].get<std::string>().rfind("p_mpls.mom_conf", 0) == 0 ? "4" : "6"; };
    std::vector<std::vector<std::string>> tx{{"MULTI"}};
    std::istringstream kinds(types);
    for (std::string t; kinds >> t;) tx.push_back({"CLIENT", "KILL", "TYPE", t});
    for (const json &r : change.del) {
        tx.push_back({"SELECT", db_of(r)});
        tx.push_back({"DEL", packed(r).first});
    }
    for (const json &r : change.add) {
        auto [k, v] = packed(r);
        tx.push_back({"SELECT", db_of(r)});
        tx.push_back({"SET", k, v});
    }
    tx.push_back({"EXEC"});
    for (const auto &words : tx) redis_->command(words);

    const e2e_state_t after = e2e_settle(*this, want, 3000);
    EXPECT_TRUE(daemon_->running()) << "the daemon ended although told not to";
    expect_like(after, want);
    EXPECT_EQ(e2e_ids_changed(before, after), 0u);
}

INSTANTIATE_TEST_SUITE_P(Faults, e2e_link_t,
                         ::testing::Values(link_case_t{"normal", "del_ftn"}, link_case_t{"pubsub", "labels"},
                                           link_case_t{"normal pubsub", "del_ttl"},
                                           link_case_t{"normal pubsub", "del_swap_nh"}),
                         [](const auto &info) {
                             std::string n = std::string(info.param.types) + "_" + info.param.change;
                             std::replace(n.begin(), n.end(), ' ', '_');
                             return n;
                         });

// ---- (d) outputs deleted, garbled or flushed behind the daemon's back ------------

enum outside_t { kDeleted, kGarbled, kFlushed };
class e2e_outside_t : public e2e_faults_t, public ::testing::WithParamInterface<outside_t> {};

TEST_P(e2e_outside_t, RepairedWithin10sWithoutARestart) {
    start(1);
    load(e2e_base_inputs());
    ASSERT_TRUE(wait_quiet(300));
    const e2e_state_t before = e2e_capture(*this);
    const pid_t pid = daemon_->pid();

    if (GetParam() == kFlushed) {
        redis(0, {"FLUSHALL"});
        load(e2e_base_inputs());
    } else {
        // One record of every output kind.
        for (auto [db, pattern] : std::vector<std::pair<int, std::string>>{
                 {6, "s_route.comm_rt|*"}, {6, "s_route.vir_rt|*"}, {10, "s_route.in_sub_adj|*"},
                 {10, "u_mpls.udp_ilm|*"}, {8, "u_mpls.udp_mpls_enable*"}}) {
            std::vector<std::string> k = keys(db, pattern);
            ASSERT_FALSE(k.empty()) << pattern;
            redis(db, GetParam() == kDeleted ? std::vector<std::string>{"DEL", k[0]}
                                             : std::vector<std::string>{"SET", k[0], "\x0a\xff garbled"});
        }
    }
    const e2e_state_t after = e2e_settle(*this, before, 0, 10000);
    EXPECT_EQ(daemon_->pid(), pid);
    EXPECT_TRUE(daemon_->running());
    expect_like(after, before);
    EXPECT_EQ(e2e_ids_changed(before, after), 0u);
    // One repair, and its own writes do not pass for another client's.
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    const std::vector<e2e_row_t> drift = e2e_err_rows(show_info(), "OUTPUT_DRIFT");
    ASSERT_EQ(drift.size(), 1u);
    EXPECT_EQ(drift[0].count, 1);
}

INSTANTIATE_TEST_SUITE_P(Faults, e2e_outside_t, ::testing::Values(kDeleted, kGarbled, kFlushed),
                         [](const auto &info) {
                             return std::string(info.param == kDeleted ? "Deleted"
                                                : info.param == kGarbled ? "Garbled" : "Flushed");
                         });

// ---- (e) a restart with unchanged inputs writes nothing ---------------------------

class e2e_unchanged_t : public e2e_faults_t, public ::testing::WithParamInterface<int> {};

TEST_P(e2e_unchanged_t, RestartWritesNoOutput) {
    std::vector<json> in = e2e_base_inputs(), bulk = e2e_bulk_inputs(kBulk / 4);
    in.insert(in.end(), bulk.begin(), bulk.end());
    start(1);
    load(in);
    ASSERT_TRUE(wait_quiet(300));
    const std::string before = snapshot();
    const std::vector<json> mixed_before = rows(E2E_FTN_RT);

    redis_cli_t sub(server_->socket());
    ASSERT_TRUE(sub.psubscribe("__keyspace@*__:*"));
    daemon_->stop(GetParam());
    ASSERT_TRUE(start_daemon(1));
    ASSERT_TRUE(wait_synced());
    ASSERT_TRUE(wait_quiet(500));
    std::vector<std::string> writes;
    for (const std::string &m : sub.messages(200)) {
        const size_t at = m.find("__:");
        if (e2e_is_output(std::atoi(m.c_str() + 11), m.substr(at + 3))) writes.push_back(m);
    }
    EXPECT_EQ(writes.size(), 0u) << "first: " << (writes.empty() ? "" : writes[0]);
    EXPECT_EQ(rows(E2E_FTN_RT), mixed_before) << "another next hop installed in EF";
    EXPECT_EQ(snapshot(), before);
}

INSTANTIATE_TEST_SUITE_P(Faults, e2e_unchanged_t, ::testing::Values(SIGKILL, SIGTERM),
                         [](const auto &info) { return std::string(info.param == SIGKILL ? "Killed" : "Stopped"); });

}  // namespace
