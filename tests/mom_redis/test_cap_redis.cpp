// The capability service on its Redis store: values read after connecting,
// the ready event, and change callbacks driven by another writer.
#include <string>
#include <vector>

#include "mom_redis_env.h"
#include "platform/cap/libs_cap.h"
#include "platform/cap/libs_cap_redis.h"
#include "platform/runtime/tq_global.h"

namespace {

const char *ILM_CAP = "s_mpls/l3vpn/capacity/ilm";
const char *FTN_ABILITY = "s_mpls/l3vpn/ability/ftn";

std::vector<uint32_t> g_events;
std::vector<std::string> g_changes;  // "event path=value"

int event_cb(uint32_t event) { return g_events.push_back(event), 0; }
int change_cb(void *, libs_cap_msg_t *msg) {
    return g_changes.push_back(std::to_string(msg->event) + " " + msg->path + "=" + msg->value), 0;
}

class RedisCap : public redis_env_t {
protected:
    void TearDown() override {
        libs_cap_reset();
        libs_cap_set_backend(nullptr);
        redis_env_t::TearDown();
    }
    tq_global_t ctx_{};
};

TEST_F(RedisCap, ReadyEventGettersAndChangeCallbacks) {
    ctx_ = {nullptr, base_, "test"};
    cli_->select(4);
    libs_cap_set_backend(libs_cap_redis_backend());
    cli_->command({"HSET", "capability|global", ILM_CAP, "4096", FTN_ABILITY, "true"});
    ASSERT_EQ(0, libs_cap_event_callback_reg("test", event_cb, 1));
    ASSERT_EQ(0, libs_cap_init(&ctx_, "test"));
    ASSERT_TRUE(pump([] { return !g_events.empty(); }));
    EXPECT_EQ(std::vector<uint32_t>{LIBS_CAP_EVT_GLOBAL_READY}, g_events);

    int32_t cap = 0;
    bool ability = false;
    EXPECT_EQ(0, libs_cap_ce_get_g_cap_int32(nullptr, ILM_CAP, &cap));
    EXPECT_EQ(4096, cap);
    EXPECT_EQ(0, libs_cap_ce_get_g_cap_bool(nullptr, FTN_ABILITY, &ability));
    EXPECT_TRUE(ability);
    EXPECT_EQ(LIBS_CAP_ERR_NOT_FOUND,
              libs_cap_ce_get_g_cap_int32(nullptr, "s_mpls/l3vpn/capacity/ftn", &cap));

    ASSERT_EQ(0, libs_cap_ce_subscribe_g_cap_int32(nullptr, ILM_CAP, change_cb));
    g_changes.clear();  // the subscription's own confirmation
    cli_->command({"HSET", "capability|global", ILM_CAP, "8192"});
    ASSERT_TRUE(pump([] { return !g_changes.empty(); }));
    EXPECT_EQ(std::vector<std::string>{"4 s_mpls/l3vpn/capacity/ilm=8192"}, g_changes);
    EXPECT_EQ(0, libs_cap_ce_get_g_cap_int32(nullptr, ILM_CAP, &cap));
    EXPECT_EQ(8192, cap);

    // A write of another path changes nothing that is followed.
    cli_->command({"HSET", "capability|global", FTN_ABILITY, "false"});
    ASSERT_TRUE(pump([&] {
        return libs_cap_ce_get_g_cap_bool(nullptr, FTN_ABILITY, &ability) == 0 && !ability;
    }));
    EXPECT_EQ(1u, g_changes.size());
}

}  // namespace
