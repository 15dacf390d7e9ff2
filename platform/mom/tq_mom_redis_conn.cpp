// Connections to the store: the address, blocking and loop-driven connections,
// keyspace notifications.
#include <hiredis/adapters/libevent.h>
#include <hiredis/async.h>
#include <hiredis/hiredis.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "platform/mom/tq_mom_redis.h"

namespace {

constexpr const char *DEFAULT_HOST = "127.0.0.1";
constexpr int DEFAULT_PORT = 6379;

tq_redis_addr_t default_addr() { return {false, DEFAULT_HOST, DEFAULT_PORT}; }

struct timeval ms_to_tv(int ms) { return {ms / 1000, (ms % 1000) * 1000}; }

}  // namespace

int tq_redis_addr_parse(const std::string &text, tq_redis_addr_t &out) {
    std::string_view t = text;
    if (t.starts_with("unix:")) {
        if (t.size() == 5) return -4;
        out = {true, std::string(t.substr(5)), 0};
        return 0;
    }
    size_t colon = t.rfind(':');
    if (colon == std::string_view::npos || colon == 0) return -4;
    std::string_view host = t.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')  // [v6]:port
        host = host.substr(1, host.size() - 2);
    int port = 0;
    std::string_view p = t.substr(colon + 1);
    auto [end, ec] = std::from_chars(p.data(), p.data() + p.size(), port);
    if (ec != std::errc() || end != p.data() + p.size() || port <= 0 || port > 65535) return -4;
    out = {false, std::string(host), port};
    return 0;
}

tq_redis_addr_t tq_redis_addr_from_env(void) {
    const char *env = getenv("MOM_REDIS");
    tq_redis_addr_t addr = default_addr();
    if (env != nullptr && *env != '\0' && tq_redis_addr_parse(env, addr) != 0)
        fprintf(stderr, "tq_mom_redis: MOM_REDIS '%s' is not unix:/path or host:port, using %s:%d\n",
                env, DEFAULT_HOST, DEFAULT_PORT);
    return addr;
}

redisContext *tq_redis_connect(const tq_redis_addr_t &addr, int timeout_ms, std::string *err) {
    struct timeval tv = ms_to_tv(timeout_ms);
    redisContext *c = addr.is_unix ? redisConnectUnixWithTimeout(addr.path.c_str(), tv)
                                   : redisConnectWithTimeout(addr.path.c_str(), addr.port, tv);
    if (c != nullptr && c->err == 0 && redisSetTimeout(c, tv) == REDIS_OK) return c;
    if (err != nullptr) *err = c != nullptr && c->err != 0 ? c->errstr : "connection failed";
    if (c != nullptr) redisFree(c);
    return nullptr;
}

redisAsyncContext *tq_redis_connect_async(const tq_redis_addr_t &addr, struct event_base *master) {
    redisAsyncContext *ac = addr.is_unix ? redisAsyncConnectUnix(addr.path.c_str())
                                         : redisAsyncConnect(addr.path.c_str(), addr.port);
    if (ac == nullptr) return nullptr;
    if (ac->err != 0 || redisLibeventAttach(ac, master) != REDIS_OK) {
        redisAsyncFree(ac);
        return nullptr;
    }
    return ac;
}

int tq_redis_enable_notices(redisContext *c, const char *need) {
    if (c == nullptr || need == nullptr) return -4;
    auto *r = static_cast<redisReply *>(redisCommand(c, "CONFIG GET notify-keyspace-events"));
    if (r == nullptr) return -11;
    std::string have;
    if (r->type == REDIS_REPLY_ARRAY && r->elements == 2 &&
        r->element[1]->type == REDIS_REPLY_STRING)
        have.assign(r->element[1]->str, r->element[1]->len);
    bool refused = r->type == REDIS_REPLY_ERROR;
    freeReplyObject(r);
    if (refused) return -11;
    std::string want = have;
    for (const char *p = need; *p != '\0'; ++p)
        if (want.find(*p) == std::string::npos) want += *p;
    if (want == have) return 0;
    r = static_cast<redisReply *>(
        redisCommand(c, "CONFIG SET notify-keyspace-events %b", want.data(), want.size()));
    if (r == nullptr) return -11;
    int rv = r->type == REDIS_REPLY_ERROR ? -11 : 0;
    if (rv != 0) fprintf(stderr, "tq_mom_redis: CONFIG SET notify-keyspace-events: %s\n", r->str);
    freeReplyObject(r);
    return rv;
}

std::string tq_redis_glob_escape(const std::string &text) {
    std::string out;
    out.reserve(text.size());
    for (char ch : text) {
        if (ch == '*' || ch == '?' || ch == '[' || ch == ']' || ch == '\\') out += '\\';
        out += ch;
    }
    return out;
}
