// The tool's synchronous Redis connection to the MOM.
#pragma once
#include <memory>
#include <string>
#include <vector>

struct redisContext;
struct redisReply;

struct ctl_reply_free_t {
    void operator()(redisReply *r) const;
};
using ctl_reply_t = std::unique_ptr<redisReply, ctl_reply_free_t>;

struct ctl_redis_t {
    redisContext *c = nullptr;
    std::string addr;

    ctl_redis_t() = default;
    ctl_redis_t(const ctl_redis_t &) = delete;
    ctl_redis_t &operator=(const ctl_redis_t &) = delete;
    ~ctl_redis_t();
};

using ctl_cmd_t = std::vector<std::string>;

// The MOM address: the given one, else MOM_REDIS, else 127.0.0.1:6379.
std::string ctl_redis_addr(const std::string &given);
// Connects to "unix:/path" or "host:port" ("[v6]:port" too). 0, or -1 with err.
int ctl_redis_connect(const std::string &addr, ctl_redis_t &r, std::string &err);

// One command; null with err when the connection failed. A Redis error reply
// is returned as it is (REDIS_REPLY_ERROR).
ctl_reply_t ctl_redis_cmd(ctl_redis_t &r, const ctl_cmd_t &cmd, std::string &err);
// Pipelined commands, one reply each in order; empty with err when the
// connection failed.
std::vector<ctl_reply_t> ctl_redis_pipeline(ctl_redis_t &r, const std::vector<ctl_cmd_t> &cmds,
                                            std::string &err);
// SELECT db; 0 or -1 with err.
int ctl_redis_select(ctl_redis_t &r, unsigned db, std::string &err);
// Text of a reply for messages.
std::string ctl_reply_text(const redisReply *r);
