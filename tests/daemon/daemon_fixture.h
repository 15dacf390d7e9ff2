// The whole daemon over the in-memory MOM and capability store; per test the
// start-up chain up to the first data sync, torn down again afterwards.
#pragma once
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "app/proc/ce_l3vpn_app.h"
#include "app/proc/ce_l3vpn_cap.h"
#include "app/proc/ce_l3vpn_cnt.h"
#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_main.h"
#include "app/proc/ce_l3vpn_msg_op.h"
#include "app/proc/ce_l3vpn_syslog.h"
#include "app/proc/ce_l3vpn_tbl.h"
#include "app/proc/ce_l3vpn_wake.h"
#include "p_intf.pb-c.h"
#include "p_mpls.pb-c.h"
#include "platform/cap/libs_cap_mem.h"
#include "platform/cgst/libcgstctrl.h"
#include "platform/ssat/ssat.h"
#include "s_mpls.pb-c.h"
#include "s_route.pb-c.h"
#include "support/mom_mem.h"
#include "u_mpls.pb-c.h"

constexpr const char *kModule = "udp-mpls-l3vpn";

// The process context: an event loop (timers, debug socket) around the
// in-memory MOM, and a private root for the debug socket.
struct daemon_env_t {
    tq_mom_client_t *mom = nullptr;
    void *ctx = nullptr;
    std::string root;
};
daemon_env_t &daemon_env();

// An MPLS id {high, low}, and as a key text shows it.
inline uint64_t mpls_id(uint32_t high, uint32_t low) { return (uint64_t{high} << 32) | low; }
inline std::string id_text(uint32_t high, uint32_t low) { return std::to_string(mpls_id(high, low)); }

// ---- wire records, built in place (they point into themselves) ----------------

struct wire_ip_t {
    PLibpub__Ipv4 v4 = P_LIBPUB__IPV4__INIT;
    PLibpub__Ipv6 v6 = P_LIBPUB__IPV6__INIT;
    PLibpub__Ip ip = P_LIBPUB__IP__INIT;
    uint8_t bytes[16] = {};
    explicit wire_ip_t(const char *text) {
        if (strchr(text, ':') != nullptr)
            inet_pton(AF_INET6, text, bytes), v6.data = {16, bytes}, ip.addr_case = P_LIBPUB__IP__ADDR_V6, ip.v6 = &v6;
        else
            inet_pton(AF_INET, text, &v4.data), ip.addr_case = P_LIBPUB__IP__ADDR_V4, ip.v4 = &v4;
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

// An inner adjacency as an earlier run left it in UC.
struct adj_w {
    wire_ip_t ip{"127.0.0.1"};
    uint32_t labels[1];
    SRoute__InSubAdjKey idx = S_ROUTE__IN_SUB_ADJ_KEY__INIT;
    SRoute__InSubAdj msg = S_ROUTE__IN_SUB_ADJ__INIT;
    adj_w(uint32_t rt_owner, uint64_t id, int op, uint32_t label) : labels{label} {
        idx.t_rt_owner = rt_owner, idx.ip = &ip.ip, idx.mplsid = id;
        msg.index = &idx, msg.opcode = op, msg.n_labels = 1, msg.labels = labels;
    }
};

// ---- the fixture ------------------------------------------------------------------

class DaemonTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Start-up chain, in steps.
    void boot();   // tables, capability store
    void wake();   // redundancy wake-up -> connections -> database-ready set-up
    void ready();  // capability ready -> subscriptions -> end markers -> data sync

    tq_mom_client_t *mom() const { return daemon_env().mom; }
    void *ctx() const { return daemon_env().ctx; }
    int dispatch() { return mom_mem_dispatch_all(mom()); }
    // Writes or deletes an input record and lets the daemon see it.
    void put(uint32_t db, const ProtobufCMessage *m) { ASSERT_EQ(0, tq_mom_set_sync(ctx(), db, m)); dispatch(); }
    void drop(uint32_t db, const ProtobufCMessage *m) { ASSERT_EQ(0, tq_mom_del_sync(ctx(), db, m)); dispatch(); }
    // A record read back by its key text (null if absent); kept alive by the fixture.
    template <typename T>
    T *get(uint32_t db, const ProtobufCMessageDescriptor *d, const std::string &key) {
        held_.push_back(mom_mem_get(mom(), db, d, key));
        return reinterpret_cast<T *>(held_.back().get());
    }
    // Key texts of a table's records, optionally of one route owner (the
    // first key field): every key field, in field order.
    std::vector<std::string> keys(uint32_t db, const ProtobufCMessageDescriptor *d,
                                  const std::string &owner = "") {
        std::vector<std::string> out;
        const std::string prefix = std::string(d->name) + "|" + (owner.empty() ? "" : owner + "|");
        for (const std::string &k : mom_mem_keys(mom(), db))
            if (k.rfind(prefix, 0) == 0) out.push_back(k.substr(strlen(d->name) + 1));
        return out;
    }
    uint32_t rows(ce_l3vpn_err_code_t c) const { return ce_l3vpn_err_tbl[c].count; }
    static void clear_rows() {
        for (ce_l3vpn_err_row_t &r : ce_l3vpn_err_tbl) r.count = r.history = r.line = 0;
    }
    uint32_t entries(uint32_t owner) const { return ce_app_node_db_get_owner_db(owner)->tbl.count; }
    // Everything logged since the last call.
    std::string take_log() {
        std::string out = testing::internal::GetCapturedStderr();
        testing::internal::CaptureStderr();
        return out;
    }

    bool up_ = true;  // run the whole start-up chain in SetUp
    std::vector<mom_mem_msg_ptr> held_;
};

// The tables exist, nothing has woken up yet.
class DaemonColdTest : public DaemonTest {
protected:
    DaemonColdTest() { up_ = false; }
};

inline ::testing::AssertionResult has(const std::string &text, const std::string &part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "no \"" << part << "\" in:\n" << text;
}

// printf into a std::string (the expected texts of the debug commands).
template <typename... A>
std::string fmt(const char *f, A... a) {
    char buf[512];
    snprintf(buf, sizeof buf, f, a...);
    return buf;
}
