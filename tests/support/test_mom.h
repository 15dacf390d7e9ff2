// The MOM under a test of its users: the in-memory one, or the Redis client on
// a private redis-server. Both are driven through the same few calls, so a test
// written against them runs unchanged on either.
//
//   std::string why;
//   auto mom = test_mom_new("redis", why);   // "mem" or "redis"; null and why
//   tq_global_t ctx = mom->ctx();            // pass &ctx as `global`
//   ... subscriptions and writes ...
//   mom->settle();                           // every notice they caused, delivered
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/runtime/tq_global.h"

class test_mom_t {
public:
    virtual ~test_mom_t() = default;
    virtual tq_global_t ctx() const = 0;
    // Delivers the notices and callbacks due for everything done so far,
    // subscriptions included: in memory the queue, on Redis the loop until two
    // sentinels published after it have come back. False when they did not.
    virtual bool settle() = 0;
    // Redis keys of db, sorted, once the writes so far have reached the store.
    virtual std::vector<std::string> keys(uint32_t db) = 0;
    // Cuts the connection to db and returns once the loss has been reported
    // (on Redis every connection of the client goes, so every db reports it).
    virtual void cut(uint32_t db) = 0;
    // Brings it back and returns once the return has been reported.
    virtual void restore(uint32_t db) = 0;
};

// Kinds: "mem" and "redis". False for "redis" when no redis-server binary
// exists, the one reason a test may skip rather than fail.
bool test_mom_can_run(const std::string &kind);
// Null with the reason when the kind cannot start.
std::unique_ptr<test_mom_t> test_mom_new(const std::string &kind, std::string &why);
