// The label-stack printer: its texts, its level and the source path it logs.
#include <gtest/gtest.h>

#include <string>

#include "app/proc/ce_l3vpn_err.h"
#include "l3vpn/ss_mpls_dbg.h"
#include "platform/zlog/tq_zlog.h"

namespace {
constexpr const char *kPath = " app/proc/../../l3vpn/ss_mpls_dbg:";

// Text of the printer's one zlog line, or "" when it wrote nothing.
std::string print(uint8_t n, const uint32_t *labels) {
    testing::internal::CaptureStderr();
    mpls_zlog_print_label_stack(n, labels);
    std::string out = testing::internal::GetCapturedStderr();
    size_t at = out.find(kPath);
    if (out.empty() || at == std::string::npos) return out;
    size_t text = out.find(": ", out.find(' ', at + 1));  // after "<file>:<line> <func>"
    return out.substr(text + 2);
}

TEST(LabelStack, TextsAtDebugOnly) {
    ce_l3vpn_zlog_handle = tq_zlog_init("found", nullptr);
    const uint32_t labels[9] = {16, 17, 18, 1048575, 3, 21, 22, 23, 24};
    struct {
        uint8_t n;
        const uint32_t *labels;
        const char *text;
    } cases[] = {
        {0, labels, "label stack: nil \n"},
        {3, nullptr, "label stack: nil \n"},
        {9, labels, "label stack: Error n_label:9\n"},
        {255, labels, "label stack: Error n_label:255\n"},
        {3, labels, " label stack: lab0:16 lab1:17 lab2:18 lab3:0 lab4:0 lab5:0 lab6:0 lab7:0\n"},
        {8, labels, " label stack: lab0:16 lab1:17 lab2:18 lab3:1048575 lab4:3 lab5:21 lab6:22 lab7:23\n"},
    };
    for (const auto &c : cases) {
        ce_l3vpn_set_dbg_level(5);
        EXPECT_EQ(print(c.n, c.labels), c.text) << unsigned(c.n);
        ce_l3vpn_set_dbg_level(4);
        EXPECT_EQ(print(c.n, c.labels), "") << unsigned(c.n);
    }
}
}  // namespace
