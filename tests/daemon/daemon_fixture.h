// The whole daemon over the in-memory MOM and capability store; per test the
// start-up chain up to the first data sync, torn down again afterwards.
#pragma once
#include <arpa/inet.h>
#include <event2/event.h>

#include <cstdlib>
#include <filesystem>

#include "app/app_fixture.h"
#include "app/proc/ce_l3vpn_cnt.h"
#include "app/proc/ce_l3vpn_main.h"
#include "app/proc/ce_l3vpn_msg_op.h"
#include "app/proc/ce_l3vpn_wake.h"
#include "p_intf.pb-c.h"
#include "p_mpls.pb-c.h"
#include "platform/cap/libs_cap_mem.h"
#include "platform/cgst/libcgstctrl.h"
#include "platform/mom/tq_mom_name.h"
#include "platform/ssat/ssat.h"
#include "s_mpls.pb-c.h"

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
        g_ctx = tq_global_init_on(kModule, event_base_new(), g_mom);
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

// ---- wire records, built in place (they point into themselves) ----------------

struct wire_ip_t {
    PLibpub__Ipv4 v4 = P_LIBPUB__IPV4__INIT;
    PLibpub__Ipv6 v6 = P_LIBPUB__IPV6__INIT;
    PLibpub__Ip ip = P_LIBPUB__IP__INIT;
    uint8_t bytes[16] = {};
    explicit wire_ip_t(const char *text) {
        if (strchr(text, ':') == nullptr) {
            inet_pton(AF_INET, text, &v4.data);
            ip.addr_case = P_LIBPUB__IP__ADDR_V4, ip.v4 = &v4;
        } else {
            inet_pton(AF_INET6, text, bytes);
            v6.data = {16, bytes};
            ip.addr_case = P_LIBPUB__IP__ADDR_V6, ip.v6 = &v6;
        }
    }
    wire_ip_t(const wire_ip_t &) = delete;
};

template <typename Index>
void set_labels(Index &idx, std::initializer_list<uint32_t> labels) {
    uint32_t *slot[] = {&idx.lb_st_0, &idx.lb_st_1, &idx.lb_st_2};
    for (uint32_t l : labels) *slot[idx.lb_cnt++] = l;
}

struct ftn_w {
    wire_ip_t pre, nh;
    PMpls__FtnIndex idx = P_MPLS__FTN_INDEX__INIT;
    PMpls__MomMsgFtn msg = P_MPLS__MOM_MSG_FTN__INIT;
    ftn_w(const char *prefix, int len, const char *nhop, uint32_t ifx, int op,
          std::initializer_list<uint32_t> labels)
        : pre(prefix), nh(nhop) {
        idx.vrf_id = 5, idx.prefix = &pre.ip, idx.prefix_len = len, idx.out_ifx = ifx;
        idx.con_nh = &nh.ip, idx.opcode = op, msg.index = &idx;
        set_labels(idx, labels);
    }
};

struct ilm_w {
    wire_ip_t nh;
    PMpls__IlmIndex idx = P_MPLS__ILM_INDEX__INIT;
    PMpls__MomMsgIlm msg = P_MPLS__MOM_MSG_ILM__INIT;
    ilm_w(uint32_t in_label, const char *nhop, uint32_t ifx, int op,
          std::initializer_list<uint32_t> labels)
        : nh(nhop) {
        idx.in_label = in_label, idx.co_nhop = &nh.ip, idx.out_ifx = ifx, idx.opcode = op;
        msg.index = &idx;
        set_labels(idx, labels);
    }
};

struct vc_ftn_w {
    wire_ip_t nh;
    uint32_t stack[3] = {};
    UMpls__UdpVcFtnKey idx = U_MPLS__UDP_VC_FTN_KEY__INIT;
    UMpls__UdpVcFtn msg = U_MPLS__UDP_VC_FTN__INIT;
    vc_ftn_w(uint32_t vc_ifx, const char *nhop, uint32_t ifx, std::initializer_list<uint32_t> labels)
        : nh(nhop) {
        idx.vc_ifx = vc_ifx, idx.co_nhop = &nh.ip, idx.out_ifx = ifx;
        msg.index = &idx, msg.opcode = CE_OP_PUSH, msg.label_stack = stack;
        msg.vc_mode = 4, msg.sd_vid = 12, msg.cw = 1;
        for (uint32_t l : labels) stack[msg.n_label_stack++] = l;
    }
};

// ---- the fixture ------------------------------------------------------------------

class DaemonTest : public L3vpnTest {
protected:
    void SetUp() override {
        mom_ = g_mom;
        start_log();
        ce_l3vpn_global = g_ctx;
        ce_l3_table_init(g_ctx);
        libs_cap_mem_install();
        ce_l3vpn_cap_subscribed = false;
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
    void wake() {
        ASSERT_EQ(0, ce_l3vpn_rdnd_awake_cb(tq_global_master(g_ctx)));
        dispatch();
        ASSERT_TRUE(ce_l3vpn_db_ready.connected);
    }
    // Capability ready -> subscriptions -> end markers -> data sync.
    void ready() {
        libs_cap_mem_fire_event(LIBS_CAP_EVT_GLOBAL_READY);
        dispatch();
        ASSERT_TRUE(ce_l3vpn_cap_subscribed);
    }

    int dispatch() { return mom_mem_dispatch_all(mom_); }
    // Writes or deletes an input record and lets the daemon see it.
    void put(uint32_t db, const ProtobufCMessage *m) { ASSERT_EQ(0, tq_mom_set_sync(g_ctx, db, m)); dispatch(); }
    void drop(uint32_t db, const ProtobufCMessage *m) { ASSERT_EQ(0, tq_mom_del_sync(g_ctx, db, m)); dispatch(); }
    uint32_t entries(uint32_t owner) const { return ce_app_node_db_get_owner_db(owner)->tbl.count; }
    // A record with only its key set, from its key text; kept alive by the fixture.
    template <typename T>
    T *keyed(const ProtobufCMessageDescriptor *d, const std::string &key) {
        held_.emplace_back(tq_mom_item_from_key(d, std::string(d->name) + "|" + key));
        EXPECT_NE(nullptr, held_.back()) << key;
        return reinterpret_cast<T *>(held_.back().get());
    }

    bool up_ = true;  // run the whole start-up chain in SetUp
};

// The tables exist, nothing has woken up yet.
class DaemonColdTest : public DaemonTest {
protected:
    DaemonColdTest() { up_ = false; }
};
