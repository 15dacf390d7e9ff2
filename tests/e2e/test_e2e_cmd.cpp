// The operator's debug commands against a live daemon, through l3vpn-ctl cmd.
#include <sstream>

#include "e2e/e2e_env.h"

namespace {

constexpr int kWaitMs = 10000;

class e2e_cmd_t : public e2e_env_t {
protected:
    void SetUp() override {
        e2e_env_t::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        start(4);
    }

    static std::vector<std::string> lines(const std::string &text) {
        std::vector<std::string> out;
        std::istringstream in(text);
        for (std::string l; std::getline(in, l);) out.push_back(l);
        return out;
    }
    static bool has_line(const std::string &text, const std::string &line) {
        for (const std::string &l : lines(text))
            if (l == line) return true;
        return false;
    }
    std::string mem_cnt() { return dbg("get-mem_cnt"); }
};

const e2e_ilm_t kSwap{5002, "192.0.2.1", 101, {6002}, 3};

TEST_F(e2e_cmd_t, ShowInfoPrintsTheOverview) {
    redis_->put(e2e_ilm(kSwap));
    ASSERT_TRUE(wait_outputs({{&E2E_UDP_ILM, 1}}, kWaitMs));
    const std::string out = dbg("show-info is_clean:0 is_detail:0");
    const std::string sep(87, '-');
    EXPECT_EQ(out.rfind("\n" + sep + "\n", 0), 0u) << "begins with a newline and the separator";
    EXPECT_EQ(occurrences(out, sep + "\n"), 5u);
    for (const char *l : {"\t0 for      FATAL ", "\t1 for      ERROR ", "\t2 for       WARN ",
                          "\t3 for     NOTICE ", "\t4 for       INFO ", "\t5 for      DEBUG ", "\t",
                          " Current zlog debug level is: 4 ", "            name  current max_size",
                          "          ilm db        1    10000",
                          "                name    count  history    data1    data2     line    level",
                          "--- MSG --------            0        0        0        0        0     NULL",
                          "---  CAP  ------            0        0        0        0        0     NULL"})
        EXPECT_TRUE(has_line(out, l)) << "missing line \"" << l << "\" in\n" << out;
    // Counted rows: the message, and the lower-layer writes (a second "ILM_ADD").
    for (const char *name : {"ILM_VIR_RT_ADD", "ILM_IN_ADJ_ADD", "ILM_ADD"}) {
        std::vector<e2e_row_t> rows = e2e_err_rows(out, name);
        ASSERT_EQ(rows.size(), std::string(name) == "ILM_ADD" ? 2u : 1u) << name;
        for (const e2e_row_t &r : rows) {
            EXPECT_EQ(r.count, 1) << name;
            EXPECT_EQ(r.history, 0) << name;
            EXPECT_GT(r.line, 0) << name;
            EXPECT_EQ(r.level, "INFO") << name;
        }
    }
    EXPECT_EQ(out.substr(out.size() - sep.size() - 2), "\n" + sep + "\n");

    // With is_clean the counts move into history.
    dbg("show-info is_clean:1 is_detail:0");
    std::vector<e2e_row_t> moved = e2e_err_rows(dbg("show-info is_clean:0 is_detail:0"), "ILM_VIR_RT_ADD");
    ASSERT_EQ(moved.size(), 1u);
    EXPECT_EQ(moved[0].count, 0);
    EXPECT_EQ(moved[0].history, 1);
}

TEST_F(e2e_cmd_t, GetIlmFindsALoadedEntry) {
    redis_->put(e2e_ilm(kSwap));
    ASSERT_TRUE(wait_outputs({{&E2E_UDP_ILM, 1}}, kWaitMs));
    std::string found = dbg("get-ilm in_label:5002");
    EXPECT_NE(found.find("in_label 5002"), std::string::npos) << found;
    EXPECT_NE(found.find("\n[dbg] get ilm:"), std::string::npos) << found;
    EXPECT_EQ(dbg("get-ilm in_label:5003"), "\n[dbg] get ilm fail: in_label 5003\n");
    // A request without its arguments gets the argument format back.
    EXPECT_NE(dbg("get-ilm").find("in_label:%d"), std::string::npos);
}

TEST_F(e2e_cmd_t, MemoryCountFollowsTheNodes) {
    EXPECT_EQ(mem_cnt(), "\n[dbg] memory count:0 \n");
    redis_->put(e2e_ilm(kSwap));
    ASSERT_TRUE(wait_outputs({{&E2E_UDP_ILM, 1}}, kWaitMs));
    // An entry, its next hop and its adjacency.
    EXPECT_EQ(mem_cnt(), "\n[dbg] memory count:3 \n");
    const e2e_rec_t nh1 = e2e_ftn({1, "10.1.0.0", 16, 101, "192.0.2.1", {1001}, 1});
    const e2e_rec_t nh2 = e2e_ftn({1, "10.1.0.0", 16, 102, "192.0.2.2", {1001}, 1});
    redis_->put({nh1, nh2});
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 2}}, kWaitMs));
    EXPECT_EQ(mem_cnt(), "\n[dbg] memory count:7 \n");
    redis_->del({nh1, nh2, e2e_ilm(kSwap)});
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 0}, {&E2E_UDP_ILM, 0}, {&E2E_FTN_ADJ, 0}}, kWaitMs));
    EXPECT_EQ(mem_cnt(), "\n[dbg] memory count:0 \n");
}

TEST_F(e2e_cmd_t, DebugLevelIsClamped) {
    std::string out = dbg("debug level:9");
    EXPECT_EQ(lines(out).back(), " Current zlog debug level is: 5 ");
    EXPECT_TRUE(has_line(dbg("show-info is_clean:0 is_detail:0"), " Current zlog debug level is: 5 "));
}

}  // namespace
