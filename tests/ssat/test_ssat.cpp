// Debug-command service end to end over its socket under a private L3VPN_ROOT.
#include <arpa/inet.h>
#include <event2/event.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "platform/runtime/tq_global.h"
#include "platform/ssat/ssat.h"

namespace {

constexpr const char *kMod = "ssat-test";
constexpr const char *kProbeFmt = "num:%d addr:%a addr6:%v ";
const std::string kUsage = std::string("usage: probe ") + kProbeFmt + "\n";

int g_calls;

// Prints what it was given: the count, the types and the values.
int probe_cmd(const ssat_args_t *a) {
    ++g_calls;
    char v4[INET_ADDRSTRLEN], v6[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET, &a->argv[1].v4, v4, sizeof v4);
    inet_ntop(AF_INET6, a->argv[2].v6, v6, sizeof v6);
    printf("%d:%d%d%d num=%lld v4=%s v6=%s\n", a->argc, a->argv[0].type, a->argv[1].type, a->argv[2].type,
           static_cast<long long>(a->argv[0].i), v4, v6);
    return 0;
}

int void_cmd(const ssat_args_t *a) {
    ++g_calls;
    printf("void argc=%d\n", a->argc);
    return 7;
}

// Far more than a socket or pipe buffer holds.
int big_cmd(const ssat_args_t *a) {
    for (int64_t i = 0; i < a->argv[0].i; ++i) printf("line %08lld of the big output\n", static_cast<long long>(i));
    return 0;
}

class SsatSock : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/ssat-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root_ = tmpl;
        setenv("L3VPN_ROOT", root_.c_str(), 1);
        base_ = event_base_new();
        ctx_ = tq_global_t{nullptr, base_, {}};
        g_calls = 0;
        ASSERT_EQ(ssat_reg_mod_cmd(kMod, "probe", 0, kProbeFmt, probe_cmd), 0);
        ASSERT_EQ(ssat_reg_mod_cmd(kMod, "get-in-adj-id", 0, "void (current id)", void_cmd), 0);
        ASSERT_EQ(ssat_lib_init(&ctx_, kMod), 0);
        // registering after the socket is open works too
        ASSERT_EQ(ssat_reg_mod_cmd(kMod, "big", 0, "lines:%d", big_cmd), 0);
    }
    void TearDown() override {
        ssat_lib_reset();
        event_base_free(base_);
        std::filesystem::remove_all(root_);
        unsetenv("L3VPN_ROOT");
    }
    // Runs job in a thread while this thread turns the event loop.
    void with_loop(const std::function<void()> &job) {
        std::atomic<bool> done{false};
        std::thread t([&] { job(), done = true; });
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!done && std::chrono::steady_clock::now() < end) {
            event_base_loop(base_, EVLOOP_NONBLOCK);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        t.join();
    }
    std::string request(const std::string &line) {
        std::string out;
        int rc = 1;
        with_loop([&] { rc = ssat_client_request(kMod, line, out, 10000); });
        EXPECT_EQ(rc, 0) << line;
        return out;
    }
    std::string root_;
    event_base *base_ = nullptr;
    tq_global_t ctx_{};
};

TEST_F(SsatSock, ArgumentsReachHandlerAndOutputReachesClientWhole) {
    struct stat st{};  // only the owner may talk to the socket
    ASSERT_EQ(stat((root_ + "/var/run/ssat/ssat-test.sock").c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    static_assert(SSAT_ARG_INT == 1 && SSAT_ARG_V4 == 2 && SSAT_ARG_V6 == 3);
    EXPECT_EQ(request("probe num:-42 addr:10.1.2.3 addr6:2001:db8::1"),
              "3:123 num=-42 v4=10.1.2.3 v6=2001:db8::1\n");
    EXPECT_EQ(g_calls, 1);
    std::string big = request("big lines:40000");
    EXPECT_EQ(big.size(), 40000u * 32u);
    EXPECT_EQ(big.substr(big.size() - 32), "line 00039999 of the big output\n");
}

// Every request that must not run a handler, and the exact reply it gets.
TEST_F(SsatSock, RefusedRequestsGetTheirTextAndRunNothing) {
    const std::string list = kUsage.substr(7) + "get-in-adj-id void (current id)\nbig lines:%d\n";
    const std::pair<std::string, std::string> cases[] = {
        {"probe num:1 addr:10.1.2.3", kUsage},                      // missing argument
        {"probe num:1 adr:10.1.2.3 addr6:::1", kUsage},             // wrong name
        {"probe num:1 addr:10.1.2.256 addr6:::1", kUsage},          // bad address
        {"probe num:1 addr:10.1.2.3 addr6:::1 x:1", kUsage},        // extra argument
        {"probe addr:10.1.2.3 num:1 addr6:::1", kUsage},            // wrong order
        {"probe num:1 addr:10.1.2.3 addr6:10.1.2.3", kUsage},       // IPv4 where IPv6 is asked
        {"probe num:99999999999999999999 addr:1.2.3.4 addr6:::1", kUsage},
        {"get-in-adj-id x:1", "usage: get-in-adj-id void (current id)\n"},
        {"nosuch x:1", "unknown command: nosuch\n" + list},
        {"help", list},
        {"probe num:" + std::string(5000, '1'), "request too long\n"},
    };
    for (const auto &[line, reply] : cases) EXPECT_EQ(request(line), reply) << line;
    EXPECT_EQ(g_calls, 0);
    EXPECT_EQ(request("get-in-adj-id"), "void argc=0\n");
}

TEST_F(SsatSock, CommandLineClient) {
    std::string out;
    int status = -1;
    with_loop([&] {
        FILE *p = popen(SSAT_CMD_PATH " ssat-test probe num:5 addr:1.2.3.4 addr6:::1", "r");
        char buf[256];
        for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
        status = p != nullptr ? pclose(p) : -1;
    });
    EXPECT_EQ(out, "3:123 num=5 v4=1.2.3.4 v6=::1\n");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(system(SSAT_CMD_PATH " no-such-module help 2>/dev/null"), 1 << 8);
}

// Out of descriptors, the socket is left alone for a while rather than tried
// in a loop, a whole shortage is told in one line, and it serves again once
// descriptors come back.
TEST_F(SsatSock, DescriptorShortagePausesAcceptAndRecovers) {
    const std::string log_path = root_ + "/stderr.log";
    int log_fd = open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(log_fd, 0);
    fflush(stderr);
    int saved_err = dup(STDERR_FILENO);
    dup2(log_fd, STDERR_FILENO);
    close(log_fd);
    rlimit saved_lim{};
    getrlimit(RLIMIT_NOFILE, &saved_lim);
    struct restore_t {
        int err;
        rlimit lim;
        ~restore_t() {
            setrlimit(RLIMIT_NOFILE, &lim);
            fflush(stderr);
            dup2(err, STDERR_FILENO);
            close(err);
        }
    } restore{saved_err, saved_lim};

    // Clients take every descriptor left under the lowered limit; two of them
    // connect, so the server has a connection it cannot take.
    int probe = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(probe, 0);
    close(probe);
    rlimit low = saved_lim;
    low.rlim_cur = static_cast<rlim_t>(probe) + 16;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    snprintf(sa.sun_path, sizeof sa.sun_path, "%s/var/run/ssat/%s.sock", root_.c_str(), kMod);
    std::vector<int> clients;
    for (int fd; clients.size() < 64 && (fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0)) >= 0;)
        clients.push_back(fd);
    ASSERT_GE(clients.size(), 2u);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(connect(clients[i], reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0);
    timeval short_for = {0, 800000};  // several retries fail meanwhile
    event_base_loopexit(base_, &short_for);
    event_base_dispatch(base_);
    for (int fd : clients) close(fd);
    std::string out;  // the pause is at most 1 s by now
    int rc = 1;
    with_loop([&] { rc = ssat_client_request(kMod, "get-in-adj-id", out, 1500); });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "void argc=0\n");

    std::string log(4096, '\0');  // a spinning server would have written far more
    std::ifstream(log_path).read(log.data(), static_cast<std::streamsize>(log.size()));
    log.resize(strlen(log.c_str()));
    EXPECT_EQ(log,
              "ssat: ssat-test: accept: Too many open files, pausing 100 ms (then up to 1000 ms at a time)\n"
              "ssat: ssat-test: accept: serving again\n");
}

TEST(SsatArgs, ParseAgainstFormats) {
    struct {
        const char *fmt, *req;
        int rc, argc;
        int64_t first;
    } cases[] = {
        {"is_add:%d, index:%d", "is_add:1 index:2", 0, 2, 1},
        {"is_add:%d, index:%d", "is_add:1, index:2", -4, 0, 0},
        {"level:%d", "level:-9223372036854775808", 0, 1, INT64_MIN},
        {"level:%d", "level:9223372036854775808", -4, 0, 0},
        {"level:%d", "level:+5", -4, 0, 0},
        {"level:%d", "", -4, 0, 0},
        {"void (current id)", "  ", 0, 0, 0},
        {"ipv4:%a", "ipv4:1.2.3", -4, 0, 0},
        {"ipv6:%v", "ipv6:fe80::1%eth0", -4, 0, 0},
    };
    for (const auto &c : cases) {
        ssat_args_t a;
        EXPECT_EQ(ssat_parse_args(c.fmt, c.req, &a), c.rc) << c.fmt << " / " << c.req;
        EXPECT_EQ(a.argc, c.argc) << c.req;
        EXPECT_TRUE(c.argc == 0 || a.argv[0].i == c.first) << c.req;
    }
}

TEST(SsatLocal, RegistrationAndLocalRun) {
    std::string many;
    for (int i = 0; i <= SSAT_MAX_ARGS; ++i) many += "a" + std::to_string(i) + ":%d ";
    EXPECT_EQ(ssat_reg_mod_cmd("m", "x", 0, many.c_str(), void_cmd), -4);
    EXPECT_EQ(ssat_reg_mod_cmd("m", "x y", 0, "void", void_cmd), -4);
    EXPECT_EQ(ssat_reg_mod_cmd("m", "x", 0, "void", void_cmd), 0);
    EXPECT_EQ(ssat_reg_mod_cmd("m", "x", 0, "void", void_cmd), -17);
    std::string out;
    g_calls = 0;
    EXPECT_EQ(ssat_run_local("m", "x", out), 7);
    EXPECT_EQ(out, "void argc=0\n");
    EXPECT_EQ(ssat_run_local("m", "x 1", out), -4);
    EXPECT_EQ(out, "usage: x void\n");
    EXPECT_EQ(g_calls, 1);
    ssat_lib_reset();
    EXPECT_EQ(ssat_run_local("m", "x", out), -1);
}

}  // namespace
