// Debug-command service end to end over its socket under a private L3VPN_ROOT.
#include <arpa/inet.h>
#include <event2/event.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <grp.h>
#include <malloc.h>
#include <poll.h>
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
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/runtime/tq_global.h"
#include "platform/ssat/ssat.h"
#include "platform/ssat/ssat_int.h"

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

constexpr const char *kBigLine = "line %08lld of the big output\n";
constexpr int64_t kBigLineLen = 32;
constexpr int64_t kMiB = 1 << 20;

// Far more than a socket or pipe buffer holds.
int big_cmd(const ssat_args_t *a) {
    for (int64_t i = 0; i < a->argv[0].i; ++i) printf(kBigLine, static_cast<long long>(i));
    return 0;
}

// Whether got is the big output from byte off on.
bool big_text_at(int64_t off, std::string_view got) {
    char line[64];  // every line number used fits 8 digits: 32 bytes a line
    for (size_t i = 0; i < got.size();) {
        int64_t at = off + static_cast<int64_t>(i);
        snprintf(line, sizeof line, kBigLine, static_cast<long long>(at / kBigLineLen));
        size_t k = static_cast<size_t>(at % kBigLineLen), n = std::min(kBigLineLen - k, got.size() - i);
        if (got.compare(i, n, line + k, n) != 0) return false;
        i += n;
    }
    return true;
}

// Reads a big reply from byte from on until limit or its end; the bytes read,
// also added to *taken as they come.
int64_t read_big(int fd, int64_t from, int64_t limit, std::atomic<int64_t> *taken = nullptr) {
    char buf[64 * 1024];
    int64_t got = from;
    while (got < limit) {
        ssize_t n = recv(fd, buf, static_cast<size_t>(std::min<int64_t>(sizeof buf, limit - got)), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        EXPECT_TRUE(big_text_at(got, std::string_view(buf, static_cast<size_t>(n)))) << "at " << got;
        got += n;
        if (taken != nullptr) *taken += n;
    }
    return got - from;
}

// The heap in use, large blocks included.
int64_t heap_bytes() {
    struct mallinfo2 m = mallinfo2();
    return static_cast<int64_t>(m.uordblks + m.hblkhd);
}

// What the server's capture files (in memory) hold.
int64_t capture_bytes() {
    int64_t sum = 0;
    for (const auto &e : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ec;
        std::string target = std::filesystem::read_symlink(e.path(), ec).string();
        struct stat st{};
        if (!ec && target.find("memfd:ssat-out") != std::string::npos && stat(e.path().c_str(), &st) == 0)
            sum += static_cast<int64_t>(st.st_blocks) * 512;
    }
    return sum;
}

// Standard error goes to a file while this lives.
class stderr_to_file_t {
public:
    explicit stderr_to_file_t(std::string path) : path_(std::move(path)) {
        int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        EXPECT_GE(fd, 0);
        fflush(stderr);
        saved_ = dup(STDERR_FILENO);
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
    ~stderr_to_file_t() {
        fflush(stderr);
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }
    std::vector<std::string> lines() const {
        fflush(stderr);
        std::ifstream in(path_);
        std::vector<std::string> out;
        for (std::string l; std::getline(in, l);) out.push_back(l);
        return out;
    }

private:
    std::string path_;
    int saved_ = -1;
};

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
    // Turns the event loop until done() holds or for ms, whichever comes first.
    void turn_until(const std::function<bool()> &done, int ms = 20000) {
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (!done() && std::chrono::steady_clock::now() < end) {
            event_base_loop(base_, EVLOOP_NONBLOCK);
            most_spooled_ = std::max(most_spooled_, ssat_srv_stats().spooled);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    // Runs job in a thread while this thread turns the event loop.
    void with_loop(const std::function<void()> &job) {
        std::atomic<bool> done{false};
        std::thread t([&] { job(), done = true; });
        turn_until([&] { return done.load(); });
        t.join();
    }
    std::string sock_path() const { return root_ + "/var/run/ssat/" + kMod + ".sock"; }
    // A client that sends one request (without its end when !end) and reads nothing yet.
    int raw_request(const std::string &line, bool end = true) {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un sa{};
        sa.sun_family = AF_UNIX;
        snprintf(sa.sun_path, sizeof sa.sun_path, "%s", sock_path().c_str());
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0);
        std::string req = end ? line + "\n" : line;
        EXPECT_EQ(send(fd, req.data(), req.size(), MSG_NOSIGNAL), static_cast<ssize_t>(req.size()));
        return fd;
    }
    std::string request(const std::string &line) {
        std::string out;
        int rc = 1;
        with_loop([&] { rc = ssat_client_request(kMod, line, out, 10000); });
        EXPECT_EQ(rc, 0) << line;
        return out;
    }
    std::string root_;
    int64_t most_spooled_ = 0;  // the most reply bytes left the server held, seen between loop turns
    event_base *base_ = nullptr;
    tq_global_t ctx_{};
};

// The debug group opens the socket to its members (0660, its group); a group
// that cannot be given leaves it to the owner alone, with a line saying why.
TEST_F(SsatSock, DebugGroupSharesTheSocketOrLeavesItPrivate) {
    const struct group *own = getgrgid(getegid());
    ASSERT_NE(own, nullptr);
    const struct { std::string group; unsigned mode; const char *said; } cases[] = {
        {own->gr_name, 0660, ""},
        {"no-such-group-l3vpn", 0600, "debug group no-such-group-l3vpn: no such group; the socket stays 0600"},
    };
    for (const auto &c : cases) {
        ssat_lib_reset();
        ASSERT_EQ(ssat_reg_mod_cmd(kMod, "probe", 0, kProbeFmt, probe_cmd), 0);
        setenv("L3VPN_DEBUG_GROUP", c.group.c_str(), 1);
        testing::internal::CaptureStderr();
        ASSERT_EQ(ssat_lib_init(&ctx_, kMod), 0);
        std::string said = testing::internal::GetCapturedStderr();
        unsetenv("L3VPN_DEBUG_GROUP");
        struct stat st{};
        ASSERT_EQ(stat(sock_path().c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, c.mode) << c.group;
        EXPECT_EQ(st.st_gid, getegid());
        EXPECT_NE(said.find(c.said), std::string::npos) << said;
    }
}

TEST_F(SsatSock, ArgumentsReachHandlerAndOutputReachesClientWhole) {
    struct stat st{};  // only the owner may talk to the socket
    ASSERT_EQ(stat((root_ + "/var/run/ssat/ssat-test.sock").c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    static_assert(SSAT_ARG_INT == 1 && SSAT_ARG_V4 == 2 && SSAT_ARG_V6 == 3);
    EXPECT_EQ(request("probe num:-42 addr:10.1.2.3 addr6:2001:db8::1"),
              "3:123 num=-42 v4=10.1.2.3 v6=2001:db8::1\n");
    EXPECT_EQ(g_calls, 1);
    // a reply far past what a client may leave unread comes whole to one that reads
    std::string big = request("big lines:" + std::to_string(10 * kMiB / kBigLineLen));
    EXPECT_EQ(static_cast<int64_t>(big.size()), 10 * kMiB);
    EXPECT_TRUE(big_text_at(0, big));
    EXPECT_EQ(ssat_srv_stats().conns, 0);
    EXPECT_EQ(ssat_srv_stats().spooled, 0);
}

// Clients that ask for large replies and stop reading: what the server holds
// for them stays in capture files, not in its heap, and is bounded per client
// and in all; each drop has its line on standard error.
TEST_F(SsatSock, ClientsThatStopReadingAreDroppedPastTheBounds) {
    static_assert(SSAT_UNREAD_MAX < 10 * kMiB && 7 * kMiB > 10 * kMiB - SSAT_UNREAD_MAX);
    const struct {
        const char *what;
        int64_t size;  // of each client's reply
        int clients;   // asking one by one
        bool fill;     // then more, one by one, until the replies left reach the cap
        int late;      // then these, ending their requests at once while the loop rests
        int64_t take;  // what each client reads before it stops
        int dropped;   // the first clients, in the order they asked
    } cases[] = {
        {"past the bound, taking nothing: each dropped", 10 * kMiB, 3, false, 0, 0, 3},
        {"most taken, less than the bound left: kept, the sent part freed", 10 * kMiB, 1, false, 0, 7 * kMiB,
         0},
        {"at the cap, the longest idle make room; a flood of drops is told in a burst", kMiB, 0, true, 12, 0,
         12},
        {"a reader holding more than the cap is not taken for idle; the next request waits", 20 * kMiB, 1,
         false, 1, 20 * kMiB, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        stderr_to_file_t log(root_ + "/stderr.log");
        const ssat_srv_stats_t at0 = ssat_srv_stats();
        const int64_t heap0 = heap_bytes();
        most_spooled_ = 0;
        const std::string line = "big lines:" + std::to_string(c.size / kBigLineLen);
        std::vector<int> fds;
        auto served = [&] { return static_cast<size_t>(ssat_srv_stats().served - at0.served); };
        while (fds.size() < static_cast<size_t>(c.clients) ||
               (c.fill && ssat_srv_stats().spooled < SSAT_SPOOL_MAX)) {
            fds.push_back(raw_request(line));
            turn_until([&] { return served() == fds.size(); });
        }
        ASSERT_GE(static_cast<int>(fds.size()), c.dropped);
        EXPECT_LT(heap_bytes() - heap0, kMiB);  // the replies are not in the heap
        const size_t asked = fds.size();
        for (int i = 0; i < c.late; ++i) fds.push_back(raw_request(line, false));
        if (c.late > 0) turn_until([&] { return ssat_srv_stats().conns == static_cast<int>(fds.size()); });
        auto rest_end = std::chrono::steady_clock::now() + std::chrono::milliseconds(SSAT_IDLE_MIN_MS + 100);
        for (size_t i = asked; i < fds.size(); ++i) EXPECT_EQ(send(fds[i], "\n", 1, MSG_NOSIGNAL), 1);

        std::vector<int64_t> got(fds.size(), 0);
        std::atomic<int64_t> taken{0};
        std::atomic<bool> took{false};
        std::thread reader([&] {
            for (size_t i = 0; i < fds.size(); ++i) got[i] = read_big(fds[i], 0, c.take, &taken);
            took = true;
        });
        while (c.late > 0 && (std::chrono::steady_clock::now() < rest_end || (c.take > 0 && taken == 0)))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        turn_until([&] {
            return took && served() == fds.size() && ssat_srv_stats().dropped - at0.dropped >= c.dropped;
        });
        reader.join();
        turn_until([] { return false; }, SSAT_STALL_MS + 700);  // time for a wrong drop
        const ssat_srv_stats_t at1 = ssat_srv_stats();
        const bool read_all = c.take >= c.size;
        EXPECT_EQ(served(), fds.size());
        EXPECT_EQ(at1.dropped - at0.dropped, c.dropped);
        EXPECT_EQ(at1.conns, read_all ? 0 : static_cast<int>(fds.size()) - c.dropped);
        EXPECT_LE(most_spooled_, SSAT_SPOOL_MAX + c.size);  // a reply is made only under the cap
        // sent bytes are freed in 1 MiB steps
        EXPECT_LE(capture_bytes(), at1.spooled + at1.conns * kMiB);
        EXPECT_EQ(capture_bytes() > 0, at1.conns > 0);

        // A dropped client reads what it was sent, then the end; its line tells what it missed.
        std::multiset<std::string> drop_lines;
        for (size_t i = 0; i < fds.size(); ++i) {
            pollfd p{fds[i], POLLRDHUP, 0};
            bool gone = poll(&p, 1, 0) == 1 && (p.revents & POLLRDHUP) != 0;
            EXPECT_EQ(gone, read_all || static_cast<int>(i) < c.dropped) << "client " << i;
            EXPECT_TRUE(!read_all || got[i] == c.size) << "client " << i;
            if (!gone || read_all) continue;
            int64_t all = got[i] + read_big(p.fd, got[i], c.size);
            EXPECT_LT(all, c.size);
            drop_lines.insert("ssat: ssat-test: client dropped: " + std::to_string(c.size - all) +
                              " bytes unread");
        }
        std::vector<std::string> others;
        for (const std::string &l : log.lines()) {
            auto it = drop_lines.find(l);
            if (it != drop_lines.end())
                drop_lines.erase(it);
            else
                others.push_back(l);
        }
        std::vector<std::string> want_others;
        if (!drop_lines.empty())
            want_others.push_back("ssat: ssat-test: " + std::to_string(drop_lines.size()) +
                                  " more clients dropped, not logged in the last 1000 ms");
        EXPECT_EQ(others, want_others);
        EXPECT_EQ(c.dropped - static_cast<int>(drop_lines.size()), std::min(c.dropped, 10));

        for (int fd : fds) close(fd);
        turn_until([] { return ssat_srv_stats().conns == 0; });
        EXPECT_EQ(ssat_srv_stats().conns, 0);
        EXPECT_EQ(ssat_srv_stats().spooled, 0);
    }
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
    stderr_to_file_t log(root_ + "/stderr.log");
    rlimit saved_lim{};
    getrlimit(RLIMIT_NOFILE, &saved_lim);
    struct restore_t {
        rlimit lim;
        ~restore_t() { setrlimit(RLIMIT_NOFILE, &lim); }
    } restore{saved_lim};

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
    snprintf(sa.sun_path, sizeof sa.sun_path, "%s", sock_path().c_str());
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

    // a spinning server would have written far more
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "ssat: ssat-test: accept: Too many open files, pausing 100 ms (then up to "
                               "1000 ms at a time)",
                               "ssat: ssat-test: accept: serving again"}));
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
