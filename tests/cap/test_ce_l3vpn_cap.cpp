// The system log's line format and ring, then the daemon's capability table,
// capacity check and capacity-full alarm over the in-memory capability store
// and MOM. The app-node databases and the table subscriptions are stood in for below.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "app/proc/ce_l3vpn_cap.h"
#include "app/proc/ce_l3vpn_syslog.h"
#include "app/proc/ce_l3vpn_tbl.h"
#include "foundation/zlog_capture.h"
#include "p_mpls.pb-c.h"
#include "platform/cap/libs_cap_mem.h"
#include "platform/mom/tq_mom_mem.h"
#include "platform/syslog/syslog_ext.h"
#include "platform/syslog/syslog_ext_ring.h"

// Stand-ins for the app-node databases (owners 1..4 have one) and the subscriptions.
ce_app_db_t g_dbs[4];
ce_app_db_t *ce_app_node_db_get_owner_db(uint32_t owner) {
    return owner >= 1 && owner <= 4 ? &g_dbs[owner - 1] : nullptr;
}
int g_fun_subscribe = 0;
int ce_l3vpn_fun_subscribe(void) { return ++g_fun_subscribe, 0; }
ce_app_node_t *ce_app_node_db_get_entry(const ce_msg_comm_t *) { return nullptr; }
int g_wait_drains = 0;
void ce_l3vpn_app_wait_drain_all(void) { ++g_wait_drains; }
void ce_l3vpn_dbg_print(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vprintf(fmt, ap);
    va_end(ap);
}

namespace {
int64_t g_now_us = 0;
int test_clock(struct timeval *tv) {
    tv->tv_sec = g_now_us / 1000000;
    tv->tv_usec = g_now_us % 1000000;
    return 0;
}

const char *const kIlmPath = "s_mpls/l3vpn/capacity/ilm";

TEST(SyslogExt, LineOnStandardErrorAndRingOfTheLastOldestFirst) {
    syslog_ext_clear();
    testing::internal::CaptureStderr();
    ASSERT_EQ(0, printk_syslog_ext(4, "ILM_MPLS", "RESOURCE_ALLOCATED", 1, "entries:%d", 7));
    EXPECT_EQ("%ILM_MPLS-4-RESOURCE_ALLOCATED: entries:7\n",
              testing::internal::GetCapturedStderr());
    ASSERT_EQ(1u, syslog_ext_count());
    EXPECT_EQ("%ILM_MPLS-4-RESOURCE_ALLOCATED: entries:7", syslog_ext_recent().at(0));
    EXPECT_EQ(-4, printk_syslog_ext(4, nullptr, "X", 1, "text"));
    syslog_ext_clear();
    testing::internal::CaptureStderr();
    for (int i = 0; i < SYSLOG_EXT_RING + 8; ++i) printk_syslog_ext(6, "M", "N", 1, "%d", i);
    testing::internal::GetCapturedStderr();
    auto lines = syslog_ext_recent();
    ASSERT_EQ(static_cast<size_t>(SYSLOG_EXT_RING), lines.size());
    EXPECT_EQ("%M-6-N: 8", lines.front());
    EXPECT_EQ("%M-6-N: " + std::to_string(SYSLOG_EXT_RING + 7), lines.back());
    EXPECT_EQ(static_cast<size_t>(SYSLOG_EXT_RING + 8), syslog_ext_count());
}

class CapTest : public ::testing::Test {
protected:
    void SetUp() override {
        ss_rt_tbl_reset_for_test();
        ce_l3_table_init(&ctx_);
        libs_cap_reset();
        libs_cap_mem_install();
        for (ce_l3vpn_err_row_t &r : ce_l3vpn_err_tbl) r.count = 0;
        for (ce_app_db_t &db : g_dbs) db = ce_app_db_t{};
        for (ce_l3vpn_cap_t &c : ce_l3vpn_cap_tbl) c.cur_int32 = -99, c.cur_bool = 9;
        ce_l3vpn_cap_subscribed = false;
        g_fun_subscribe = 0;
        ce_l3vpn_syslog_reset();
        ce_l3vpn_syslog_set_clock(test_clock);
        syslog_ext_clear();
    }
    void TearDown() override {
        ce_l3vpn_syslog_set_clock(nullptr);
        libs_cap_reset();
        ss_rt_tbl_reset_for_test();
        mom_mem_free(mom_);
    }
    const std::string &log() { return log_.text(); }
    void ready() {
        ASSERT_EQ(0, ce_l3vpn_cap_init(&ctx_, "udp-mpls-l3vpn"));
        libs_cap_mem_fire_event(LIBS_CAP_EVT_GLOBAL_READY);
    }
    mom_mem_msg_ptr ability() {
        return mom_mem_get(mom_, 4, &p_mpls__mom_conf_fwd_ability__descriptor, "");
    }
    uint32_t rows(ce_l3vpn_err_code_t c) { return ce_l3vpn_err_tbl[c].count; }
    int32_t cur(ce_l3vpn_cap_idx_t i) { return ce_l3vpn_cap_tbl[i].cur_int32; }

    tq_mom_client_t *mom_ = mom_mem_new();
    tq_global_t ctx_ = mom_mem_ctx(mom_);
    ZlogCapture log_;
};

TEST_F(CapTest, InitChecksTheServiceAndDefaultsHoldUntilReady) {
    EXPECT_EQ(4, ce_l3vpn_cap_init(nullptr, "m"));
    EXPECT_EQ(1u, rows(CE_ERR_APP_PARSE));
    libs_cap_mem_fail_start(true);
    EXPECT_EQ(-17, ce_l3vpn_cap_init(&ctx_, "m"));
    EXPECT_EQ(1u, rows(CE_ERR_CAP_INIT));
    EXPECT_TRUE(has(log(), "fail:rv == SS_E_NONE code:33 lib_scap init"));

    libs_cap_mem_fail_start(false);
    ASSERT_EQ(0, ce_l3vpn_cap_init(&ctx_, "udp-mpls-l3vpn"));
    const int32_t defaults[] = {0, 0, 0, 0, 5, 4000, 4000, 20000, 4000, 1000};
    for (int i = 0; i < CE_CAP_NUM; ++i) {
        const ce_l3vpn_cap_t &c = ce_l3vpn_cap_tbl[i];
        EXPECT_EQ(defaults[i], c.kind == CE_CAP_KIND_INT32 ? c.cur_int32 : c.cur_bool) << c.name;
    }
    EXPECT_EQ(0, g_fun_subscribe);
    EXPECT_TRUE(has(log(), "start waiting for global-cap-ready callback \n"));
}

TEST_F(CapTest, ReadyReadsNotifiesAndSubscribesOnce) {
    libs_cap_mem_set_bool("s_mpls/l3vpn/ability/support_mpls", true);
    libs_cap_mem_set_int32("s_mpls/l3vpn/capacity/ftnv4", 100);
    libs_cap_mem_set_int32("s_mpls/l3vpn/capacity/ftnv6", 60);
    libs_cap_mem_set_int32("s_mpls/l3vpn/capacity/ecmp_size", 64);
    libs_cap_mem_set_int32("s_mpls/l3vpn/capacity/ecmp_max_path", 8);
    libs_cap_mem_set(kIlmPath, "lots");  // the ilm read fails: its default stays
    ready();
    EXPECT_EQ(4000, cur(CE_CAP_ILM));
    EXPECT_EQ(100, cur(CE_CAP_FTNV4));
    EXPECT_EQ(1, g_fun_subscribe);
    EXPECT_EQ(1u, rows(CE_ERR_NOTIFY_ABILITY));

    auto m = ability();
    ASSERT_NE(nullptr, m);
    auto *a = reinterpret_cast<PMpls__MomConfFwdAbility *>(m.get());
    const int64_t got[] = {
        a->pw_cw_support, a->vpls_aging_timer_support, a->vpls_multi_if_support,
        a->vpls_mac_thrsh_support, a->vpls_static_mac_reserve, a->max_pw_cnt, a->max_vll_cnt,
        a->max_vpls_cnt, a->max_switch_vfi_cnt, a->max_mac_per_vpls, a->max_pw_count_per_vpls,
        a->max_label_index, a->vpws_type_support, a->mpls_gre_support, a->mpls_te_support,
        a->max_v4_ftn_cnt, a->max_v6_ftn_cnt, a->max_ilm_cnt, a->ecmp_size, a->max_lbl_dpth,
        a->max_ecmp_paths, a->max_service_class, a->mpls_base_support, a->mpls_l2vpn_support,
        a->mpls_l2_rt_port_support};
    const int64_t want[] = {0, 1, 0,   0,  1,    1000, 500, 2000, 2000, 96000, 256, 48, 0xFFFFF,
                            0, 0, 100, 60, 4000, 64,   5,   8,    0,    1,     0,   0};
    EXPECT_EQ(std::vector<int64_t>(std::begin(want), std::end(want)),
              std::vector<int64_t>(std::begin(got), std::end(got)));

    libs_cap_mem_set_int32(kIlmPath, 10);  // followed from now on
    EXPECT_EQ(10, cur(CE_CAP_ILM));
    libs_cap_mem_remove("s_mpls/l3vpn/capacity/ftnv4");
    libs_cap_mem_fire_event(LIBS_CAP_EVT_GLOBAL_READY);  // again, after a reconnection
    EXPECT_EQ(4000, cur(CE_CAP_FTNV4));
    EXPECT_EQ(1, g_fun_subscribe);
    EXPECT_EQ(3u, rows(CE_ERR_NOTIFY_ABILITY));
    EXPECT_TRUE(has(log(), "wake up from global cap ready. get global cap, notify to PI \n"));
}

TEST_F(CapTest, ChangeMessages) {
    ready();
    libs_cap_mem_set_int32("s_mpls/l3vpn/capacity/encap_label_depth", 7);
    EXPECT_EQ(7, cur(CE_CAP_ENCAP_LABEL_DPTH));
    EXPECT_EQ(7u, reinterpret_cast<PMpls__MomConfFwdAbility *>(ability().get())->max_lbl_dpth);
    libs_cap_mem_set_bool("s_mpls/l3vpn/ability/ilm_multi_action", true);
    EXPECT_TRUE(ce_l3vpn_cap_ilm_multi_action());
    EXPECT_EQ(7, ce_l3vpn_cap_get_int32("encap_label_dpth"));
    EXPECT_EQ(-1, ce_l3vpn_cap_get_int32("encap_label_depth"));

    auto change = [&](uint32_t event, const char *path, const char *value) {
        libs_cap_msg_t m{};
        m.event = event;
        snprintf(m.path, sizeof m.path, "%s", path);
        snprintf(m.value, sizeof m.value, "%s", value);
        return ce_l3vpn_cap_int32_chg_callback(&ctx_, &m);
    };
    EXPECT_EQ(-7, change(4, "s_mpls/l3vpn/capacity/unknown", "3"));
    EXPECT_EQ(-11, change(4, kIlmPath, "x"));
    EXPECT_EQ(2u, rows(CE_ERR_APP_GET_RV));
    EXPECT_EQ(0, change(29, kIlmPath, ""));  // the subscription is confirmed
    EXPECT_EQ(0, change(7, kIlmPath, "x"));  // other events are not looked at
    EXPECT_EQ(2u, rows(CE_ERR_APP_GET_RV));
    EXPECT_EQ(4000, cur(CE_CAP_ILM));
    EXPECT_EQ(4, ce_l3vpn_cap_bool_chg_callback(&ctx_, nullptr));
    std::string text = log();
    EXPECT_TRUE(has(text, "Fail, rv -7, pmsg parse"));
    EXPECT_TRUE(has(text, "Fail, rv -11, pmsg parse"));
    EXPECT_TRUE(has(text, "int32 CAP change callback.\n"));
}

TEST_F(CapTest, CapacityCheck) {
    ASSERT_EQ(0, ce_l3vpn_cap_init(&ctx_, "udp-mpls-l3vpn"));
    struct {
        uint32_t owner, count;
        int rv;
        ce_l3vpn_err_code_t row;
        const char *warn;
    } cases[] = {
        {CE_OWNER_VC_FTN, 19999, 0, CE_ERR_VC_FTN_FULL, nullptr},
        {CE_OWNER_VC_FTN, 20000, 6, CE_ERR_VC_FTN_FULL, "vc ftn full, cur:20000, cap:20000"},
        {CE_OWNER_ILM, 4001, 6, CE_ERR_ILM_FULL, "ilm full, cur:4001, cap:4000"},
        {CE_OWNER_FTN, 900000, 0, CE_ERR_FTN_V4_FULL, nullptr},
        {4, 0, 1, CE_ERR_UNKNOWN_OWNER, "fail:0 code:38 FATAL ERROR ! unknown owner:4"}};
    for (const auto &c : cases) {
        g_dbs[c.owner - 1].tbl.count = c.count;
        uint32_t before = rows(c.row);
        EXPECT_EQ(c.rv, ce_l3vpn_cap_app_check(c.owner)) << c.owner << "/" << c.count;
        EXPECT_EQ(c.rv != 0 ? 1u : 0u, rows(c.row) - before);
        if (c.warn != nullptr) {
            EXPECT_TRUE(has(log(), c.warn));
        }
    }
    EXPECT_EQ(1, ce_l3vpn_cap_app_check(5));  // no database at all
    EXPECT_TRUE(has(log(), "error owner, when get db"));
}

TEST_F(CapTest, AlarmIntervalDoublesAndResets) {
    g_now_us = 0;
    for (int i = 0; i < 10; ++i) ce_l3vpn_syslog_cap_full(CE_OWNER_ILM);  // one burst
    ASSERT_EQ(1u, syslog_ext_count());
    EXPECT_EQ(
        "%ILM_MPLS-4-RESOURCE_ALLOCATED: The number of ILM entries allocated is greater than "
        "hardware capacity.",
        syslog_ext_recent().back());

    // A refusal every 0.05 s for 2 minutes. Gaps in seconds between alarms: 1 x5 (the
    // burst's alarm counts), then 2, 4, 8 five times each, then 16.
    std::vector<int64_t> gaps;
    int64_t prev = 0;
    for (int64_t step = 1; step <= 2400; ++step) {
        g_now_us = step * 50000;
        size_t before = syslog_ext_count();
        EXPECT_EQ(0, ce_l3vpn_syslog_cap_full(CE_OWNER_ILM));
        if (syslog_ext_count() != before) gaps.push_back((step - prev) / 20), prev = step;
    }
    std::vector<int64_t> want = {1, 1, 1, 1, 2, 2, 2, 2, 2, 4, 4, 4, 4, 4, 8, 8, 8, 8, 8, 16, 16};
    EXPECT_EQ(want, gaps);
    EXPECT_EQ(16u, ce_l3vpn_syslog_ilm_limit.interval);

    // A pause longer than the interval plus 0.1 s brings it back to 1 s.
    g_now_us = (prev + 20 * 16) * 50000 + 100001;
    ce_l3vpn_syslog_cap_full(CE_OWNER_ILM);
    EXPECT_EQ(1u, ce_l3vpn_syslog_ilm_limit.interval);

    size_t n = syslog_ext_count();  // the VC-FTN alarm has its own limiter
    EXPECT_EQ(0, ce_l3vpn_syslog_cap_full(CE_OWNER_VC_FTN));
    EXPECT_EQ(n + 1, syslog_ext_count());
    EXPECT_EQ(
        "%VC_FTN_L2VPN_MPLS-4-RESOURCE_ALLOCATED: The number of VC_FTN entries allocated is "
        "greater than hardware capacity.",
        syslog_ext_recent().back());
    EXPECT_EQ(0, ce_l3vpn_syslog_cap_full(CE_OWNER_FTN));
    EXPECT_EQ(1, ce_l3vpn_syslog_cap_full(9));
    EXPECT_EQ(n + 1, syslog_ext_count());
    EXPECT_EQ(1u, rows(CE_ERR_UNKNOWN_OWNER));
}

TEST_F(CapTest, DumpPrintsAlignedRows) {
    ASSERT_EQ(0, ce_l3vpn_cap_init(&ctx_, "udp-mpls-l3vpn"));
    std::string out = stdout_of([] { EXPECT_EQ(0, ce_l3vpn_cap_dump(1)); });
    EXPECT_TRUE(has(out, "name               path                                       kind    current  default\n"));
    EXPECT_TRUE(has(out, "encap_label_dpth   s_mpls/l3vpn/capacity/encap_label_depth    int32         5        5\n"));
    EXPECT_TRUE(has(out, "support_mpls       s_mpls/l3vpn/ability/support_mpls          bool          0        0\n"));
}
}  // namespace
