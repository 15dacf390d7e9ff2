#include "app/proc/ce_l3vpn_wake.h"

#include <cstring>

#include "app/proc/ce_l3vpn_app.h"
#include "app/proc/ce_l3vpn_cap.h"
#include "app/proc/ce_l3vpn_cnt.h"
#include "app/proc/ce_l3vpn_dbg.h"
#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_main.h"
#include "app/proc/ce_l3vpn_tbl.h"
#include "platform/rdnd/rdnd.h"
#include "platform/runtime/tq_global.h"

ce_l3vpn_db_ready_t ce_l3vpn_db_ready;

namespace {
constexpr const char *kClientName = "udp-mpls-l3vpn";
const uint32_t kDbList[4] = {4, 6, 8, 10};

// The route, ILM and inner-adjacency outputs are congestion-controlled topics.
constexpr ce_l3vpn_tbl_idx_t kCgstTables[] = {
    CE_TBL_FTN_RT,     CE_TBL_VC_FTN_VIR_RT, CE_TBL_ILM_VIR_RT,  CE_TBL_UDP_ILM,
    CE_TBL_FTN_IN_ADJ, CE_TBL_VC_FTN_IN_ADJ, CE_TBL_ILM_IN_ADJ,
};

void reg_cgst_topics(void) {
    int rv = 0;
    for (ce_l3vpn_tbl_idx_t idx : kCgstTables)
        rv |= ss_rt_tbl_reg_cgst_topic_detail(ce_l3vpn_tbl_handles[idx], 0);
    if (rv != SS_E_NONE)
        CE_L3VPN_FAIL_FN("ce_l3_msg_block_init", "rv == SS_E_NONE", CE_ERR_REG_CGST, "reg cgst");
}
}  // namespace

void ce_l3vpn_rdnd_reg(void *global) {
    ce_l3vpn_rdnd_reg_t reg;
    memset(&reg, 0, sizeof reg);
    reg.master = tq_global_master(global);
    reg.name = kClientName;
    reg.global = global;
    reg.awake_cb = ce_l3vpn_rdnd_awake_cb;
    reg.awake_cb2 = ce_l3vpn_rdnd_awake_cb;
    reg.db_list = kDbList;
    reg.db_num = 4;
    uint8_t out[64];
    rdnd_lib_mom_reg(&reg, 4, global, reg.master, out);
}

int ce_l3vpn_rdnd_awake_cb(void *master) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, "wake from RDND, master:%p", master);
    ss_rt_tbl_reg_reconnect(ce_l3vpn_reconnect, 1);
    int rv = ss_rt_tbl_connect_db(ce_l3vpn_connect_cb);
    if (rv == 0) return 0;
    CE_L3VPN_LOG(CE_L3VPN_ERROR, "\n[%s] connect db fail rv:%d\n", kClientName, rv);
    return -17;
}

int ce_l3vpn_connect_cb(void) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, "db ready callback ");
    if (ce_l3vpn_db_ready.connected) return 0;
    ce_l3vpn_db_ready.connected = true;

    ce_l3vpn_cap_init(ce_l3vpn_global, kClientName);
    ce_l3vpn_app_init();
    ce_l3vpn_dbg_init(ce_l3vpn_global, kClientName);
    reg_cgst_topics();
    ce_l3vpn_cnt_maps_init();
    int rv = tq_thread_insert_timer(tq_global_master(ce_l3vpn_global), &ce_l3vpn_cnt_timer,
                                    ce_l3_status_cnt_timer_cb, nullptr, 2, "status_cnt");
    if (rv != 0) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "Fail, rv %d, tq_thread_insert_timer", rv);
        CE_L3VPN_ERR_REC(CE_ERR_APP_GET_RV);
        return rv;
    }
    return 0;
}

int ce_l3vpn_reconnect(uint32_t db) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, "db:%d reconnect ", (int)db);
    switch (db) {
    case 4: ce_l3vpn_db_ready.db4 = true; break;
    case 6: ce_l3vpn_db_ready.db6 = true; break;
    case 8: ce_l3vpn_db_ready.db8 = true; break;
    case 10: ce_l3vpn_db_ready.db10 = true; break;
    default:
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "error rdnd db %d", (int)db);
        return 13;
    }
    const ce_l3vpn_db_ready_t &r = ce_l3vpn_db_ready;
    if (r.db4 && r.db6 && r.db8 && r.db10) return ce_l3vpn_connect_cb();
    return 0;
}

void ce_l3vpn_wake_reset(void) { ce_l3vpn_db_ready = ce_l3vpn_db_ready_t{}; }
