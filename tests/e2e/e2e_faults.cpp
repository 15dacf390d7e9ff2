#include "e2e/e2e_faults.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <sstream>

namespace {

const std::set<std::string> kOutputs = {
    "s_route.comm_rt",        "s_route.vir_rt",      "s_route.in_sub_adj",          "u_mpls.udp_ilm",
    "u_mpls.udp_mpls_enable", "u_mpls.udp_lab_sw",   "u_mpls.udp_ttl_copy_enable", "u_mpls.udp_srte_status_cnt",
    "p_mpls.mom_conf_fwd_ability"};

// A record's identity: its table and key with the MPLS id zeroed.
std::string key_of(const json &rec) {
    json index = rec.contains("index") ? rec["index"] : json();
    if (index.contains("mpls_id")) index["mpls_id"] = 0;
    return rec["table"].get<std::string>() + " " + index.dump();
}

std::string without_ttl(std::string sig) {
    json a = json::parse(sig);
    a.erase("ttl");
    return a.dump();
}

}  // namespace

bool e2e_is_output(int db, const std::string &key) {
    const std::string table = key.substr(0, key.find('|'));
    return (db == 4 || db == 6 || db == 8 || db == 10) && kOutputs.count(table) != 0;
}

e2e_state_t e2e_capture(e2e_store_t &s) {
    e2e_state_t st;
    std::map<uint64_t, std::string> adj_of;  // id -> adjacency without its id
    std::vector<std::pair<json, uint64_t>> routes;
    ctl_result_t dump = s.ctl({"dump", "all", "--json"});
    for (const std::string &line : text_lines(dump.out)) {
        json rec = json::parse(line, nullptr, false);
        if (rec.is_discarded()) {
            st.recs["?" + line] = line;
            continue;
        }
        json &index = rec["index"];
        if (rec["table"] == "s_route.in_sub_adj") {
            const uint64_t id = index["mplsid"];
            index["mplsid"] = 0;
            const std::string sig = rec.dump();
            if (st.recs.count(sig) != 0) st.problems.push_back("two adjacencies for one operation: " + line);
            st.recs[sig] = sig;
            adj_of[id] = sig;
        } else if (rec["table"] == "s_route.comm_rt" || rec["table"] == "s_route.vir_rt") {
            const uint64_t id = index["mpls_id"];
            index["mpls_id"] = 0;
            routes.emplace_back(rec, id);
        } else {
            st.recs[key_of(rec)] = line;
        }
    }
    for (const std::string &l : text_lines(dump.err)) st.recs["?" + l] = l;  // records that do not decode
    for (const auto &[route, id] : routes) {
        auto adj = adj_of.find(id);
        if (adj == adj_of.end()) st.problems.push_back("route names no adjacency: " + route.dump());
        const std::string sig = adj != adj_of.end() ? adj->second : "?";
        st.recs[key_of(route)] = route.dump() + " -> " + sig;
        st.ids[key_of(route) + " -> " + (adj != adj_of.end() ? without_ttl(sig) : "?")] = id;
    }
    for (const std::string &l : text_lines(s.redis(0, {"INFO", "keyspace"})))
        if (l.rfind("db", 0) == 0 && l.find(",expires=0,") == std::string::npos)
            st.problems.push_back("records with a TTL: " + l);
    if (s.daemon_ == nullptr || !s.daemon_->running()) return st;  // a killed daemon has only its outputs
    st.mem_cnt = s.dbg("get-mem_cnt");
    for (const std::string &l : text_lines(s.show_info())) {
        const std::string t = l.substr(std::min(l.size(), l.find_first_not_of(' ')));
        for (const std::string name : {"ftn db", "vc ftn db", "ilm db", "in_adj db"})
            if (t.rfind(name + " ", 0) == 0) st.nodes[name] = std::atol(t.c_str() + name.size());
    }
    return st;
}

e2e_diff_t e2e_diff(const e2e_state_t &got, const e2e_state_t &want) {
    e2e_diff_t d;
    std::ostringstream text;
    auto note = [&](const std::string &what, const std::string &rec) {
        if (d.lost + d.stale + d.wrong <= 6) text << what << ": " << rec << "\n";
    };
    for (const auto &[k, v] : want.recs) {
        auto it = got.recs.find(k);
        if (it == got.recs.end()) {
            ++d.lost;
            note("lost", v);
        } else if (it->second != v) {
            ++d.wrong;
            note("wrong", it->second + "\n  want " + v);
        }
    }
    for (const auto &[k, v] : got.recs)
        if (want.recs.count(k) == 0) {
            ++d.stale;
            note("stale", v);
        }
    if (got.mem_cnt != want.mem_cnt) text << "get-mem_cnt" << got.mem_cnt << "want" << want.mem_cnt;
    for (const auto &[name, n] : want.nodes)
        if (got.nodes.count(name) == 0 || got.nodes.at(name) != n)
            text << name << ": " << (got.nodes.count(name) ? got.nodes.at(name) : -1) << " nodes, want " << n << "\n";
    d.text = text.str();
    return d;
}

size_t e2e_ids_changed(const e2e_state_t &before, const e2e_state_t &after) {
    size_t n = 0;
    for (const auto &[route, id] : before.ids) {
        auto it = after.ids.find(route);
        if (it != after.ids.end() && it->second != id) ++n;
    }
    return n;
}

const e2e_state_t &e2e_reference(const std::vector<json> &inputs) {
    static std::map<std::string, e2e_state_t> done;
    std::string name;
    for (const json &r : inputs) name += r.dump() + "\n";
    if (auto it = done.find(name); it != done.end()) return it->second;
    e2e_store_t ref;
    ref.fresh_store();
    ref.start(1);
    ref.load(inputs);
    ref.wait_quiet(400);
    e2e_state_t st = e2e_capture(ref);
    if (std::string report = ref.daemon_->sanitizer_report(); !report.empty()) st.problems.push_back(report);
    return done[name] = std::move(st);
}

e2e_state_t e2e_settle(e2e_store_t &s, const e2e_state_t &want, int quiet_ms, int timeout_ms) {
    using clock = std::chrono::steady_clock;
    const auto end = clock::now() + std::chrono::milliseconds(timeout_ms);
    s.wait_synced(timeout_ms / 1000);
    e2e_state_t st = e2e_capture(s);
    auto since = clock::now();
    while (!e2e_diff(st, want).same() && clock::now() < end) {
        if (quiet_ms > 0 && clock::now() - since >= std::chrono::milliseconds(quiet_ms)) break;
        usleep(100 * 1000);
        e2e_state_t now = e2e_capture(s);
        if (now.recs != st.recs || now.mem_cnt != st.mem_cnt) since = clock::now();
        st = std::move(now);
    }
    return st;
}

std::vector<json> e2e_base_inputs() {
    json vc_pop = e2e_ilm(5006, "0.0.0.0", 0, {}, 7);
    vc_pop["vc_ifx"] = 3001;
    return {
        {{"table", "p_mpls.mom_conf_global_enable"}, {"mpls_enable", true}},
        {{"table", "p_mpls.mom_conf_vpn_ttl"}, {"vpn_ttl_enable", true}},
        {{"table", "p_mpls.mom_conf_label_switch"}, {"index", {{"ifx", 101}, {"label_space", 0}}}, {"enable", 1}},
        e2e_ftn(1, "10.1.0.0", 16, 101, "192.0.2.1", {1001}),
        e2e_ftn(1, "10.1.0.0", 16, 102, "198.51.100.1", {1001}),
        e2e_ftn(1, "10.2.0.0", 24, 101, "192.0.2.1", {3, 1002}),
        e2e_ftn(2, "2001:db8:2::", 48, 102, "2001:db8::1", {2002}),
        e2e_ftn(1, "10.9.0.0", 24, 101, "192.0.2.1", {1009}, 1),  // PUSH, then DLVR_TO_IP
        e2e_ftn(1, "10.9.0.0", 24, 102, "198.51.100.1", {}, 9),
        e2e_vc_ftn(3001, "192.0.2.1", 101, {4001, 17}, 5, 100, 1),
        e2e_ilm(5001, "192.0.2.1", 101, {}, 2),
        e2e_ilm(5002, "192.0.2.1", 101, {100}, 3),
        e2e_ilm(5002, "198.51.100.1", 102, {200}, 3),
        e2e_ilm(5003, "198.51.100.1", 102, {6003, 7003}, 4),
        e2e_ilm(5004, "0.0.0.0", 0, {}, 5, 1),
        e2e_ilm(5010, "192.0.2.3", 103, {7010}, 3, 7),
        vc_pop,
    };
}

std::vector<json> e2e_bulk_inputs(uint32_t n) {
    std::vector<json> in;
    for (uint32_t i = 0; i < n; ++i) {
        const std::string host = std::to_string(1 + i % 4);
        in.push_back(e2e_ftn(5, "10." + std::to_string(100 + i / 256) + "." + std::to_string(i % 256) + ".0", 24,
                             100 + i % 4, "192.0.2." + host, {16000 + i % (n / 10 + 1)}));
        in.push_back(e2e_ilm(20000 + i, "198.51.100." + host, 200 + i % 4, {30000 + i % (n / 10 + 1)}, 3));
    }
    return in;
}

std::vector<e2e_change_t> e2e_changes() {
    const std::vector<json> base = e2e_base_inputs();
    const std::vector<json> bulk = e2e_bulk_inputs(1);
    json vc = base[9];
    vc["label_stack"] = {4002, 17};
    return {
        {"del_ftn", {base[5], bulk[0]}, {}},
        {"labels", {base[3]}, {e2e_ftn(1, "10.1.0.0", 16, 101, "192.0.2.1", {1101}), vc}},
        {"del_ttl", {base[1]}, {}},
        {"del_ilm_vrf", {base[14], base[15]}, {}},
        {"del_swap_nh", {base[11]}, {}},
    };
}

const e2e_change_t &e2e_change(const std::string &name) {
    static const std::vector<e2e_change_t> all = e2e_changes();
    for (const e2e_change_t &c : all)
        if (c.name == name) return c;
    throw std::out_of_range(name);
}

std::vector<json> e2e_apply(std::vector<json> in, const e2e_change_t &c) {
    for (const json &d : c.del) std::erase(in, d);
    for (const json &a : c.add)  // a rewrite replaces the record of the same key
        std::erase_if(in, [&](const json &r) { return r["table"] == a["table"] && r.value("index", json()) == a.value("index", json()); });
    in.insert(in.end(), c.add.begin(), c.add.end());
    return in;
}
