// Start-up: the single-instance lock and pid file, the HAM marker and the
// start-up log, with the daemon as a process on a private redis-server.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "foundation/zlog_capture.h"
#include "support/proc_harness.h"
#include "support/proc_harness_wait.h"

namespace {
// Runs one more daemon to its end (killed after 10 s): its exit status and standard output.
std::pair<int, std::string> run_to_exit(const std::string &root, const std::string &mom) {
    std::string cmd =
        "L3VPN_ROOT=" + root + " MOM_REDIS=" + mom + " timeout -s KILL 10 " + daemon_proc_t::binary();
    FILE *p = popen(cmd.c_str(), "r");
    std::string out;
    char buf[256];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    int status = p != nullptr ? pclose(p) : -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

TEST(DaemonStart, SecondInstanceIsRefusedAndFirstKeepsRunning) {
    ASSERT_TRUE(redis_server_t::available());
    temp_dir_t dir;
    redis_server_t redis(dir.path());
    ASSERT_TRUE(redis.start());
    const std::string root = dir.path() + "/root";
    std::filesystem::create_directories(root + "/var/sw_mpls/ham");
    std::ofstream(root + "/var/sw_mpls/ham/ce_l3vpn").flush();  // HAM marker

    daemon_proc_t first(root, redis.mom_redis(), 4);
    ASSERT_TRUE(first.start());
    ASSERT_TRUE(wait_until([&] { return has(first.log(), "mpls l3 init over, start running.\n"); }, 10000))
        << first.log();
    // The HAM registration comes before the end of start-up, and fails without a HAM.
    const std::string log = first.log();
    EXPECT_LT(log.find(": ce mpls l3vpn reg HAM fail, rv -15\n"), log.find("mpls l3 init over"));
    EXPECT_TRUE(has(log, " INFO "));
    const std::string pid_file = root + "/var/run/sw.ce.mpls.l3vpn.pid";
    EXPECT_EQ(file_text(pid_file), std::to_string(first.pid()) + std::string(1, '\0'));

    auto [status, out] = run_to_exit(root, redis.mom_redis());
    EXPECT_EQ(status, 250);  // -6 as a process exit status
    EXPECT_EQ(out, "\n[/sw.ce.mpls.l3vpn.pid] check running, rv:-6, another process is already running\n");
    // The refused start opened with truncation before trying the lock.
    EXPECT_EQ(file_text(pid_file), "");

    usleep(300 * 1000);
    EXPECT_TRUE(first.running());
    EXPECT_EQ(first.stop(SIGTERM), 128 + SIGTERM);
}
}  // namespace
