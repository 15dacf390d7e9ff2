// What the daemon logs, for the suites that read its lines: zlog writes them to
// standard error, and a handle of 1 is enough to have them written.
#pragma once
#include <gtest/gtest.h>

#include <string>

#include "app/proc/ce_l3vpn_err.h"

inline ::testing::AssertionResult has(const std::string &text, const std::string &part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "no \"" << part << "\" in:\n" << text;
}

// What f() prints on standard output.
template <typename F>
std::string stdout_of(F f) {
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

// Everything logged at DEBUG while alive; text() holds all lines so far.
class ZlogCapture {
public:
    ZlogCapture() {
        ce_l3vpn_zlog_handle = 1;
        ce_l3vpn_dbg_level = CE_L3VPN_DEBUG;
        testing::internal::CaptureStderr();
    }
    ~ZlogCapture() { testing::internal::GetCapturedStderr(); }
    ZlogCapture(const ZlogCapture &) = delete;
    const std::string &text() {
        text_ += testing::internal::GetCapturedStderr();
        testing::internal::CaptureStderr();
        return text_;
    }

private:
    std::string text_;
};
