// The library's log lines, line budget, history and tbl- commands.
#include <cstdarg>
#include <cstdio>
#include <regex>

#include "rt_tbl_test.h"

namespace {

class RtTblDbg : public RtTblTest {};

std::string fmt(const char *f, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, f);
    vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

// A budget of two lets two lines through, then nothing, not even a table block.
TEST_P(RtTblDbg, LogLinesAndTheirBudget) {
    init(2);
    ss_rt_tbl_t *t = ilm_tbl(6);
    stdout_of([] { ss_rt_tbl_set_debug(RT_DBG_ALL, 2); });
    std::string out = stdout_of([&] {
        for (int i = 0; i < 4; ++i) ss_rt_tbl_reg_reconnect(nullptr, 1);
        ss_rt_tbl_ds_begin_detail(t, 3600, 0);
    });
    const std::string line = R"(\[BRIEF\]ss_rt_tbl_reg_reconnect:[ 0-9]{4}\|func:\S+ is_exit:1\n)";
    EXPECT_TRUE(std::regex_match(out, std::regex(line + line))) << out;
    EXPECT_EQ(0, ss_rt_tbl_ctl.log_cnt);
    out = stdout_of([] {
        ss_rt_tbl_set_debug(RT_DBG_ALL, -1);
        ss_rt_tbl_reg_reconnect(nullptr, 1);
    });
    EXPECT_TRUE(std::regex_search(out, std::regex(R"(\n)" + line + "$"))) << out;
    EXPECT_EQ(-1, ss_rt_tbl_ctl.log_cnt);
}

// The command clamps the level; through the debug service its text is parsed.
TEST_P(RtTblDbg, DebugCommands) {
    int rv = 1;
    EXPECT_EQ("\n dbg level                 name\n"
              "         0                CLOSE\n"
              "         1                ERROR\n"
              "         2                BRIEF\n"
              "         3                EVENT\n"
              "         4              WARNING\n"
              "         5                 INFO\n"
              "         6            HIGH FREQ\n"
              "         7                  ALL\n"
              "\ndbg level       :CLOSE\ndbg log cnt     :25\n",
              run(tbl_cmd_debug, -3, 25, &rv));
    EXPECT_EQ(0, rv);
    EXPECT_EQ(RT_DBG_CLOSE, ss_rt_tbl_ctl.dbg_level);
    EXPECT_EQ(25, ss_rt_tbl_ctl.log_cnt);

    EXPECT_EQ(-1, ss_rt_tbl_ut_init(nullptr));
    ASSERT_EQ(0, ss_rt_tbl_ut_init("rt-test-mod"));
    std::string out;
    EXPECT_EQ(0, ssat_run_local("rt-test-mod", "tbl-debug dbg_level:9 log_cnt:-1", out));
    EXPECT_TRUE(has(out, "\ndbg level       :ALL\ndbg log cnt     :-1\n"));
    EXPECT_EQ(RT_DBG_ALL, ss_rt_tbl_ctl.dbg_level);
    EXPECT_EQ(0, ssat_run_local("rt-test-mod", "tbl-set-reconn-exit is_exit:9", out));
    EXPECT_EQ("is_exit:9", out);
    EXPECT_EQ(1, ss_rt_tbl_ctl.reconn_exit);
    // A request without its arguments gets the registered format back.
    EXPECT_EQ(-4, ssat_run_local("rt-test-mod", "tbl-show-info", out));
    EXPECT_TRUE(has(out, "tbl-show-info is_clean:%d is_detail:%d"));
    ssat_lib_reset();
}

std::string history_row(const char *name, int count, int history, const ss_rt_tbl_hist_t &h,
                        const char *level, bool red) {
    return fmt(red ? "\033[1;31m\n[ERROR]\n%20s %8d %8d %8d %8d %8d %8s\n\033[0m"
                   : "%-20s %8d %8d %8d %8d %8d %8s\n",
               name, count, history, h.data1, h.data2, h.line, level);
}

// One table in two slots, two history rows hit: "param" (plain) and "init" (red).
std::string expected_info(const void *global, const ss_rt_tbl_t *t, bool cleaned) {
    // Two ERROR lines were printed before: the budget shows 998.
    std::string s = "\ndbg level       :ERROR\ndbg log cnt     :998\ntable max num   :2"
                    "\ntable cur num   :1\nconn func       :(nil)\nreconn func     :(nil)"
                    "\nreconn exit     :0x1";
    s += fmt("\nglobal          :%p", global);
    s += "\nmodule          :rt-test"
         "\nvalid is_skip cgst  idx  db_name (db)     type  conn_st   sub_st cnt:add_op   "
         "del_op   get_op  add_msg  del_msg is_batch\n"
         "u_mpls.udp_ilm\n"
         "    1    0    0    0  APP_FWD    6   STRING     NULL   IGNORE          3        0"
         "        0        0        0     true\n";
    s += fmt("%8s: %-10p%8s: %-10p%8s: %-10p%8s: %-10p\n", "item", (void *)t->item, "item_key",
             (void *)t->item_key, "add_func", (void *)nullptr, "del_func", (void *)nullptr);
    s += "\nidx:1 not valid\ntable dump cnt  :1"
         "\n                name    count  history    data1    data2     line    level\n";
    const ss_rt_tbl_hist_t *h = ss_rt_tbl_hist;
    int now = cleaned ? 0 : 1, before = cleaned ? 1 : 0;
    return s + history_row("--- tbl begin ---", 0, 0, h[0], "NULL", false) +
           history_row("param", now, before, h[1], "WARNING", false) +
           history_row("init", now, before, h[14], "ERROR", true) +
           history_row("--- tbl end   ---", 0, 0, h[15], "NULL", false);
}

TEST_P(RtTblDbg, ShowInfoCleanedTwice) {
    init(2);
    ss_rt_tbl_t *t = ilm_tbl(6);
    t->cnt.add_op = 3;
    UMpls__UdpIlm item = U_MPLS__UDP_ILM__INIT;
    EXPECT_EQ(nullptr, ss_rt_tbl_create_detail(6, 3, &item, sizeof item, 0, nullptr, 0));
    EXPECT_EQ(-11, ss_rt_tbl_init(&ctx_, "rt-test", 2));
    int rv = 1;
    EXPECT_EQ(expected_info(&ctx_, t, false), run(tbl_cmd_show_info, 1, 0, &rv));
    EXPECT_EQ(0, rv);
    EXPECT_EQ(expected_info(&ctx_, t, true), run(tbl_cmd_show_info, 1, 1, &rv));
    EXPECT_EQ(0u, hist(RT_HIST_PARAM).count);
    EXPECT_EQ(1u, hist(RT_HIST_PARAM).history);
    // The detail lists the topic (not the database's bare init) and the handler.
    int (*cb)(void *) = [](void *) { return 0; };
    ASSERT_EQ(0, ss_rt_tbl_reg_cgst_topic_detail(t, 0));
    ASSERT_EQ(0, ss_rt_tbl_reg_cgst_event(cb));
    EXPECT_TRUE(has(run(tbl_cmd_show_info, 0, 1, &rv),
                    fmt("\nmodule          :rt-test\ncgst topic      :APP_FWD(6) u_mpls.udp_ilm"
                        "\ncgst event      :%p\nvalid ", (void *)cb)));
}

TEST_P(RtTblDbg, SetSkipAndBatchBounds) {
    init(3);
    ss_rt_tbl_t *t = ilm_tbl(6);
    int rv = 0;
    for (int64_t idx : {1, -1}) {
        const std::string want = "\ntbl_idx:" + std::to_string(idx) + " is_skip:1\ntbl_idx >= tbl_cur_num:1";
        EXPECT_EQ(want, run(tbl_cmd_set_skip, idx, 1, &rv));
        EXPECT_EQ(-4, rv);
    }
    EXPECT_EQ(0, t->is_skip);
    std::string out = run(tbl_cmd_set_skip, 0, 5, &rv);
    EXPECT_EQ(0, rv);
    EXPECT_EQ(1, t->is_skip);
    EXPECT_EQ(0u, out.find("\ntbl_idx:0 is_skip:5\n\nvalid is_skip")) << out;
    EXPECT_TRUE(has(out, "u_mpls.udp_ilm\n    1    1    0"));
    EXPECT_TRUE(has(run(tbl_cmd_set_batch, 0, 0, &rv), "    false\n"));
    EXPECT_EQ(1u, t->set_opt);
    run(tbl_cmd_set_batch, 0, 7, &rv);
    EXPECT_EQ(0u, t->set_opt);
    EXPECT_EQ("\ntbl_idx:3 is_batch:0\ntbl_idx >= tbl_cur_num:1", run(tbl_cmd_set_batch, 3, 0, &rv));
    EXPECT_EQ(-4, rv);
}

RT_TBL_ON_BOTH_MOMS(RtTblDbg);

}  // namespace
