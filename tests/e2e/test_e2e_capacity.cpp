// A capability change that lowers the ILM capacity is followed at once: new
// ILM entries are refused with the capacity line and the system-log alarm,
// and raising the capacity again lets new entries in.
#include "e2e/e2e_env.h"

namespace {

constexpr const char *kChange = "int32 CAP change callback.";
constexpr const char *kAlarm =
    "%ILM_MPLS-4-RESOURCE_ALLOCATED: The number of ILM entries allocated is greater than "
    "hardware capacity.";

class e2e_capacity_t : public e2e_env_t {
protected:
    void set_ilm_cap(int cap) {
        ctl_result_t r = ctl({"cap", "set", "s_mpls/l3vpn/capacity/ilm", std::to_string(cap)});
        EXPECT_EQ(r.status, 0) << r.err;
    }
    static json swap(uint32_t in_label, const std::string &nh = "192.0.2.1") {
        return e2e_ilm(in_label, nh, 101, {6000 + in_label}, 3);
    }
    bool programmed(uint32_t in_label) {
        return redis(10, {"EXISTS", "u_mpls.udp_ilm|" + std::to_string(in_label)}) == "1";
    }
};

TEST_F(e2e_capacity_t, LoweredIlmCapacityRefusesNewEntriesUntilRaised) {
    start(4);  // WARN lines and the capability change lines are wanted in the log
    load({swap(100), swap(101)});
    ASSERT_TRUE(wait_outputs({{&E2E_UDP_ILM, 2}, {&E2E_ILM_VIR_RT, 2}}));

    set_ilm_cap(2);
    ASSERT_TRUE(wait_log(kChange));
    load({swap(102)});
    ASSERT_TRUE(wait_log("ilm full, cur:2, cap:2"));
    ASSERT_TRUE(wait_log(kAlarm));
    std::string log = daemon_->log();
    size_t full = log.find("ilm full, cur:2, cap:2\n");
    size_t bol = log.rfind('\n', full) + 1;
    EXPECT_NE(log.substr(bol, full - bol).find(" WARN "), std::string::npos) << "a WARN line";
    EXPECT_EQ(e2e_occurrences(log, "CAP  FULL"), 1u);
    // A further next hop of an entry that exists is not a new entry.
    load({swap(100, "198.51.100.1")});
    ASSERT_TRUE(wait_outputs({{&E2E_UDP_ILM, 2}, {&E2E_ILM_VIR_RT, 3}}));
    EXPECT_FALSE(programmed(102));
    std::vector<e2e_row_t> row = e2e_err_rows(show_info(), "ILM_FULL");
    ASSERT_EQ(row.size(), 1u);
    EXPECT_EQ(row[0].count, 1);
    EXPECT_EQ(row[0].level, "WARNING");

    // Raised again: the refused entry, written once more, and a new one get in.
    set_ilm_cap(4);
    ASSERT_TRUE(wait_log(kChange, 2));
    load({swap(102), swap(103)});
    ASSERT_TRUE(wait_outputs({{&E2E_UDP_ILM, 4}, {&E2E_ILM_VIR_RT, 5}}));
    EXPECT_TRUE(programmed(102));
    EXPECT_TRUE(programmed(103));
    // Full again at four.
    load({swap(104)});
    ASSERT_TRUE(wait_log("ilm full, cur:4, cap:4"));
    EXPECT_FALSE(programmed(104));
}

}  // namespace
