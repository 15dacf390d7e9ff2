// The tool's synchronous Redis connection to the MOM.
#pragma once
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/mom/tq_mom_mem.h"

struct redisContext;
struct redisReply;
struct ctl_tbl_t;

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

// The capability service's values: one hash field per capability path.
constexpr unsigned CTL_CAP_DB = 4;
constexpr const char *CTL_CAP_KEY = "capability|global";

// The MOM address: the given one, else MOM_REDIS, else 127.0.0.1:6379.
std::string ctl_redis_addr(const std::string &given);
// Connects to "unix:/path" or "host:port" ("[v6]:port" too), logged in with
// the credentials of MOM_REDIS_AUTH_FILE when it is set. 0, or -1 with err.
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

// Redis keys of a table's records in the selected database, sorted: SCAN MATCH
// "T|*", or EXISTS T for an unkeyed table. 0, or -1 with err.
int ctl_redis_table_keys(ctl_redis_t &r, const ctl_tbl_t *t, std::vector<std::string> &keys,
                         std::string &err);
// GET (string table) or HGETALL (hash table) of every key, pipelined in
// batches; each(i, reply) for keys[i], in order. 0, or -1 with err.
using ctl_each_reply_t = std::function<void(size_t, const redisReply *)>;
int ctl_redis_fetch(ctl_redis_t &r, const ctl_tbl_t *t, const std::vector<std::string> &keys,
                    const ctl_each_reply_t &each, std::string &err);

// Every record of the daemon's tables, inputs and outputs, as stored (a value
// of the other kind than its table's too), by database and Redis key.
using ctl_store_t = std::map<uint32_t, mom_mem_db_t>;
int ctl_redis_read_store(ctl_redis_t &r, ctl_store_t &out, std::string &err);
// A stored record decoded as desc; null when it does not decode.
mom_mem_msg_ptr ctl_store_decode(const ProtobufCMessageDescriptor *desc, const mom_mem_rec_t &rec);
