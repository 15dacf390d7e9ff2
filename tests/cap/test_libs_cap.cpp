// Capability service front end over the in-memory store.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "platform/cap/libs_cap.h"
#include "platform/cap/libs_cap_mem.h"
#include "platform/runtime/tq_global.h"

namespace {
std::vector<std::string> g_seen;  // "<event> <path>=<value>" of each change callback
std::vector<uint32_t> g_events;
int g_int_at_ready = -1;

int record(void *, libs_cap_msg_t *m) {
    g_seen.push_back(std::to_string(m->event) + " " + m->path + "=" + m->value);
    return 0;
}
int on_event(uint32_t event) {
    g_events.push_back(event);
    int32_t v = -1;
    libs_cap_ce_get_g_cap_int32(nullptr, "cap/a", &v);  // values are readable when the event fires
    g_int_at_ready = v;
    return 0;
}

tq_global_t g_ctx{};  // the process context: no loop, no MOM client

class LibsCapTest : public ::testing::Test {
protected:
    void SetUp() override {
        libs_cap_reset();
        libs_cap_mem_install();
        g_seen.clear();
        g_events.clear();
        g_int_at_ready = -1;
    }
    void TearDown() override { libs_cap_reset(); }
    void start() {
        ASSERT_EQ(0, libs_cap_event_callback_reg("mod", on_event, 1));
        ASSERT_EQ(0, libs_cap_init(&g_ctx, "mod"));
    }
};

// An int32 is a decimal number with an optional sign and nothing else.
TEST(LibsCapParse, Int32AndBoolTexts) {
    const std::pair<const char *, int64_t> ints[] = {
        {"-7", -7}, {"+5", 5}, {"2147483647", INT32_MAX}, {"-2147483648", INT32_MIN},
        {"2147483648", -11}, {"", -11}, {"12a", -11}, {" 1", -11}, {"true", -11}};
    for (const auto &[text, want] : ints) {
        int32_t v = 99;
        int rv = libs_cap_parse_int32(text, &v);
        EXPECT_EQ(rv == 0 ? int64_t{v} : rv, want) << text;
    }
    const std::pair<const char *, int> bools[] = {{"true", 1}, {"false", 0}, {"1", 1}, {"0", 0},
                                                  {"TRUE", -11}, {"yes", -11}, {"", -11}};
    for (const auto &[text, want] : bools) {
        bool v = false;
        int rv = libs_cap_parse_bool(text, &v);
        EXPECT_EQ(rv == 0 ? int(v) : rv, want) << text;
    }
}

TEST_F(LibsCapTest, InitNeedsAStoreThatStarts) {
    EXPECT_EQ(-4, libs_cap_init(nullptr, "mod"));
    EXPECT_EQ(-4, libs_cap_event_callback_reg("mod", nullptr, 1));
    libs_cap_mem_fail_start(true);
    EXPECT_EQ(-17, libs_cap_init(&g_ctx, "mod"));
    libs_cap_reset();  // back to the default store: the MOM's Redis, unreachable here
    setenv("MOM_REDIS", "unix:/nonexistent/l3vpn-test.sock", 1);
    EXPECT_EQ(-17, libs_cap_init(&g_ctx, "mod"));
    unsetenv("MOM_REDIS");
}

TEST_F(LibsCapTest, GettersAnswerFromTheLastRead) {
    libs_cap_mem_set("cap/a", "42");
    libs_cap_mem_set_bool("cap/b", true);
    libs_cap_mem_set("cap/bad", "4x");
    start();
    int32_t v = 0;
    EXPECT_EQ(-7, libs_cap_ce_get_g_cap_int32(&g_ctx, "cap/a", &v));  // nothing read before ready
    libs_cap_mem_fire_event(LIBS_CAP_EVT_GLOBAL_READY);
    ASSERT_EQ(std::vector<uint32_t>{0}, g_events);
    EXPECT_EQ(42, g_int_at_ready);
    bool b = false;
    EXPECT_EQ(0, libs_cap_ce_get_g_cap_bool(&g_ctx, "cap/b", &b));
    EXPECT_TRUE(b);
    EXPECT_EQ(-11, libs_cap_ce_get_g_cap_int32(&g_ctx, "cap/bad", &v));
    EXPECT_EQ(-7, libs_cap_ce_get_g_cap_int32(&g_ctx, "cap/none", &v));

    libs_cap_mem_fail_reads(true);  // a failed read forgets every value
    libs_cap_mem_fire_event(LIBS_CAP_EVT_GLOBAL_READY);
    EXPECT_EQ(-7, libs_cap_ce_get_g_cap_int32(&g_ctx, "cap/a", &v));
    libs_cap_mem_fire_event(LIBS_CAP_EVT_FE_L3VPN_READY);
    EXPECT_EQ((std::vector<uint32_t>{0, 0, 1}), g_events);
}

TEST_F(LibsCapTest, ChangeCallbacksOnlyForSubscribedPathsThatChanged) {
    libs_cap_mem_set("cap/a", "1");
    ASSERT_EQ(0, libs_cap_ce_subscribe_g_cap_int32(&g_ctx, "cap/a", record));  // before start
    start();
    libs_cap_mem_fire_event(LIBS_CAP_EVT_GLOBAL_READY);
    ASSERT_EQ(0, libs_cap_ce_subscribe_g_cap_bool(&g_ctx, "cap/b", record));
    EXPECT_EQ((std::vector<std::string>{"29 cap/a=", "29 cap/b="}), g_seen);
    g_seen.clear();

    libs_cap_mem_set("cap/a", "1");      // same as the last read
    libs_cap_mem_set("cap/other", "3");  // nobody follows it
    libs_cap_mem_set("cap/a", "2");
    libs_cap_mem_set_bool("cap/b", false);
    libs_cap_mem_remove("cap/a");  // a removal carries no value
    EXPECT_EQ((std::vector<std::string>{"4 cap/a=2", "4 cap/b=false"}), g_seen);
}

TEST_F(LibsCapTest, ByMessageGetters) {
    libs_cap_msg_t m{};
    m.event = LIBS_CAP_MSG_CHANGED;
    snprintf(m.path, sizeof m.path, "s_mpls/l3vpn/capacity/ilm");
    snprintf(m.value, sizeof m.value, "-12");
    char key[256];
    int32_t v = 0;
    uint32_t aux = 99;
    ASSERT_EQ(0, libs_cap_ce_get_g_cap_int32_by_pmsg(&m, sizeof key, key, &v, &aux));
    EXPECT_STREQ("s_mpls/l3vpn/capacity/ilm", key);
    EXPECT_EQ(-12, v);
    EXPECT_EQ(0u, aux);
    EXPECT_EQ(0, libs_cap_ce_get_g_cap_int32_by_pmsg(&m, 26, key, &v, nullptr));  // exactly fits
    EXPECT_EQ(-11, libs_cap_ce_get_g_cap_int32_by_pmsg(&m, 25, key, &v, nullptr));
    bool b = false;
    EXPECT_EQ(-11, libs_cap_ce_get_g_cap_bool_by_pmsg(&m, sizeof key, key, &b, nullptr));
}
}  // namespace
