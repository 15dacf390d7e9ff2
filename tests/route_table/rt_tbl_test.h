// Shared set-up of the route-table client tests: a fresh registry over the MOM
// of the test's parameter (in memory, or Redis on a private server), a private
// L3VPN_ROOT, and stdout capture. Every suite runs on both MOMs:
//   RT_TBL_ON_BOTH_MOMS(Suite);
#pragma once
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "foundation/zlog_capture.h"
#include "p_intf.pb-c.h"
#include "platform/cgst/libcgstctrl.h"
#include "route_table/ss_rt_tbl.h"
#include "route_table/ss_rt_tbl_int.h"
#include "support/test_mom.h"
#include "u_mpls.pb-c.h"

class RtTblTest : public ::testing::TestWithParam<const char *> {
protected:
    void SetUp() override {
        if (!test_mom_can_run(GetParam())) GTEST_SKIP() << "no redis-server binary found";
        std::string why;
        mom_ = test_mom_new(GetParam(), why);
        ASSERT_NE(nullptr, mom_) << why;
        char tmpl[] = "/tmp/rt-tbl-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        root_ = tmpl;
        setenv("L3VPN_ROOT", root_.c_str(), 1);
        ss_rt_tbl_reset_for_test();
        libcgstctrl_reset();
        ctx_ = mom_->ctx();
        ilm_.index = &ilm_key_;
    }
    void TearDown() override {
        ss_rt_tbl_reset_for_test();
        mom_.reset();
        if (root_.empty()) return;
        unsetenv("L3VPN_ROOT");
        std::filesystem::remove_all(root_);
    }
    // u_mpls.udp_ilm: a keyed string table.
    static ss_rt_tbl_t *ilm_tbl(uint32_t db) {
        UMpls__UdpIlm item = U_MPLS__UDP_ILM__INIT;
        UMpls__UdpIlmKey key = U_MPLS__UDP_ILM_KEY__INIT;
        return ss_rt_tbl_create_detail(db, RT_MOM_DATA_STRING, &item, sizeof item,
                                       offsetof(UMpls__UdpIlm, index), &key, sizeof key);
    }
    // p_intf.data_intf: a keyed hash table.
    static ss_rt_tbl_t *intf_tbl(uint32_t db) {
        PIntf__DataIntf item = P_INTF__DATA_INTF__INIT;
        PIntf__Intfindex key = P_INTF__INTFINDEX__INIT;
        return ss_rt_tbl_create_detail(db, RT_MOM_DATA_HASH, &item, sizeof item,
                                       offsetof(PIntf__DataIntf, index), &key, sizeof key);
    }
    void init(uint32_t n) { ASSERT_EQ(0, ss_rt_tbl_init(&ctx_, "rt-test", n)); }
    // A tbl- command with two arguments: what it prints, and its result in *rv.
    static std::string run(int (*cmd)(const ssat_args_t *), int64_t a, int64_t b, int *rv) {
        ssat_args_t args{};
        args.argc = 2;
        args.argv[0].i = a;
        args.argv[1].i = b;
        return stdout_of([&] { *rv = cmd(&args); });
    }
    // Writes ilm_ with the in-label given.
    int add_ilm(ss_rt_tbl_t *t, uint32_t label) {
        ilm_key_.in_label = label;
        return ss_rt_tbl_add_str(t, &ilm_.base, 1, 0);
    }
    static const ss_rt_tbl_hist_t &hist(int row) { return ss_rt_tbl_hist[row]; }

    std::string root_;
    std::unique_ptr<test_mom_t> mom_;
    tq_global_t ctx_{};
    UMpls__UdpIlmKey ilm_key_ = U_MPLS__UDP_ILM_KEY__INIT;
    UMpls__UdpIlm ilm_ = U_MPLS__UDP_ILM__INIT;
};

#define RT_TBL_ON_BOTH_MOMS(suite)                                                  \
    INSTANTIATE_TEST_SUITE_P(Mom, suite, ::testing::Values("mem", "redis"),          \
                             [](const auto &info) { return std::string(info.param); })
