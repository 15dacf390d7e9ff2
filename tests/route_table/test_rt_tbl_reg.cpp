// Table registry: init bounds, table creation, handle validity, level file.
#include <fstream>

#include "rt_tbl_test.h"

namespace {

class RtTblReg : public RtTblTest {};

TEST_P(RtTblReg, InitBoundsAndSecondInit) {
    const struct { uint32_t num; int rv; } cases[] = {{0, -4}, {1, 0}, {99, 0}, {100, -4}};
    for (const auto &c : cases) {
        ss_rt_tbl_reset_for_test();
        EXPECT_EQ(c.rv, ss_rt_tbl_init(&ctx_, "rt-test", c.num)) << c.num;
        EXPECT_EQ(c.rv == 0 ? c.num : 0u, ss_rt_tbl_ctl.tbl_max_num) << c.num;
    }
    EXPECT_EQ(100, hist(RT_HIST_PARAM).data1);
    EXPECT_EQ(-4, ss_rt_tbl_init(nullptr, "rt-test", 5));
    EXPECT_EQ(-4, ss_rt_tbl_init(&ctx_, nullptr, 5));
    EXPECT_EQ(2u, hist(RT_HIST_ASSERT).count);

    // A second init keeps the first registry.
    ss_rt_tbl_reset_for_test();
    init(5);
    ss_rt_tbl_t *first = ss_rt_tbl_ctl.tables;
    std::string out = stdout_of([&] { EXPECT_EQ(-11, ss_rt_tbl_init(&ctx_, "other", 7)); });
    EXPECT_EQ(0u, out.find("[ERROR]ss_rt_tbl_init:")) << out;
    EXPECT_TRUE(has(out, "|already init\n"));
    EXPECT_EQ(first, ss_rt_tbl_ctl.tables);
    EXPECT_EQ(5u, ss_rt_tbl_ctl.tbl_max_num);
    EXPECT_STREQ("rt-test", ss_rt_tbl_ctl.module);
    EXPECT_EQ(7, hist(RT_HIST_INIT).data1);
    EXPECT_EQ(5, hist(RT_HIST_INIT).data2);
}

// The copies of a refused table are freed; ASan's leak check sees the rest.
TEST_P(RtTblReg, CreateBeyondCapacityOrBeforeInit) {
    EXPECT_EQ(nullptr, ilm_tbl(8));
    EXPECT_EQ(-17, hist(RT_HIST_INIT).data1);
    init(1);
    ASSERT_NE(nullptr, ilm_tbl(8));
    EXPECT_EQ(nullptr, ilm_tbl(8));
    EXPECT_EQ(-14, hist(RT_HIST_INIT).data1);
    EXPECT_EQ(2u, hist(RT_HIST_INIT).count);
    EXPECT_EQ(1u, ss_rt_tbl_ctl.tbl_cur_num);
}

TEST_P(RtTblReg, CreateRefusesBadParameters) {
    init(4);
    UMpls__UdpIlm item = U_MPLS__UDP_ILM__INIT;
    UMpls__UdpIlmKey key = U_MPLS__UDP_ILM_KEY__INIT;
    const int32_t isz = sizeof item, ksz = sizeof key;
    struct Case {
        int32_t type;
        const void *item;
        int32_t item_size, key_offset;
        const void *key;
        int32_t key_size, data1, data2;
    } cases[] = {
        {3, &item, isz, 8, &key, ksz, 3, 0},
        {0, &item, isz, 8, &key, ksz, 0, 0},
        {1, nullptr, isz, 8, &key, ksz, isz, ksz},
        {1, &item, 0, 8, &key, ksz, 0, ksz},
        {2, &item, -5, 8, &key, ksz, -5, ksz},
        {1, &item, isz, 8, &key, 0, isz, 0},
        {1, &item, isz, isz + 1, &key, ksz, isz + 1, isz},
    };
    uint32_t n = 0;
    for (const Case &c : cases) {
        EXPECT_EQ(nullptr, ss_rt_tbl_create_detail(6, c.type, c.item, c.item_size, c.key_offset,
                                                   c.key, c.key_size));
        EXPECT_EQ(++n, hist(RT_HIST_PARAM).count);
        EXPECT_EQ(c.data1, hist(RT_HIST_PARAM).data1) << n;
        EXPECT_EQ(c.data2, hist(RT_HIST_PARAM).data2) << n;
    }
    EXPECT_EQ(0u, ss_rt_tbl_ctl.tbl_cur_num);
    // Without a key the offset is not looked at.
    EXPECT_NE(nullptr, ss_rt_tbl_create_detail(6, 1, &item, isz, isz + 100, nullptr, 0));
}

TEST_P(RtTblReg, HandleValidity) {
    init(4);
    ss_rt_tbl_t *t = ilm_tbl(6);
    ss_rt_tbl_t copy = *t;
    EXPECT_TRUE(tbl_is_valid(t));
    EXPECT_FALSE(tbl_is_valid(nullptr));
    EXPECT_FALSE(tbl_is_valid(&copy));
    EXPECT_FALSE(tbl_is_valid(&ss_rt_tbl_ctl.tables[1]));  // inside the registry, not created
    auto *inside = reinterpret_cast<ss_rt_tbl_t *>(reinterpret_cast<char *>(t) + 8);
    EXPECT_FALSE(tbl_is_valid(inside));
    EXPECT_EQ(-4, ss_rt_tbl_set_skip(inside, 1));
    EXPECT_EQ(-4, ss_rt_tbl_ds_begin_detail(&copy, 3600, 0));
    t->valid = 0;
    EXPECT_FALSE(tbl_is_valid(t));
}

TEST_P(RtTblReg, DebugFileSetsTheStartLevel) {
    const struct { const char *content; int32_t level, log_cnt; } cases[] = {  // null: no file
        {nullptr, 1, 1000}, {"junk\n", 7, -1}, {"", 7, -1}, {"3\n", 3, -1}, {"0", 1, 1000}, {"12", 7, -1}};
    std::filesystem::create_directories(root_ + "/data/route/tbl_dbg");
    const std::string path = root_ + "/data/route/tbl_dbg/rt-test";
    for (const auto &c : cases) {
        ss_rt_tbl_reset_for_test();
        std::filesystem::remove(path);
        if (c.content != nullptr) std::ofstream(path) << c.content;
        stdout_of([&] { init(3); });
        EXPECT_EQ(std::pair(c.level, c.log_cnt), std::pair(ss_rt_tbl_ctl.dbg_level, ss_rt_tbl_ctl.log_cnt))
            << (c.content ? c.content : "none");
    }
}

RT_TBL_ON_BOTH_MOMS(RtTblReg);

}  // namespace
