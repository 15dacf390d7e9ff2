#include "tools/l3vpn_ctl_tables.h"

#include <array>

#include "p_intf.pb-c.h"
#include "p_mpls.pb-c.h"
#include "s_mpls.pb-c.h"
#include "s_route.pb-c.h"
#include "u_mpls.pb-c.h"

namespace {

constexpr int S = CTL_TBL_STRING, H = CTL_TBL_HASH;
constexpr int IN = CTL_TBL_INPUT, OUT = CTL_TBL_OUTPUT;

const std::array<ctl_tbl_t, 23> ctl_tbl_list = {{
    {&p_mpls__mom_conf_global_enable__descriptor, 4, S, IN, 0},
    {&p_mpls__mom_conf_label_switch__descriptor, 4, S, IN, 0},
    {&p_mpls__mom_conf_vpn_ttl__descriptor, 4, S, IN, 0},
    {&p_mpls__mom_msg_ftn__descriptor, 6, S, IN, 0},
    {&u_mpls__udp_vc_ftn__descriptor, 6, S, IN, 0},
    {&p_mpls__mom_msg_ilm__descriptor, 6, S, IN, 0},
    {&s_mpls__srte_status_cnt__descriptor, 10, S, IN, 0},
    {&p_intf__data_intf__descriptor, 4, H, IN, 0},
    {&p_mpls__mom_conf_te_tun_service_class__descriptor, 6, S, IN, 0},
    {&p_intf__evt_ifclearcnt__descriptor, 4, S, IN, 0},
    {&u_mpls__udp_mpls_enable__descriptor, 8, S, OUT, 0},
    {&u_mpls__udp_ttl_copy_enable__descriptor, 8, S, OUT, 0},
    {&u_mpls__udp_lab_sw__descriptor, 8, S, OUT, 0},
    {&p_mpls__mom_conf_fwd_ability__descriptor, 4, S, OUT, 0},
    {&s_route__comm_rt__descriptor, 6, S, OUT, 1},
    {&s_route__vir_rt__descriptor, 6, S, OUT, 8},
    {&s_route__vir_rt__descriptor, 6, S, OUT, 7},
    {&u_mpls__udp_ilm__descriptor, 10, S, OUT, 0},
    {&s_route__in_sub_adj__descriptor, 10, S, OUT, 1},
    {&s_route__in_sub_adj__descriptor, 10, S, OUT, 8},
    {&s_route__in_sub_adj__descriptor, 10, S, OUT, 7},
    {&u_mpls__udp_srte_status_cnt__descriptor, 10, S, OUT, 0},
    {&p_intf__data_if_counters__descriptor, 4, H, OUT, 0},
}};

}  // namespace

std::span<const ctl_tbl_t> ctl_tbl_all() { return ctl_tbl_list; }

const ctl_tbl_t *ctl_tbl_find(std::string_view name) {
    for (const ctl_tbl_t &t : ctl_tbl_list)
        if (name == t.desc->name) return &t;
    return nullptr;
}

std::vector<const ctl_tbl_t *> ctl_tbl_distinct() {
    std::vector<const ctl_tbl_t *> out;
    for (const ctl_tbl_t &t : ctl_tbl_list)
        if (ctl_tbl_find(t.desc->name) == &t) out.push_back(&t);
    return out;
}

const char *ctl_tbl_type_name(int type) { return type == CTL_TBL_HASH ? "hash" : "string"; }
