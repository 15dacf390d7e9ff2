// Restarts that lose nothing: a daemon killed while loading and changes made
// while it is down, or the store going away under it, end in the same records
// for the lower layers as an undisturbed run, with the same MPLS ids.
#include <signal.h>
#include <unistd.h>

#include <set>

#include "e2e/e2e_env.h"

namespace {

constexpr int kWaitMs = 30000;

// The store with every MPLS id replaced by the adjacency it names, so that
// two runs that numbered their adjacencies differently compare equal when
// they programmed the same forwarding state.
struct e2e_norm_t {
    std::multiset<std::string> recs;
    std::map<std::string, uint64_t> ids;  // adjacency without its id -> id
    uint64_t max_high = 0;                // highest high part of an id
};

class e2e_restart_t : public e2e_env_t {
protected:
    e2e_norm_t normalize() {
        e2e_norm_t n;
        std::map<uint64_t, std::string> adj_of;  // id -> adjacency without its id
        std::vector<std::pair<std::string, uint64_t>> routes;
        for (const std::string &line : text_lines(snapshot())) {
            json rec = json::parse(line);
            json &index = rec["index"];
            if (rec["table"] == "s_route.in_sub_adj") {
                const uint64_t id = index["mplsid"];
                index["mplsid"] = 0;
                const std::string sig = rec.dump();
                EXPECT_EQ(n.ids.count(sig), 0u) << "two adjacencies for one label operation: " << line;
                n.ids[sig] = id;
                adj_of[id] = sig;
                n.max_high = std::max<uint64_t>(n.max_high, id >> 32);
                n.recs.insert(sig);
            } else if (rec["table"] == "s_route.comm_rt" || rec["table"] == "s_route.vir_rt") {
                const uint64_t id = index["mpls_id"];
                index["mpls_id"] = 0;
                routes.emplace_back(rec.dump(), id);
            } else {
                n.recs.insert(line);
            }
        }
        std::set<uint64_t> named;
        for (const auto &[route, id] : routes) {
            named.insert(id);
            const bool found = adj_of.count(id) != 0;
            EXPECT_TRUE(found) << "a route names an adjacency that does not exist: " << route;
            n.recs.insert(route + " -> " + (found ? adj_of[id] : "?"));
        }
        EXPECT_EQ(named.size(), adj_of.size()) << "an adjacency that no route uses was left behind";
        return n;
    }
};

// 1500 FTN and 1500 ILM swaps, interleaved, as an upper layer loading a full
// table would write them. The first 1000 of each share 200 (FTN) and 100 (ILM)
// label operations; the last 500 bring 50 and 25 operations of their own.
std::vector<json> bulk_inputs() {
    std::vector<json> in;
    for (uint32_t i = 0; i < 1500; ++i) {
        bool late = i >= 1000;
        const std::string prefix = "10." + std::to_string(i / 256) + "." + std::to_string(i % 256) + ".0";
        const std::string host = std::to_string(1 + i % 4);
        uint32_t ftn_label = 16000 + (late ? 200 + i % 50 : i % 200);
        in.push_back(e2e_ftn(1, prefix, 24, 100 + i % 4, "192.0.2." + host, {ftn_label}));
        uint32_t ilm_label = 30000 + (late ? 100 + i % 25 : i % 100);
        in.push_back(e2e_ilm(20000 + i, "198.51.100." + host, 200 + i % 4, {ilm_label}, 3));
    }
    return in;
}

TEST_F(e2e_restart_t, KilledWhileLoadingAndChangedWhileDownEndsLikeAnUndisturbedRun) {
    const std::vector<json> in = bulk_inputs();
    const long written = static_cast<long>(in.size() * 2 / 3);
    // Withdrawn while the daemon is down: every user of labels 16000 and 30000,
    // all among the first entries, so both operations are out before the kill.
    std::vector<json> gone, kept;
    for (const json &r : in) {
        const json &label = r["index"]["lb_st_0"];
        (label == 16000 || label == 30000 ? gone : kept).push_back(r);
    }
    const std::map<const e2e_table_t *, size_t> want = {
        {&E2E_FTN_RT, 1495}, {&E2E_ILM_VIR_RT, 1490}, {&E2E_UDP_ILM, 1490},
        {&E2E_FTN_ADJ, 249}, {&E2E_ILM_ADJ, 124}};
    start(1);

    // Load two thirds; kill -9 once a third of the routes (one per entry) are
    // out, while the daemon is still working through them.
    auto routes = [&] { return std::stol(redis(6, {"DBSIZE"})) - written; };
    load(std::vector<json>(in.begin(), in.begin() + written));
    ASSERT_TRUE(wait_until([&] { return routes() >= static_cast<long>(in.size()) / 3; }, kWaitMs));
    EXPECT_EQ(daemon_->stop(SIGKILL), 128 + SIGKILL);
    ASSERT_LT(routes(), written) << "the daemon was not killed while loading";
    e2e_norm_t before = normalize();

    // While it is down: the withdrawals and part of the rest; the remainder
    // while it runs its data sync.
    unload(gone);
    load(std::vector<json>(in.begin() + written, in.begin() + written + 500));
    ASSERT_TRUE(start_daemon(1));
    load(std::vector<json>(in.begin() + written + 500, in.end()));
    ASSERT_TRUE(wait_synced());
    ASSERT_TRUE(wait_outputs(want, kWaitMs));
    e2e_norm_t after = normalize();
    // All but the two withdrawn adjacencies keep their ids; new ones lie above them all.
    size_t same = 0;
    for (const auto &[sig, id] : after.ids) {
        auto it = before.ids.find(sig);
        if (it == before.ids.end()) {
            EXPECT_GT(id >> 32, before.max_high) << "a new id collides with the recovered range";
            continue;
        }
        EXPECT_EQ(id, it->second) << "an adjacency changed its id over the restart";
        ++same;
    }
    EXPECT_EQ(same, before.ids.size() - 2);
    // A restart over the daemon's own earlier output is routine, not an error.
    const std::string log = daemon_->log();
    const size_t error = log.find(" ERROR ");
    EXPECT_EQ(error, std::string::npos) << log.substr(error, log.find('\n', error) - error);

    // The final inputs into a fresh store and daemon, undisturbed.
    fresh_store();
    start(1);
    load(kept);
    ASSERT_TRUE(wait_outputs(want, kWaitMs));
    EXPECT_TRUE(after.recs == normalize().recs) << "the restarted run programmed something else";
}

TEST_F(e2e_restart_t, StoreLostUnderTheDaemonExits77AndConvergesAgain) {
    std::vector<json> in;
    for (uint32_t i = 0; i < 20; ++i) {
        in.push_back(e2e_ftn(2, "172.16." + std::to_string(i) + ".0", 24, 101, "192.0.2.1", {2000 + i % 5}));
        in.push_back(e2e_ilm(7000 + i, "192.0.2.2", 102, {8000 + i % 3}, 3));
    }
    in.push_back(e2e_vc_ftn(3001, "192.0.2.1", 101, {4001, 17}, 4, 200, 0));
    in.push_back({{"table", "p_mpls.mom_conf_global_enable"}, {"mpls_enable", true}});
    in.push_back({{"table", "p_mpls.mom_conf_vpn_ttl"}, {"vpn_ttl_enable", true}});
    const std::map<const e2e_table_t *, size_t> want = {
        {&E2E_FTN_RT, 20},   {&E2E_FTN_ADJ, 5}, {&E2E_ILM_VIR_RT, 20}, {&E2E_ILM_ADJ, 3}, {&E2E_UDP_ILM, 20},
        {&E2E_VC_VIR_RT, 1}, {&E2E_VC_ADJ, 1},  {&E2E_MPLS_EN, 1},     {&E2E_TTL_COPY, 1}};
    start(4);
    load(in);
    ASSERT_TRUE(wait_outputs(want, kWaitMs));
    const std::string before = snapshot();

    // Keep the data on disk, then take Redis away.
    EXPECT_EQ(redis(0, {"SAVE"}), "OK");
    redis_.reset();
    server_->stop();
    EXPECT_EQ(daemon_->wait_exit(10000), 77) << "a lost store ends the daemon with 77";

    // As its supervisor: start it again while the store is still away (it may
    // end with 77 once more), then bring the store back.
    ASSERT_TRUE(start_daemon(4));
    usleep(1500 * 1000);
    ASSERT_TRUE(server_->start());
    redis_ = std::make_unique<redis_cli_t>(server_->socket());
    if (int st = daemon_->wait_exit(0); st != -1) {
        ASSERT_EQ(st, 77) << "only a lost store may end the daemon";
        ASSERT_TRUE(start_daemon(4));
    }
    ASSERT_TRUE(wait_synced()) << "the daemon did not come back with the store";
    ASSERT_TRUE(wait_outputs(want, kWaitMs));
    EXPECT_EQ(snapshot(), before) << "the outputs differ after the store came back";
}

}  // namespace
