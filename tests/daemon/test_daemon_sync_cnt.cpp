// Data sync after a restart, and the tunnel counters.
#include "daemon/daemon_fixture.h"

namespace {
using strs = std::vector<std::string>;
using u64s = std::vector<uint64_t>;
const ProtobufCMessageDescriptor *const kSrte = &u_mpls__udp_srte_status_cnt__descriptor;
const ProtobufCMessageDescriptor *const kIfCnt = &p_intf__data_if_counters__descriptor;

// An MPLS id {high, low}, and as a key text shows it.
uint64_t mpls_id(uint32_t high, uint32_t low) { return (uint64_t{high} << 32) | low; }
std::string id_text(uint32_t high, uint32_t low) { return std::to_string(mpls_id(high, low)); }

// An inner adjacency as an earlier run left it.
json adj(uint32_t rt_owner, uint64_t id, int op, uint32_t label) {
    return {{"table", "s_route.in_sub_adj"},
            {"index", {{"t_rt_owner", rt_owner}, {"ip", "127.0.0.1"}, {"mplsid", id}}},
            {"opcode", op},
            {"labels", {label}}};
}

// A stale FTN route of a route owner, naming the stale adjacency.
json old_rt(uint32_t rt_owner) {
    return {{"table", "s_route.comm_rt"},
            {"index", {{"t_rt_owner", rt_owner}, {"vrf", 5}, {"ip", "198.51.100.0"}, {"mask_len", 24},
                       {"nh_ifx", 7}, {"nh_ip", "10.1.1.1"}, {"tnl_dip", "127.0.0.1"},
                       {"mpls_id", mpls_id(5, 4)}}}};
}

TEST_F(DaemonColdTest, DataSyncKeepsRecoveredIdsAndSweepsTheRest) {
    wake();
    const json earlier[] = {
        {{"table", "u_mpls.udp_ttl_copy_enable"}, {"enable", true}},
        adj(CE_RT_OWNER_FTN, mpls_id(5, 3), CE_OP_PUSH, 100),
        adj(CE_RT_OWNER_FTN, mpls_id(5, 4), CE_OP_PUSH, 300),  // stale
        adj(CE_RT_OWNER_ILM, mpls_id(2, 9), CE_OP_SWAP, 200),
        e2e_ftn(5, "192.0.2.0", 24, 7, "10.1.1.1", {100}),
        e2e_ilm(1000, "10.1.1.2", 8, {200}, CE_OP_SWAP),
        {{"table", "p_mpls.mom_conf_vpn_ttl"}, {"vpn_ttl_enable", true}},
        old_rt(1),
        old_rt(2),  // not ours
        // A published counter of a tunnel with a service class is kept; one without is swept.
        {{"table", "p_mpls.mom_conf_te_tun_service_class"}, {"index", {{"ifindex", 77}}}},
        {{"table", "p_intf.data_intf"}, {"index", {{"index", 77}}}, {"statis_flag", 1}},
        {{"table", "u_mpls.udp_srte_status_cnt"}, {"index", {{"tunnel_id", 77}}},
         {"v4_cnt", {{"timestamp", 5}, {"bytes", 900}, {"pkts", 9}}}},
        {{"table", "u_mpls.udp_srte_status_cnt"}, {"index", {{"tunnel_id", 78}}},
         {"v4_cnt", {{"bytes", 1}}}},
    };
    for (const json &rec : earlier) store(rec);
    ready();  // subscriptions, end markers, then the sync

    // Rewritten with their recovered ids, the TTL switch applied first; the
    // stale adjacency and route are swept.
    EXPECT_EQ(1, ce_l3vpn_ttl_copy);
    const std::string ftn_adj = "1|0|0|v4:127.0.0.1|" + id_text(5, 3);
    EXPECT_EQ((strs{ftn_adj, "7|0|0|v4:127.0.0.1|" + id_text(2, 9)}), keys(10, kAdj));
    EXPECT_EQ(0u, get<SRoute__InSubAdj>(10, kAdj, ftn_adj)->ttl);
    // owner|vrf|prefix|mask|nh_ifx|nh_ip|tnl_ifx|tnl_dip|mpls_id
    EXPECT_EQ(strs{"1|5|v4:192.0.2.0|24|7|v4:10.1.1.1|0|v4:127.0.0.1|" + id_text(5, 3)},
              keys(6, kCommRt, "1"));
    EXPECT_EQ(1u, keys(6, kCommRt, "2").size());  // not ours: kept
    EXPECT_EQ(strs{"7|0|32|0|v4:231.0.3.232|8|v4:10.1.1.2|0|0|v4:127.0.0.1|" + id_text(2, 9)},
              keys(6, kVirRt));
    auto *fe_ilm = get<UMpls__UdpIlm>(10, kIlm, "1000");
    ASSERT_NE(fe_ilm, nullptr);
    EXPECT_TRUE(fe_ilm->ttl_copy);
    EXPECT_EQ(strs{"77"}, keys(10, kSrte));
    EXPECT_EQ(900u, get<UMpls__UdpSrteStatusCnt>(10, kSrte, "77")->v4_cnt->bytes);

    put(e2e_ftn(5, "192.0.2.0", 24, 7, "10.1.1.9", {400}));  // the new id lies above every recovered one
    EXPECT_EQ((strs{ftn_adj, "1|0|0|v4:127.0.0.1|" + id_text(6, 1)}), keys(10, kAdj, "1"));
}

// A sync whose reads fail (the link of the inputs' database is down) removes
// nothing and sweeps nothing; the sync that the link's return runs does the work.
TEST_F(DaemonTest, SyncThatCannotReadRemovesNothing) {
    ss_rt_tbl_ctl.reconn_exit = 0;
    put(e2e_ftn(5, "192.0.2.0", 24, 7, "10.1.1.1", {100}));
    const strs routes = keys(6, kCommRt, "1");
    ASSERT_EQ(1u, routes.size());
    mom_mem_conn_lost(mom_, 6);
    dispatch();
    ASSERT_EQ(0, ce_l3_data_check());
    EXPECT_EQ(1u, entries(CE_OWNER_FTN));
    EXPECT_TRUE(has(take_log(), "Fail, rv -17, data sync read, again in 1s"));
    mom_mem_conn_back(mom_, 6);
    dispatch();
    EXPECT_TRUE(has(take_log(), "<<<<< DS OVER"));
    EXPECT_EQ(1u, entries(CE_OWNER_FTN));
    EXPECT_EQ(routes, keys(6, kCommRt, "1"));
}

// ---- counters ----------------------------------------------------------------------

class CounterTest : public DaemonTest {
protected:
    void service_class(uint32_t tunnel) {
        put({{"table", "p_mpls.mom_conf_te_tun_service_class"}, {"index", {{"ifindex", tunnel}}}});
    }
    static json data_if(uint32_t ifx, int32_t flag) {
        return {{"table", "p_intf.data_intf"}, {"index", {{"index", ifx}}}, {"statis_flag", flag}};
    }
    void increment(uint32_t tunnel, uint64_t bytes, uint64_t pkts) {
        put({{"table", "s_mpls.srte_status_cnt"},
             {"index", {{"tunnel_id", tunnel}}},
             {"bytes", bytes},
             {"pkts", pkts}});
    }
    void clear_request(uint32_t ifx, bool clear) {
        json ev = {{"table", "p_intf.evt_ifclearcnt"}, {"index", {{"index", ifx}}}, {"clear_count", clear}};
        ASSERT_EQ(0, tq_mom_publish(g_ctx, 4, wire(ev), 1, 0));
        dispatch();
    }
    UMpls__UdpSrteCnt *published(uint32_t tunnel) {
        auto *r = get<UMpls__UdpSrteStatusCnt>(10, kSrte, std::to_string(tunnel));
        return r != nullptr ? r->v4_cnt : nullptr;
    }
};

TEST_F(CounterTest, IncrementsWithoutServiceClassOrStatisticsAreDropped) {
    put(data_if(100, 1));  // no service class
    service_class(101);
    put(data_if(101, 0));  // statistics off
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
    put(data_if(200, 1));
    increment(200, 1000, 10);
    increment(200, 500, 5);
    const ce_msg_status_cnt_t *e = ce_l3vpn_cnt_find(200);
    UMpls__UdpSrteCnt *c = published(200);
    ASSERT_TRUE(e != nullptr && c != nullptr);
    EXPECT_EQ((u64s{1500, 15, e->timestamp}), (u64s{c->bytes, c->pkts, c->timestamp}));
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
    EXPECT_EQ(0, ce_l3_data_if_flag_add(wire(data_if(200, 0)), nullptr));
    EXPECT_EQ(nullptr, published(200));
    EXPECT_EQ(0u, e->enable + e->bytes);
}

TEST_F(CounterTest, ReloadAfterRestartOnlyIntoEnabledEntries) {
    for (uint32_t tunnel : {300u, 301u}) {
        store({{"table", "u_mpls.udp_srte_status_cnt"},
               {"index", {{"tunnel_id", tunnel}}},
               {"v4_cnt", {{"timestamp", 77}, {"bytes", 500}, {"pkts", 5}}}});
        service_class(tunnel);
    }
    put(data_if(300, 1));  // 301 has no data interface: not counting
    ce_l3vpn_cnt_maps_free();  // the restart: counters gone, the next sync is a first one
    ce_l3vpn_cnt_maps_init();
    ce_l3vpn_app_ds_reset();
    take_log();
    ASSERT_EQ(0, ce_l3_data_check());
    const ce_msg_status_cnt_t *on = ce_l3vpn_cnt_find(300), *off = ce_l3vpn_cnt_find(301);
    ASSERT_TRUE(on != nullptr && off != nullptr);
    EXPECT_EQ((u64s{1, 500, 5, 77}), (u64s{uint64_t(on->enable), on->bytes, on->pkts, on->timestamp}));
    EXPECT_EQ(0u, off->bytes + off->pkts + off->timestamp);
    EXPECT_EQ(2u, rows(CE_ERR_STATUS_CNT));
    EXPECT_TRUE(has(take_log(), "recover flow_cnt: v4_bytes:500, v4_timestamp:77, v4_pkts:5.\n"));
}

TEST_F(CounterTest, TimerPublishesInterfaceCounters) {
    service_class(400);
    put(data_if(400, 1));
    increment(400, 64, 2);
    ce_msg_status_cnt_t *e = ce_l3vpn_cnt_find(400);
    const uint64_t stamp = e->timestamp;
    EXPECT_EQ(0, ce_l3_status_cnt_timer_cb(nullptr));
    auto *rec = get<PIntf__DataIfCounters>(4, kIfCnt, "400");
    ASSERT_TRUE(rec != nullptr && rec->if_cnt != nullptr);
    const auto *cnt = rec->if_cnt;
    EXPECT_EQ(stamp, cnt->timestamp);  // changed: the stored stamp
    EXPECT_EQ((u64s{64, 2, ~0ULL}), (u64s{cnt->in_octets, cnt->in_pkts, cnt->out_octets}));
    EXPECT_EQ(1u, rows(CE_ERR_DATA_IF_CNT_PUB));

    e->timestamp = 1;  // unchanged entries carry the clock, not the stored stamp
    EXPECT_EQ(0, ce_l3_status_cnt_timer_cb(nullptr));
    EXPECT_GT(get<PIntf__DataIfCounters>(4, kIfCnt, "400")->if_cnt->timestamp, 1000u);

    drop(data_if(400, 0));  // interface gone: both records withdrawn
    EXPECT_EQ(nullptr, get<PIntf__DataIfCounters>(4, kIfCnt, "400"));
    EXPECT_EQ(nullptr, published(400));
}
}  // namespace
