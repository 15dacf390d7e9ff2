#include "app/proc/ce_l3vpn_cnt.h"

#include <cstring>
#include <ctime>
#include <new>
#include <unordered_map>

#include "app/proc/ce_l3vpn_dump.h"
#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_refuse.h"
#include "app/proc/ce_l3vpn_main.h"
#include "app/proc/ce_l3vpn_msg_parse.h"
#include "app/proc/ce_l3vpn_tbl.h"
#include "p_intf.pb-c.h"
#include "p_mpls.pb-c.h"
#include "s_mpls.pb-c.h"
#include "u_mpls.pb-c.h"

tq_timer_t *ce_l3vpn_cnt_timer = nullptr;

namespace {
// Both maps live from the database-ready set-up to the end of the process.
std::unordered_map<uint32_t, ce_msg_status_cnt_t> *g_cnt = nullptr;
std::unordered_map<uint32_t, ce_l3vpn_data_if_t> *g_data_if = nullptr;

constexpr uint64_t kAllOnes = ~0ULL;

uint64_t monotonic_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

void dump_data_if(const ce_l3vpn_data_if_t &d) {
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "\t data_if==>ifx:%u, statis_flag:%d", d.ifx, d.statis_flag);
}

void dump_cnt(const ce_msg_status_cnt_t &c) {
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "\t status_cnt==>index:%u, enable:%u, changed:%u", c.index,
                 c.enable, c.changed);
    ce_l3vpn_dump_msg_status_cnt(&c);
}

// The entry's published tunnel counter record (table 22), key only or whole.
UMpls__UdpSrteStatusCnt srte_record(const ce_msg_status_cnt_t &e, UMpls__UdpSrteCntIndex *key,
                                    UMpls__UdpSrteCnt *cnt) {
    *key = UMpls__UdpSrteCntIndex U_MPLS__UDP_SRTE_CNT_INDEX__INIT;
    key->tunnel_id = e.index;
    UMpls__UdpSrteStatusCnt rec = U_MPLS__UDP_SRTE_STATUS_CNT__INIT;
    rec.index = key;
    if (cnt != nullptr) {
        *cnt = UMpls__UdpSrteCnt U_MPLS__UDP_SRTE_CNT__INIT;
        cnt->timestamp = e.timestamp;
        cnt->bytes = e.bytes;
        cnt->pkts = e.pkts;
        rec.v4_cnt = cnt;
    }
    return rec;
}

// An entry of a map, created as `init` when absent. A failed allocation is the
// insertion failure of the handlers (null here, -11 there): no exception
// leaves a handler.
template <typename Map>
typename Map::mapped_type *map_find_or_insert(Map *map, uint32_t key,
                                              const typename Map::mapped_type &init) {
    if (map == nullptr) return nullptr;
    try {
        return &map->try_emplace(key, init).first->second;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}
}  // namespace

void ce_l3vpn_cnt_maps_init(void) {
    if (g_cnt == nullptr)
        g_cnt = new (std::nothrow) std::unordered_map<uint32_t, ce_msg_status_cnt_t>();
    if (g_data_if == nullptr)
        g_data_if = new (std::nothrow) std::unordered_map<uint32_t, ce_l3vpn_data_if_t>();
}

void ce_l3vpn_cnt_maps_free(void) {
    delete g_cnt;
    delete g_data_if;
    g_cnt = nullptr;
    g_data_if = nullptr;
}

ce_msg_status_cnt_t *ce_l3vpn_cnt_find(uint32_t index) {
    if (g_cnt == nullptr) return nullptr;
    auto it = g_cnt->find(index);
    return it == g_cnt->end() ? nullptr : &it->second;
}

ce_l3vpn_data_if_t *ce_l3vpn_data_if_find(uint32_t ifx) {
    if (g_data_if == nullptr) return nullptr;
    auto it = g_data_if->find(ifx);
    return it == g_data_if->end() ? nullptr : &it->second;
}

uint32_t ce_l3vpn_cnt_size(void) { return g_cnt != nullptr ? g_cnt->size() : 0; }
uint32_t ce_l3vpn_data_if_size(void) { return g_data_if != nullptr ? g_data_if->size() : 0; }

int ce_l3_tunnel_sc_add(void *value, void *) {
    CE_L3VPN_CHK_NULL_NAME(value, "(PMpls__MomConfTeTunServiceClass *)value");
    auto *sc = static_cast<PMpls__MomConfTeTunServiceClass *>(value);
    CE_L3VPN_CHK_NULL_NAME(sc->index, "sc->index");
    const uint32_t ifindex = sc->index->ifindex;
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, ">>>>> add tunnel[%u] sc .\n", ifindex);
    ce_msg_status_cnt_t zero;
    memset(&zero, 0, sizeof zero);
    zero.index = ifindex;
    ce_msg_status_cnt_t *entry = map_find_or_insert(g_cnt, ifindex, zero);
    if (entry == nullptr) return -11;
    const ce_l3vpn_data_if_t *d = ce_l3vpn_data_if_find(ifindex);
    entry->enable = (d != nullptr && d->statis_flag != 0) ? 1 : 0;
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, ">>>>> add l3_tunnel_sc over.\n");
    return 0;
}

int ce_l3_tunnel_sc_del(void *value, void *) {
    CE_L3VPN_CHK_NULL_NAME(value, "(PMpls__MomConfTeTunServiceClass *)value");
    auto *sc = static_cast<PMpls__MomConfTeTunServiceClass *>(value);
    CE_L3VPN_CHK_NULL_NAME(sc->index, "sc->index");
    const uint32_t ifindex = sc->index->ifindex;
    CE_L3VPN_LOG(CE_L3VPN_INFO, ">>>>> del l3_tunnel_sc[%u].\n", ifindex);
    if (ce_msg_status_cnt_t *entry = ce_l3vpn_cnt_find(ifindex)) {
        entry->enable = 0;
        ce_l3_data_if_flag_del_msg(entry);
        g_cnt->erase(ifindex);
    }
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, ">>>>> del l3_tunnel_sc over.\n");
    return 0;
}

int ce_l3_data_if_flag_add(void *value, void *) {
    CE_L3VPN_CHK_NULL_NAME(value, "(PIntf__DataIntf *)value");
    auto *intf = static_cast<PIntf__DataIntf *>(value);
    CE_L3VPN_LOG(CE_L3VPN_INFO, ">>>>> add l3_data_if_cnt.\n");
    CE_L3VPN_CHK_NULL_NAME(intf->index, "data_intf->index");
    const uint32_t ifx = intf->index->index;
    ce_l3vpn_data_if_t *d = map_find_or_insert(g_data_if, ifx, ce_l3vpn_data_if_t{ifx, 0});
    if (d == nullptr) return -11;
    d->statis_flag = intf->statis_flag;
    dump_data_if(*d);
    if (ce_msg_status_cnt_t *entry = ce_l3vpn_cnt_find(ifx)) {
        if (d->statis_flag == 0) {
            entry->enable = 0;
            ce_l3_data_if_flag_del_msg(entry);
        } else {
            entry->enable = 1;
        }
        dump_cnt(*entry);
    }
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, ">>>>> add l3_data_if_cnt over.\n");
    return 0;
}

int ce_l3_data_if_flag_del(void *value, void *) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, ">>>>> del l3_data_if_cnt.\n");
    auto *intf = static_cast<PIntf__DataIntf *>(value);
    const uint32_t ifx = (intf != nullptr && intf->index != nullptr) ? intf->index->index : 0;
    if (ce_l3vpn_data_if_find(ifx) == nullptr) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, ">>>>> del data_if on find.\n");
        return 0;
    }
    if (ce_msg_status_cnt_t *entry = ce_l3vpn_cnt_find(ifx)) {
        entry->enable = 0;
        ce_l3_data_if_flag_del_msg(entry);
    }
    g_data_if->erase(ifx);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, ">>>>> del l3_data_if_cnt over.\n");
    return 0;
}

int ce_l3_data_if_flag_del_msg(ce_msg_status_cnt_t *entry) {
    entry->bytes = 0;
    entry->pkts = 0;
    entry->changed = 0;

    PIntf__Intfindex if_key = P_INTF__INTFINDEX__INIT;
    if_key.index = entry->index;
    PIntf__DataIfCounters if_rec = P_INTF__DATA_IF_COUNTERS__INIT;
    if_rec.index = &if_key;
    ss_rt_tbl_del_str(ce_l3vpn_tbl_handles[CE_TBL_DATA_IF_COUNTERS], &if_rec.base, 1, 0);
    CE_L3VPN_LOG(CE_L3VPN_INFO, ">>>>> del ss_rt_tbl_del_str  dataifcnts OK.\n");

    UMpls__UdpSrteCntIndex key;
    UMpls__UdpSrteStatusCnt rec = srte_record(*entry, &key, nullptr);
    int rv = ss_rt_tbl_del_str(ce_l3vpn_tbl_handles[CE_TBL_SRTE_STATUS_CNT], &rec.base, 1, 0);
    if (rv != SS_E_NONE) {
        CE_L3VPN_FAIL("rv == SS_E_NONE", CE_ERR_STATUS_CNT_FAIL, "");
        return rv;
    }
    CE_L3VPN_ERR_REC(CE_ERR_STATUS_CNT_PUB);
    CE_L3VPN_LOG(CE_L3VPN_INFO, ">>>>> del ss_rt_tbl_del_str  status_cnt_bak OK.\n");
    return 0;
}

int ce_l3_status_cnt_add(void *value, void *) {
    ce_msg_status_cnt_t msg;
    int rv = ce_l3vpn_msg_status_cnt_parse(&msg, static_cast<const SMpls__SrteStatusCnt *>(value));
    if (rv != 0) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "Fail, rv %d, status_cnt msg_in parse", rv);
        CE_L3VPN_ERR_REC(CE_ERR_APP_GET_RV);
        ce_l3vpn_refuse_record(value, rv);
        return rv;
    }
    CE_L3VPN_ERR_REC(CE_ERR_STATUS_CNT);
    CE_L3VPN_LOG(CE_L3VPN_INFO, "dump status_cnt==>%d", ce_l3vpn_dump_msg_status_cnt(&msg));
    ce_msg_status_cnt_t *entry = ce_l3vpn_cnt_find(msg.index);
    if (entry == nullptr) {
        CE_L3VPN_LOG(CE_L3VPN_INFO,
                     "ce_l3_status_cnt_msg_op_add: ce_msg_status_cnt_t_hash_find nothing.\n");
        return 0;
    }
    if (entry->enable == 0) return 0;  // no service class or statistics off: dropped
    entry->timestamp = msg.timestamp;
    entry->bytes += msg.bytes;
    entry->pkts += msg.pkts;
    entry->changed = 1;
    rv = udp_srte_status_cnt_op(entry);
    if (rv != SS_E_NONE) {
        CE_L3VPN_FAIL("rv == SS_E_NONE", CE_ERR_STATUS_CNT_FAIL, "");
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "Fail, rv %d, ce_l3_status_cnt_msg_op_add.\n", rv);
        CE_L3VPN_ERR_REC(CE_ERR_APP_GET_RV);
        return rv;
    }
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "<<<<< status_cnt op Over.\n");
    return 0;
}

int ce_l3_status_cnt_clr_enable(void *value, void *) {
    auto *clr_en = static_cast<PIntf__EvtIfclearcnt *>(value);
    CE_L3VPN_CHK_NULL(clr_en);
    CE_L3VPN_LOG(CE_L3VPN_INFO, ">>>>> status_cnt_enable %s \n",
                 clr_en->clear_count ? "enable" : "disable");
    if (clr_en->clear_count) {
        CE_L3VPN_ERR_REC(CE_ERR_STATUS_CNT_CLR);
        uint32_t index = clr_en->index != nullptr ? clr_en->index->index : 0;
        if (ce_msg_status_cnt_t *entry = ce_l3vpn_cnt_find(index)) {
            entry->bytes = 0;
            entry->pkts = 0;
            entry->changed = 1;
            if (udp_srte_status_cnt_op(entry) != SS_E_NONE)
                CE_L3VPN_FAIL("rv == SS_E_NONE", CE_ERR_STATUS_CNT_FAIL, "");
        }
    } else {
        CE_L3VPN_ERR_REC(CE_ERR_STATUS_CNT_KEEP);
    }
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "<<<<< ce_l3_status_cnt_clr_enable op Over\n");
    return 0;
}

int ce_l3_status_cnt_bak_cb(void *value, void *) {
    CE_L3VPN_CHK_NULL_NAME(value, "(ce_msg_status_cnt_t*)value");
    auto *rec = static_cast<UMpls__UdpSrteStatusCnt *>(value);
    CE_L3VPN_LOG(CE_L3VPN_INFO, ">>>>> status_tunnel_bak_cb begin.\n");
    CE_L3VPN_ERR_REC(CE_ERR_STATUS_CNT);
    ce_msg_status_cnt_t *entry =
        rec->index != nullptr ? ce_l3vpn_cnt_find(rec->index->tunnel_id) : nullptr;
    if (entry == nullptr || entry->enable == 0) return 0;
    if (rec->v4_cnt != nullptr) {
        entry->timestamp = rec->v4_cnt->timestamp;
        entry->bytes = rec->v4_cnt->bytes;
        entry->pkts = rec->v4_cnt->pkts;
    }
    CE_L3VPN_LOG(CE_L3VPN_INFO, "recover flow_cnt: v4_bytes:%lu, v4_timestamp:%lu, v4_pkts:%lu.\n",
                 (unsigned long)entry->bytes, (unsigned long)entry->timestamp,
                 (unsigned long)entry->pkts);
    // Written back inside the sync, so the sweep keeps it: unchanged, the
    // store is not written at all.
    return udp_srte_status_cnt_op(entry);
}

int udp_srte_status_cnt_op(ce_msg_status_cnt_t *entry) {
    UMpls__UdpSrteCntIndex key;
    UMpls__UdpSrteCnt cnt;
    UMpls__UdpSrteStatusCnt rec = srte_record(*entry, &key, &cnt);
    int rv = ss_rt_tbl_add_str(ce_l3vpn_tbl_handles[CE_TBL_SRTE_STATUS_CNT], &rec.base, 1, 0);
    if (rv != SS_E_NONE)
        CE_L3VPN_FAIL("rv == SS_E_NONE", CE_ERR_STATUS_CNT_FAIL, "");
    else
        CE_L3VPN_ERR_REC(CE_ERR_STATUS_CNT_PUB);
    return rv;
}

void ce_l3vpn_cnt_publish_all(void) {
    if (g_cnt == nullptr) return;
    for (auto &kv : *g_cnt)
        if (kv.second.enable != 0) udp_srte_status_cnt_op(&kv.second);
}

// Interface counters: the tunnel's bytes and packets as the interface's input
// counters; the words this daemon does not count are all ones ("unknown").
int status_cnt_hash_traverse_pub(ce_msg_status_cnt_t *item) {
    CE_L3VPN_CHK_NULL(item);
    PIntf__Intfindex key = P_INTF__INTFINDEX__INIT;
    key.index = item->index;
    PIntf__ObjIfCounters cnt = P_INTF__OBJ_IF_COUNTERS__INIT;
    cnt.timestamp = item->changed ? item->timestamp : monotonic_ms();
    cnt.in_octets = item->bytes;
    cnt.in_pkts = item->pkts;
    cnt.out_octets = cnt.out_pkts = kAllOnes;
    cnt.in_ucast_pkts = cnt.in_multicast_pkts = cnt.in_broadcast_pkts = kAllOnes;
    cnt.out_ucast_pkts = cnt.out_multicast_pkts = cnt.out_broadcast_pkts = kAllOnes;
    PIntf__DataIfCounters rec = P_INTF__DATA_IF_COUNTERS__INIT;
    rec.index = &key;
    rec.if_cnt = &cnt;
    item->changed = 0;
    ss_rt_tbl_t *t = ce_l3vpn_tbl_handles[CE_TBL_DATA_IF_COUNTERS];
    int rv = t != nullptr ? tq_mom_hmset(ce_l3vpn_global, t->db, &rec.base, 1, 0) : -4;
    if (rv != SS_E_NONE)
        CE_L3VPN_FAIL("rv == SS_E_NONE", CE_ERR_DATA_IF_CNT_FAIL, "");
    else
        CE_L3VPN_ERR_REC(CE_ERR_DATA_IF_CNT_PUB);
    return rv;
}

int ce_l3_status_cnt_timer_cb(void *) {
    if (g_cnt != nullptr) {
        for (auto &kv : *g_cnt)
            if (status_cnt_hash_traverse_pub(&kv.second) != 0) break;
    }
    tq_thread_insert_timer(tq_global_master(ce_l3vpn_global), &ce_l3vpn_cnt_timer,
                           ce_l3_status_cnt_timer_cb, nullptr, 2, "ce l3 status_cnt");
    return 0;
}
