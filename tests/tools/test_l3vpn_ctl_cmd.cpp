// l3vpn-ctl cmd / wait-synced against a small debug-command server run by the
// test on its own event loop.
#include <arpa/inet.h>
#include <event2/event.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "platform/runtime/tq_global.h"
#include "platform/ssat/ssat.h"
#include "support/proc_harness.h"
#include "ctl_run.h"

namespace {

constexpr const char *kMod = "ctl-test";

enum sync_mode_t { SYNC_NEVER, SYNC_ON_THIRD_CALL, SYNC_HISTORY_ONLY };

std::atomic<int> g_info_calls;
std::atomic<int> g_mode;

int echo_cmd(const ssat_args_t *a) {
    char v4[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &a->argv[1].v4, v4, sizeof v4);
    printf("n=%lld addr=%s\n", static_cast<long long>(a->argv[0].i), v4);
    return 0;
}

void hist_row(const char *name, int count, int history, int line, const char *level) {
    printf("%-20s %8d %8d %8d %8d %8d %8s\n", name, count, history, 0, 0, line, level);
}

// The history part of the table library's "tbl-show-info".
int show_info_cmd(const ssat_args_t *) {
    int call = ++g_info_calls;
    printf("\ndbg level       :%s", "ERROR");
    printf("\n%20s %8s %8s %8s %8s %8s %8s\n", "name", "count", "history", "data1", "data2", "line", "level");
    hist_row("--- tbl begin ---", 0, 0, 0, "NULL");
    hist_row("conn cb", 1, 0, 210, "INFO");
    if (g_mode == SYNC_ON_THIRD_CALL && call >= 3) hist_row("sub cb", 1, 0, 388, "INFO");
    if (g_mode == SYNC_HISTORY_ONLY) hist_row("sub cb", 0, 2, 388, "INFO");
    hist_row("--- tbl end   ---", 0, 0, 0, "NULL");
    return 0;
}

class CtlCmd : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("L3VPN_ROOT", dir_.path().c_str(), 1);
        g_info_calls = 0;
        g_mode = SYNC_NEVER;
        base_ = event_base_new();
        ctx_ = tq_global_t{nullptr, base_, {}};
        ASSERT_EQ(ssat_reg_mod_cmd(kMod, "echo", 0, "n:%d addr:%a", echo_cmd), 0);
        ASSERT_EQ(ssat_reg_mod_cmd(kMod, "tbl-show-info", 0, "is_clean:%d is_detail:%d", show_info_cmd), 0);
        ASSERT_EQ(ssat_lib_init(&ctx_, kMod), 0);
        loop_ = std::thread([this] {
            while (!stop_) {
                event_base_loop(base_, EVLOOP_NONBLOCK);
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    }
    void TearDown() override {
        stop_ = true;
        if (loop_.joinable()) loop_.join();
        ssat_lib_reset();
        event_base_free(base_);
        unsetenv("L3VPN_ROOT");
    }
    ctl_result_t run(std::vector<std::string> args) {
        args.insert(args.begin(), {"--root", dir_.path()});
        return ctl_run(args, dir_.path());
    }
    temp_dir_t dir_;
    event_base *base_ = nullptr;
    tq_global_t ctx_{};
    std::thread loop_;
    std::atomic<bool> stop_{false};
};

TEST_F(CtlCmd, CmdPrintsTheReplyOrTheFailure) {
    ctl_result_t r = run({"cmd", kMod, "echo", "n:-5", "addr:10.1.2.3"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "n=-5 addr=10.1.2.3\n");
    EXPECT_EQ(run({"cmd", kMod, "echo", "n:5"}).out, "usage: echo n:%d addr:%a\n");
    r = run({"cmd", "nobody", "show-info"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "l3vpn-ctl: cmd: cannot reach " + dir_.path() +
                         "/var/run/ssat/nobody.sock: No such file or directory\n");
}

struct sync_case_t {
    int mode;
    const char *timeout;
    int status;
    const char *text;  // start of stdout (synced) or part of stderr (not)
    int min_calls;
};

TEST_F(CtlCmd, WaitSyncedFollowsTheSubCbRow) {
    const sync_case_t cases[] = {
        {SYNC_ON_THIRD_CALL, "10", 0, "ctl-test: data sync done (\"sub cb\" count 1, history 0)\n", 3},
        {SYNC_HISTORY_ONLY, "10", 0, "ctl-test: data sync done (\"sub cb\" count 0, history 2)\n", 1},
        {SYNC_NEVER, "0.6", 1,
         "ctl-test has not finished its data sync within 0.6 s (waited for the \"sub cb\" row "
         "of tbl-show-info to count 1; last: the \"sub cb\" row is not counted yet)",
         3},
    };
    for (const sync_case_t &c : cases) {
        SCOPED_TRACE(c.mode);
        g_mode = c.mode;
        g_info_calls = 0;
        auto t0 = std::chrono::steady_clock::now();
        ctl_result_t r = run({"wait-synced", "--module", kMod, "--timeout", c.timeout});
        double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        EXPECT_EQ(r.status, c.status) << r.err;
        EXPECT_NE((c.status == 0 ? r.out : r.err).find(c.text), std::string::npos) << r.out << r.err;
        EXPECT_GE(g_info_calls.load(), c.min_calls);
        if (c.status != 0) {
            EXPECT_GE(took, 0.6);
        }
    }
}

TEST_F(CtlCmd, WaitSyncedTimesOutOnAMissingDaemon) {
    ctl_result_t r = run({"wait-synced", "--timeout", "0.3"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("udp-mpls-l3vpn has not finished its data sync within 0.3 s"), std::string::npos);
    EXPECT_NE(r.err.find("last: cannot reach " + dir_.path() + "/var/run/ssat/udp-mpls-l3vpn.sock"),
              std::string::npos)
        << r.err;
}

}  // namespace
