// The whole daemon over the in-memory MOM and capability store; per test the
// start-up chain up to the first data sync, torn down again afterwards.
#pragma once
#include <event2/event.h>

#include <cstdlib>
#include <filesystem>

#include "app/app_fixture.h"
#include "app/proc/ce_l3vpn_cnt.h"
#include "app/proc/ce_l3vpn_main.h"
#include "app/proc/ce_l3vpn_msg_op.h"
#include "app/proc/ce_l3vpn_wake.h"
#include "e2e/e2e_records.h"
#include "p_intf.pb-c.h"
#include "p_mpls.pb-c.h"
#include "platform/cap/libs_cap_mem.h"
#include "platform/cgst/libcgstctrl.h"
#include "platform/mom/tq_mom_name.h"
#include "platform/ssat/ssat.h"
#include "s_mpls.pb-c.h"
#include "tools/l3vpn_ctl_codec.h"
#include "tools/l3vpn_ctl_inproc.h"
#include "tools/l3vpn_ctl_tables.h"

constexpr const char *kModule = "udp-mpls-l3vpn";

// The process context, one for the whole run: an event loop (timers, debug
// socket) around the in-memory MOM, the socket under a private root.
inline void *g_ctx = nullptr;
inline tq_mom_client_t *g_mom = nullptr;

class DaemonEnv : public ::testing::Environment {
public:
    void SetUp() override {
        ASSERT_NE(mkdtemp(root_), nullptr);
        setenv("L3VPN_ROOT", root_, 1);
        g_mom = mom_mem_new();
        g_ctx = ctl_inproc_ctx(g_mom);
    }
    void TearDown() override {
        tq_global_finish(g_ctx);  // frees the MOM client and the loop
        std::filesystem::remove_all(root_);
        unsetenv("L3VPN_ROOT");
    }
    char root_[32] = "/tmp/l3vpn-daemon-XXXXXX";
};
// An inline variable: registered once, whichever test files include this.
inline ::testing::Environment *const g_daemon_env = ::testing::AddGlobalTestEnvironment(new DaemonEnv);

// ---- the fixture ------------------------------------------------------------------

class DaemonTest : public L3vpnTest {
protected:
    void SetUp() override {
        mom_ = g_mom;
        start_log();
        ctl_inproc_init(g_ctx);
        if (!up_) return;
        wake();
        ready();
        clear_rows();
        take_log();
    }
    void TearDown() override {
        stop_log();
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
        mom_mem_clear(mom_);
        clear_rows();
        ce_l3vpn_global = nullptr;
    }
    // Redundancy wake-up -> connections -> database-ready set-up.
    void wake() { ASSERT_EQ(0, ctl_inproc_wake(g_ctx)); }
    // Capability ready -> subscriptions -> end markers -> data sync.
    void ready() { ASSERT_EQ(0, ctl_inproc_ready(g_ctx)); }

    int dispatch() { return mom_mem_dispatch_all(mom_); }
    // An input record decoded from its JSON line as l3vpn-ctl reads it; kept
    // alive by the fixture.
    ProtobufCMessage *wire(const json &rec) {
        ProtobufCMessage *m = nullptr;
        std::string err;
        EXPECT_EQ(0, ctl_json_to_msg(tbl(rec)->desc, ctl_json::parse(rec.dump()), {"table"}, arena_, &m, err))
            << err;
        return m;
    }
    static const ctl_tbl_t *tbl(const json &rec) { return ctl_tbl_find(rec["table"].get<std::string>()); }
    // Writes a record into its table's database, as a hash where the table keeps hashes.
    void store(const json &rec) {
        const ctl_tbl_t *t = tbl(rec);
        ProtobufCMessage *m = wire(rec);
        ASSERT_EQ(0, t->type == CTL_TBL_HASH ? tq_mom_hmset_sync(g_ctx, t->db, m)
                                             : tq_mom_set_sync(g_ctx, t->db, m));
    }
    // Writes or deletes an input record and lets the daemon see it.
    void put(const json &rec) {
        store(rec);
        dispatch();
    }
    void drop(const json &rec) {
        ASSERT_EQ(0, tq_mom_del_sync(g_ctx, tbl(rec)->db, wire(rec)));
        dispatch();
    }
    uint32_t entries(uint32_t owner) const { return ce_app_node_db_get_owner_db(owner)->tbl.count; }

    ctl_arena_t arena_;
    bool up_ = true;  // run the whole start-up chain in SetUp
};

// The tables exist, nothing has woken up yet.
class DaemonColdTest : public DaemonTest {
protected:
    DaemonColdTest() { up_ = false; }
};
