// Redundancy wake-up and reconnection, and the debug commands.
#include <cstdio>

#include "daemon/daemon_fixture.h"

namespace {

TEST_F(DaemonColdTest, ReadySetUpRunsOnceWhenAllFourDatabasesReport) {
    ASSERT_EQ(0, ce_l3vpn_rdnd_awake_cb(tq_global_master(g_ctx)));  // completions stay queued
    std::string out;
    for (uint32_t db : {4u, 6u, 8u, 6u}) {
        mom_mem_conn_back(mom_, db);
        EXPECT_FALSE(ce_l3vpn_db_ready.connected) << db;
        EXPECT_EQ(nullptr, ce_l3vpn_cnt_timer);
        EXPECT_EQ(-1, ssat_run_local(kModule, "get-mem_cnt", out));  // no commands yet
    }
    mom_mem_conn_back(mom_, 10);
    ASSERT_TRUE(ce_l3vpn_db_ready.connected);
    EXPECT_NE(nullptr, ce_l3vpn_cnt_timer);
    EXPECT_EQ(0, ssat_run_local(kModule, "get-mem_cnt", out));
    const size_t cgst = libcgstctrl_registrations().size();

    // State made after the set-up that a second set-up would reset.
    ce_l3vpn_cap_tbl[CE_CAP_ILM].cur_int32 = 7;
    ASSERT_EQ(0, ce_l3_ilm_add(wire(e2e_ilm(100, "10.1.1.2", 8, {200}, CE_OP_SWAP)), nullptr));
    const tq_timer_t *timer = ce_l3vpn_cnt_timer;

    for (uint32_t db : {10u, 4u}) mom_mem_conn_back(mom_, db);  // repeated reports
    dispatch();  // and the connection completions
    EXPECT_EQ(13, ce_l3vpn_reconnect(5));
    EXPECT_EQ(0, ce_l3vpn_connect_cb());
    EXPECT_EQ(cgst, libcgstctrl_registrations().size());
    EXPECT_EQ(7, ce_l3vpn_cap_tbl[CE_CAP_ILM].cur_int32);
    EXPECT_EQ(1u, entries(CE_OWNER_ILM));
    EXPECT_EQ(timer, ce_l3vpn_cnt_timer);
    EXPECT_TRUE(has(take_log(), "error rdnd db 5"));
}

// ---- debug commands ------------------------------------------------------------

// printf into a std::string: the expected texts of the commands.
template <typename... A>
std::string fmt(const char *f, A... a) {
    char buf[512];
    snprintf(buf, sizeof buf, f, a...);
    return buf;
}

class DbgTest : public DaemonTest {
protected:
    // One request, run in process: the socket path is the end-to-end tests' part.
    std::string cmd(const std::string &line) {
        std::string out;
        EXPECT_GE(ssat_run_local(kModule, line.c_str(), out), 0) << line;
        return out;
    }
    static std::string level_listing(int level) {
        std::string s = fmt("\n\t%d for %10s \n", 0, "FATAL");
        const char *names[] = {"ERROR", "WARN", "NOTICE", "INFO", "DEBUG"};
        for (int i = 1; i <= 5; ++i) s += fmt("\t%d for %10s \n", i, names[i - 1]);
        return s + fmt("\t\n Current zlog debug level is: %d \n", level);
    }
};

TEST_F(DbgTest, DebugClampsTheLevelAndListsTheLevels) {
    for (auto [asked, set] : {std::pair{9, 5}, std::pair{-3, 0}, std::pair{4, 4}}) {
        EXPECT_EQ(level_listing(set), cmd("debug level:" + std::to_string(asked)));
        EXPECT_EQ(set, ce_l3vpn_dbg_level);
    }
}

TEST_F(DbgTest, ShowInfoCleanMovesCountsIntoHistory) {
    put(e2e_ftn(5, "192.0.2.0", 24, 7, "10.1.1.1", {100}));
    json bad = e2e_ftn(5, "192.0.2.0", 25, 7, "10.1.1.1", {100});
    bad["index"]["bsid"] = 1;
    put(bad);
    const int ftn_line = ce_l3vpn_err_tbl[CE_ERR_FTN_ADD].line;
    const int rv_line = ce_l3vpn_err_tbl[CE_ERR_APP_GET_RV].line;
    auto row = [](const char *name, int count, int history, int line, const char *lvl) {
        return fmt("%-20s %8d %8d %8d %8d %8d %8s\n", name, count, history, 0, 0, line, lvl);
    };
    auto red_row = [](const char *name, int count, int history, int line) {
        return fmt("\033[1;31m\n[ERROR]\n%20s %8d %8d %8d %8d %8d %8s\n\033[0m", name, count, history,
                   0, 0, line, "ERROR");
    };
    const std::string sep = "\n" + std::string(87, '-');
    const std::string head = fmt("\n%20s %8s %8s %8s %8s %8s %8s\n", "name", "count", "history",
                                 "data1", "data2", "line", "level");

    const std::string first = cmd("show-info is_clean:1 is_detail:0");
    const std::string second = cmd("show-info is_clean:1 is_detail:0");
    EXPECT_EQ(0u, first.find(sep + level_listing(5) + sep));
    EXPECT_TRUE(has(first, fmt("\n%16s %8s %8s\n", "name", "current", "max_size")));
    EXPECT_TRUE(has(first, head + row("--- MSG --------", 0, 0, 0, "NULL")));
    EXPECT_TRUE(has(first, row("FTN_ADD", 1, 0, ftn_line, "INFO")));
    EXPECT_TRUE(has(first, red_row("APP_GET_RV", 1, 0, rv_line)));
    EXPECT_EQ(std::string::npos, first.find("FTN_DEL"));  // never hit: not shown
    EXPECT_EQ(sep + "\n", first.substr(first.size() - sep.size() - 1));
    EXPECT_TRUE(has(second, row("FTN_ADD", 0, 1, ftn_line, "INFO")));
    EXPECT_TRUE(has(second, red_row("APP_GET_RV", 0, 1, rv_line)));
}

TEST_F(DbgTest, GetFtnv4WithTooWideMaskStillLooksUp) {
    const std::string line = "get-ftnv4 vrf:5 ipv4:192.0.2.0 mask:40";
    EXPECT_EQ("invalid mask:40\n\n[dbg] get ftnv4 fail:vrf:5 ipv4:192.000.002.000 mask:40\n", cmd(line));
    put(e2e_ftn(5, "192.0.2.0", 40, 7, "10.1.1.1", {100}));
    const std::string out = cmd(line);
    EXPECT_EQ(0u, out.find("invalid mask:40\n"));
    EXPECT_EQ("\n[dbg] get ftnv4:1\n", out.substr(out.size() - 19));
}

TEST_F(DbgTest, AddIlmTestChecksLabelNumberThenAdds) {
    const std::string args = "inlabel:100 co_nh:10.1.1.2 ifx:8 opcode:3 vrf:0 VcIfx:0 ";
    EXPECT_EQ("error label_num:4", cmd("add-ilm-test " + args + "LabelNum:4 lab1:200 lab2:0 lab3:0"));
    EXPECT_EQ(0u, entries(CE_OWNER_ILM) + rows(CE_ERR_ILM_ADD));
    EXPECT_EQ("\n[dbg] get ilm fail: in_label 100\n", cmd("get-ilm in_label:100"));

    EXPECT_EQ("", cmd("add-ilm-test " + args + "LabelNum:1 lab1:200 lab2:0 lab3:0"));
    EXPECT_EQ(1u, rows(CE_ERR_ILM_ADD));
    auto *fe = get<UMpls__UdpIlm>(10, kIlm, "100");
    ASSERT_NE(fe, nullptr);
    EXPECT_EQ(200u, fe->swap_label);
    const std::string out = cmd("get-ilm in_label:100");
    EXPECT_EQ("\n[dbg] get ilm:1\n", out.substr(out.size() - 17));
    EXPECT_GT(ce_l3vpn_mem_cnt, 0u);
    EXPECT_EQ(fmt("\n[dbg] memory count:%u \n", ce_l3vpn_mem_cnt), cmd("get-mem_cnt"));
}
}  // namespace
