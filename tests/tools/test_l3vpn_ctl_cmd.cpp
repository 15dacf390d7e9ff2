// l3vpn-ctl cmd / wait-synced against a small debug-command server run by the
// test on its own event loop.
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

namespace {

constexpr const char *kMod = "ctl-test";

enum sync_mode_t { SYNC_NEVER, SYNC_ON_THIRD_CALL, SYNC_HISTORY_ONLY };

std::atomic<int> g_info_calls;
std::atomic<int> g_mode;

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
        base_ = event_base_new();
        ctx_ = tq_global_t{nullptr, base_, {}};
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
        return run_ctl(args, dir_.path());
    }
    temp_dir_t dir_;
    event_base *base_ = nullptr;
    tq_global_t ctx_{};
    std::thread loop_;
    std::atomic<bool> stop_{false};
};

// The replies themselves are checked against the daemon in the end-to-end tests.
TEST_F(CtlCmd, WaitSyncedFollowsTheSubCbRow) {
    const std::string no_daemon = "cannot reach " + dir_.path() + "/var/run/ssat/";
    const struct {
        int mode;
        std::vector<std::string> args;
        int status;
        std::string text;  // stdout (synced) or stderr (not)
        int min_calls;
        double min_s;      // how long a refusal waits first
    } cases[] = {
        {SYNC_ON_THIRD_CALL, {"wait-synced", "--timeout", "10", "--module", kMod}, 0,
         "ctl-test: data sync done (\"sub cb\" count 1, history 0)\n", 3, 0},
        {SYNC_HISTORY_ONLY, {"wait-synced", "--timeout", "10", "--module", kMod}, 0,
         "ctl-test: data sync done (\"sub cb\" count 0, history 2)\n", 1, 0},
        {SYNC_NEVER, {"wait-synced", "--timeout", "0.6", "--module", kMod}, 1,
         "l3vpn-ctl: wait-synced: ctl-test has not finished its data sync within 0.6 s (waited for the "
         "\"sub cb\" row of tbl-show-info to count 1; last: the \"sub cb\" row is not counted yet)\n",
         3, 0.6},
        // The daemon's module by default, and no daemon there.
        {SYNC_NEVER, {"wait-synced", "--timeout", "0.3"}, 1,
         "l3vpn-ctl: wait-synced: udp-mpls-l3vpn has not finished its data sync within 0.3 s (waited for "
         "the \"sub cb\" row of tbl-show-info to count 1; last: " + no_daemon +
             "udp-mpls-l3vpn.sock: No such file or directory)\n",
         0, 0.3},
        {SYNC_NEVER, {"cmd", "nobody", "show-info"}, 1,
         "l3vpn-ctl: cmd: " + no_daemon + "nobody.sock: No such file or directory\n", 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        g_mode = c.mode;
        g_info_calls = 0;
        auto t0 = std::chrono::steady_clock::now();
        ctl_result_t r = run(c.args);
        double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        EXPECT_EQ(r.status, c.status) << r.err;
        EXPECT_EQ(c.status == 0 ? r.out : r.err, c.text);
        EXPECT_GE(g_info_calls.load(), c.min_calls);
        if (c.min_s > 0) {
            EXPECT_GE(took, c.min_s);
        }
    }
}

}  // namespace
