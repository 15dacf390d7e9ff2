#include "platform/rdnd/rdnd.h"

#include <event2/event.h>

namespace {
struct rdnd_state_t {
    ce_l3vpn_rdnd_reg_t reg;
    struct event *ev;
};
rdnd_state_t g_rdnd;

void rdnd_wake(evutil_socket_t, short, void *) {
    if (g_rdnd.reg.awake_cb != nullptr) g_rdnd.reg.awake_cb(g_rdnd.reg.master);
}
}  // namespace

// Single supervisor: always active, so the wake-up is due on the first loop turn.
int rdnd_lib_mom_reg(ce_l3vpn_rdnd_reg_t *reg, uint32_t, void *, struct event_base *master,
                     void *) {
    if (reg == nullptr || master == nullptr) return -4;
    g_rdnd.reg = *reg;
    if (g_rdnd.ev == nullptr) g_rdnd.ev = evtimer_new(master, rdnd_wake, nullptr);
    if (g_rdnd.ev == nullptr) return -2;
    struct timeval now = {0, 0};
    return evtimer_add(g_rdnd.ev, &now) == 0 ? 0 : -11;
}
