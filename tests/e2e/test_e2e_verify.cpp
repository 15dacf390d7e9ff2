// l3vpn-ctl verify and graph against a real store and a running daemon loaded
// with the example network. verify: clean as loaded; faults made behind the
// daemon's back are reported by table and key, and gone again once the daemon
// has repaired them. graph: the picture of the same state.
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>

#include "e2e/e2e_env.h"

namespace {

// The source tree comes from CTest's environment (L3VPN_SOURCE_DIR).
std::string example_network() {
    const char *src = getenv("L3VPN_SOURCE_DIR");
    return std::string(src != nullptr ? src : "L3VPN_SOURCE_DIR-unset") + "/examples/network.jsonl";
}

class e2e_verify_t : public e2e_env_t {
protected:
    void SetUp() override {
        e2e_env_t::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        start(1);
        ctl_result_t r = ctl({"load", example_network()});
        ASSERT_EQ(r.status, 0) << r.err;
        ASSERT_TRUE(wait_quiet(300));
    }
    ctl_result_t verify() { return ctl({"verify"}); }
    // The difference lines of a run: every line but the "verify: " ones.
    static std::vector<std::string> differences(const ctl_result_t &r) {
        std::vector<std::string> out;
        for (const std::string &l : text_lines(r.out))
            if (l.rfind("verify: ", 0) != 0) out.push_back(l);
        return out;
    }
    // The key text of the first record (by Redis key) of a table that matches pattern.
    std::string first_key(int db, const std::string &pattern) {
        std::vector<std::string> k = keys(db, pattern);
        std::sort(k.begin(), k.end());
        return k.empty() ? "" : k[0].substr(k[0].find('|') + 1);
    }
    // Keyspace notices off: the daemon does not see what is written meanwhile.
    void notices(bool on) { redis(0, {"CONFIG", "SET", "notify-keyspace-events", on ? "K$hgx" : ""}); }
};

constexpr const char *kClean =
    "verify: no difference: the store holds what its inputs imply, and the daemon holds the same state";

// A fault made behind the daemon's back, and the lines verify must print for it.
struct fault_t {
    const char *name;
    bool stop_daemon;  // SIGSTOP while verifying: the repair must not come first
    std::function<std::vector<std::string>()> make;
};

TEST_F(e2e_verify_t, ReportsEveryFaultByTableAndKey) {
    ctl_result_t clean = verify();
    EXPECT_EQ(clean.status, 0) << clean.out << clean.err;
    EXPECT_EQ(differences(clean), std::vector<std::string>{});
    EXPECT_EQ(text_lines(clean.out).back(), kClean);
    EXPECT_EQ(clean.err, "");  // the daemon run in the tool logs nothing

    const fault_t faults[] = {
        {"an inner adjacency deleted", true,
         [this] {
             std::string k = first_key(10, "s_route.in_sub_adj|1|*");
             redis(10, {"DEL", "s_route.in_sub_adj|" + k});
             return std::vector<std::string>{"store s_route.in_sub_adj " + k + ": missing"};
         }},
        {"a route's weight garbled", true,
         [this] {
             std::string k = first_key(6, "s_route.comm_rt|*");
             json rt = rows(E2E_FTN_RT).at(0);
             rt["weight"] = 7;
             load({rt});
             return std::vector<std::string>{"store s_route.comm_rt " + k +
                                             ": differs: field weight: store 7, expected 1"};
         }},
        {"a stray inner adjacency", true,
         [this] {
             json stray = {{"table", "s_route.in_sub_adj"},
                           {"index", {{"t_rt_owner", 1}, {"ip", "127.0.0.1"}, {"mplsid", 999}}},
                           {"labels", {77}}};
             load({stray});
             return std::vector<std::string>{"store s_route.in_sub_adj 1|0|0|v4:127.0.0.1|999: stale"};
         }},
        // The daemon answers here and still holds the entry.
        {"an input deleted unseen", false,
         [this] {
             std::string rt = first_key(6, "s_route.comm_rt|1|2|v6:2001:db8:2::|*");
             notices(false);
             unload({e2e_ftn(2, "2001:db8:2::", 48, 102, "2001:db8:ff::2", {2002})});
             return std::vector<std::string>{
                 "store s_route.comm_rt " + rt + ": stale",
                 "daemon dump-ftn-db ftn vrf 2 2001:db8:2::/48 first_opcode PUSH nhops 1: held by the "
                 "daemon, not implied by the store"};
         }},
    };
    for (const fault_t &f : faults) {
        SCOPED_TRACE(f.name);
        if (f.stop_daemon) ::kill(daemon_->pid(), SIGSTOP);
        const std::vector<std::string> want = f.make();
        ctl_result_t r = verify();
        EXPECT_EQ(r.status, 1) << r.out << r.err;
        const std::vector<std::string> got = differences(r);
        for (const std::string &line : want)
            EXPECT_NE(std::find(got.begin(), got.end(), line), got.end()) << "no line: " << line << "\n" << r.out;
        EXPECT_EQ(r.out.find("only the store was verified") != std::string::npos, f.stop_daemon) << r.out;

        // Put right (by the daemon's repair, or the input written back unseen): clean again.
        if (f.stop_daemon) ::kill(daemon_->pid(), SIGCONT);
        if (!f.stop_daemon) {
            load({e2e_ftn(2, "2001:db8:2::", 48, 102, "2001:db8:ff::2", {2002})});
            notices(true);
        }
        EXPECT_TRUE(wait_until([&] { return verify().status == 0; }, 15000)) << verify().out;
    }

    // No daemon: the store alone, and it says so. The daemon run inside the
    // tool leaves nothing under the root (no pid file, socket or log).
    daemon_->stop();
    auto files = [&] {
        std::set<std::string> out;
        for (const auto &e : std::filesystem::recursive_directory_iterator(daemon_->root())) out.insert(e.path());
        return out;
    };
    const std::set<std::string> before = files();
    ctl_result_t alone = verify();
    EXPECT_EQ(alone.status, 0) << alone.out;
    EXPECT_NE(alone.out.find("only the store was verified"), std::string::npos) << alone.out;
    EXPECT_EQ(files(), before);
}

// ---- graph ---------------------------------------------------------------------------

// Node ids and edges of a DOT text as l3vpn-ctl graph writes it: one node or
// edge a line, ids quoted.
struct dot_t {
    std::set<std::string> nodes, entries;
    std::set<std::pair<std::string, std::string>> edges;
    bool balanced = true;  // braces outside quotes
};

dot_t parse_dot(const std::string &text) {
    dot_t d;
    int depth = 0;
    for (const std::string &line : text_lines(text)) {
        std::vector<std::string> ids;
        std::string cur;
        bool quoted = false;
        for (size_t i = 0; i < line.size(); ++i) {
            char ch = line[i];
            if (quoted && ch == '\\' && i + 1 < line.size()) {
                cur += line[++i];
            } else if (ch == '"') {
                if (quoted) ids.push_back(cur);
                cur.clear();
                quoted = !quoted;
            } else if (quoted) {
                cur += ch;
            } else {
                depth += ch == '{' ? 1 : ch == '}' ? -1 : 0;
                d.balanced = d.balanced && depth >= 0;
            }
        }
        if (line.find(" -> ") != std::string::npos && ids.size() == 2) {
            d.edges.emplace(ids[0], ids[1]);
        } else if (line.find(" [label=") != std::string::npos && !ids.empty()) {
            d.nodes.insert(ids[0]);
            if (ids[0].rfind("entry|", 0) == 0) d.entries.insert(ids[0]);
        }
    }
    d.balanced = d.balanced && depth == 0;
    return d;
}

bool have_dot() { return std::system("command -v dot >/dev/null 2>&1") == 0; }

// The entry node ids the example's input records make: all, or those of
// one VRF (its FTNs and the ILMs into it), or of one in-label.
std::set<std::string> example_entries(const std::string &vrf = "", const std::string &label = "") {
    std::set<std::string> out;
    std::ifstream in(example_network());
    for (std::string line; std::getline(in, line);) {
        json r = json::parse(line);
        const json &k = r.value("index", json::object());
        const std::string t = r["table"];
        bool all = vrf.empty() && label.empty();
        if (t == "p_mpls.mom_msg_ftn" && (all || std::to_string(k["vrf_id"].get<int>()) == vrf))
            out.insert("entry|ftn|" + std::to_string(k["vrf_id"].get<int>()) + "|" + k["prefix"].get<std::string>() +
                       "/" + std::to_string(k["prefix_len"].get<int>()));
        if (t == "u_mpls.udp_vc_ftn" && all) out.insert("entry|vc_ftn|" + std::to_string(k["vc_ifx"].get<int>()));
        const std::string in_label = t == "p_mpls.mom_msg_ilm" ? std::to_string(k["in_label"].get<int>()) : "";
        if (!in_label.empty() && (all || in_label == label || std::to_string(r.value("vrfid", 0)) == vrf))
            out.insert("entry|ilm|" + in_label);
    }
    return out;
}

TEST_F(e2e_verify_t, GraphShowsEachEntryThroughItsAdjacency) {
    ctl_result_t all = ctl({"graph"});
    ASSERT_EQ(all.status, 0) << all.err;
    const dot_t g = parse_dot(all.out);
    EXPECT_TRUE(g.balanced);
    if (have_dot()) {
        const std::string file = dir_->path() + "/net.dot";
        std::ofstream(file) << all.out;
        EXPECT_EQ(std::system(("dot -Tcanon " + file + " >/dev/null").c_str()), 0) << all.out;
    }
    EXPECT_EQ(g.entries, example_entries());

    // Every route in the store: its entry reaches, through a next hop, the
    // adjacency of the MPLS id the route names, and a UC record holds that id.
    size_t checked = 0;
    for (const e2e_table_t *t : {&E2E_FTN_RT, &E2E_VC_VIR_RT, &E2E_ILM_VIR_RT}) {
        for (const json &rt : rows(*t)) {
            const json &k = rt["index"];
            const std::string id = std::to_string(k["mpls_id"].get<uint64_t>());
            std::string entry = "entry|vc_ftn|" + std::to_string(k["vrf"].get<int>());
            if (t == &E2E_FTN_RT)
                entry = "entry|ftn|" + std::to_string(k["vrf"].get<int>()) + "|" + k["ip"].get<std::string>() + "/" +
                        std::to_string(k["mask_len"].get<int>());
            if (t == &E2E_ILM_VIR_RT) {
                unsigned a, b, c, d;
                ASSERT_EQ(sscanf(k["ip"].get<std::string>().c_str(), "%u.%u.%u.%u", &a, &b, &c, &d), 4);
                entry = "entry|ilm|" + std::to_string((b << 16) | (c << 8) | d);
            }
            EXPECT_EQ(keys(10, "s_route.in_sub_adj|*|" + id).size(), 1u) << id;
            bool reached = false;
            for (const auto &[from, nh] : g.edges)
                reached = reached || (from == entry && g.edges.count({nh, "adj|" + id}) != 0);
            EXPECT_TRUE(reached) << entry << " does not reach adj|" << id;
            ++checked;
        }
    }
    EXPECT_EQ(checked, count({6, "s_route.comm_rt", 0}) + count({6, "s_route.vir_rt", 0}));
    EXPECT_GE(checked, 10u);

    // A filter keeps its entries and what hangs off them, nothing else.
    const struct {
        std::vector<std::string> args;
        std::set<std::string> entries;
    } filters[] = {{{"--vrf", "1"}, example_entries("1")}, {{"--label", "5002"}, example_entries("", "5002")}};
    for (const auto &f : filters) {
        std::vector<std::string> args{"graph"};
        args.insert(args.end(), f.args.begin(), f.args.end());
        ctl_result_t r = ctl(args);
        ASSERT_EQ(r.status, 0) << r.err;
        const dot_t filtered = parse_dot(r.out);
        EXPECT_EQ(filtered.entries, f.entries) << f.args[0];
        std::set<std::string> reached = filtered.entries;
        for (size_t hop = 0; hop < 3; ++hop)
            for (const auto &[from, to] : filtered.edges)
                if (reached.count(from) != 0) reached.insert(to);
        EXPECT_EQ(reached, filtered.nodes) << f.args[0];
        EXPECT_TRUE(std::includes(g.nodes.begin(), g.nodes.end(), filtered.nodes.begin(), filtered.nodes.end()));
        EXPECT_LT(filtered.nodes.size(), g.nodes.size());
    }

    // Written to a file: the same DOT; an SVG through dot.
    const std::string dot_file = dir_->path() + "/g.dot", svg_file = dir_->path() + "/g.svg";
    EXPECT_EQ(ctl({"graph", "-o", dot_file}).status, 0);
    EXPECT_EQ(file_text(dot_file), all.out);
    if (have_dot()) {
        EXPECT_EQ(ctl({"graph", "-o", svg_file}).status, 0);
        EXPECT_NE(file_text(svg_file).find("<svg"), std::string::npos);
    }
    EXPECT_EQ(ctl({"graph", "--vrf", "1", "--label", "5"}).status, 2);
}

}  // namespace
