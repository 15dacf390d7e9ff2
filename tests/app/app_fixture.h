// Forwarding state over the in-memory MOM. L3vpnTest (log, error rows,
// records read back) is shared with the daemon suite; AppTest adds fresh
// databases per test and builders of the messages the handlers pass on.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/proc/ce_l3vpn_app.h"
#include "app/proc/ce_l3vpn_cap.h"
#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_mem.h"
#include "app/proc/ce_l3vpn_syslog.h"
#include "app/proc/ce_l3vpn_tbl.h"
#include "foundation/zlog_capture.h"
#include "platform/mom/tq_mom_mem.h"
#include "s_route.pb-c.h"
#include "u_mpls.pb-c.h"

inline const ProtobufCMessageDescriptor *const kAdj = &s_route__in_sub_adj__descriptor;
inline const ProtobufCMessageDescriptor *const kCommRt = &s_route__comm_rt__descriptor;
inline const ProtobufCMessageDescriptor *const kVirRt = &s_route__vir_rt__descriptor;
inline const ProtobufCMessageDescriptor *const kIlm = &u_mpls__udp_ilm__descriptor;

class L3vpnTest : public ::testing::Test {
protected:
    // Debug logging into a captured stderr; take_log() reads it.
    void start_log() {
        log_.emplace();
        seen_ = 0;
    }
    void stop_log() {
        log_.reset();
        ce_l3vpn_zlog_handle = 0;  // the clean-up after it is not part of any test
    }
    // Everything logged since the last call.
    std::string take_log() {
        const std::string &all = log_->text();
        return all.substr(std::exchange(seen_, all.size()));
    }
    uint32_t rows(ce_l3vpn_err_code_t c) const { return ce_l3vpn_err_tbl[c].count; }
    static void clear_rows() {
        for (ce_l3vpn_err_row_t &r : ce_l3vpn_err_tbl) r.count = r.history = r.line = 0;
    }
    // A record read back by its key text (null if absent); kept alive by the fixture.
    template <typename T>
    T *get(uint32_t db, const ProtobufCMessageDescriptor *d, const std::string &key) {
        held_.push_back(mom_mem_get(mom_, db, d, key));
        return reinterpret_cast<T *>(held_.back().get());
    }
    // Key texts of a table's records, optionally of one route owner (the
    // first key field): every key field, in field order.
    std::vector<std::string> keys(uint32_t db, const ProtobufCMessageDescriptor *d,
                                  const std::string &owner = "") {
        std::vector<std::string> out;
        const std::string prefix = std::string(d->name) + "|" + (owner.empty() ? "" : owner + "|");
        for (const std::string &k : mom_mem_keys(mom_, db))
            if (k.rfind(prefix, 0) == 0) out.push_back(k.substr(strlen(d->name) + 1));
        return out;
    }
    template <typename T>
    std::vector<T *> records(uint32_t db, const ProtobufCMessageDescriptor *d,
                             const std::string &owner = "") {
        std::vector<T *> out;
        for (const std::string &k : keys(db, d, owner)) out.push_back(get<T>(db, d, k));
        return out;
    }

    tq_mom_client_t *mom_ = nullptr;
    std::vector<mom_mem_msg_ptr> held_;
    std::optional<ZlogCapture> log_;
    size_t seen_ = 0;
};

// ---- the app layer alone ----------------------------------------------------------

struct nh_t {
    uint8_t pro;
    std::array<uint8_t, 16> ip;
    uint32_t ifx;
};
inline nh_t nh4(uint8_t last, uint32_t ifx) { return {CE_PRO_IPV4, {10, 0, 0, last}, ifx}; }
inline nh_t nh6(uint8_t last, uint32_t ifx) {
    return {CE_PRO_IPV6, {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, last}, ifx};
}

inline ce_msg_comm_t app_msg(uint32_t owner, const nh_t &nh, uint8_t op,
                             std::initializer_list<uint32_t> labels) {
    ce_msg_comm_t m;
    memset(&m, 0, sizeof m);
    m.msg_event = CE_MSG_EVENT_ADD, m.owner = owner, m.nhop_attr.weight = 1, m.data.opcode = op;
    m.nhop.pro = nh.pro, m.nhop.ifx = nh.ifx;
    memcpy(m.nhop.ip, nh.ip.data(), 16);
    for (uint32_t l : labels) m.data.labels[m.data.n_labels++] = l;
    return m;
}
// 192.0.2.<net>/24 in vrf 5; the key's family follows the next hop's.
inline ce_msg_comm_t ftn_msg(uint8_t net, const nh_t &nh, uint8_t op,
                             std::initializer_list<uint32_t> labels) {
    ce_msg_comm_t m = app_msg(CE_OWNER_FTN, nh, op, labels);
    m.key.ftn.pro = nh.pro, m.key.ftn.mask_len = 24, m.key.ftn.vrf = 5;
    m.key.ftn.ip[0] = 192, m.key.ftn.ip[2] = 2, m.key.ftn.ip[3] = net;
    return m;
}
inline ce_msg_comm_t vc_ftn_msg(uint32_t vc_ifx, const nh_t &nh, std::initializer_list<uint32_t> labels) {
    ce_msg_comm_t m = app_msg(CE_OWNER_VC_FTN, nh, CE_OP_PUSH, labels);
    m.key.vc_ftn.vc_ifx = m.data.vc_ifx = vc_ifx;
    m.data.vc_mode = 4, m.data.sd_vid = 12, m.data.cw = 1;
    return m;
}
inline ce_msg_comm_t ilm_msg(uint32_t inlabel, const nh_t &nh, uint8_t op,
                             std::initializer_list<uint32_t> labels) {
    ce_msg_comm_t m = app_msg(CE_OWNER_ILM, nh, op, labels);
    m.key.ilm.inlabel = inlabel;
    return m;
}
inline ce_msg_comm_t as_del(ce_msg_comm_t m) {
    m.msg_event = CE_MSG_EVENT_DEL;
    memset(&m.nhop_attr, 0, sizeof m.nhop_attr);
    return m;
}

class AppTest : public L3vpnTest {
protected:
    void SetUp() override {
        mom_ = mom_mem_new();
        ctx_ = mom_mem_ctx(mom_);
        ce_l3_table_init(&ctx_);
        ce_l3_cap_set_def();
        start_log();
        ASSERT_EQ(0, ce_l3vpn_app_init());
        take_log();
        clear_rows();
        mem_base_ = ce_l3vpn_mem_cnt;
    }
    void TearDown() override {
        stop_log();
        ce_l3vpn_mem_fail_at(0);
        keyed_tbl_fail_alloc_at(0);
        ce_l3vpn_app_reset();
        ce_l3vpn_syslog_reset();
        ss_rt_tbl_reset_for_test();
        mom_mem_free(mom_);
    }
    int32_t live_nodes() const { return static_cast<int32_t>(ce_l3vpn_mem_cnt - mem_base_); }
    // Records of one route owner (1 ftn, 8 vc_ftn, 7 ilm) in UC and EF, and FE's ILMs.
    std::vector<SRoute__InSubAdj *> uc(uint32_t o) {
        return records<SRoute__InSubAdj>(10, kAdj, std::to_string(o));
    }
    std::vector<SRoute__VirRt *> vir_routes(uint32_t o) {
        return records<SRoute__VirRt>(6, kVirRt, std::to_string(o));
    }
    std::vector<SRoute__CommRt *> ftn_routes() { return records<SRoute__CommRt>(6, kCommRt, "1"); }
    std::vector<UMpls__UdpIlm *> fe_ilms() { return records<UMpls__UdpIlm>(10, kIlm); }
    ce_app_node_t *app_of(const ce_msg_comm_t &m) { return ce_app_node_db_get_entry(&m); }
    ce_app_db_t *db(uint32_t owner) { return ce_app_node_db_get_owner_db(owner); }

    tq_global_t ctx_{};
    uint32_t mem_base_ = 0;
};

inline std::vector<uint32_t> labels_of(const SRoute__InSubAdj *r) {
    return {r->labels, r->labels + r->n_labels};
}
