// The operator's debug commands against a live daemon, through l3vpn-ctl cmd.
#include <algorithm>

#include "e2e/e2e_env.h"

namespace {

const json kSwap = e2e_ilm(5002, "192.0.2.1", 101, {6002}, 3);

class e2e_cmd_t : public e2e_env_t {
protected:
    void SetUp() override {
        e2e_env_t::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        start(4);
    }
    static bool has_line(const std::string &text, const std::string &line) {
        std::vector<std::string> lines = text_lines(text);
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }
};

TEST_F(e2e_cmd_t, ShowInfoPrintsTheOverview) {
    load({kSwap});
    ASSERT_TRUE(wait_outputs({{&E2E_UDP_ILM, 1}}));
    const std::string out = show_info();
    const std::string sep(87, '-');
    EXPECT_EQ(out.rfind("\n" + sep + "\n", 0), 0u) << "begins with a newline and the separator";
    EXPECT_EQ(out.substr(out.size() - sep.size() - 2), "\n" + sep + "\n");
    EXPECT_EQ(e2e_occurrences(out, sep + "\n"), 5u);
    for (const char *l :
         {"\t0 for      FATAL ", "\t1 for      ERROR ", "\t2 for       WARN ", "\t3 for     NOTICE ",
          "\t4 for       INFO ", "\t5 for      DEBUG ", "\t", " Current zlog debug level is: 4 ",
          "            name  current max_size", "          ilm db        1    10000",
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

    // With is_clean the counts move into history.
    dbg("show-info is_clean:1 is_detail:0");
    std::vector<e2e_row_t> moved = e2e_err_rows(show_info(), "ILM_VIR_RT_ADD");
    ASSERT_EQ(moved.size(), 1u);
    EXPECT_EQ(moved[0].count, 0);
    EXPECT_EQ(moved[0].history, 1);
}

TEST_F(e2e_cmd_t, GetIlmAndMemoryCountFollowTheEntries) {
    EXPECT_EQ(dbg("get-mem_cnt"), "\n[dbg] memory count:0 \n");
    load({kSwap});
    ASSERT_TRUE(wait_outputs({{&E2E_UDP_ILM, 1}}));
    std::string found = dbg("get-ilm in_label:5002");
    EXPECT_NE(found.find("in_label 5002"), std::string::npos) << found;
    EXPECT_NE(found.find("\n[dbg] get ilm:"), std::string::npos) << found;
    EXPECT_EQ(dbg("get-ilm in_label:5003"), "\n[dbg] get ilm fail: in_label 5003\n");
    // A request without its arguments gets the argument format back.
    EXPECT_EQ(dbg("get-ilm"), "usage: get-ilm in_label:%d\n");
    // An entry, its next hop and its adjacency.
    EXPECT_EQ(dbg("get-mem_cnt"), "\n[dbg] memory count:3 \n");

    const std::vector<json> ftn = {e2e_ftn(1, "10.1.0.0", 16, 101, "192.0.2.1", {1001}),
                                   e2e_ftn(1, "10.1.0.0", 16, 102, "192.0.2.2", {1001})};
    load(ftn);
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 2}}));
    EXPECT_EQ(dbg("get-mem_cnt"), "\n[dbg] memory count:7 \n");
    unload(ftn);
    unload({kSwap});
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 0}, {&E2E_UDP_ILM, 0}, {&E2E_FTN_ADJ, 0}}));
    EXPECT_EQ(dbg("get-mem_cnt"), "\n[dbg] memory count:0 \n");
}

TEST_F(e2e_cmd_t, DebugLevelIsClamped) {
    EXPECT_EQ(text_lines(dbg("debug level:9")).back(), " Current zlog debug level is: 5 ");
    EXPECT_TRUE(has_line(show_info(), " Current zlog debug level is: 5 "));
}

}  // namespace
