// System log stand-in: the line format and the ring of recent lines.
#include <gtest/gtest.h>

#include <string>

#include "platform/syslog/syslog_ext.h"
#include "platform/syslog/syslog_ext_ring.h"

namespace {
TEST(SyslogExt, LineOnStandardErrorAndRingOfTheLastOldestFirst) {
    syslog_ext_clear();
    testing::internal::CaptureStderr();
    ASSERT_EQ(0, printk_syslog_ext(4, "ILM_MPLS", "RESOURCE_ALLOCATED", 1, "entries:%d", 7));
    EXPECT_EQ("%ILM_MPLS-4-RESOURCE_ALLOCATED: entries:7\n",
              testing::internal::GetCapturedStderr());
    ASSERT_EQ(1u, syslog_ext_count());
    EXPECT_EQ("%ILM_MPLS-4-RESOURCE_ALLOCATED: entries:7", syslog_ext_recent().at(0));
    EXPECT_EQ(-4, printk_syslog_ext(4, nullptr, "X", 1, "text"));
    syslog_ext_clear();
    testing::internal::CaptureStderr();
    for (int i = 0; i < SYSLOG_EXT_RING + 8; ++i) printk_syslog_ext(6, "M", "N", 1, "%d", i);
    testing::internal::GetCapturedStderr();
    auto lines = syslog_ext_recent();
    ASSERT_EQ(static_cast<size_t>(SYSLOG_EXT_RING), lines.size());
    EXPECT_EQ("%M-6-N: 8", lines.front());
    EXPECT_EQ("%M-6-N: " + std::to_string(SYSLOG_EXT_RING + 7), lines.back());
    EXPECT_EQ(static_cast<size_t>(SYSLOG_EXT_RING + 8), syslog_ext_count());
}
}  // namespace
