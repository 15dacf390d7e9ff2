// One-shot timers of the runtime and the node allocation seam.
#include <gtest/gtest.h>
#include <event2/event.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/proc/ce_l3vpn_mem.h"
#include "platform/runtime/tq_global.h"
#include "platform/runtime/tq_path.h"

namespace {
int on_timer(void *arg) { return ++*static_cast<int *>(arg), 0; }

TEST(Timer, FiresOnceAfterItsPeriod) {
    struct event_base *base = event_base_new();
    tq_timer_t *handle = nullptr;
    int fired = 0;
    auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(tq_thread_insert_timer(base, &handle, on_timer, &fired, 1, "once"), 0);
    event_base_loop(base, EVLOOP_NONBLOCK);
    EXPECT_EQ(fired, 0);
    for (int i = 0; i < 5 && fired == 0; ++i) event_base_loop(base, EVLOOP_ONCE);
    EXPECT_EQ(fired, 1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
    // One-shot: nothing is left armed.
    EXPECT_EQ(event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED), 0);
    tq_thread_cancel_timer(&handle);
    EXPECT_EQ(handle, nullptr);
    event_base_free(base);
}

TEST(MemSeam, FailsExactlyTheNthAllocation) {
    for (unsigned nth : {1u, 3u}) {
        ce_l3vpn_mem_fail_at(nth);
        for (unsigned i = 1; i <= nth + 2; ++i) {
            auto *p = static_cast<unsigned char *>(ce_l3vpn_calloc(4, 8));
            EXPECT_EQ(p == nullptr, i == nth) << "fail_at " << nth << ", allocation " << i;
            static const unsigned char zero[32] = {};
            EXPECT_TRUE(p == nullptr || memcmp(p, zero, sizeof zero) == 0);
            ce_l3vpn_free(p);
        }
    }
    // 0 switches failing off, also when a failure was pending.
    ce_l3vpn_mem_fail_at(1);
    ce_l3vpn_mem_fail_at(0);
    void *p = ce_l3vpn_calloc(1, 1);
    EXPECT_NE(p, nullptr);
    ce_l3vpn_free(p);
}

// A path that does not fit its buffer is refused, never cut short.
TEST(Path, PrefixedUnderRootOrRefusedWhenTooLong) {
    const char *pid = "/var/run/sw.ce.mpls.l3vpn.pid";
    const std::string long_root = "/" + std::string(99, 'r');  // 100 characters, the pid path overflows 127
    const struct {
        const char *root;
        size_t size;
        const char *want;
    } cases[] = {
        {nullptr, 127, "/var/run/sw.ce.mpls.l3vpn.pid"},
        {"/r", 127, "/r/var/run/sw.ce.mpls.l3vpn.pid"},
        {"/r", 32, "/r/var/run/sw.ce.mpls.l3vpn.pid"},  // just fits with its NUL
        {"/r", 31, nullptr},
        {long_root.c_str(), 127, nullptr},
    };
    for (const auto &c : cases) {
        c.root != nullptr ? setenv("L3VPN_ROOT", c.root, 1) : unsetenv("L3VPN_ROOT");
        char buf[127];
        const char *got = tq_path(pid, buf, c.size);
        EXPECT_STREQ(got, c.want) << c.size;
    }
    EXPECT_EQ(tq_path(pid), long_root + pid);  // no size limit here
    unsetenv("L3VPN_ROOT");
}
}  // namespace
