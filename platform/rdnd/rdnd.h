// Redundancy stand-in: a single-supervisor system is always active, so the
// wake-up callback runs on the first loop turn.
#pragma once
#include <cstdint>

struct event_base;
typedef int (*rdnd_awake_cb_t)(void *master);

// The registration record; the daemon clears it and fills it in this order.
struct ce_l3vpn_rdnd_reg_t {
    struct event_base *master;
    const char *name;
    void *global;
    rdnd_awake_cb_t awake_cb;
    rdnd_awake_cb_t awake_cb2;
    uint32_t rsv[3];
    const uint32_t *db_list;
    uint32_t db_num;
};

int rdnd_lib_mom_reg(ce_l3vpn_rdnd_reg_t *reg, uint32_t db_num, void *global,
                     struct event_base *master, void *out);
