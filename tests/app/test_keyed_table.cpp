// The keyed table: lookup2 hash, bucket sizing, insertion order, removal.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "foundation/zlog_capture.h"
#include "keyed_table/keyed_table.h"

namespace {
std::vector<uint8_t> bytes_of(const std::string &s) { return {s.begin(), s.end()}; }
std::vector<uint8_t> seq(size_t n) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i);
    return v;
}

// Expected values come from a separate transcription of lookup2; the lengths
// cover empty, short tails, one whole block and a block plus tail.
TEST(KeyedTableHash, MatchesLookup2Values) {
    const struct { std::vector<uint8_t> key; uint32_t seed, expect; } cases[] = {
        {{}, 0, 0xbd49d10d},
        {bytes_of("a"), 0, 0x29eec818},
        {bytes_of("abc"), 1, 0x52188305},
        {bytes_of("Four score and seven years ago"), 0, 0x50f2424b},
        {bytes_of("Four score and seven years ago"), 1, 0x89deae7e},
        {seq(11), 7, 0xac2b2b35},
        {seq(12), 7, 0x728a5adb},
        {seq(13), 7, 0xeb5c99d8},
        {seq(24), 20000, 0x30cbd2d2},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.expect, keyed_tbl_jhash(c.key.data(), c.key.size(), c.seed)) << c.key.size();
    EXPECT_EQ(0x6477d56bu, keyed_tbl_jhash_2words(1, 2, 0));
    EXPECT_EQ(0xd6227197u, keyed_tbl_jhash_2words(0xdeadbeef, 3, 10000));
}

// Entries are plain ints; every key hashes to one bucket when `same_bucket` is set.
bool same_bucket = false;
std::vector<int> not_found_keys;

class KeyedTableTest : public ::testing::Test {
protected:
    void SetUp() override {
        same_bucket = false;
        not_found_keys.clear();
        tbl_.hash = [](const keyed_tbl_t *t, const void *e) {
            return same_bucket ? 0 : keyed_tbl_jhash(e, sizeof(int), t->maxsize);
        };
        tbl_.cmp = [](const void *a, const void *b) {
            return *static_cast<const int *>(a) == *static_cast<const int *>(b) ? 0 : 1;
        };
        tbl_.not_found = [](const void *k) { not_found_keys.push_back(*static_cast<const int *>(k)); };
    }
    void TearDown() override {
        keyed_tbl_fail_alloc_at(0);
        keyed_tbl_destroy(&tbl_);
    }
    std::vector<int> walk_order() {
        std::vector<int> out;
        keyed_tbl_walk(&tbl_, [](void *e, void *arg) {
            static_cast<std::vector<int> *>(arg)->push_back(*static_cast<int *>(e));
            return 0;
        }, &out);
        return out;
    }
    keyed_tbl_t tbl_{};
    int v_[5] = {10, 20, 30, 40, 50};
};

TEST_F(KeyedTableTest, BucketCountFromMaxsize) {
    const struct { uint32_t maxsize, buckets; } cases[] = {
        {0, 1365}, {1, 1}, {3, 4}, {4000, 5333}, {20000, 26666}};
    for (const auto &c : cases) {
        ASSERT_EQ(0, keyed_tbl_create(&tbl_, 7, c.maxsize));
        EXPECT_EQ(c.buckets, tbl_.bucket_num) << c.maxsize;
        keyed_tbl_destroy(&tbl_);
    }
}

TEST_F(KeyedTableTest, FailuresLeaveTheTableUnchanged) {
    EXPECT_EQ(-4, keyed_tbl_create(nullptr, 0, 0));
    EXPECT_EQ(-4, keyed_tbl_set_name(nullptr, "x"));
    keyed_tbl_fail_alloc_at(1);
    EXPECT_EQ(-2, keyed_tbl_create(&tbl_, 0, 3));
    EXPECT_EQ(nullptr, tbl_.buckets);
    ASSERT_EQ(0, keyed_tbl_set_name(&tbl_, std::string(40, 'x').c_str()));
    EXPECT_EQ(std::string(31, 'x'), tbl_.name);  // cut to 31 characters

    ASSERT_EQ(0, keyed_tbl_create(&tbl_, 0, 3));
    keyed_tbl_fail_alloc_at(1);
    EXPECT_EQ(-2, keyed_tbl_insert(&tbl_, &v_[0]));
    keyed_tbl_fail_alloc_at(2);
    EXPECT_EQ(-12, keyed_tbl_insert(&tbl_, &v_[0]));
    EXPECT_EQ(0u, tbl_.count + tbl_.total);
    EXPECT_EQ(nullptr, keyed_tbl_lookup(&tbl_, &v_[0]));
}

// One bucket holds every entry; the walk follows the insertion order regardless.
TEST_F(KeyedTableTest, CrowdedBucketWarnsWalksNewestFirstAndRemovesAnywhere) {
    same_bucket = true;
    ASSERT_EQ(0, keyed_tbl_create(&tbl_, 0, 3));
    EXPECT_EQ(std::vector<int>{}, walk_order());
    auto insert = [&](int i) { return stdout_of([&] { ASSERT_EQ(0, keyed_tbl_insert(&tbl_, &v_[i])); }); };
    for (int i = 0; i < 4; ++i) EXPECT_EQ("", insert(i));  // threshold 0: off
    tbl_.warn_threshold = 4;
    char want[128];
    snprintf(want, sizeof want, "hash :%p bucket[0] warning 4 cur:5 \n", static_cast<void *>(&tbl_));
    EXPECT_EQ(want, insert(4));
    EXPECT_EQ((std::vector<int>{50, 40, 30, 20, 10}), walk_order());
    int seen = 0;
    EXPECT_EQ(7, keyed_tbl_walk(&tbl_, [](void *e, void *arg) {
        ++*static_cast<int *>(arg);
        return *static_cast<int *>(e) == 40 ? 7 : 0;
    }, &seen));
    EXPECT_EQ(2, seen);  // stopped at the first non-zero

    int k = 30;
    EXPECT_EQ(&v_[2], keyed_tbl_lookup(&tbl_, &k));
    EXPECT_EQ(&v_[2], keyed_tbl_remove(&tbl_, &k));
    EXPECT_EQ(nullptr, keyed_tbl_lookup(&tbl_, &k));
    EXPECT_EQ(4, tbl_.bucket_cnt[0]);
    EXPECT_TRUE(not_found_keys.empty());
    EXPECT_EQ(nullptr, keyed_tbl_remove(&tbl_, &k));
    EXPECT_EQ(std::vector<int>{30}, not_found_keys);
    // Both ends of the chain and of the ordered list.
    for (int key : {10, 50}) EXPECT_NE(nullptr, keyed_tbl_remove(&tbl_, &key));
    EXPECT_EQ((std::vector<int>{40, 20}), walk_order());
    EXPECT_EQ(2u, tbl_.count);
}
}  // namespace
