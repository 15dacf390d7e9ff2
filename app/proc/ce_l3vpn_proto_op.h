// Lower-layer programming: every record written for EF, UC, FE and PI.
#pragma once
#include <cstdint>
#include "app/proc/ce_l3vpn_app_node_db.h"
#include "app/proc/ce_l3vpn_in_adj_db.h"

// The ability record sent to PI (see ce_l3vpn_cap).
struct ce_l3vpn_ability_t {
    uint8_t pw_cw_support;
    uint8_t vpls_aging_timer_support;
    uint8_t vpls_multi_if_support;
    uint8_t vpls_mac_thrsh_support;
    uint32_t vpls_static_mac_reserve;
    uint32_t max_pw_cnt;
    uint32_t max_vll_cnt;
    uint32_t max_vpls_cnt;
    uint32_t max_switch_vfi_cnt;
    uint32_t max_mac_per_vpls;
    uint32_t max_pw_count_per_vpls;
    uint32_t max_label_index;
    uint32_t vpws_type_support;
    uint32_t mpls_gre_support;
    uint32_t mpls_te_support;
    uint32_t max_v4_ftn_cnt;
    uint32_t max_v6_ftn_cnt;
    uint32_t max_ilm_cnt;
    uint32_t ecmp_size;
    uint32_t max_lbl_dpth;
    uint32_t max_ecmp_paths;
    uint32_t max_service_class;
    uint8_t mpls_base_support;
    uint8_t mpls_l2vpn_support;
};

int ce_l3vpn_mpls_enable_hw_op(uint8_t enable);
int ce_l3vpn_ttl_copy_hw_op(uint8_t enable);
int ce_l3vpn_lab_sw_hw_op(uint32_t ifx, uint8_t enable);
int ce_l3vpn_proto_ability_notify(const ce_l3vpn_ability_t *ability);
int ce_l3vpn_app_op_call_ef(ce_nhop_node_t *nhop, uint8_t add);
int ce_l3vpn_in_adj_op_call_uc(ce_in_adj_node_t *in_adj, uint8_t add, uint32_t ttl);
int ce_l3vpn_ilm_op_hw(ce_app_node_t *app, ce_in_adj_node_t *in_adj, uint8_t add,
                       uint8_t ttl_copy);

// The local tunnel address carried as tnl_dip / the adjacency key's ip.
void ce_l3vpn_set_local_tnl_addr(const uint8_t v4[4], const uint8_t v6[16]);
// Takes the local tunnel address from L3VPN_LOCAL_TNL_V4 / L3VPN_LOCAL_TNL_V6
// when they hold addresses; otherwise it stays 127.0.0.1 / ::1.
void ce_l3vpn_proto_op_init(void);

// Does the store hold, exactly, the EF route of this next hop / the FE in-label
// of this ILM entry as a write would make it now? Reads only, counts nothing.
bool ce_l3vpn_ef_route_held(ce_nhop_node_t *nhop);
bool ce_l3vpn_ilm_fe_held(ce_app_node_t *app, ce_in_adj_node_t *in_adj, uint8_t ttl_copy);
