// Restarts that lose nothing: a daemon killed while loading, changes made while
// it is down, and the store going away under it all end in the same records
// for the lower layers as an undisturbed run, with the same MPLS ids.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <set>

#include "e2e/e2e_env.h"
#include "platform/mom/tq_mom_name.h"
#include "s_route.pb-c.h"

namespace {

constexpr int kWaitMs = 30000;

// The outputs with every MPLS id replaced by the adjacency it names, so that
// two runs that numbered their adjacencies differently compare equal when
// they programmed the same forwarding state.
struct e2e_norm_t {
    std::multiset<std::string> recs;
    std::map<std::string, uint64_t> ids;  // adjacency without its id -> id
    size_t dangling = 0;                  // routes naming no adjacency
    size_t unused = 0;                    // adjacencies no route names
    uint64_t max_high = 0;                // highest high part of an id
};

class e2e_restart_t : public e2e_env_t {
protected:
    // Packs a decoded record again with its id cleared.
    template <typename Key>
    static std::string without_id(ProtobufCMessage *m, Key *k, uint64_t Key::*id) {
        uint64_t saved = k->*id;
        k->*id = 0;
        std::string out;
        tq_mom_pack(m, out);
        k->*id = saved;
        return out;
    }

    e2e_norm_t normalize() {
        e2e_norm_t n;
        std::map<uint64_t, std::string> adj_of;  // id -> adjacency without its id
        for (const e2e_table_t *t : {&E2E_FTN_ADJ, &E2E_VC_ADJ, &E2E_ILM_ADJ})
            for (auto &[key, m] : rows(*t)) {
                auto *a = e2e_as<SRoute__InSubAdj>(m);
                std::string sig = without_id(m.get(), a->index, &SRoute__InSubAdjKey::mplsid);
                EXPECT_EQ(n.ids.count(sig), 0u) << "two adjacencies for one label operation: " << key;
                n.ids[sig] = a->index->mplsid;
                adj_of[a->index->mplsid] = sig;
                n.max_high = std::max<uint64_t>(n.max_high, a->index->mplsid >> 32);
                n.recs.insert("adj " + sig);
            }
        std::set<uint64_t> named;
        auto route = [&](const std::string &what, const std::string &rec, uint64_t id) {
            named.insert(id);
            auto it = adj_of.find(id);
            if (it == adj_of.end()) ++n.dangling;
            n.recs.insert(what + rec + " -> " + (it == adj_of.end() ? "?" : it->second));
        };
        for (auto &[key, m] : rows(E2E_FTN_RT)) {
            auto *r = e2e_as<SRoute__CommRt>(m);
            route("ftn ", without_id(m.get(), r->index, &SRoute__CommRtKey::mpls_id), r->index->mpls_id);
        }
        for (const e2e_table_t *t : {&E2E_VC_VIR_RT, &E2E_ILM_VIR_RT})
            for (auto &[key, m] : rows(*t)) {
                auto *r = e2e_as<SRoute__VirRt>(m);
                route("vir ", without_id(m.get(), r->index, &SRoute__VirRtKey::mpls_id), r->index->mpls_id);
            }
        for (const auto &[id, sig] : adj_of)
            if (named.count(id) == 0) ++n.unused;
        for (const e2e_table_t *t : {&E2E_UDP_ILM, &E2E_LAB_SW, &E2E_MPLS_EN, &E2E_TTL_COPY})
            for (const auto &[key, value] : snapshot())
                if (key.rfind(std::to_string(t->db) + "|" + t->prefix, 0) == 0) n.recs.insert(key + value);
        return n;
    }

    // Every adjacency seen before keeps its id; new ones lie above all of them.
    static void expect_ids_kept(const e2e_norm_t &before, const e2e_norm_t &after) {
        size_t kept = 0;
        for (const auto &[sig, id] : after.ids) {
            auto it = before.ids.find(sig);
            if (it != before.ids.end()) {
                EXPECT_EQ(id, it->second) << "an adjacency changed its id over the restart";
                ++kept;
            } else {
                EXPECT_GT(id >> 32, before.max_high) << "a new id collides with the recovered range";
            }
        }
        EXPECT_EQ(kept, before.ids.size()) << "every adjacency seen before is still there";
    }

    static void expect_sound(const e2e_norm_t &n) {
        EXPECT_EQ(n.dangling, 0u) << "a route names an adjacency that does not exist";
        EXPECT_EQ(n.unused, 0u) << "an adjacency that no route uses was left behind";
    }

    // A restart over the daemon's own earlier output is routine, not an error.
    void expect_no_error_lines() {
        std::string log = daemon_->log();
        size_t at = log.find(" ERROR ");
        EXPECT_EQ(at, std::string::npos) << log.substr(at, log.find('\n', at) - at);
    }

    void kill_daemon() {
        EXPECT_EQ(daemon_->stop(SIGKILL), 128 + SIGKILL);
    }
};

// 1500 FTN and 1500 ILM swaps, interleaved, as an upper layer loading a full
// table would write them. The first 1000 of each share 200 (FTN) and 100 (ILM)
// label operations; the last 500 bring 50 and 25 operations of their own.
std::vector<e2e_rec_t> bulk_inputs() {
    std::vector<e2e_rec_t> in;
    for (uint32_t i = 0; i < 1500; ++i) {
        bool late = i >= 1000;
        std::string prefix = "10." + std::to_string(i / 256) + "." + std::to_string(i % 256) + ".0";
        std::string nh = "192.0.2." + std::to_string(1 + i % 4);
        uint32_t ftn_label = 16000 + (late ? 200 + i % 50 : i % 200);
        in.push_back(e2e_ftn({1, prefix, 24, 100 + i % 4, nh, {ftn_label}, 1}));
        std::string ilm_nh = "198.51.100." + std::to_string(1 + i % 4);
        uint32_t ilm_label = 30000 + (late ? 100 + i % 25 : i % 100);
        in.push_back(e2e_ilm({20000 + i, ilm_nh, 200 + i % 4, {ilm_label}, 3}));
    }
    return in;
}

const std::map<const e2e_table_t *, size_t> kBulkOutputs = {
    {&E2E_FTN_RT, 1500}, {&E2E_ILM_VIR_RT, 1500}, {&E2E_UDP_ILM, 1500},
    {&E2E_FTN_ADJ, 250}, {&E2E_ILM_ADJ, 125}};

TEST_F(e2e_restart_t, KilledWhileLoadingEndsLikeAnUndisturbedRun) {
    const std::vector<e2e_rec_t> in = bulk_inputs();
    const long inputs_db6 = static_cast<long>(in.size());
    start(1);

    // Load two thirds in pipelined chunks; kill -9 once a third of the routes
    // (one per entry) are out, while the daemon is still working through them.
    constexpr size_t kChunk = 100;
    const size_t first_part = in.size() * 2 / 3;
    size_t written = 0;
    auto routes = [&] { return redis_->dbsize(6) - static_cast<long>(written); };
    while (written < first_part && routes() < inputs_db6 / 3) {
        size_t n = std::min(kChunk, first_part - written);
        redis_->put(std::vector<e2e_rec_t>(in.begin() + written, in.begin() + written + n));
        written += n;
    }
    ASSERT_TRUE(wait_until([&] { return routes() >= inputs_db6 / 3; }, kWaitMs));
    kill_daemon();
    const long routes_at_kill = routes();
    ASSERT_LT(routes_at_kill, static_cast<long>(written)) << "the daemon was not killed while loading";
    e2e_norm_t before = normalize();
    expect_sound(before);
    ASSERT_FALSE(before.ids.empty());

    // Start again and finish the load while it runs its data sync.
    ASSERT_TRUE(start_daemon(1));
    redis_->put(std::vector<e2e_rec_t>(in.begin() + written, in.end()));
    ASSERT_TRUE(wait_synced());
    ASSERT_TRUE(wait_outputs(kBulkOutputs, kWaitMs));
    e2e_norm_t after = normalize();
    expect_sound(after);
    expect_ids_kept(before, after);
    expect_no_error_lines();

    // The same inputs into a fresh store and daemon, undisturbed.
    fresh_store();
    start(1);
    redis_->put(in);
    ASSERT_TRUE(wait_outputs(kBulkOutputs, kWaitMs));
    e2e_norm_t ref = normalize();
    expect_sound(ref);
    EXPECT_EQ(after.recs.size(), ref.recs.size());
    EXPECT_TRUE(after.recs == ref.recs) << "the restarted run programmed something else";
    RecordProperty("routes_at_kill", static_cast<int>(routes_at_kill));
    RecordProperty("adjacencies_before_kill", static_cast<int>(before.ids.size()));
}

TEST_F(e2e_restart_t, ChangesMadeWhileDownAreSyncedAfterTheRestart) {
    const e2e_rec_t f_kept = e2e_ftn({1, "10.1.0.0", 16, 101, "192.0.2.1", {1001}, 1});
    const e2e_rec_t f_shared = e2e_ftn({1, "10.2.0.0", 16, 102, "192.0.2.2", {1001}, 1});
    const e2e_rec_t f_gone = e2e_ftn({1, "10.3.0.0", 16, 101, "192.0.2.1", {1002}, 1});
    const e2e_rec_t i_kept = e2e_ilm({5001, "192.0.2.1", 101, {6001}, 3});
    const e2e_rec_t i_gone = e2e_ilm({5002, "192.0.2.1", 101, {6002}, 3});
    const e2e_rec_t vc = e2e_vc_ftn({3001, "192.0.2.1", 101, {4001}, 1, 0, 0, 0});
    const e2e_rec_t f_new = e2e_ftn({1, "10.4.0.0", 16, 101, "192.0.2.1", {1004}, 1});
    const e2e_rec_t i_new = e2e_ilm({5003, "192.0.2.3", 103, {6003}, 3});
    start(4);
    redis_->put({f_kept, f_shared, f_gone, i_kept, i_gone, vc});
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 3}, {&E2E_FTN_ADJ, 2}, {&E2E_ILM_VIR_RT, 2},
                              {&E2E_ILM_ADJ, 2}, {&E2E_UDP_ILM, 2}, {&E2E_VC_ADJ, 1}},
                             kWaitMs));
    e2e_norm_t before = normalize();

    kill_daemon();
    redis_->del({f_gone, i_gone});
    redis_->put({f_new, i_new});
    ASSERT_TRUE(start_daemon(4));
    ASSERT_TRUE(wait_synced());
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 3}, {&E2E_FTN_ADJ, 2}, {&E2E_ILM_VIR_RT, 2},
                              {&E2E_ILM_ADJ, 2}, {&E2E_UDP_ILM, 2}, {&E2E_VC_ADJ, 1},
                              {&E2E_VC_VIR_RT, 1}},
                             kWaitMs));

    std::set<std::string> prefixes, labels_out;
    for (const auto &[key, m] : rows(E2E_FTN_RT))
        prefixes.insert(e2e_ip_text(&e2e_as<SRoute__CommRt>(m)->index->ip->base));
    EXPECT_EQ(prefixes, (std::set<std::string>{"v4:10.1.0.0", "v4:10.2.0.0", "v4:10.4.0.0"}));
    for (const auto &[key, m] : rows(E2E_FTN_ADJ))
        labels_out.insert(std::to_string(e2e_as<SRoute__InSubAdj>(m)->labels[0]));
    EXPECT_EQ(labels_out, (std::set<std::string>{"1001", "1004"}));
    EXPECT_EQ(get(E2E_UDP_ILM, "u_mpls.udp_ilm|5002"), nullptr);
    EXPECT_NE(get(E2E_UDP_ILM, "u_mpls.udp_ilm|5003"), nullptr);
    EXPECT_NE(get(E2E_UDP_ILM, "u_mpls.udp_ilm|5001"), nullptr);

    e2e_norm_t after = normalize();
    expect_sound(after);
    // The withdrawn label operations are gone; the others keep their ids.
    size_t kept = 0;
    for (const auto &[sig, id] : after.ids) {
        auto it = before.ids.find(sig);
        if (it == before.ids.end()) {
            EXPECT_GT(id >> 32, before.max_high);
            continue;
        }
        EXPECT_EQ(id, it->second);
        ++kept;
    }
    EXPECT_EQ(kept, 3u) << "labels 1001, 6001 and the VC-FTN's adjacency";
    expect_no_error_lines();
}

TEST_F(e2e_restart_t, StoreLostUnderTheDaemonExits77AndConvergesAgain) {
    std::vector<e2e_rec_t> in;
    for (uint32_t i = 0; i < 20; ++i) {
        in.push_back(e2e_ftn({2, "172.16." + std::to_string(i) + ".0", 24, 101, "192.0.2.1", {2000 + i % 5}, 1}));
        in.push_back(e2e_ilm({7000 + i, "192.0.2.2", 102, {8000 + i % 3}, 3}));
    }
    in.push_back(e2e_vc_ftn({3001, "192.0.2.1", 101, {4001, 17}, 1, 4, 200, 0}));
    in.push_back(e2e_mpls_enable(true));
    in.push_back(e2e_ttl_copy(true));
    const std::map<const e2e_table_t *, size_t> want = {
        {&E2E_FTN_RT, 20}, {&E2E_FTN_ADJ, 5},   {&E2E_ILM_VIR_RT, 20}, {&E2E_ILM_ADJ, 3},
        {&E2E_UDP_ILM, 20}, {&E2E_VC_VIR_RT, 1}, {&E2E_VC_ADJ, 1},      {&E2E_MPLS_EN, 1},
        {&E2E_TTL_COPY, 1}};
    start(4);
    redis_->put(in);
    ASSERT_TRUE(wait_outputs(want, kWaitMs));
    const e2e_snap_t before = snapshot();

    // Keep the data on disk, then take Redis away.
    EXPECT_EQ(redis_->cmd(0, {"SAVE"}), "OK");
    redis_.reset();
    server_->stop();
    EXPECT_EQ(daemon_->wait_exit(10000), 77) << "a lost store ends the daemon with 77";

    // Act as the supervisor: restart while it exits 77; bring Redis back after a while.
    using clock = std::chrono::steady_clock;
    const auto redis_back_at = clock::now() + std::chrono::milliseconds(1500);
    const auto deadline = clock::now() + std::chrono::seconds(30);
    int restarts = 0;
    bool redis_up = false, synced = false;
    ASSERT_TRUE(start_daemon(4));
    ++restarts;
    while (!synced && clock::now() < deadline) {
        int st = daemon_->wait_exit(0);
        if (st != -1) {
            ASSERT_EQ(st, 77) << "only a lost store may end the daemon";
            ASSERT_TRUE(start_daemon(4));
            ++restarts;
        }
        if (!redis_up && clock::now() >= redis_back_at) {
            ASSERT_TRUE(server_->start());
            redis_ = std::make_unique<e2e_redis_t>(server_->socket());
            redis_up = true;
        }
        synced = redis_up && daemon_->running() && wait_synced(1);
        usleep(50 * 1000);
    }
    ASSERT_TRUE(synced) << "the daemon did not come back with the store";
    ASSERT_TRUE(wait_outputs(want, kWaitMs));
    EXPECT_TRUE(snapshot() == before) << "the outputs differ after the store came back";
    EXPECT_GE(restarts, 1);
}

}  // namespace
