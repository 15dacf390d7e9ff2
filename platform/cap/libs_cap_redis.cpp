// The capability store in Redis. Reads go over a blocking connection; a
// subscriber connection on the process's loop watches the hash's keyspace
// channel and tells the front end, which re-reads and compares.
#include "platform/cap/libs_cap_redis.h"

#include <event2/event.h>
#include <hiredis/async.h>
#include <hiredis/hiredis.h>

#include <cstdio>
#include <string_view>

#include "platform/mom/tq_mom_redis.h"
#include "platform/runtime/tq_global.h"

namespace {

constexpr const char *CAP_DB = "4";
constexpr const char *CAP_KEY = "capability|global";
constexpr const char *CAP_CHANNEL = "__keyspace@4__:capability|global";
constexpr const char *NOTICE_CLASSES = "K$hgx";
constexpr struct timeval RETRY_TV = {1, 0};
constexpr int TIMEOUT_MS = 5000;

// The backend seam carries no context: one store per process.
struct cap_redis_t {
    tq_redis_addr_t addr{};
    struct event_base *master = nullptr;
    redisContext *cmd = nullptr;
    redisAsyncContext *sub = nullptr;
    struct event *retry_ev = nullptr;
    libs_cap_notify_t notify = nullptr;
    void *arg = nullptr;
};

cap_redis_t &cap() {
    static cap_redis_t s;
    return s;
}

std::string_view reply_str(const redisReply *r) {
    return r->str == nullptr ? std::string_view() : std::string_view(r->str, r->len);
}

void close_cmd() {
    if (cap().cmd != nullptr) redisFree(cap().cmd);
    cap().cmd = nullptr;
}

bool ok_reply(void *p) {
    auto *r = static_cast<redisReply *>(p);
    bool ok = r != nullptr && r->type != REDIS_REPLY_ERROR;
    if (r != nullptr) freeReplyObject(r);
    return ok;
}

bool open_cmd() {
    cap_redis_t &s = cap();
    if (s.cmd != nullptr) return true;
    if (s.addr.path.empty()) s.addr = tq_redis_addr_from_env();
    std::string why = "SELECT failed";
    s.cmd = tq_redis_connect(s.addr, TIMEOUT_MS, &why);
    if (s.cmd == nullptr || !ok_reply(redisCommand(s.cmd, "SELECT %s", CAP_DB))) {
        fprintf(stderr, "libs_cap_redis: cannot reach the store: %s\n", why.c_str());
        close_cmd();
        return false;
    }
    return true;
}

// One HGETALL; false when the connection failed (the caller may retry).
bool read_once(libs_cap_values_t *out, bool *refused) {
    auto *r = static_cast<redisReply *>(redisCommand(cap().cmd, "HGETALL %s", CAP_KEY));
    if (r == nullptr) {
        close_cmd();
        return false;
    }
    *refused = r->type != REDIS_REPLY_ARRAY;
    for (size_t i = 0; !*refused && i + 1 < r->elements; i += 2)
        (*out)[std::string(reply_str(r->element[i]))] = reply_str(r->element[i + 1]);
    if (*refused) fprintf(stderr, "libs_cap_redis: %s is not readable as a hash\n", CAP_KEY);
    freeReplyObject(r);
    return true;
}

int cap_read_all(libs_cap_values_t *out) {
    out->clear();
    bool refused = false;
    // A connection broken since the last read (server restarted) gets one more try.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!open_cmd()) return -1;
        if (read_once(out, &refused)) return refused ? -1 : 0;
    }
    return -1;
}

void tell(uint32_t what) {
    if (cap().notify != nullptr) cap().notify(cap().arg, what);
}

// Confirmation of the subscription: read and ready. Any event on the hash:
// the front end re-reads and compares.
void sub_reply(redisAsyncContext *ac, void *reply, void *) {
    auto *r = static_cast<redisReply *>(reply);
    if (ac->data == nullptr || r == nullptr || r->type != REDIS_REPLY_ARRAY || r->elements < 3)
        return;
    std::string_view kind = reply_str(r->element[0]);
    if (kind == "subscribe") tell(LIBS_CAP_BE_READY);
    else if (kind == "message") tell(LIBS_CAP_BE_CHANGED);
}

void arm_retry() {
    if (cap().retry_ev != nullptr) evtimer_add(cap().retry_ev, &RETRY_TV);
}

void sub_connected(const redisAsyncContext *ac, int status) {
    if (ac->data == nullptr || status == REDIS_OK) return;
    cap().sub = nullptr;  // freed by hiredis after this callback
    arm_retry();
}

void sub_disconnected(const redisAsyncContext *ac, int) {
    if (ac->data == nullptr) return;  // our own close
    fprintf(stderr, "libs_cap_redis: connection lost, retrying\n");
    cap().sub = nullptr;
    close_cmd();
    arm_retry();
}

bool start_sub() {
    cap_redis_t &s = cap();
    redisAsyncContext *ac = tq_redis_connect_async(s.addr, s.master);
    if (ac == nullptr) return false;
    ac->data = &s;
    redisAsyncSetConnectCallback(ac, sub_connected);
    redisAsyncSetDisconnectCallback(ac, sub_disconnected);
    if (redisAsyncCommand(ac, sub_reply, nullptr, "SUBSCRIBE %s", CAP_CHANNEL) != REDIS_OK) {
        ac->data = nullptr;
        redisAsyncFree(ac);
        return false;
    }
    s.sub = ac;
    return true;
}

void retry_cb(evutil_socket_t, short, void *) {
    if (cap().sub != nullptr) return;
    if (!open_cmd() || tq_redis_enable_notices(cap().cmd, NOTICE_CLASSES) != 0 || !start_sub())
        arm_retry();
}

void cap_stop(void) {
    cap_redis_t &s = cap();
    if (s.sub != nullptr) {
        s.sub->data = nullptr;
        redisAsyncFree(s.sub);
    }
    if (s.retry_ev != nullptr) event_free(s.retry_ev);
    close_cmd();
    s = cap_redis_t{};
}

int cap_watch(void *global, libs_cap_notify_t notify, void *arg) {
    if (global == nullptr) return -1;
    struct event_base *master = static_cast<tq_global_t *>(global)->master;
    if (master == nullptr || notify == nullptr) return -1;
    cap_stop();
    cap_redis_t &s = cap();
    if (!open_cmd()) return -1;
    if (tq_redis_enable_notices(s.cmd, NOTICE_CLASSES) != 0)
        fprintf(stderr, "libs_cap_redis: cannot enable keyspace notifications\n");
    s.master = master;
    s.notify = notify;
    s.arg = arg;
    s.retry_ev = evtimer_new(master, retry_cb, nullptr);
    if (s.retry_ev == nullptr) {
        cap_stop();
        return -1;
    }
    if (!start_sub()) arm_retry();
    return 0;
}

const libs_cap_backend_t REDIS_BACKEND = {"redis", cap_read_all, cap_watch, cap_stop};

}  // namespace

const libs_cap_backend_t *libs_cap_redis_backend(void) { return &REDIS_BACKEND; }
