// The daemon's 23 tables, in creation order.
#pragma once
#include "route_table/ss_rt_tbl.h"

enum ce_l3vpn_tbl_idx_t {
    CE_TBL_GLOBAL_ENABLE = 0,   // in: p_mpls.mom_conf_global_enable (db 4)
    CE_TBL_LABEL_SWITCH,        // in: p_mpls.mom_conf_label_switch (db 4)
    CE_TBL_VPN_TTL,             // in: p_mpls.mom_conf_vpn_ttl (db 4)
    CE_TBL_FTN,                 // in: p_mpls.mom_msg_ftn (db 6)
    CE_TBL_VC_FTN,              // in: u_mpls.udp_vc_ftn (db 6)
    CE_TBL_ILM,                 // in: p_mpls.mom_msg_ilm (db 6)
    CE_TBL_STATUS_CNT,          // in: s_mpls.srte_status_cnt (db 10)
    CE_TBL_DATA_INTF,           // in: p_intf.data_intf (db 4, hash)
    CE_TBL_TUN_SC,              // in: p_mpls.mom_conf_te_tun_service_class (db 6)
    CE_TBL_IF_CLEAR_CNT,        // in: p_intf.evt_ifclearcnt (db 4)
    CE_TBL_UDP_MPLS_ENABLE,     // out: u_mpls.udp_mpls_enable (db 8)
    CE_TBL_UDP_TTL_COPY,        // out: u_mpls.udp_ttl_copy_enable (db 8)
    CE_TBL_UDP_LAB_SW,          // out: u_mpls.udp_lab_sw (db 8)
    CE_TBL_FWD_ABILITY,         // out: p_mpls.mom_conf_fwd_ability (db 4)
    CE_TBL_FTN_RT,              // out: s_route.comm_rt, owner 1 (db 6)
    CE_TBL_VC_FTN_VIR_RT,       // out: s_route.vir_rt, owner 8 (db 6)
    CE_TBL_ILM_VIR_RT,          // out: s_route.vir_rt, owner 7 (db 6)
    CE_TBL_UDP_ILM,             // out: u_mpls.udp_ilm (db 10)
    CE_TBL_FTN_IN_ADJ,          // out: s_route.in_sub_adj, owner 1 (db 10)
    CE_TBL_VC_FTN_IN_ADJ,       // out: s_route.in_sub_adj, owner 8 (db 10)
    CE_TBL_ILM_IN_ADJ,          // out: s_route.in_sub_adj, owner 7 (db 10)
    CE_TBL_SRTE_STATUS_CNT,     // out: u_mpls.udp_srte_status_cnt (db 10)
    CE_TBL_DATA_IF_COUNTERS,    // out: p_intf.data_if_counters (db 4, hash)
    CE_TBL_NUM
};

extern ss_rt_tbl_t *ce_l3vpn_tbl_handles[CE_TBL_NUM];

// Initialises the table library and creates the 23 tables.
void ce_l3_table_init(void *global);
