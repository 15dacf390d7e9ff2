// Forwarding state over the in-memory MOM: fresh databases, tables and error
// rows per test, message builders, and readers of the records written.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "app/proc/ce_l3vpn_app.h"
#include "app/proc/ce_l3vpn_cap.h"
#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_mem.h"
#include "app/proc/ce_l3vpn_proto_op.h"
#include "app/proc/ce_l3vpn_syslog.h"
#include "app/proc/ce_l3vpn_tbl.h"
#include "s_route.pb-c.h"
#include "support/mom_mem.h"
#include "u_mpls.pb-c.h"

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
inline ce_msg_comm_t vc_ftn_msg(uint32_t vc_ifx, const nh_t &nh,
                                std::initializer_list<uint32_t> labels) {
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

inline ::testing::AssertionResult has(const std::string &text, const std::string &part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "no \"" << part << "\" in:\n" << text;
}

class AppTest : public ::testing::Test {
protected:
    void SetUp() override {
        mom_ = mom_mem_new();
        ctx_ = mom_mem_ctx(mom_);
        ss_rt_tbl_reset_for_test();
        ce_l3_table_init(&ctx_);
        ce_l3vpn_app_reset();
        ce_l3_cap_set_def();
        ce_l3vpn_syslog_reset();
        const uint8_t v4[4] = {127, 0, 0, 1};
        const uint8_t v6[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
        ce_l3vpn_set_local_tnl_addr(v4, v6);
        ce_l3vpn_dbg_level = CE_L3VPN_DEBUG;
        ce_l3vpn_zlog_handle = 1;
        testing::internal::CaptureStderr();
        ASSERT_EQ(0, ce_l3vpn_app_init());
        take_log();
        for (ce_l3vpn_err_row_t &r : ce_l3vpn_err_tbl) r.count = 0;
        mem_base_ = ce_l3vpn_mem_cnt;
    }
    void TearDown() override {
        log_ += testing::internal::GetCapturedStderr();
        ce_l3vpn_zlog_handle = 0;  // the clean-up below is not part of any test
        ce_l3vpn_mem_fail_at(0);
        keyed_tbl_fail_alloc_at(0);
        ce_l3vpn_app_reset();
        ss_rt_tbl_reset_for_test();
        mom_mem_free(mom_);
    }
    // Everything logged so far; the next call sees only what came after.
    std::string take_log() {
        log_ += testing::internal::GetCapturedStderr();
        testing::internal::CaptureStderr();
        std::string out;
        out.swap(log_);
        return out;
    }
    uint32_t rows(ce_l3vpn_err_code_t c) const { return ce_l3vpn_err_tbl[c].count; }
    int32_t live_nodes() const { return static_cast<int32_t>(ce_l3vpn_mem_cnt - mem_base_); }

    // Every record of a table on db, decoded (owner slices share a table: filter the result).
    template <typename T>
    std::vector<T *> records(uint32_t db, const ProtobufCMessageDescriptor *desc) {
        std::vector<T *> out;
        std::string prefix = std::string(desc->name) + "|";
        for (const std::string &k : mom_mem_keys(mom_, db)) {
            if (k != desc->name && k.rfind(prefix, 0) != 0) continue;
            std::string text = k.size() > prefix.size() ? k.substr(prefix.size()) : "";
            held_.push_back(mom_mem_get(mom_, db, desc, text));
            out.push_back(reinterpret_cast<T *>(held_.back().get()));
        }
        return out;
    }
    // The records of one route owner (1 ftn, 8 vc_ftn, 7 ilm) in an owner-sliced table.
    template <typename T>
    std::vector<T *> of_owner(uint32_t db, const ProtobufCMessageDescriptor *desc, uint32_t rt_owner) {
        std::vector<T *> out = records<T>(db, desc);
        std::erase_if(out, [&](T *r) { return r->index->t_rt_owner != rt_owner; });
        return out;
    }
    std::vector<SRoute__InSubAdj *> uc(uint32_t o) {  // inner adjacencies in UC
        return of_owner<SRoute__InSubAdj>(10, &s_route__in_sub_adj__descriptor, o);
    }
    std::vector<SRoute__VirRt *> vir_routes(uint32_t o) {
        return of_owner<SRoute__VirRt>(6, &s_route__vir_rt__descriptor, o);
    }
    std::vector<SRoute__CommRt *> ftn_routes() {
        return records<SRoute__CommRt>(6, &s_route__comm_rt__descriptor);
    }
    std::vector<UMpls__UdpIlm *> fe_ilms() {
        return records<UMpls__UdpIlm>(10, &u_mpls__udp_ilm__descriptor);
    }
    ce_app_node_t *app_of(const ce_msg_comm_t &m) { return ce_app_node_db_get_entry(&m); }
    ce_app_db_t *db(uint32_t owner) { return ce_app_node_db_get_owner_db(owner); }

    tq_mom_client_t *mom_ = nullptr;
    tq_global_t ctx_{};
    std::vector<mom_mem_msg_ptr> held_;
    std::string log_;
    uint32_t mem_base_ = 0;
};

inline std::vector<uint32_t> labels_of(const SRoute__InSubAdj *r) {
    return {r->labels, r->labels + r->n_labels};
}
