#include "platform/runtime/tq_global.h"

#include <cstdio>
#include <cstring>
#include <event2/event.h>

#include "platform/mom/tq_mom.h"

struct tq_timer_t {
    struct event *ev;
    tq_timer_cb_t cb;
    void *arg;
    char name[32];
};

namespace {
tq_global_t *global_new(const char *name, struct event_base *base, tq_mom_client_t *mom) {
    auto *ctx = new tq_global_t{};
    ctx->mom = mom;
    ctx->master = base;
    snprintf(ctx->name, sizeof ctx->name, "%s", name != nullptr ? name : "");
    return ctx;
}

void timer_fire(evutil_socket_t, short, void *p) {
    auto *t = static_cast<tq_timer_t *>(p);
    t->cb(t->arg);
}
}  // namespace

void *tq_global_init_with_mom(const char *name, tq_mom_client_t *mom) {
    struct event_base *base = event_base_new();
    if (base == nullptr) return nullptr;
    return global_new(name, base, mom);
}

void *tq_global_init_on(const char *name, struct event_base *base, tq_mom_client_t *mom) {
    return global_new(name, base, mom);
}

struct event_base *tq_global_master(void *ctx) {
    return ctx != nullptr ? static_cast<tq_global_t *>(ctx)->master : nullptr;
}

int tq_global_run(void *ctx) {
    if (ctx == nullptr) return -4;
    event_base_dispatch(static_cast<tq_global_t *>(ctx)->master);
    return 0;
}

void tq_global_stop(void *ctx) {
    if (ctx != nullptr) event_base_loopbreak(static_cast<tq_global_t *>(ctx)->master);
}

void tq_global_finish(void *ctx) {
    auto *g = static_cast<tq_global_t *>(ctx);
    if (g == nullptr) return;
    if (g->mom != nullptr && g->mom->ops->destroy != nullptr) g->mom->ops->destroy(g->mom);
    if (g->master != nullptr) event_base_free(g->master);
    delete g;
}

int tq_thread_insert_timer(struct event_base *master, tq_timer_t **handle, tq_timer_cb_t cb,
                           void *arg, uint32_t period_s, const char *name) {
    if (master == nullptr || handle == nullptr || cb == nullptr) return -4;
    tq_timer_t *t = *handle;
    if (t == nullptr) {
        t = new tq_timer_t{};
        t->ev = evtimer_new(master, timer_fire, t);
        if (t->ev == nullptr) {
            delete t;
            return -2;
        }
        *handle = t;
    }
    t->cb = cb;
    t->arg = arg;
    snprintf(t->name, sizeof t->name, "%s", name != nullptr ? name : "");
    struct timeval tv = {static_cast<time_t>(period_s), 0};
    return evtimer_add(t->ev, &tv) == 0 ? 0 : -11;
}

void tq_thread_cancel_timer(tq_timer_t **handle) {
    if (handle == nullptr || *handle == nullptr) return;
    event_free((*handle)->ev);
    delete *handle;
    *handle = nullptr;
}
