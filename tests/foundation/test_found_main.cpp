// Start-up: the single-instance lock and pid file, the HAM marker and the
// start-up log, with the daemon as a process on a private redis-server.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "foundation/zlog_capture.h"
#include "support/proc_harness.h"
#include "support/proc_harness_wait.h"

namespace {
// Runs one more daemon to its end (at most 10 s): its exit status and standard output.
std::pair<int, std::string> run_to_exit(const std::string &root, const std::string &mom) {
    int fds[2];
    if (pipe(fds) != 0) return {-1, ""};
    std::string bin = daemon_proc_t::binary();
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], 1);
        close(fds[0]);
        close(fds[1]);
        setenv("L3VPN_ROOT", root.c_str(), 1);
        setenv("MOM_REDIS", mom.c_str(), 1);
        execl(bin.c_str(), bin.c_str(), (char *)nullptr);
        _exit(127);
    }
    close(fds[1]);
    std::string out;
    char buf[256];
    struct pollfd p = {fds[0], POLLIN, 0};
    ssize_t n = 1;
    while (n > 0 && poll(&p, 1, 10000) == 1 && (n = read(fds[0], buf, sizeof buf)) > 0)
        out.append(buf, size_t(n));
    close(fds[0]);
    int status = 0;
    if (n != 0) kill(pid, SIGKILL);  // still running: not the refusal we wanted
    waitpid(pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), out};
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
