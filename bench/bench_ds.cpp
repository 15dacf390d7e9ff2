// l3vpn_bench_ds: the data sync at scale on a private redis-server. Loads N
// records of one owner slice, runs dsbegin, rewrites half of them (equal
// values) and a tenth with new values, then dsend, and reports the longest
// Redis call of each phase from the server's slow log, with wall times.
//   l3vpn_bench_ds [N] [--first]   (N default 400000)
// --first runs the server's main thread in the real-time class (root only), so
// that the slow log shows the server's own time rather than a busy machine's.
#include <event2/event.h>
#include <hiredis/hiredis.h>
#include <sched.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/mom/tq_mom.h"
#include "platform/mom/tq_mom_redis.h"
#include "platform/runtime/tq_global.h"
#include "s_route.pb-c.h"
#include "support/proc_harness.h"

namespace {

double now() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

struct adj_t {
    SRoute__InSubAdjKey key = S_ROUTE__IN_SUB_ADJ_KEY__INIT;
    SRoute__InSubAdj item = S_ROUTE__IN_SUB_ADJ__INIT;
    adj_t(uint32_t owner, uint64_t id, uint32_t ttl) {
        key.t_rt_owner = owner, key.mplsid = id, item.index = &key, item.ttl = ttl;
    }
    const ProtobufCMessage *msg() const { return &item.base; }
};

redisReply *cmd(redisContext *c, const char *fmt) {
    return static_cast<redisReply *>(redisCommand(c, fmt));
}

// Every call logged since the last reset took more than 100 us: the longest,
// and how many took more than 1 ms and 10 ms. The server's time includes
// being descheduled, so a busy machine shows up here too.
void slowest(redisContext *c, const char *phase) {
    redisReply *r = cmd(c, "SLOWLOG GET -1");
    long long worst = 0;
    size_t over1 = 0, over10 = 0;
    std::string what;
    for (size_t i = 0; r != nullptr && i < r->elements; ++i) {
        const redisReply *e = r->element[i];
        long long us = e->element[2]->integer;
        over1 += us > 1000;
        over10 += us > 10000;
        if (us <= worst) continue;
        worst = us;
        what = e->element[3]->elements > 0 ? e->element[3]->element[0]->str : "?";
    }
    printf("  %-8s longest call %lld us (%s); over 100 us: %zu, over 1 ms: %zu, over 10 ms: %zu\n",
           phase, worst, what.empty() ? "none" : what.c_str(), r != nullptr ? r->elements : 0,
           over1, over10);
    freeReplyObject(r);
    freeReplyObject(cmd(c, "SLOWLOG RESET"));
}

uint64_t g_notices[32];
int count_cb(void *, tq_mom_msg_t *msg, void *) { return ++g_notices[msg->cmd & 31], 0; }

// Runs the loop until the notices of cmd reach want, or two seconds pass with none.
uint64_t pump(struct event_base *base, uint32_t cmd, uint64_t want) {
    double idle = now();
    for (uint64_t last = g_notices[cmd]; g_notices[cmd] < want && now() - idle < 2;) {
        event_base_loop(base, EVLOOP_NONBLOCK | EVLOOP_ONCE);
        if (g_notices[cmd] != last) last = g_notices[cmd], idle = now();
    }
    event_base_loop(base, EVLOOP_NONBLOCK);
    return g_notices[cmd];
}

}  // namespace

int main(int argc, char **argv) {
    uint32_t n = 400000;
    bool first = false;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--first") == 0) first = true;
        else n = static_cast<uint32_t>(strtoul(argv[i], nullptr, 10));
    }
    const uint32_t db = 10, owner = 7, zero = 0;
    temp_dir_t dir;
    redis_server_t server(dir.path());
    if (!server.start()) {
        fprintf(stderr, "no redis-server\n");
        return 1;
    }
    setenv("MOM_REDIS", server.mom_redis().c_str(), 1);
    redisContext *c = tq_redis_connect(tq_redis_addr_from_env(), 5000);
    if (first) {
        redisReply *info = cmd(c, "INFO server");
        const char *at = info != nullptr && info->str != nullptr ? strstr(info->str, "process_id:") : nullptr;
        int pid = at != nullptr ? atoi(at + 11) : 0;
        sched_param prio{};
        prio.sched_priority = 10;
        if (pid <= 0 || sched_setscheduler(pid, SCHED_FIFO, &prio) != 0)
            fprintf(stderr, "cannot raise the server's priority\n");
        freeReplyObject(info);
    }
    struct event_base *base = event_base_new();
    tq_mom_client_t *mom = tq_mom_redis_new(base);
    tq_global_t ctx = {mom, base, "bench"};
    if (c == nullptr || mom == nullptr || tq_mom_client_connect_sync(&ctx, db) != 0) return 1;

    for (uint32_t i = 0; i < n; ++i) tq_mom_set_ext(&ctx, db, &zero, adj_t(owner, i, 1).msg(), 1, 0);
    adj_t slice(owner, 0, 0);
    ProtobufCMessage *out = nullptr;
    tq_mom_get_sync(&ctx, db, slice.msg(), &out);  // drains the load
    tq_mom_free(out);
    // Subscribed as the daemon is: the sweep's deletes notify someone.
    tq_mom_subscribe(&ctx, db, slice.msg(), 0, count_cb, nullptr);
    pump(base, TQ_MOM_CMD_END, 1);
    freeReplyObject(cmd(c, "CONFIG SET slowlog-log-slower-than 100"));
    freeReplyObject(cmd(c, "CONFIG SET slowlog-max-len 100000"));
    freeReplyObject(cmd(c, "SLOWLOG RESET"));
    printf("data sync of %u records\n", n);

    double t0 = now();
    int rv = tq_mom_dsbegin_sync(&ctx, db, slice.msg(), TQ_MOM_MODE_OWNER, 3600, 0);
    double t1 = now();
    printf("  dsbegin  %.3f s, rv %d\n", t1 - t0, rv);
    slowest(c, "dsbegin");
    for (uint32_t i = 0; i < n; ++i)
        if (i % 2 == 0 || i % 10 == 1)
            tq_mom_set_ext(&ctx, db, &zero, adj_t(owner, i, i % 2 == 0 ? 1 : 2).msg(), 1, 0);
    tq_mom_get_sync(&ctx, db, slice.msg(), &out);
    tq_mom_free(out);
    double t2 = now();
    printf("  rewrite  %.3f s (%u records, %u changed): %llu notices\n", t2 - t1, n / 2 + n / 10,
           n / 10, static_cast<unsigned long long>(pump(base, TQ_MOM_CMD_SET, n / 10)));
    t2 = now();
    slowest(c, "rewrite");
    rv = tq_mom_dsend(&ctx, db, slice.msg(), TQ_MOM_MODE_OWNER, nullptr, nullptr);
    double t3 = now();
    redisReply *size = cmd(c, "SELECT 10");
    freeReplyObject(size);
    size = cmd(c, "DBSIZE");
    printf("  dsend    %.3f s, rv %d, %lld records left, %llu delete notices\n", t3 - t2, rv,
           size->integer,
           static_cast<unsigned long long>(pump(base, TQ_MOM_CMD_DEL, n - n / 2 - n / 10)));
    freeReplyObject(size);
    slowest(c, "dsend");

    redisReply *stats = cmd(c, "INFO commandstats");
    for (const char *name : {"scan", "type", "evalsha", "unlink"}) {
        const char *at = strstr(stats->str, (std::string("cmdstat_") + name + ":").c_str());
        if (at != nullptr) printf("  %.*s\n", static_cast<int>(strcspn(at, "\r\n")), at);
    }
    freeReplyObject(stats);
    tq_mom_client_free(mom);
    event_base_free(base);
    redisFree(c);
    return 0;
}
