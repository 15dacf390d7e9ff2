// Entries written into the store reach the lower layers' tables with the
// right fields, and leave them again when deleted.
#include <cstdlib>
#include <set>

#include "e2e/e2e_env.h"

namespace {

const std::string kTnlV4 = "203.0.113.9";
const std::string kTnlV6 = "2001:db8:ffff::9";
constexpr uint32_t kNoLabel = 0x100000;

// Whether rec holds every field of want with the same value.
::testing::AssertionResult has_fields(const json &rec, const json &want) {
    json merged = rec;
    merged.merge_patch(want);
    if (merged == rec) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << rec.dump() << "\ndoes not hold " << want.dump();
}

class e2e_flow_t : public e2e_env_t {
protected:
    void SetUp() override {
        // The local tunnel address every route and adjacency key carries.
        setenv("L3VPN_LOCAL_TNL_V4", kTnlV4.c_str(), 1);
        setenv("L3VPN_LOCAL_TNL_V6", kTnlV6.c_str(), 1);
        e2e_env_t::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        start(4);
    }
    void TearDown() override {
        e2e_env_t::TearDown();
        unsetenv("L3VPN_LOCAL_TNL_V4");
        unsetenv("L3VPN_LOCAL_TNL_V6");
    }

    // The TTLs of the adjacencies of a table.
    std::vector<int> ttls(const e2e_table_t &t) {
        std::vector<int> out;
        for (const json &a : rows(t)) out.push_back(a["ttl"].get<int>());
        return out;
    }
    // The u_mpls.udp_ilm record of an in-label, null when there is none.
    json fe(uint32_t in_label) {
        for (const json &r : rows(E2E_UDP_ILM))
            if (r["index"]["in_label"] == in_label) return r;
        return nullptr;
    }
};

const json kFtnNh1 = e2e_ftn(1, "10.1.0.0", 16, 101, "192.0.2.1", {1001});
const json kFtnNh2 = e2e_ftn(1, "10.1.0.0", 16, 102, "198.51.100.1", {1001});

TEST_F(e2e_flow_t, FtnWithTwoNextHopsSharesOneAdjacencyUntilTheLastGoes) {
    load({kFtnNh1, kFtnNh2});
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 2}, {&E2E_FTN_ADJ, 1}}));

    std::vector<json> adj = rows(E2E_FTN_ADJ);
    ASSERT_EQ(adj.size(), 1u);
    const uint64_t id = adj[0]["index"]["mplsid"];
    EXPECT_NE(id, 0u);
    EXPECT_TRUE(has_fields(adj[0], {{"index", {{"ifx", 0}, {"protocol", 0}, {"ip", kTnlV4}}},
                                    {"ttl", 255}, {"opcode", 1}, {"labels", {1001}}, {"vc_mode", 0},
                                    {"sd_vid", 0}, {"cw", 0}, {"exp", 0}, {"stat_id", 0}}));
    // The key the lower layers look the adjacency up by.
    const std::vector<std::string> adj_key = keys(10, "s_route.in_sub_adj|*");
    EXPECT_EQ(adj_key, std::vector<std::string>{"s_route.in_sub_adj|1|0|0|v4:" + kTnlV4 + "|" +
                                                std::to_string(id)});

    std::set<std::string> nhs;
    for (const json &r : rows(E2E_FTN_RT)) {
        EXPECT_TRUE(has_fields(r, {{"index", {{"vrf", 1}, {"ip", "10.1.0.0"}, {"mask_len", 16},
                                              {"tnl_ifx", 0}, {"tnl_dip", kTnlV4},
                                              {"mpls_id", id}}},  // the route names the adjacency
                                   {"rt_type", "NETWORK"}, {"weight", 1}, {"priority", 0}}));
        nhs.insert(r["index"]["nh_ifx"].dump() + " " + r["index"]["nh_ip"].get<std::string>());
    }
    EXPECT_EQ(nhs, (std::set<std::string>{"101 192.0.2.1", "102 198.51.100.1"}));

    // One next hop goes: its route goes, the adjacency stays for the other.
    unload({kFtnNh1});
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 1}, {&E2E_FTN_ADJ, 1}}));
    EXPECT_EQ(keys(10, "s_route.in_sub_adj|*"), adj_key);
    EXPECT_EQ(rows(E2E_FTN_RT)[0]["index"]["nh_ifx"], 102);

    // The last user goes: the adjacency is withdrawn too.
    unload({kFtnNh2});
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 0}, {&E2E_FTN_ADJ, 0}}));
}

TEST_F(e2e_flow_t, IlmInLabelAndVirtualRouteNameTheLabel) {
    const json swap1 = e2e_ilm(0x12345, "192.0.2.1", 101, {6002}, 3);
    const json swap2 = e2e_ilm(0x12345, "198.51.100.1", 102, {6002}, 3);
    const json swap_v6 = e2e_ilm(0x54321, "2001:db8::1", 103, {6003}, 3);
    const json l3switch = e2e_ilm(5004, "0.0.0.0", 0, {}, 5, 7);
    load({swap1, swap_v6, l3switch});
    ASSERT_TRUE(wait_outputs({{&E2E_ILM_VIR_RT, 2}, {&E2E_ILM_ADJ, 2}, {&E2E_UDP_ILM, 3}}));

    EXPECT_TRUE(has_fields(fe(0x12345), {{"opcode", 3}, {"swap_label", 6002}, {"vrf_id", 0},
                                         {"vc_ifx", 0}, {"ttl_copy", false}}));
    // A pop into a VRF: no next hop, so FE only, with the VRF and no label.
    EXPECT_TRUE(has_fields(fe(5004), {{"opcode", 5}, {"swap_label", kNoLabel}, {"vrf_id", 7}}));

    std::map<uint32_t, uint64_t> adj_ids;  // label -> id
    for (const json &a : rows(E2E_ILM_ADJ)) {
        EXPECT_TRUE(has_fields(a, {{"opcode", 3}, {"ttl", 255}}));
        ASSERT_EQ(a["labels"].size(), 1u);
        adj_ids[a["labels"][0].get<uint32_t>()] = a["index"]["mplsid"];
        EXPECT_EQ(a["index"]["ip"], a["index"]["protocol"] == 1 ? kTnlV6 : kTnlV4);
    }
    ASSERT_EQ(adj_ids.size(), 2u);

    // The virtual route's address is ff07:0:<label>:: for v6 (the v4 form is
    // the daemon tests' part).
    std::map<std::string, json> vir;  // address -> record
    for (const json &r : rows(E2E_ILM_VIR_RT)) {
        const json &index = r["index"];
        EXPECT_TRUE(has_fields(index, {{"vrf", 0}, {"tnl_ifx", 0}, {"nh_proto", index["protocol"]}}));
        vir[index["ip"].get<std::string>()] = r;
    }
    EXPECT_TRUE(has_fields(vir["ff07:0:5:4321::"]["index"], {{"mask_len", 128}, {"protocol", 1},
                                                             {"nh_ifx", 103}, {"nh_ip", "2001:db8::1"},
                                                             {"mpls_id", adj_ids[6003]}}));

    // A second next hop with the same swap shares the adjacency and the FE record,
    // which stays while one next hop is left.
    load({swap2});
    ASSERT_TRUE(wait_outputs({{&E2E_ILM_VIR_RT, 3}, {&E2E_ILM_ADJ, 2}, {&E2E_UDP_ILM, 3}}));
    unload({swap1});
    ASSERT_TRUE(wait_outputs({{&E2E_ILM_VIR_RT, 2}, {&E2E_ILM_ADJ, 2}, {&E2E_UDP_ILM, 3}}));
    unload({swap2, swap_v6, l3switch});
    ASSERT_TRUE(wait_outputs({{&E2E_ILM_VIR_RT, 0}, {&E2E_ILM_ADJ, 0}, {&E2E_UDP_ILM, 0}}));
}

TEST_F(e2e_flow_t, SwitchesReachFeAndTtlCopyRewritesTheAdjacencies) {
    const json mpls_on = {{"table", "p_mpls.mom_conf_global_enable"}, {"mpls_enable", true}};
    const json ttl_copy = {{"table", "p_mpls.mom_conf_vpn_ttl"}, {"vpn_ttl_enable", true}};
    auto lab_sw = [](int enable) {
        return json{{"table", "p_mpls.mom_conf_label_switch"}, {"index", {{"ifx", 101}}}, {"enable", enable}};
    };
    load({mpls_on, lab_sw(1), kFtnNh1, e2e_ilm(0x12345, "192.0.2.1", 101, {6002}, 3),
          e2e_vc_ftn(3001, "192.0.2.1", 101, {4001})});
    ASSERT_TRUE(wait_outputs({{&E2E_MPLS_EN, 1}, {&E2E_LAB_SW, 1}, {&E2E_FTN_ADJ, 1}, {&E2E_ILM_ADJ, 1},
                              {&E2E_VC_ADJ, 1}, {&E2E_UDP_ILM, 1}, {&E2E_TTL_COPY, 0}}));
    EXPECT_EQ(rows(E2E_MPLS_EN)[0]["enable"], true);
    EXPECT_TRUE(has_fields(rows(E2E_LAB_SW)[0], {{"index", {{"ifx", 101}}}, {"enable", true}}));

    // TTL copy on: FTN and ILM adjacencies get TTL 0, VC-FTN keeps 255, FE copies.
    load({ttl_copy});
    ASSERT_TRUE(wait_outputs({{&E2E_TTL_COPY, 1}}));
    EXPECT_EQ(ttls(E2E_FTN_ADJ), std::vector<int>{0});
    EXPECT_EQ(ttls(E2E_ILM_ADJ), std::vector<int>{0});
    EXPECT_EQ(ttls(E2E_VC_ADJ), std::vector<int>{255});
    EXPECT_EQ(rows(E2E_TTL_COPY)[0]["enable"], true);
    EXPECT_EQ(fe(0x12345)["ttl_copy"], true);

    // Switching off deletes the records rather than writing false.
    unload({ttl_copy, mpls_on});
    load({lab_sw(0)});
    ASSERT_TRUE(wait_outputs({{&E2E_MPLS_EN, 0}, {&E2E_LAB_SW, 0}, {&E2E_TTL_COPY, 0}}));
    EXPECT_EQ(ttls(E2E_FTN_ADJ), std::vector<int>{255});
    EXPECT_EQ(ttls(E2E_ILM_ADJ), std::vector<int>{255});
    EXPECT_EQ(fe(0x12345)["ttl_copy"], false);
}

}  // namespace
