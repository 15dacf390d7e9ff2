// The production context: a libevent loop with the Redis MOM client on it.
#include <event2/event.h>

#include "platform/mom/tq_mom.h"
#include "platform/runtime/tq_global.h"

void *tq_global_init(const char *name, uint32_t) {
    struct event_base *base = event_base_new();
    if (base == nullptr) return nullptr;
    tq_mom_client_t *mom = tq_mom_redis_new(base);
    if (mom == nullptr) {
        event_base_free(base);
        return nullptr;
    }
    return tq_global_init_on(name, base, mom);
}
