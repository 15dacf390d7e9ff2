// Tunnel counters: service classes, data-interface statistics flags,
// increments, clears, reload after a restart and the periodic publisher.
#pragma once
#include <cstdint>

#include "app/proc/ce_l3vpn_msg.h"
#include "platform/runtime/tq_global.h"

struct ce_l3vpn_data_if_t {
    uint32_t ifx;
    int32_t statis_flag;
};

extern tq_timer_t *ce_l3vpn_cnt_timer;

// Creates the two empty maps (once; a second call keeps them).
void ce_l3vpn_cnt_maps_init(void);
// Frees both maps (tests).
void ce_l3vpn_cnt_maps_free(void);
ce_msg_status_cnt_t *ce_l3vpn_cnt_find(uint32_t index);
ce_l3vpn_data_if_t *ce_l3vpn_data_if_find(uint32_t ifx);
uint32_t ce_l3vpn_cnt_size(void);
uint32_t ce_l3vpn_data_if_size(void);

int ce_l3_tunnel_sc_add(void *value, void *arg);
int ce_l3_tunnel_sc_del(void *value, void *arg);
int ce_l3_data_if_flag_add(void *value, void *arg);
int ce_l3_data_if_flag_del(void *value, void *arg);
int ce_l3_status_cnt_add(void *value, void *arg);
int ce_l3_status_cnt_clr_enable(void *value, void *arg);
// Reload of a published counter (scan of the tunnel counter output).
int ce_l3_status_cnt_bak_cb(void *value, void *arg);

int udp_srte_status_cnt_op(ce_msg_status_cnt_t *entry);
// Every counter of a tunnel that counts, written again (a sync over a live state).
void ce_l3vpn_cnt_publish_all(void);
int ce_l3_data_if_flag_del_msg(ce_msg_status_cnt_t *entry);
int status_cnt_hash_traverse_pub(ce_msg_status_cnt_t *item);
// The timer: publishes every entry on the interface counter table, re-arms.
int ce_l3_status_cnt_timer_cb(void *arg);
