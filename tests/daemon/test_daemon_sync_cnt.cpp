// Data sync after a restart, and the tunnel counters.

#include "daemon/daemon_fixture.h"

namespace {
using strs = std::vector<std::string>;
const ProtobufCMessageDescriptor *const kCommRt = &s_route__comm_rt__descriptor;
const ProtobufCMessageDescriptor *const kAdj = &s_route__in_sub_adj__descriptor;
const ProtobufCMessageDescriptor *const kSrte = &u_mpls__udp_srte_status_cnt__descriptor;

// A route of the FTN route table as an earlier run (or another owner) left it.
struct route_w {
    wire_ip_t ip, nh{"10.1.1.1"}, tnl{"127.0.0.1"};
    SRoute__CommRtKey key = S_ROUTE__COMM_RT_KEY__INIT;
    SRoute__CommRt msg = S_ROUTE__COMM_RT__INIT;
    route_w(uint32_t owner, const char *prefix, uint64_t id) : ip(prefix) {
        key.t_rt_owner = owner, key.vrf = 5, key.ip = &ip.ip, key.mask_len = 24, key.nh_ifx = 7;
        key.nh_ip = &nh.ip, key.tnl_dip = &tnl.ip, key.mpls_id = id;
        msg.index = &key;
    }
};

TEST_F(DaemonColdTest, DataSyncKeepsRecoveredIdsAndSweepsTheRest) {
    wake();
    UMpls__UdpTtlCopyEnable ttl_out = U_MPLS__UDP_TTL_COPY_ENABLE__INIT;
    ttl_out.enable = 1;
    adj_w live(CE_RT_OWNER_FTN, mpls_id(5, 3), CE_OP_PUSH, 100);
    adj_w stale(CE_RT_OWNER_FTN, mpls_id(5, 4), CE_OP_PUSH, 300);
    adj_w ilm_adj(CE_RT_OWNER_ILM, mpls_id(2, 9), CE_OP_SWAP, 200);
    route_w old_rt(CE_RT_OWNER_FTN, "198.51.100.0", mpls_id(5, 4));
    route_w foreign(2, "198.51.100.0", mpls_id(5, 4));
    ftn_w ftn("192.0.2.0", 24, "10.1.1.1", 7, CE_OP_PUSH, {100});
    ilm_w ilm(1000, "10.1.1.2", 8, CE_OP_SWAP, {200});
    PMpls__MomConfVpnTtl ttl_in = P_MPLS__MOM_CONF_VPN_TTL__INIT;
    ttl_in.vpn_ttl_enable = 1;
    const std::pair<uint32_t, const ProtobufCMessage *> earlier[] = {
        {8, &ttl_out.base},  {10, &live.msg.base},   {10, &stale.msg.base},
        {10, &ilm_adj.msg.base}, {6, &old_rt.msg.base}, {6, &foreign.msg.base},
        {6, &ftn.msg.base},  {6, &ilm.msg.base},     {4, &ttl_in.base},
    };
    for (const auto &[db, rec] : earlier) ASSERT_EQ(0, tq_mom_set_sync(ctx(), db, rec));

    ready();  // subscriptions, end markers, then the sync

    // Rewritten with their recovered ids; the stale adjacency and route are swept.
    EXPECT_EQ(1, ce_l3vpn_ttl_copy);
    EXPECT_NE(nullptr, get<UMpls__UdpTtlCopyEnable>(8, &u_mpls__udp_ttl_copy_enable__descriptor, ""));
    const std::string ftn_adj = "1|0|0|v4:127.0.0.1|" + id_text(5, 3);
    EXPECT_EQ((strs{ftn_adj, "7|0|0|v4:127.0.0.1|" + id_text(2, 9)}), keys(10, kAdj));
    EXPECT_EQ(0u, get<SRoute__InSubAdj>(10, kAdj, ftn_adj)->ttl);
    EXPECT_EQ(strs{"1|5|v4:192.0.2.0|24|7|v4:10.1.1.1|0|v4:127.0.0.1|" + id_text(5, 3)},
              keys(6, kCommRt, "1"));
    EXPECT_EQ(1u, keys(6, kCommRt, "2").size());  // not ours: kept
    EXPECT_EQ(strs{"7|0|32|0|v4:231.0.3.232|8|v4:10.1.1.2|0|0|v4:127.0.0.1|" + id_text(2, 9)},
              keys(6, &s_route__vir_rt__descriptor));
    auto *fe_ilm = get<UMpls__UdpIlm>(10, &u_mpls__udp_ilm__descriptor, "1000");
    ASSERT_NE(fe_ilm, nullptr);
    EXPECT_TRUE(fe_ilm->ttl_copy);

    ftn_w fresh("192.0.2.0", 24, "10.1.1.9", 7, CE_OP_PUSH, {400});
    put(6, &fresh.msg.base);
    const strs adjs = keys(10, kAdj, "1");  // the new id lies above every recovered one
    EXPECT_EQ((strs{"1|0|0|v4:127.0.0.1|" + id_text(5, 3), "1|0|0|v4:127.0.0.1|" + id_text(6, 1)}), adjs);
}

// ---- counters ----------------------------------------------------------------------

class CounterTest : public DaemonTest {
protected:
    void service_class(uint32_t tunnel) {
        PMpls__TeTunIndex idx = P_MPLS__TE_TUN_INDEX__INIT;
        idx.ifindex = tunnel;
        PMpls__MomConfTeTunServiceClass sc = P_MPLS__MOM_CONF_TE_TUN_SERVICE_CLASS__INIT;
        sc.index = &idx;
        put(6, &sc.base);
    }
    struct data_if_w {
        PIntf__Intfindex idx = P_INTF__INTFINDEX__INIT;
        PIntf__DataIntf rec = P_INTF__DATA_INTF__INIT;
        data_if_w(uint32_t ifx, int32_t flag) { idx.index = ifx, rec.index = &idx, rec.statis_flag = flag; }
    };
    void data_if(uint32_t ifx, int32_t flag, bool add = true) {
        data_if_w d(ifx, flag);
        ASSERT_EQ(0, add ? tq_mom_hmset_sync(ctx(), 4, &d.rec.base)
                         : tq_mom_del_sync(ctx(), 4, &d.rec.base));
        dispatch();
    }
    void increment(uint32_t tunnel, uint64_t bytes, uint64_t pkts) {
        SMpls__SrteCountIndex idx = S_MPLS__SRTE_COUNT_INDEX__INIT;
        idx.tunnel_id = tunnel;
        SMpls__SrteStatusCnt st = S_MPLS__SRTE_STATUS_CNT__INIT;
        st.index = &idx, st.bytes = bytes, st.pkts = pkts;
        put(10, &st.base);
    }
    void clear_request(uint32_t ifx, bool clear) {
        PIntf__Intfindex idx = P_INTF__INTFINDEX__INIT;
        idx.index = ifx;
        PIntf__EvtIfclearcnt ev = P_INTF__EVT_IFCLEARCNT__INIT;
        ev.index = &idx;
        ev.clear_count = clear;
        ASSERT_EQ(0, tq_mom_publish(ctx(), 4, &ev.base, 1, 0));
        dispatch();
    }
    UMpls__UdpSrteCnt *published(uint32_t tunnel) {
        auto *r = get<UMpls__UdpSrteStatusCnt>(10, kSrte, std::to_string(tunnel));
        return r != nullptr ? r->v4_cnt : nullptr;
    }
};

TEST_F(CounterTest, IncrementsWithoutServiceClassOrStatisticsAreDropped) {
    data_if(100, 1);  // no service class
    service_class(101);
    data_if(101, 0);  // statistics off
    service_class(102);  // no data interface at all
    for (uint32_t tunnel : {100u, 101u, 102u}) increment(tunnel, 1000, 10);
    EXPECT_EQ(3u, rows(CE_ERR_STATUS_CNT));
    EXPECT_TRUE(keys(10, kSrte).empty());
    const std::string log = take_log();
    const std::string nothing = "ce_l3_status_cnt_msg_op_add: ce_msg_status_cnt_t_hash_find nothing.\n";
    ASSERT_TRUE(has(log, nothing));
    EXPECT_EQ(std::string::npos, log.find(nothing, log.find(nothing) + 1));  // once: tunnel 100
}

TEST_F(CounterTest, AccumulatesPublishesClearsAndRepublishes) {
    service_class(200);
    data_if(200, 1);
    increment(200, 1000, 10);
    increment(200, 500, 5);
    const ce_msg_status_cnt_t *e = ce_l3vpn_cnt_find(200);
    UMpls__UdpSrteCnt *c = published(200);
    ASSERT_TRUE(e != nullptr && c != nullptr);
    EXPECT_EQ(1500u + 15u, c->bytes + c->pkts);
    EXPECT_EQ(e->timestamp, c->timestamp);
    EXPECT_EQ(2u, rows(CE_ERR_STATUS_CNT_PUB));

    clear_request(200, false);  // "disable": counted, nothing cleared
    EXPECT_EQ(1u, rows(CE_ERR_STATUS_CNT_KEEP));
    EXPECT_EQ(1500u, published(200)->bytes);
    clear_request(200, true);
    EXPECT_EQ(1u, rows(CE_ERR_STATUS_CNT_CLR));
    ASSERT_NE(c = published(200), nullptr);
    EXPECT_EQ(0u, c->bytes + c->pkts);
    increment(200, 70, 1);
    EXPECT_EQ(70u, published(200)->bytes);

    // Statistics switched off: zeroed and withdrawn. Straight to the handler:
    // a hash update never carries a field whose value is 0.
    data_if_w off(200, 0);
    EXPECT_EQ(0, ce_l3_data_if_flag_add(&off.rec, nullptr));
    EXPECT_EQ(nullptr, published(200));
    EXPECT_EQ(0u, e->enable + e->bytes);
}

TEST_F(CounterTest, ReloadAfterRestartOnlyIntoEnabledEntries) {
    for (uint32_t tunnel : {300u, 301u}) {
        UMpls__UdpSrteCntIndex idx = U_MPLS__UDP_SRTE_CNT_INDEX__INIT;
        idx.tunnel_id = tunnel;
        UMpls__UdpSrteCnt cnt = U_MPLS__UDP_SRTE_CNT__INIT;
        cnt.timestamp = 77, cnt.bytes = 500, cnt.pkts = 5;
        UMpls__UdpSrteStatusCnt rec = U_MPLS__UDP_SRTE_STATUS_CNT__INIT;
        rec.index = &idx;
        rec.v4_cnt = &cnt;
        ASSERT_EQ(0, tq_mom_set_sync(ctx(), 10, &rec.base));
        service_class(tunnel);
    }
    data_if(300, 1);  // 301 has no data interface: not counting
    ce_l3vpn_cnt_maps_free();  // the restart
    ce_l3vpn_cnt_maps_init();
    take_log();
    ASSERT_EQ(0, ce_l3_data_check());
    const ce_msg_status_cnt_t *on = ce_l3vpn_cnt_find(300), *off = ce_l3vpn_cnt_find(301);
    ASSERT_TRUE(on != nullptr && off != nullptr);
    EXPECT_EQ((std::vector<uint64_t>{1, 500, 5, 77}),
              (std::vector<uint64_t>{uint64_t(on->enable), on->bytes, on->pkts, on->timestamp}));
    EXPECT_EQ(0u, off->bytes + off->pkts + off->timestamp);
    EXPECT_EQ(2u, rows(CE_ERR_STATUS_CNT));
    EXPECT_TRUE(has(take_log(), "recover flow_cnt: v4_bytes:500, v4_timestamp:77, v4_pkts:5.\n"));
}

TEST_F(CounterTest, TimerPublishesInterfaceCounters) {
    service_class(400);
    data_if(400, 1);
    increment(400, 64, 2);
    ce_msg_status_cnt_t *e = ce_l3vpn_cnt_find(400);
    const uint64_t stamp = e->timestamp;
    EXPECT_EQ(0, ce_l3_status_cnt_timer_cb(nullptr));
    auto *rec = get<PIntf__DataIfCounters>(4, &p_intf__data_if_counters__descriptor, "400");
    ASSERT_TRUE(rec != nullptr && rec->if_cnt != nullptr);
    EXPECT_EQ(stamp, rec->if_cnt->timestamp);  // changed: the stored stamp
    EXPECT_EQ(64u + 2u, rec->if_cnt->in_octets + rec->if_cnt->in_pkts);
    EXPECT_EQ(~0ULL, rec->if_cnt->out_octets);
    EXPECT_EQ(1u, rows(CE_ERR_DATA_IF_CNT_PUB));

    e->timestamp = 1;  // unchanged entries carry the clock, not the stored stamp
    EXPECT_EQ(0, ce_l3_status_cnt_timer_cb(nullptr));
    rec = get<PIntf__DataIfCounters>(4, &p_intf__data_if_counters__descriptor, "400");
    EXPECT_GT(rec->if_cnt->timestamp, 1000u);

    data_if(400, 0, false);  // interface gone: both records withdrawn
    EXPECT_EQ(nullptr, get<PIntf__DataIfCounters>(4, &p_intf__data_if_counters__descriptor, "400"));
    EXPECT_EQ(nullptr, published(400));
}
}  // namespace
