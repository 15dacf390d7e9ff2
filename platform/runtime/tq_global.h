// Runtime: the process context and its event loop (libevent).
#pragma once
#include <cstdint>

struct event_base;
struct tq_mom_client_t;

// First word: the MOM client; second word: the event-loop master. Code that
// only holds the context reads them in that order.
struct tq_global_t {
    tq_mom_client_t *mom;
    struct event_base *master;
    char name[64];
};

// Creates the context with a Redis MOM client (address from MOM_REDIS).
// Returns null when the loop or the client cannot be made.
void *tq_global_init(const char *name, uint32_t flags);
// Same, around a MOM client that the caller made (tests: the in-memory MOM).
void *tq_global_init_with_mom(const char *name, tq_mom_client_t *mom);
// Around an existing loop and client (the client was made on that loop).
void *tq_global_init_on(const char *name, struct event_base *base, tq_mom_client_t *mom);
// Runs the loop until it has nothing left or is stopped; returns 0.
int tq_global_run(void *ctx);
// Stops a running loop after the current callback.
void tq_global_stop(void *ctx);
// Frees the context and its MOM client.
void tq_global_finish(void *ctx);

struct event_base *tq_global_master(void *ctx);

// One-shot timers in seconds. *handle is set to the timer; re-arming with the
// same handle from inside its callback reuses it.
struct tq_timer_t;
typedef int (*tq_timer_cb_t)(void *arg);
int tq_thread_insert_timer(struct event_base *master, tq_timer_t **handle, tq_timer_cb_t cb,
                           void *arg, uint32_t period_s, const char *name);
void tq_thread_cancel_timer(tq_timer_t **handle);
