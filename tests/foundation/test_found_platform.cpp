// One-shot timers of the runtime and the node allocation seam.
#include <gtest/gtest.h>
#include <event2/event.h>

#include <chrono>
#include <cstring>

#include "app/proc/ce_l3vpn_mem.h"
#include "platform/runtime/tq_global.h"

namespace {
struct timer_state_t {
    struct event_base *base;
    tq_timer_t *handle;
    int fired;
};

int on_timer(void *arg) {
    return ++static_cast<timer_state_t *>(arg)->fired, 0;
}

TEST(Timer, FiresOnceAfterItsPeriod) {
    timer_state_t s{event_base_new(), nullptr, 0};
    ASSERT_NE(s.base, nullptr);
    auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(tq_thread_insert_timer(s.base, &s.handle, on_timer, &s, 1, "once"), 0);
    ASSERT_NE(s.handle, nullptr);
    event_base_loop(s.base, EVLOOP_NONBLOCK);
    EXPECT_EQ(s.fired, 0);

    for (int i = 0; i < 5 && s.fired == 0; ++i) event_base_loop(s.base, EVLOOP_ONCE);
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(s.fired, 1);
    EXPECT_GE(waited, std::chrono::milliseconds(900));
    // One-shot: nothing is left armed, and another turn does not fire it again.
    EXPECT_EQ(event_base_get_num_events(s.base, EVENT_BASE_COUNT_ADDED), 0);
    event_base_loop(s.base, EVLOOP_NONBLOCK);
    EXPECT_EQ(s.fired, 1);

    tq_thread_cancel_timer(&s.handle);
    EXPECT_EQ(s.handle, nullptr);
    event_base_free(s.base);
}

TEST(MemSeam, FailsExactlyTheNthAllocation) {
    for (unsigned nth : {1u, 2u, 5u}) {
        ce_l3vpn_mem_fail_at(nth);
        for (unsigned i = 1; i <= nth + 2; ++i) {
            auto *p = static_cast<unsigned char *>(ce_l3vpn_calloc(4, 8));
            EXPECT_EQ(p == nullptr, i == nth) << "fail_at " << nth << ", allocation " << i;
            if (p != nullptr) {
                static const unsigned char zero[32] = {};
                EXPECT_EQ(memcmp(p, zero, sizeof zero), 0);
            }
            ce_l3vpn_free(p);
        }
    }
    // 0 switches failing off, also when a failure was pending.
    ce_l3vpn_mem_fail_at(2);
    ce_l3vpn_mem_fail_at(0);
    for (int i = 0; i < 3; ++i) {
        void *p = ce_l3vpn_calloc(1, 1);
        EXPECT_NE(p, nullptr);
        ce_l3vpn_free(p);
    }
}
}  // namespace
