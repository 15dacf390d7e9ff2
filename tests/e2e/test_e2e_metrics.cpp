// The daemon's figures from outside: its metrics endpoint read by a plain HTTP
// client over TCP, the same figures through "l3vpn-ctl stats --json", and the
// start-up lines when the endpoint cannot be had.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <regex>
#include <set>

#include "e2e/e2e_env.h"

namespace {

using samples_t = std::map<std::string, double>;  // "name{labels}" -> value

struct http_reply_t {
    int status = 0;
    std::string headers, body;
};

sockaddr_in loopback(int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

// A socket bound to a free loopback port; the port in *port.
int bind_free_port(int *port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = loopback(0);
    socklen_t len = sizeof a;
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0) {
        close(fd);
        return -1;
    }
    *port = ntohs(a.sin_port);
    return fd;
}

// One HTTP/1.1 GET, read to the end of the connection.
http_reply_t http_get(int port, const std::string &path) {
    http_reply_t r;
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    timeval tv{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_in a = loopback(port);
    const std::string req = "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
    if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
        send(fd, req.data(), req.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(req.size())) {
        std::string all;
        char buf[4096];
        for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) > 0;) all.append(buf, static_cast<size_t>(n));
        size_t end = all.find("\r\n\r\n");
        if (end != std::string::npos && sscanf(all.c_str(), "HTTP/1.1 %d", &r.status) == 1) {
            r.headers = all.substr(0, end + 2);
            r.body = all.substr(end + 4);
        }
    }
    close(fd);
    return r;
}

std::string header(const http_reply_t &r, const std::string &name) {
    size_t at = r.headers.find("\r\n" + name + ": ");
    if (at == std::string::npos) return "";
    at += name.size() + 4;
    return r.headers.substr(at, r.headers.find("\r\n", at) - at);
}

// Checks the OpenMetrics layout (every sample line `name{...} value` under its
// metric's HELP and TYPE, counters ending in _total, "# EOF" last) and returns
// the samples.
samples_t parse_openmetrics(const std::string &text) {
    static const std::string id = R"([a-zA-Z_:][a-zA-Z0-9_:]*)", label = R"([a-zA-Z_]\w*="(?:[^"\\]|\\.)*")";
    static const std::regex help("# HELP (" + id + R"() \S.*)"), type("# TYPE (" + id + ") (gauge|counter)");
    static const std::regex sample("(" + id + R"()(\{)" + label + "(?:," + label + R"()*\})? (\S+))");
    std::set<std::string> helped;
    std::map<std::string, std::string> types;
    samples_t out;
    EXPECT_TRUE(text.size() >= 6 && text.compare(text.size() - 6, 6, "# EOF\n") == 0) << "no # EOF at the end";
    std::vector<std::string> lines = text_lines(text);
    for (size_t i = 0; i + 1 < lines.size(); ++i) {
        const std::string &l = lines[i];
        std::smatch m;
        if (std::regex_match(l, m, help)) {
            helped.insert(m[1]);
        } else if (std::regex_match(l, m, type)) {
            EXPECT_TRUE(helped.count(m[1])) << "TYPE before HELP: " << l;
            types[m[1]] = m[2];
        } else if (std::regex_match(l, m, sample)) {
            std::string name = m[1], family = name;
            if (family.size() > 6 && family.compare(family.size() - 6, 6, "_total") == 0)
                family.resize(family.size() - 6);
            const bool counter = types.count(family) && types[family] == "counter";
            EXPECT_TRUE(types.count(counter ? family : name)) << "no TYPE for " << l;
            EXPECT_EQ(counter, family != name) << "a counter's sample and only it ends in _total: " << l;
            char *end = nullptr;
            const std::string value = m[3];
            out[name + m[2].str()] = strtod(value.c_str(), &end);
            EXPECT_EQ(*end, '\0') << "not a number: " << l;
        } else {
            ADD_FAILURE() << "line does not parse: " << l;
        }
    }
    return out;
}

class e2e_metrics_t : public e2e_env_t {
protected:
    void start_with(const std::string &metrics) {
        daemon_ = std::make_unique<daemon_proc_t>(dir_->path() + "/root", server_->mom_redis(), 4);
        daemon_->set_env("L3VPN_METRICS", metrics);
        ASSERT_TRUE(daemon_->start());
        ASSERT_TRUE(wait_synced()) << daemon_->log();
    }
    samples_t scrape() {
        http_reply_t r = http_get(port_, "/metrics");
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(header(r, "Content-Type"), "application/openmetrics-text; version=1.0.0; charset=utf-8");
        EXPECT_EQ(header(r, "Content-Length"), std::to_string(r.body.size()));
        return parse_openmetrics(r.body);
    }
    int port_ = 0;
};

const std::string kAdjTable = "l3vpn_lower_writes_total{table=\"s_route.in_sub_adj\",owner=";

TEST_F(e2e_metrics_t, ScrapesFollowTheDaemonAndMatchTheTool) {
    int fd = bind_free_port(&port_);
    ASSERT_GE(fd, 0);
    close(fd);
    start_with("127.0.0.1:" + std::to_string(port_));
    const std::string serving = "l3vpn metrics: serving http://127.0.0.1:" + std::to_string(port_) + "/metrics";
    EXPECT_NE(daemon_->log().find(serving), std::string::npos);
    const samples_t before = scrape();
    EXPECT_EQ(before.at("l3vpn_redis_link_up"), 1);
    EXPECT_GE(before.at("l3vpn_data_syncs_total"), 1);
    EXPECT_GT(before.at("l3vpn_data_sync_last_end_timestamp_seconds"), 1.5e9);

    // Three FTN entries (one with two paths, one IPv6), a VC-FTN and two ILMs.
    load({e2e_ftn(1, "10.1.0.0", 16, 101, "192.0.2.1", {1001}),
          e2e_ftn(1, "10.1.0.0", 16, 102, "198.51.100.1", {1001}),
          e2e_ftn(1, "10.2.0.0", 24, 101, "192.0.2.1", {1002}),
          e2e_ftn(1, "2001:db8:1::", 48, 101, "2001:db8:ff::1", {1003}),
          e2e_vc_ftn(3001, "192.0.2.1", 101, {4001, 16}),
          e2e_ilm(5002, "192.0.2.1", 101, {6002}, 3),
          e2e_ilm(5003, "198.51.100.1", 102, {6003}, 3)});
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 4}, {&E2E_FTN_ADJ, 3}, {&E2E_VC_VIR_RT, 1}, {&E2E_VC_ADJ, 1},
                              {&E2E_ILM_VIR_RT, 2}, {&E2E_UDP_ILM, 2}, {&E2E_ILM_ADJ, 2}}));
    const samples_t after = scrape();
    const std::pair<std::string, double> moved[] = {
        {"l3vpn_entries{owner=\"ftn\"}", 3},
        {"l3vpn_entries{owner=\"vc_ftn\"}", 1},
        {"l3vpn_entries{owner=\"ilm\"}", 2},
        {"l3vpn_next_hops{owner=\"ftn\"}", 4},
        {"l3vpn_adjacencies", 6},  // the two paths of 10.1.0.0/16 push the same label
        {"l3vpn_memory_nodes", 6 + 7 + 6},  // entries, next hops, adjacencies
        {"l3vpn_capacity_used{kind=\"ftnv4\"}", 2},
        {"l3vpn_capacity_used{kind=\"ftnv6\"}", 1},
        {"l3vpn_capacity_used{kind=\"ilm\"}", 2},
        {"l3vpn_notices_total{kind=\"ftn\",event=\"add\"}", 4},
        {"l3vpn_notices_total{kind=\"vc_ftn\",event=\"add\"}", 1},
        {"l3vpn_notices_total{kind=\"ilm\",event=\"add\"}", 2},
        {"l3vpn_lower_writes_total{table=\"s_route.comm_rt\",owner=\"ftn\"}", 4},
        {kAdjTable + "\"ftn\"}", 3},
        {"l3vpn_lower_writes_total{table=\"u_mpls.udp_ilm\"}", 2},
        {"l3vpn_lower_deletes_total{table=\"s_route.comm_rt\",owner=\"ftn\"}", 0},
    };
    for (const auto &[name, by] : moved) {
        ASSERT_TRUE(before.count(name) && after.count(name)) << name;
        EXPECT_EQ(after.at(name) - before.at(name), by) << name;
    }
    EXPECT_EQ(after.at("l3vpn_capacity_limit{kind=\"ilm\"}"), 4000);

    // Bad records: each counted under its own table and reason.
    const struct {
        const char *name;
        std::function<void()> write;
        std::string sample;
    } bad[] = {
        {"an ILM with opcode 0", [&] { load({e2e_ilm(5009, "192.0.2.1", 101, {6009}, 0)}); },
         "l3vpn_refused_records_total{table=\"p_mpls.mom_msg_ilm\",reason=\"invalid\"}"},
        {"bytes that do not decode as an FTN", [&] { redis(6, {"SET", "p_mpls.mom_msg_ftn|x", "junk"}); },
         "l3vpn_refused_records_total{table=\"p_mpls.mom_msg_ftn\",reason=\"decode\"}"},
    };
    for (const auto &c : bad) {
        SCOPED_TRACE(c.name);
        const samples_t at0 = scrape();
        EXPECT_EQ(at0.count(c.sample), 0u);
        c.write();
        samples_t now;
        EXPECT_TRUE(wait_until([&] { return (now = scrape()).count(c.sample) != 0; }, 10000));
        EXPECT_EQ(now[c.sample], 1);
        EXPECT_EQ(now.at("l3vpn_entries{owner=\"ilm\"}"), 2);
    }

    EXPECT_EQ(http_get(port_, "/").status, 404);
    EXPECT_EQ(http_get(port_, "/metrics/x").status, 404);

    // The tool's JSON lines carry the same values.
    const samples_t last = scrape();
    ctl_result_t r = ctl({"stats", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    samples_t tool;
    for (const std::string &l : text_lines(r.out)) {
        auto j = nlohmann::ordered_json::parse(l);  // labels in the order sent
        std::string key = j.at("metric").get<std::string>(), labels;
        for (const auto &[k, v] : j.at("labels").items())
            labels += (labels.empty() ? "" : ",") + k + "=\"" + v.get<std::string>() + "\"";
        tool[labels.empty() ? key : key + "{" + labels + "}"] = j.at("value").get<double>();
    }
    for (const std::string &name : std::vector<std::string>{
             "l3vpn_entries{owner=\"ftn\"}", "l3vpn_adjacencies", kAdjTable + "\"ilm\"}",
             "l3vpn_notices_total{kind=\"ilm\",event=\"add\"}", bad[1].sample})
        EXPECT_EQ(tool[name], last.at(name)) << name;
    EXPECT_EQ(tool.size(), last.size());
}

// Without the endpoint the daemon runs on, and says why on standard error.
TEST_F(e2e_metrics_t, AnAddressNotToBeHadLeavesMetricsOff) {
    int held = bind_free_port(&port_);
    ASSERT_GE(held, 0);
    ASSERT_EQ(listen(held, 1), 0);
    const std::pair<std::string, std::string> cases[] = {
        {"192.0.2.1:9464", "is not a loopback address"},
        {"localhost:9464", "is not a loopback address"},
        {"127.0.0.1:" + std::to_string(port_), "cannot listen on 127.0.0.1:" + std::to_string(port_)},
    };
    for (const auto &[addr, said] : cases) {
        SCOPED_TRACE(addr);
        start_with(addr);
        EXPECT_NE(daemon_->log().find("l3vpn metrics: "), std::string::npos);
        EXPECT_NE(daemon_->log().find(said), std::string::npos) << daemon_->log();
        EXPECT_TRUE(daemon_->running());
        daemon_->stop();
        std::remove(daemon_->log_path().c_str());
    }
    close(held);
}

}  // namespace
