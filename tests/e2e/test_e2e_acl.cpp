// The MOM's accounts: a real redis-server on the shipped settings and ACL file
// (with passwords the test writes), the daemon logged in as l3vpn-daemon, the
// operator tool as l3vpn-ctl, reads as l3vpn-monitor. Each program works under
// its own account and can do nothing more; credentials the store does not
// take stop the daemon (status 78) and the tool (status 1) with one line.
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>

#include "e2e/e2e_env.h"

namespace {

// CTest's environment names the source tree (L3VPN_SOURCE_DIR).
std::string source(const std::string &rel) {
    const char *src = getenv("L3VPN_SOURCE_DIR");
    return std::string(src != nullptr ? src : "L3VPN_SOURCE_DIR-unset") + "/" + rel;
}

struct account_t {
    const char *user;
    const char *pass;
};
constexpr account_t kDaemon{"l3vpn-daemon", "daemon-pw-5b1e"};
constexpr account_t kCtl{"l3vpn-ctl", "ctl-pw-93ac"};
constexpr account_t kMonitor{"l3vpn-monitor", "monitor-pw-0d27"};
// The test's own look at the store (counts, snapshots), added to the shipped file.
constexpr account_t kTest{"l3vpn-test", "test-pw-77f0"};
constexpr int kExitMomAuth = 78;
const std::string kPlaceholder = "#" + std::string(64, '0');
constexpr e2e_table_t kTunnelCnt{10, "u_mpls.udp_srte_status_cnt", 0};
constexpr e2e_table_t kIfCounters{4, "p_intf.data_if_counters", 0};

// A counting tunnel: its counters go out as a string record and, every 2 s,
// as the interface's hash record.
std::vector<json> counting_tunnel() {
    return {{{"table", "p_mpls.mom_conf_te_tun_service_class"}, {"index", {{"ifindex", 500}}}},
            {{"table", "p_intf.data_intf"}, {"index", {{"index", 500}}}, {"statis_flag", 1}},
            {{"table", "s_mpls.srte_status_cnt"},
             {"index", {{"tunnel_id", 500}}},
             {"bytes", 1000},
             {"pkts", 10}}};
}

class e2e_acl_t : public e2e_env_t {
protected:
    void SetUp() override {
        if (!redis_server_t::available())
            GTEST_SKIP() << "no redis-server binary found: the end-to-end tests need a real Redis";
        dir_ = std::make_unique<temp_dir_t>();
        server_ = std::make_unique<redis_server_t>(dir_->path());
        std::string acl;
        ASSERT_NO_FATAL_FAILURE(acl = write_acl());
        server_->use_conf(source("deploy/redis-l3vpn-mom.conf"), {"--aclfile", acl});
        ASSERT_TRUE(server_->start()) << file_text(dir_->path() + "/redis.log");
        redis_ = std::make_unique<redis_cli_t>(server_->socket(), kTest.user, kTest.pass);
        ASSERT_TRUE(redis_->ok());
        setenv("MOM_REDIS_AUTH_FILE", auth_file(kCtl).c_str(), 1);  // every l3vpn-ctl run
    }
    void TearDown() override {
        unsetenv("MOM_REDIS_AUTH_FILE");
        e2e_env_t::TearDown();
    }

    // The shipped ACL file with each account's placeholder hash replaced by
    // its password (clear text, which Redis hashes itself).
    std::string write_acl() {
        std::string text;
        for (const std::string &line : text_lines(file_text(source("deploy/l3vpn-mom.acl")))) {
            std::string l = line;
            for (const account_t *a : {&kDaemon, &kCtl, &kMonitor})
                if (l.starts_with("user " + std::string(a->user) + " ")) {
                    size_t at = l.find(kPlaceholder);
                    EXPECT_NE(at, std::string::npos) << l;
                    if (at != std::string::npos) l.replace(at, kPlaceholder.size(), ">" + std::string(a->pass));
                }
            text += l + "\n";
        }
        text += "user " + std::string(kTest.user) + " on >" + kTest.pass + " ~* &* +@all\n";
        const std::string path = dir_->path() + "/l3vpn-mom.acl";
        std::ofstream(path) << text;
        return path;
    }
    std::string write_file(const std::string &name, const std::string &text, mode_t mode) {
        const std::string path = dir_->path() + "/" + name;
        std::ofstream(path) << text;
        chmod(path.c_str(), mode);
        return path;
    }
    std::string auth_file(const account_t &a, mode_t mode = 0600) {
        return write_file(std::string(a.user) + ".auth",
                          std::string(a.user) + " " + a.pass + "\n", mode);
    }
    void start_daemon_as(const std::string &auth, const std::string &root) {
        daemon_ = std::make_unique<daemon_proc_t>(dir_->path() + root, server_->mom_redis(), 4);
        daemon_->set_env("MOM_REDIS_AUTH_FILE", auth);  // "": no credentials
        ASSERT_TRUE(daemon_->start());
    }
    ctl_result_t verify_as_monitor() {
        return ctl({"--auth-file", auth_file(kMonitor), "verify"});
    }
    // What the server refused to anyone, as "user:command" words (its ACL
    // LOG), even what a client took no note of; "" when nothing.
    std::string denials() {
        std::vector<std::string> log = redis_->command_flat({"ACL", "LOG"});
        std::string out, object;
        for (size_t i = 0; i + 1 < log.size(); ++i)
            if (log[i] == "object") object = log[i + 1];
            else if (log[i] == "username") out += log[i + 1] + ":" + object + " ";
        return out;
    }
    // The store without the interface counters, which the daemon's timer
    // stamps anew every 2 s.
    std::string stable_snapshot() {
        std::string out;
        for (const std::string &l : text_lines(snapshot()))
            if (l.find(kIfCounters.name) == std::string::npos) out += l + "\n";
        return out;
    }
};

TEST_F(e2e_acl_t, EachProgramWorksUnderItsAccountAndCanDoNothingMore) {
    ASSERT_NO_FATAL_FAILURE(start_daemon_as(auth_file(kDaemon), "/root"));
    ASSERT_TRUE(wait_synced()) << daemon_->log();
    // What the daemon made is its own, and nobody else may write it.
    for (const char *made : {"/var/run/sw.ce.mpls.l3vpn.pid", "/var/run/ssat/udp-mpls-l3vpn.sock"}) {
        struct stat st{};
        ASSERT_EQ(stat((daemon_->root() + made).c_str(), &st), 0) << made;
        EXPECT_EQ(st.st_uid, geteuid()) << made;
        EXPECT_EQ(st.st_mode & 0022, 0u) << made;
    }
    ctl_result_t r = ctl({"load", source("examples/network.jsonl")});
    ASSERT_EQ(r.status, 0) << r.err;
    load(counting_tunnel());
    ASSERT_TRUE(wait_until([&] { return count(kIfCounters) == 1; }, 10000));  // the 2 s timer
    // A counter clear, published by the debug command that stands in for the upper layer.
    dbg("status_cnt_clr is_add:1 index:500");
    ASSERT_TRUE(wait_until(
        [&] {
            std::vector<json> cnt = rows(kTunnelCnt);
            return cnt.size() == 1 && cnt[0]["v4_cnt"]["bytes"] == 0;
        },
        10000));
    const size_t routes = count(E2E_FTN_RT);
    r = ctl({"delete", source("examples/vrf2.jsonl")});
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_TRUE(wait_until([&] { return count(E2E_FTN_RT) < routes; }, 10000));
    r = ctl({"cap", "set", "s_mpls/l3vpn/capacity/ilm", "4000"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(ctl({"cap", "get", "s_mpls/l3vpn/capacity/ilm"}).out, "4000\n");
    ASSERT_TRUE(wait_quiet(300));
    r = verify_as_monitor();
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(denials(), "");
    const std::string before = stable_snapshot();

    struct {
        const account_t *who;  // null: a connection that does not log in
        std::vector<std::string> command;
        const char *answer;  // the reply starts with it
    } cases[] = {
        {&kDaemon, {"FLUSHALL"}, "NOPERM"},
        {&kDaemon, {"FLUSHDB"}, "NOPERM"},
        {&kDaemon, {"CONFIG", "SET", "notify-keyspace-events", ""}, "NOPERM"},
        {&kDaemon, {"SHUTDOWN", "NOSAVE"}, "NOPERM"},
        {&kDaemon, {"SCRIPT", "FLUSH"}, "NOPERM"},
        {&kCtl, {"FLUSHALL"}, "NOPERM"},
        {&kCtl, {"CONFIG", "SET", "notify-keyspace-events", ""}, "NOPERM"},
        {&kMonitor, {"EXISTS", "p_mpls.mom_conf_vpn_ttl"}, "1"},
        {&kMonitor, {"SET", "p_mpls.mom_conf_vpn_ttl", "x"}, "NOPERM"},
        {&kMonitor, {"DEL", "p_mpls.mom_conf_vpn_ttl"}, "NOPERM"},
        {&kMonitor, {"FLUSHDB"}, "NOPERM"},
        {nullptr, {"EXISTS", "p_mpls.mom_conf_vpn_ttl"}, "NOAUTH"},
        {nullptr, {"FLUSHALL"}, "NOAUTH"},
    };
    for (const auto &c : cases) {
        const char *who = c.who != nullptr ? c.who->user : "default";
        std::unique_ptr<redis_cli_t> cli =
            c.who != nullptr ? std::make_unique<redis_cli_t>(server_->socket(), c.who->user, c.who->pass)
                             : std::make_unique<redis_cli_t>(server_->socket());
        ASSERT_TRUE(cli->ok()) << who;
        cli->select(4);
        std::string answer = cli->command(c.command);
        EXPECT_TRUE(answer.starts_with(c.answer)) << who << " " << c.command[0] << ": " << answer;
    }
    EXPECT_EQ(stable_snapshot(), before) << "a refused command changed the store";
    redis_->command({"ACL", "LOG", "RESET"});

    // A restart after the tunnel's inputs went: the data sync at start writes
    // through its script and sweeps the tunnel's counter record.
    daemon_->stop();
    unload(counting_tunnel());
    ASSERT_NO_FATAL_FAILURE(start_daemon_as(auth_file(kDaemon), "/root"));
    ASSERT_TRUE(wait_synced()) << daemon_->log();
    ASSERT_TRUE(wait_quiet(300));
    EXPECT_EQ(count(kTunnelCnt), 0u);
    r = verify_as_monitor();
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(denials(), "");

    // Nothing the daemon sent was refused, in either run.
    const std::string log = daemon_->log();
    for (const char *refusal : {"NOPERM", "can't run this command", "tq_mom_redis:", "libs_cap_redis:"})
        EXPECT_EQ(log.find(refusal), std::string::npos) << refusal << "\n" << log;
}

TEST_F(e2e_acl_t, CredentialsTheStoreDoesNotTakeStopTheDaemonAndTheToolAtOnce) {
    const std::string wrong = "not-the-password-4c1d";
    struct {
        const char *name;
        std::string file;  // "": none named
        std::string says;
    } cases[] = {
        {"wrong password", write_file("wrong.auth", "l3vpn-daemon " + wrong + "\n", 0600),
         "AUTH as l3vpn-daemon refused: WRONGPASS"},
        {"none named", "", "MOM_REDIS_AUTH_FILE is not set and the store wants credentials: NOAUTH"},
        {"readable by others", auth_file(kDaemon, 0644), "others have access to it (mode 0644)"},
        {"missing file", dir_->path() + "/none.auth", "cannot read it: No such file or directory"},
        {"two lines", write_file("lines.auth", "l3vpn-daemon\n" + wrong + "\n", 0600),
         "not one line \"USER PASSWORD\""},
    };
    int n = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_NO_FATAL_FAILURE(start_daemon_as(c.file, "/root" + std::to_string(++n)));
        EXPECT_EQ(daemon_->wait_exit(10000), kExitMomAuth);
        EXPECT_EQ(daemon_->sanitizer_report(), "");
        std::vector<std::string> said;
        for (const std::string &l : text_lines(daemon_->log()))
            if (l.find("cannot log in to the MOM") != std::string::npos) said.push_back(l);
        ASSERT_EQ(said.size(), 1u) << daemon_->log();
        EXPECT_NE(said[0].find(c.file + (c.file.empty() ? "" : ": ") + c.says), std::string::npos) << said[0];

        ctl_result_t r = ctl({"--auth-file", c.file, "dump", "all"});
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find("l3vpn-ctl: dump: Redis at " + server_->mom_redis() + ": "), std::string::npos) << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
        for (const std::string &text : {daemon_->log(), r.out + r.err})
            EXPECT_EQ(text.find(wrong), std::string::npos) << text;
    }
}

}  // namespace
