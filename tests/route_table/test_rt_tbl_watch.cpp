// Drift watch: writes of other clients to a watched owner slice reach the
// table's function; this client's own writes do not. It takes a foreign
// client, so it runs on Redis only.
#include <cstdlib>

#include "rt_tbl_test.h"
#include "s_route.pb-c.h"
#include "support/proc_harness.h"

namespace {

int g_drifts = 0;
void on_drift(ss_rt_tbl_t *) { ++g_drifts; }

class RtTblWatch : public RtTblTest {};

TEST_P(RtTblWatch, ForeignChangesOfTheSliceOnly) {
    init(2);
    SRoute__InSubAdj item = S_ROUTE__IN_SUB_ADJ__INIT;
    SRoute__InSubAdjKey key = S_ROUTE__IN_SUB_ADJ_KEY__INIT;
    key.t_rt_owner = 1;
    ss_rt_tbl_t *t = ss_rt_tbl_create_detail(10, RT_MOM_DATA_STRING, &item, sizeof item,
                                             offsetof(SRoute__InSubAdj, index), &key, sizeof key);
    ASSERT_NE(nullptr, t);
    EXPECT_EQ(-4, ss_rt_tbl_watch_detail(nullptr, 1, on_drift));
    ASSERT_EQ(0, ss_rt_tbl_watch_detail(t, 1, on_drift));
    ASSERT_TRUE(mom_->settle());
    // The foreign client; a cut drops it too.
    const std::string sock = std::string(getenv("MOM_REDIS")).substr(5);
    auto foreign = [&] {
        auto cli = std::make_unique<redis_cli_t>(sock);
        cli->select(10);
        return cli;
    };
    std::unique_ptr<redis_cli_t> cli = foreign();
    ASSERT_TRUE(cli->ok());
    const std::string mine = "s_route.in_sub_adj|1|0|0|v4:192.0.2.1|5";
    struct Step {
        const char *what;
        std::vector<std::string> cmd;  // a foreign command; empty: our own write
        int drifts;
        bool reconnect;  // the link is cut and restored first: new connections
    } steps[] = {
        {"foreign set", {"SET", mine, "x"}, 1, false},
        {"foreign del", {"DEL", mine}, 1, false},
        {"own write", {}, 0, false},
        {"other owner", {"SET", "s_route.in_sub_adj|7|0|0|v4:192.0.2.1|5", "x"}, 0, false},
        {"flushdb", {"FLUSHDB"}, 1, false},
        {"after a reconnection", {"SET", mine, "y"}, 1, true},
    };
    key.ifx = 5;
    item.index = &key;
    for (const Step &s : steps) {
        if (s.reconnect) {
            mom_->cut(10);
            mom_->restore(10);
            cli = foreign();
        }
        g_drifts = 0;
        if (s.cmd.empty()) ASSERT_EQ(0, ss_rt_tbl_add_str(t, &item.base, 1, 0));
        else cli->command(s.cmd);
        ASSERT_TRUE(mom_->settle());
        EXPECT_EQ(s.drifts, g_drifts) << s.what;
    }
}

INSTANTIATE_TEST_SUITE_P(Mom, RtTblWatch, ::testing::Values("redis"),
                         [](const auto &info) { return std::string(info.param); });

}  // namespace
