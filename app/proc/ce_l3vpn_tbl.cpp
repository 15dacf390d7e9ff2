// The daemon's tables over the MOM, created once at start-up in a fixed order.
#include "app/proc/ce_l3vpn_tbl.h"

#include <cstddef>

#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_msg.h"
#include "p_intf.pb-c.h"
#include "p_mpls.pb-c.h"
#include "s_mpls.pb-c.h"
#include "s_route.pb-c.h"
#include "u_mpls.pb-c.h"

ss_rt_tbl_t *ce_l3vpn_tbl_handles[CE_TBL_NUM];

namespace {
constexpr const char *kModule = "udp-mpls-l3vpn";

template <typename Item>
ss_rt_tbl_t *create_unkeyed(uint32_t db, int32_t type, Item item) {
    return ss_rt_tbl_create_detail(db, type, &item, sizeof(Item), 0, nullptr, 0);
}

// Every keyed item holds its key sub-message in its first field, `index`.
template <typename Item, typename Key>
ss_rt_tbl_t *create_keyed(uint32_t db, int32_t type, Item item, Key key) {
    return ss_rt_tbl_create_detail(db, type, &item, sizeof(Item), offsetof(Item, index), &key,
                                   sizeof(Key));
}

// Route and adjacency outputs: the key's t_rt_owner selects this daemon's slice.
template <typename Item, typename Key>
ss_rt_tbl_t *create_owned(uint32_t db, Item item, Key key, uint32_t owner) {
    key.t_rt_owner = owner;
    return create_keyed(db, RT_MOM_DATA_STRING, item, key);
}
}  // namespace

void ce_l3_table_init(void *global) {
    if (ss_rt_tbl_init(global, kModule, CE_TBL_NUM) != 0) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "rt_tbl_init fail");
        return;
    }
    constexpr int32_t S = RT_MOM_DATA_STRING, H = RT_MOM_DATA_HASH;
    ss_rt_tbl_t **t = ce_l3vpn_tbl_handles;
    t[CE_TBL_GLOBAL_ENABLE] = create_unkeyed(4, S, PMpls__MomConfGlobalEnable P_MPLS__MOM_CONF_GLOBAL_ENABLE__INIT);
    t[CE_TBL_LABEL_SWITCH] = create_keyed(4, S, PMpls__MomConfLabelSwitch P_MPLS__MOM_CONF_LABEL_SWITCH__INIT,
                                          PMpls__LabelSwitchIndex P_MPLS__LABEL_SWITCH_INDEX__INIT);
    t[CE_TBL_VPN_TTL] = create_unkeyed(4, S, PMpls__MomConfVpnTtl P_MPLS__MOM_CONF_VPN_TTL__INIT);
    t[CE_TBL_FTN] = create_keyed(6, S, PMpls__MomMsgFtn P_MPLS__MOM_MSG_FTN__INIT,
                                 PMpls__FtnIndex P_MPLS__FTN_INDEX__INIT);
    t[CE_TBL_VC_FTN] = create_keyed(6, S, UMpls__UdpVcFtn U_MPLS__UDP_VC_FTN__INIT,
                                    UMpls__UdpVcFtnKey U_MPLS__UDP_VC_FTN_KEY__INIT);
    t[CE_TBL_ILM] = create_keyed(6, S, PMpls__MomMsgIlm P_MPLS__MOM_MSG_ILM__INIT,
                                 PMpls__IlmIndex P_MPLS__ILM_INDEX__INIT);
    t[CE_TBL_STATUS_CNT] = create_keyed(10, S, SMpls__SrteStatusCnt S_MPLS__SRTE_STATUS_CNT__INIT,
                                        SMpls__SrteCountIndex S_MPLS__SRTE_COUNT_INDEX__INIT);
    t[CE_TBL_DATA_INTF] = create_keyed(4, H, PIntf__DataIntf P_INTF__DATA_INTF__INIT,
                                       PIntf__Intfindex P_INTF__INTFINDEX__INIT);
    t[CE_TBL_TUN_SC] = create_keyed(6, S, PMpls__MomConfTeTunServiceClass P_MPLS__MOM_CONF_TE_TUN_SERVICE_CLASS__INIT,
                                    PMpls__TeTunIndex P_MPLS__TE_TUN_INDEX__INIT);
    t[CE_TBL_IF_CLEAR_CNT] = create_keyed(4, S, PIntf__EvtIfclearcnt P_INTF__EVT_IFCLEARCNT__INIT,
                                          PIntf__Intfindex P_INTF__INTFINDEX__INIT);
    t[CE_TBL_UDP_MPLS_ENABLE] = create_unkeyed(8, S, UMpls__UdpMplsEnable U_MPLS__UDP_MPLS_ENABLE__INIT);
    t[CE_TBL_UDP_TTL_COPY] = create_unkeyed(8, S, UMpls__UdpTtlCopyEnable U_MPLS__UDP_TTL_COPY_ENABLE__INIT);
    t[CE_TBL_UDP_LAB_SW] = create_keyed(8, S, UMpls__UdpLabSw U_MPLS__UDP_LAB_SW__INIT,
                                        UMpls__UdpLabSwIndex U_MPLS__UDP_LAB_SW_INDEX__INIT);
    t[CE_TBL_FWD_ABILITY] = create_unkeyed(4, S, PMpls__MomConfFwdAbility P_MPLS__MOM_CONF_FWD_ABILITY__INIT);
    t[CE_TBL_FTN_RT] = create_owned(6, SRoute__CommRt S_ROUTE__COMM_RT__INIT,
                                    SRoute__CommRtKey S_ROUTE__COMM_RT_KEY__INIT, CE_RT_OWNER_FTN);
    t[CE_TBL_VC_FTN_VIR_RT] = create_owned(6, SRoute__VirRt S_ROUTE__VIR_RT__INIT,
                                           SRoute__VirRtKey S_ROUTE__VIR_RT_KEY__INIT, CE_RT_OWNER_VC_FTN);
    t[CE_TBL_ILM_VIR_RT] = create_owned(6, SRoute__VirRt S_ROUTE__VIR_RT__INIT,
                                        SRoute__VirRtKey S_ROUTE__VIR_RT_KEY__INIT, CE_RT_OWNER_ILM);
    t[CE_TBL_UDP_ILM] = create_keyed(10, S, UMpls__UdpIlm U_MPLS__UDP_ILM__INIT,
                                     UMpls__UdpIlmKey U_MPLS__UDP_ILM_KEY__INIT);
    t[CE_TBL_FTN_IN_ADJ] = create_owned(10, SRoute__InSubAdj S_ROUTE__IN_SUB_ADJ__INIT,
                                        SRoute__InSubAdjKey S_ROUTE__IN_SUB_ADJ_KEY__INIT, CE_RT_OWNER_FTN);
    t[CE_TBL_VC_FTN_IN_ADJ] = create_owned(10, SRoute__InSubAdj S_ROUTE__IN_SUB_ADJ__INIT,
                                           SRoute__InSubAdjKey S_ROUTE__IN_SUB_ADJ_KEY__INIT, CE_RT_OWNER_VC_FTN);
    t[CE_TBL_ILM_IN_ADJ] = create_owned(10, SRoute__InSubAdj S_ROUTE__IN_SUB_ADJ__INIT,
                                        SRoute__InSubAdjKey S_ROUTE__IN_SUB_ADJ_KEY__INIT, CE_RT_OWNER_ILM);
    t[CE_TBL_SRTE_STATUS_CNT] = create_keyed(10, S, UMpls__UdpSrteStatusCnt U_MPLS__UDP_SRTE_STATUS_CNT__INIT,
                                             UMpls__UdpSrteCntIndex U_MPLS__UDP_SRTE_CNT_INDEX__INIT);
    t[CE_TBL_DATA_IF_COUNTERS] = create_keyed(4, H, PIntf__DataIfCounters P_INTF__DATA_IF_COUNTERS__INIT,
                                              PIntf__Intfindex P_INTF__INTFINDEX__INIT);
}
