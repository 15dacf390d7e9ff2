// Entries written into the store by a plain client reach the lower layers'
// tables with the right fields, and leave them again when deleted.
#include <cstdlib>
#include <set>

#include "e2e/e2e_env.h"
#include "s_route.pb-c.h"
#include "u_mpls.pb-c.h"

namespace {

constexpr const char *kTnlV4 = "203.0.113.9";
constexpr const char *kTnlV6 = "2001:db8:ffff::9";
constexpr int kWaitMs = 10000;
constexpr uint32_t kNoLabel = 0x100000;

class e2e_flow_t : public e2e_env_t {
protected:
    void SetUp() override {
        // The local tunnel address every route and adjacency key carries.
        setenv("L3VPN_LOCAL_TNL_V4", kTnlV4, 1);
        setenv("L3VPN_LOCAL_TNL_V6", kTnlV6, 1);
        e2e_env_t::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        start(4);
    }
    void TearDown() override {
        e2e_env_t::TearDown();
        unsetenv("L3VPN_LOCAL_TNL_V4");
        unsetenv("L3VPN_LOCAL_TNL_V6");
    }

    // The one adjacency of a table and its id.
    const SRoute__InSubAdj *only_adj(const e2e_rows_t &adj) {
        EXPECT_EQ(adj.size(), 1u);
        return adj.empty() ? nullptr : e2e_as<SRoute__InSubAdj>(adj.begin()->second);
    }

    static std::vector<uint32_t> labels(const SRoute__InSubAdj *a) {
        return {a->labels, a->labels + a->n_labels};
    }

    // The TTL of the one adjacency of a table, -1 when there is none.
    long adj_ttl(const e2e_table_t &t) {
        e2e_rows_t r = rows(t);
        return r.size() == 1 ? static_cast<long>(e2e_as<SRoute__InSubAdj>(r.begin()->second)->ttl) : -1;
    }
};

const e2e_ftn_t kFtnNh1{1, "10.1.0.0", 16, 101, "192.0.2.1", {1001}, 1};
const e2e_ftn_t kFtnNh2{1, "10.1.0.0", 16, 102, "198.51.100.1", {1001}, 1};

TEST_F(e2e_flow_t, FtnWithTwoNextHopsSharesOneAdjacencyUntilTheLastGoes) {
    redis_->put({e2e_ftn(kFtnNh1), e2e_ftn(kFtnNh2)});
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 2}, {&E2E_FTN_ADJ, 1}}, kWaitMs));

    e2e_rows_t adj = rows(E2E_FTN_ADJ);
    const SRoute__InSubAdj *a = only_adj(adj);
    ASSERT_NE(a, nullptr);
    const SRoute__InSubAdjKey *ak = a->index;
    ASSERT_NE(ak, nullptr);
    EXPECT_EQ(ak->t_rt_owner, 1u);
    EXPECT_EQ(ak->ifx, 0u);
    EXPECT_EQ(ak->protocol, 0u);
    EXPECT_EQ(e2e_ip_text(&ak->ip->base), std::string("v4:") + kTnlV4);
    EXPECT_NE(ak->mplsid, 0u);
    EXPECT_EQ(adj.begin()->first,
              std::string("s_route.in_sub_adj|1|0|0|v4:") + kTnlV4 + "|" + std::to_string(ak->mplsid));
    EXPECT_EQ(a->ttl, 255u);
    EXPECT_EQ(a->opcode, 1u);
    EXPECT_EQ(labels(a), std::vector<uint32_t>{1001});
    EXPECT_EQ(a->vc_mode + a->sd_vid + a->cw + a->exp + a->stat_id, 0u);

    e2e_rows_t rt = rows(E2E_FTN_RT);
    std::set<std::string> nhs;
    for (const auto &[key, m] : rt) {
        const auto *r = e2e_as<SRoute__CommRt>(m);
        const SRoute__CommRtKey *k = r->index;
        ASSERT_NE(k, nullptr) << key;
        EXPECT_EQ(k->t_rt_owner, 1u);
        EXPECT_EQ(k->vrf, 1u);
        EXPECT_EQ(e2e_ip_text(&k->ip->base), "v4:10.1.0.0");
        EXPECT_EQ(k->mask_len, 16u);
        EXPECT_EQ(k->tnl_ifx, 0u);
        EXPECT_EQ(e2e_ip_text(&k->tnl_dip->base), std::string("v4:") + kTnlV4);
        EXPECT_EQ(k->mpls_id, ak->mplsid) << "the route names the adjacency";
        EXPECT_EQ(r->rt_type, S_ROUTE__ROUTE_TYPE_E__NETWORK);
        EXPECT_EQ(r->weight, 1u);
        EXPECT_EQ(r->priority, 0u);
        nhs.insert(std::to_string(k->nh_ifx) + " " + e2e_ip_text(&k->nh_ip->base));
    }
    EXPECT_EQ(nhs, (std::set<std::string>{"101 v4:192.0.2.1", "102 v4:198.51.100.1"}));

    // One next hop goes: its route goes, the adjacency stays for the other.
    std::string adj_key = adj.begin()->first;
    redis_->del(e2e_ftn(kFtnNh1));
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 1}, {&E2E_FTN_ADJ, 1}}, kWaitMs));
    EXPECT_EQ(rows(E2E_FTN_ADJ).begin()->first, adj_key);
    EXPECT_EQ(e2e_as<SRoute__CommRt>(rows(E2E_FTN_RT).begin()->second)->index->nh_ifx, 102u);

    // The last user goes: the adjacency is withdrawn too.
    redis_->del(e2e_ftn(kFtnNh2));
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 0}, {&E2E_FTN_ADJ, 0}}, kWaitMs));
}

TEST_F(e2e_flow_t, VcFtnVirtualRouteCarriesTheVcInterfaceAndWords) {
    const e2e_vc_ftn_t vc{3001, "192.0.2.1", 101, {4001, 16}, 1, 5, 100, 1};
    redis_->put(e2e_vc_ftn(vc));
    ASSERT_TRUE(wait_outputs({{&E2E_VC_VIR_RT, 1}, {&E2E_VC_ADJ, 1}}, kWaitMs));

    e2e_rows_t adj = rows(E2E_VC_ADJ);
    const SRoute__InSubAdj *a = only_adj(adj);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->index->t_rt_owner, 8u);
    EXPECT_EQ(a->index->ifx, 3001u);
    EXPECT_EQ(a->ttl, 255u);
    EXPECT_EQ(a->opcode, 1u);
    EXPECT_EQ(labels(a), (std::vector<uint32_t>{4001, 16}));
    EXPECT_EQ(a->vc_mode, 5u);
    EXPECT_EQ(a->sd_vid, 100u);
    EXPECT_EQ(a->cw, 1u);

    e2e_rows_t rt = rows(E2E_VC_VIR_RT);
    ASSERT_EQ(rt.size(), 1u);
    const SRoute__VirRtKey *k = e2e_as<SRoute__VirRt>(rt.begin()->second)->index;
    EXPECT_EQ(k->t_rt_owner, 8u);
    EXPECT_EQ(k->protocol, 0u);
    EXPECT_EQ(k->nh_proto, 0u);
    EXPECT_EQ(e2e_ip_text(&k->ip->base), "v4:232.0.0.0");
    EXPECT_EQ(k->mask_len, 32u);
    EXPECT_EQ(k->vrf, 3001u);
    EXPECT_EQ(k->nh_ifx, 101u);
    EXPECT_EQ(e2e_ip_text(&k->nh_ip->base), "v4:192.0.2.1");
    EXPECT_EQ(k->tnl_ifx, 3001u);
    EXPECT_EQ(k->mpls_id, a->index->mplsid);

    redis_->del(e2e_vc_ftn(vc));
    ASSERT_TRUE(wait_outputs({{&E2E_VC_VIR_RT, 0}, {&E2E_VC_ADJ, 0}}, kWaitMs));
}

TEST_F(e2e_flow_t, IlmInLabelAndVirtualRouteNameTheLabel) {
    const e2e_ilm_t swap1{0x12345, "192.0.2.1", 101, {6002}, 3};
    const e2e_ilm_t swap2{0x12345, "198.51.100.1", 102, {6002}, 3};
    const e2e_ilm_t swap_v6{0x54321, "2001:db8::1", 103, {6003}, 3};
    const e2e_ilm_t l3switch{5004, "0.0.0.0", 0, {}, 5, 7};
    redis_->put({e2e_ilm(swap1), e2e_ilm(swap_v6), e2e_ilm(l3switch)});
    ASSERT_TRUE(wait_outputs({{&E2E_ILM_VIR_RT, 2}, {&E2E_ILM_ADJ, 2}, {&E2E_UDP_ILM, 3}}, kWaitMs));

    e2e_msg_t fe = get(E2E_UDP_ILM, "u_mpls.udp_ilm|74565");
    ASSERT_NE(fe, nullptr);
    const auto *f = e2e_as<UMpls__UdpIlm>(fe);
    EXPECT_EQ(f->index->in_label, 0x12345u);
    EXPECT_EQ(f->opcode, 3u);
    EXPECT_EQ(f->swap_label, 6002u);
    EXPECT_EQ(f->vrf_id, 0u);
    EXPECT_EQ(f->vc_ifx, 0u);
    EXPECT_FALSE(f->ttl_copy);
    // A pop into a VRF: no next hop, so FE only, with the VRF and no label.
    e2e_msg_t pop = get(E2E_UDP_ILM, "u_mpls.udp_ilm|5004");
    ASSERT_NE(pop, nullptr);
    EXPECT_EQ(e2e_as<UMpls__UdpIlm>(pop)->opcode, 5u);
    EXPECT_EQ(e2e_as<UMpls__UdpIlm>(pop)->swap_label, kNoLabel);
    EXPECT_EQ(e2e_as<UMpls__UdpIlm>(pop)->vrf_id, 7u);

    std::map<std::string, uint64_t> adj_ids;  // labels -> id
    for (const auto &[key, m] : rows(E2E_ILM_ADJ)) {
        const auto *a = e2e_as<SRoute__InSubAdj>(m);
        EXPECT_EQ(a->index->t_rt_owner, 7u);
        EXPECT_EQ(a->opcode, 3u);
        EXPECT_EQ(a->ttl, 255u);
        ASSERT_EQ(a->n_labels, 1u);
        adj_ids[std::to_string(a->labels[0])] = a->index->mplsid;
        EXPECT_EQ(e2e_ip_text(&a->index->ip->base),
                  a->index->protocol ? std::string("v6:") + kTnlV6 : std::string("v4:") + kTnlV4);
    }
    ASSERT_EQ(adj_ids.size(), 2u);

    // The virtual route's address is 231.x.y.z (v4) or ff07:0:<label>:: (v6).
    std::map<std::string, std::string> vir;  // address -> fields
    for (const auto &[key, m] : rows(E2E_ILM_VIR_RT)) {
        const SRoute__VirRtKey *k = e2e_as<SRoute__VirRt>(m)->index;
        EXPECT_EQ(k->vrf, 0u);
        EXPECT_EQ(k->tnl_ifx, 0u);
        EXPECT_EQ(k->protocol, k->nh_proto);
        vir[e2e_ip_text(&k->ip->base)] = std::to_string(k->mask_len) + " " + std::to_string(k->protocol) +
                                         " " + std::to_string(k->nh_ifx) + " " +
                                         e2e_ip_text(&k->nh_ip->base) + " " +
                                         std::to_string(k->mpls_id);
    }
    EXPECT_EQ(vir["v4:231.1.35.69"], "32 0 101 v4:192.0.2.1 " + std::to_string(adj_ids["6002"]));
    EXPECT_EQ(vir["v6:ff07:0:5:4321::"], "128 1 103 v6:2001:db8::1 " + std::to_string(adj_ids["6003"]));

    // A second next hop with the same swap shares the adjacency; FE is not rewritten.
    redis_->put(e2e_ilm(swap2));
    ASSERT_TRUE(wait_outputs({{&E2E_ILM_VIR_RT, 3}, {&E2E_ILM_ADJ, 2}, {&E2E_UDP_ILM, 3}}, kWaitMs));
    redis_->del(e2e_ilm(swap1));
    ASSERT_TRUE(wait_outputs({{&E2E_ILM_VIR_RT, 2}, {&E2E_ILM_ADJ, 2}, {&E2E_UDP_ILM, 3}}, kWaitMs));
    EXPECT_NE(get(E2E_UDP_ILM, "u_mpls.udp_ilm|74565"), nullptr) << "one next hop is left";
    redis_->del({e2e_ilm(swap2), e2e_ilm(swap_v6), e2e_ilm(l3switch)});
    ASSERT_TRUE(wait_outputs({{&E2E_ILM_VIR_RT, 0}, {&E2E_ILM_ADJ, 0}, {&E2E_UDP_ILM, 0}}, kWaitMs));
}

TEST_F(e2e_flow_t, SwitchesReachFeAndTtlCopyRewritesTheAdjacencies) {
    redis_->put({e2e_mpls_enable(true), e2e_lab_sw(101, 1), e2e_ftn(kFtnNh1),
                 e2e_ilm({0x12345, "192.0.2.1", 101, {6002}, 3}),
                 e2e_vc_ftn({3001, "192.0.2.1", 101, {4001}, 1, 0, 0, 0})});
    ASSERT_TRUE(wait_outputs({{&E2E_MPLS_EN, 1}, {&E2E_LAB_SW, 1}, {&E2E_FTN_ADJ, 1}, {&E2E_ILM_ADJ, 1},
                              {&E2E_VC_ADJ, 1}, {&E2E_UDP_ILM, 1}, {&E2E_TTL_COPY, 0}},
                             kWaitMs));
    EXPECT_TRUE(e2e_as<UMpls__UdpMplsEnable>(get(E2E_MPLS_EN, "u_mpls.udp_mpls_enable"))->enable);
    e2e_msg_t sw = get(E2E_LAB_SW, "u_mpls.udp_lab_sw|101");
    ASSERT_NE(sw, nullptr);
    EXPECT_TRUE(e2e_as<UMpls__UdpLabSw>(sw)->enable);

    // TTL copy on: FTN and ILM adjacencies get TTL 0, VC-FTN keeps 255, FE copies.
    redis_->put(e2e_ttl_copy(true));
    ASSERT_TRUE(wait_until([&] { return adj_ttl(E2E_FTN_ADJ) == 0 && adj_ttl(E2E_ILM_ADJ) == 0; }, kWaitMs));
    EXPECT_EQ(adj_ttl(E2E_VC_ADJ), 255);
    ASSERT_TRUE(wait_until([&] { return count(E2E_TTL_COPY) == 1; }, kWaitMs));
    EXPECT_TRUE(e2e_as<UMpls__UdpTtlCopyEnable>(get(E2E_TTL_COPY, "u_mpls.udp_ttl_copy_enable"))->enable);
    EXPECT_TRUE(e2e_as<UMpls__UdpIlm>(get(E2E_UDP_ILM, "u_mpls.udp_ilm|74565"))->ttl_copy);

    // Switching off deletes the records rather than writing false.
    redis_->del({e2e_ttl_copy(true), e2e_mpls_enable(true)});
    redis_->put(e2e_lab_sw(101, 0));
    ASSERT_TRUE(wait_outputs({{&E2E_MPLS_EN, 0}, {&E2E_LAB_SW, 0}, {&E2E_TTL_COPY, 0}}, kWaitMs));
    EXPECT_EQ(adj_ttl(E2E_FTN_ADJ), 255);
    EXPECT_EQ(adj_ttl(E2E_ILM_ADJ), 255);
    EXPECT_FALSE(e2e_as<UMpls__UdpIlm>(get(E2E_UDP_ILM, "u_mpls.udp_ilm|74565"))->ttl_copy);
}

}  // namespace
