#include "tools/l3vpn_ctl_redis.h"

#include <hiredis/hiredis.h>
#include <sys/time.h>

#include <cstdlib>

#include "platform/mom/tq_mom_redis.h"

namespace {

constexpr int CTL_CONNECT_TIMEOUT_S = 5;
constexpr int CTL_REPLY_TIMEOUT_S = 60;  // a full table scan of a big database

std::string ctl_ctx_error(const redisContext *c) {
    return c != nullptr && c->err != 0 ? c->errstr : "connection failed";
}

void ctl_append(redisContext *c, const ctl_cmd_t &cmd) {
    std::vector<const char *> argv;
    std::vector<size_t> lens;
    for (const std::string &w : cmd) {
        argv.push_back(w.data());
        lens.push_back(w.size());
    }
    redisAppendCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lens.data());
}

}  // namespace

void ctl_reply_free_t::operator()(redisReply *r) const { freeReplyObject(r); }

ctl_redis_t::~ctl_redis_t() {
    if (c != nullptr) redisFree(c);
}

std::string ctl_redis_addr(const std::string &given) {
    if (!given.empty()) return given;
    const char *env = getenv("MOM_REDIS");
    return env != nullptr && *env != '\0' ? env : "127.0.0.1:6379";
}

int ctl_redis_connect(const std::string &addr, ctl_redis_t &r, std::string &err) {
    r.addr = addr;
    tq_redis_addr_t where{};
    if (tq_redis_addr_parse(addr, where) != 0) {
        err = "bad Redis address '" + addr + "' (unix:/path or host:port)";
        return -1;
    }
    std::string why;
    r.c = tq_redis_connect(where, CTL_CONNECT_TIMEOUT_S * 1000, &why);
    if (r.c == nullptr) {
        err = "cannot connect to Redis at " + addr + ": " + why;
        return -1;
    }
    timeval rt{CTL_REPLY_TIMEOUT_S, 0};
    redisSetTimeout(r.c, rt);
    return 0;
}

ctl_reply_t ctl_redis_cmd(ctl_redis_t &r, const ctl_cmd_t &cmd, std::string &err) {
    std::vector<ctl_reply_t> replies = ctl_redis_pipeline(r, {cmd}, err);
    return replies.empty() ? nullptr : std::move(replies.front());
}

std::vector<ctl_reply_t> ctl_redis_pipeline(ctl_redis_t &r, const std::vector<ctl_cmd_t> &cmds,
                                            std::string &err) {
    std::vector<ctl_reply_t> out;
    for (const ctl_cmd_t &cmd : cmds) ctl_append(r.c, cmd);
    for (size_t i = 0; i < cmds.size(); ++i) {
        void *reply = nullptr;
        if (redisGetReply(r.c, &reply) != REDIS_OK || reply == nullptr) {
            err = "Redis at " + r.addr + ": " + ctl_ctx_error(r.c);
            return {};
        }
        out.emplace_back(static_cast<redisReply *>(reply));
    }
    return out;
}

int ctl_redis_select(ctl_redis_t &r, unsigned db, std::string &err) {
    ctl_reply_t rep = ctl_redis_cmd(r, {"SELECT", std::to_string(db)}, err);
    if (rep == nullptr) return -1;
    if (rep->type == REDIS_REPLY_ERROR) {
        err = "SELECT " + std::to_string(db) + ": " + ctl_reply_text(rep.get());
        return -1;
    }
    return 0;
}

std::string ctl_reply_text(const redisReply *r) {
    if (r == nullptr) return "(no reply)";
    switch (r->type) {
    case REDIS_REPLY_STRING:
    case REDIS_REPLY_STATUS:
    case REDIS_REPLY_ERROR:
        return std::string(r->str, r->len);
    case REDIS_REPLY_INTEGER:
        return std::to_string(r->integer);
    case REDIS_REPLY_NIL:
        return "(nil)";
    default:
        return "(array of " + std::to_string(r->elements) + ")";
    }
}
