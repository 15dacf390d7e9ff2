#include "daemon/daemon_fixture.h"

#include <event2/event.h>

#include <cstdlib>
#include <filesystem>

namespace {
class DaemonEnv : public ::testing::Environment {
public:
    void SetUp() override {
        char tmpl[] = "/tmp/l3vpn-daemon-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        daemon_env().root = tmpl;
        setenv("L3VPN_ROOT", tmpl, 1);
        daemon_env().mom = mom_mem_new();
        daemon_env().ctx = tq_global_init_on(kModule, event_base_new(), daemon_env().mom);
    }
    void TearDown() override {
        tq_global_finish(daemon_env().ctx);  // frees the MOM client and the loop
        std::filesystem::remove_all(daemon_env().root);
        daemon_env() = daemon_env_t{};
        unsetenv("L3VPN_ROOT");
    }
};

const auto *g_env = ::testing::AddGlobalTestEnvironment(new DaemonEnv);
}  // namespace

daemon_env_t &daemon_env() {
    static daemon_env_t env;
    return env;
}

void DaemonTest::SetUp() {
    ce_l3vpn_dbg_level = CE_L3VPN_DEBUG;
    ce_l3vpn_zlog_handle = 1;
    testing::internal::CaptureStderr();
    boot();
    if (!up_) return;
    wake();
    ready();
    clear_rows();
    take_log();
}

void DaemonTest::boot() {
    ce_l3vpn_global = ctx();
    ce_l3_table_init(ctx());
    libs_cap_mem_install();
    ce_l3vpn_cap_subscribed = false;
}

void DaemonTest::wake() {
    ASSERT_EQ(0, ce_l3vpn_rdnd_awake_cb(tq_global_master(ctx())));
    dispatch();
    ASSERT_TRUE(ce_l3vpn_db_ready.connected);
}

void DaemonTest::ready() {
    libs_cap_mem_fire_event(LIBS_CAP_EVT_GLOBAL_READY);
    dispatch();
    ASSERT_TRUE(ce_l3vpn_cap_subscribed);
}

void DaemonTest::TearDown() {
    take_log();
    testing::internal::GetCapturedStderr();
    ce_l3vpn_zlog_handle = 0;
    held_.clear();
    tq_thread_cancel_timer(&ce_l3vpn_cnt_timer);
    ssat_lib_reset();
    libs_cap_reset();
    libcgstctrl_reset();
    ce_l3vpn_syslog_reset();
    ce_l3vpn_app_reset();
    ce_l3vpn_cnt_maps_free();
    ce_l3vpn_wake_reset();
    ss_rt_tbl_reset_for_test();
    mom_mem_clear(mom());
    clear_rows();
    ce_l3vpn_global = nullptr;
}
