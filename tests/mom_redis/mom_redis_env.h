// A private redis-server on a Unix socket for one test, an event loop, and a
// plain client to look at (and write to) the store from outside.
#pragma once
#include <event2/event.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>

#include "support/proc_harness.h"

class redis_env_t : public ::testing::Test {
protected:
    void SetUp() override {
        if (!redis_server_t::available()) GTEST_SKIP() << "no redis-server binary found: these tests need a real Redis";
        server_ = std::make_unique<redis_server_t>(dir_.path());
        ASSERT_TRUE(server_->start()) << "redis-server did not start in " << dir_.path();
        setenv("MOM_REDIS", server_->mom_redis().c_str(), 1);
        cli_ = std::make_unique<redis_cli_t>(server_->socket());
        ASSERT_TRUE(cli_->ok());
        ASSERT_NE(base_ = event_base_new(), nullptr);
    }
    // The client and the server go with the fixture, in that order.
    void TearDown() override {
        if (base_ != nullptr) event_base_free(base_);
        unsetenv("MOM_REDIS");
    }

    // Runs the loop without blocking until cond holds or ms pass.
    template <typename F>
    bool pump(F cond, int ms = 3000) {
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (std::chrono::steady_clock::now() < end) {
            if (cond()) return true;
            event_base_loop(base_, EVLOOP_NONBLOCK | EVLOOP_ONCE);
            usleep(500);
        }
        return cond();
    }

    // Calls of a command so far, from INFO commandstats.
    long calls(const std::string &cmd) {
        std::string text = cli_->command({"INFO", "commandstats"});
        std::string field = "cmdstat_" + cmd + ":calls=";
        size_t at = text.find(field);
        return at == std::string::npos ? 0 : std::strtol(text.c_str() + at + field.size(), nullptr, 10);
    }

    temp_dir_t dir_;
    std::unique_ptr<redis_server_t> server_;
    std::unique_ptr<redis_cli_t> cli_;
    struct event_base *base_ = nullptr;
};
