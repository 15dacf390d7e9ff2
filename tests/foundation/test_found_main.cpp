// Start-up: the single-instance lock and pid file, the HAM marker and the
// start-up log, with the daemon as a process on a private redis-server.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "app/proc/ce_l3vpn_main.h"
#include "support/proc_harness.h"

namespace fs = std::filesystem;

namespace {
std::string refused(int rv) {
    return "\n[/sw.ce.mpls.l3vpn.pid] check running, rv:" + std::to_string(rv) +
           ", another process is already running\n";
}

::testing::AssertionResult has(const std::string &text, const std::string &part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "no \"" << part << "\" in:\n" << text;
}

std::string read_file(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

// Runs one more daemon to its end (at most 10 s) with standard output on a pipe.
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

class DaemonStart : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(redis_server_t::available());
        ASSERT_TRUE(redis_.start());
        root_ = dir_.path() + "/root";
        fs::create_directories(root_ + "/var/sw_mpls/ham");
    }
    bool started(daemon_proc_t &d) {
        return d.start() && wait_until([&] { return d.log().find(kOver) != std::string::npos; },
                                       10000);
    }
    static constexpr const char *kOver = "mpls l3 init over, start running.\n";
    temp_dir_t dir_;
    redis_server_t redis_{dir_.path()};
    std::string root_;
};

TEST_F(DaemonStart, SecondInstanceIsRefusedAndFirstKeepsRunning) {
    std::ofstream(root_ + "/var/sw_mpls/ham/ce_l3vpn").flush();  // HAM marker
    daemon_proc_t first(root_, redis_.mom_redis(), 4);
    ASSERT_TRUE(started(first)) << first.log();
    EXPECT_TRUE(has(first.log(), " INFO "));
    EXPECT_TRUE(has(first.log(), ": ce mpls l3vpn reg HAM fail, rv -15\n"));

    const std::string pid_file = root_ + "/var/run/sw.ce.mpls.l3vpn.pid";
    EXPECT_EQ(read_file(pid_file), std::to_string(first.pid()) + std::string(1, '\0'));

    auto [status, out] = run_to_exit(root_, redis_.mom_redis());
    EXPECT_EQ(status, 250);  // -6 as a process exit status
    EXPECT_EQ(out, refused(-6));
    // The refused start opened with truncation before trying the lock.
    EXPECT_EQ(read_file(pid_file), "");

    usleep(300 * 1000);
    EXPECT_TRUE(first.running());
    EXPECT_EQ(first.stop(SIGTERM), 128 + SIGTERM);
}
}  // namespace
