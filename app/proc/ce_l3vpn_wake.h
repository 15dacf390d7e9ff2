// Redundancy wake-up, the once-per-process database-ready set-up, and the
// per-database reconnect reports.
#pragma once
#include <cstdint>

struct ce_l3vpn_db_ready_t {
    bool db4;
    bool db6;
    bool db8;
    bool db10;
    bool connected;
};
extern ce_l3vpn_db_ready_t ce_l3vpn_db_ready;

// Builds the registration record and registers with the redundancy service.
void ce_l3vpn_rdnd_reg(void *global);

int ce_l3vpn_rdnd_awake_cb(void *master);
int ce_l3vpn_connect_cb(void);
int ce_l3vpn_reconnect(uint32_t db);

// Forgets the flags (tests only).
void ce_l3vpn_wake_reset(void);
