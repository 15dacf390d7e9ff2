// The two MOMs behind test_mom_t.
#include "test_mom.h"

#include <event2/event.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>

#include "platform/mom/tq_mom.h"
#include "platform/mom/tq_mom_mem.h"
#include "proc_harness.h"
#include "u_mpls.pb-c.h"

namespace {

class mem_mom_t : public test_mom_t {
public:
    mem_mom_t() : c_(mom_mem_new()) {}
    ~mem_mom_t() override { mom_mem_free(c_); }
    tq_global_t ctx() const override { return mom_mem_ctx(c_); }
    bool settle() override { return mom_mem_dispatch_all(c_), true; }
    std::vector<std::string> keys(uint32_t db) override { return mom_mem_keys(c_, db); }
    void cut(uint32_t db) override { mom_mem_conn_lost(c_, db); }
    void restore(uint32_t db) override { mom_mem_conn_back(c_, db); }

private:
    tq_mom_client_t *c_;
};

// Settling on Redis: the client publishes a sentinel (an ilm record whose
// label counts the sentinels) on a database of its own and waits for it on
// its own subscription. The command connection keeps the order of writes,
// and the server the order of notices, so what was written before has been
// delivered by then. A second round covers requests that were still in the
// subscriber connection's buffer when the first was sent.
constexpr uint32_t kSentinelDb = 15;
constexpr int kWaitMs = 5000;

class redis_mom_t : public test_mom_t {
public:
    bool start(std::string &why);
    ~redis_mom_t() override;
    tq_global_t ctx() const override { return ctx_; }
    bool settle() override;
    std::vector<std::string> keys(uint32_t db) override;
    void cut(uint32_t db) override;
    void restore(uint32_t db) override;

private:
    static int on_sentinel(void *, tq_mom_msg_t *msg, void *arg);
    static int on_link(void *, uint32_t, uint32_t type, void *arg);
    bool pump(const std::function<bool()> &cond);
    bool sentinel_round();

    temp_dir_t dir_;
    std::unique_ptr<redis_server_t> server_;
    std::unique_ptr<redis_cli_t> cli_;
    struct event_base *base_ = nullptr;
    tq_global_t ctx_{};
    bool subscribed_ = false;
    uint32_t sent_ = 0, seen_ = 0;
    uint32_t link_ = TQ_MOM_CONN_BACK;  // last report: lost or back
};

bool redis_mom_t::start(std::string &why) {
    if (!redis_server_t::available()) return why = "no redis-server binary found", false;
    server_ = std::make_unique<redis_server_t>(dir_.path());
    if (!server_->start()) return why = "redis-server did not start in " + dir_.path(), false;
    setenv("MOM_REDIS", server_->mom_redis().c_str(), 1);
    cli_ = std::make_unique<redis_cli_t>(server_->socket());
    base_ = event_base_new();
    tq_mom_client_t *c = base_ != nullptr ? tq_mom_redis_new(base_) : nullptr;
    if (c == nullptr) return why = "no Redis MOM client", false;
    ctx_ = {c, base_, "test"};
    UMpls__UdpIlm item = U_MPLS__UDP_ILM__INIT;
    if (tq_mom_client_connect_sync(&ctx_, kSentinelDb) != TQ_MOM_OK ||
        tq_mom_client_set_reconnect_cb(&ctx_, kSentinelDb, on_link, this) != TQ_MOM_OK ||
        tq_mom_subscribe(&ctx_, kSentinelDb, &item.base, 0, on_sentinel, this) != TQ_MOM_OK)
        return why = "the Redis MOM client did not connect", false;
    if (!pump([&] { return subscribed_; })) return why = "no end marker of the sentinel table", false;
    return settle() || (why = "no sentinel came back", false);
}

redis_mom_t::~redis_mom_t() {
    if (ctx_.mom != nullptr) tq_mom_client_free(ctx_.mom);
    if (base_ != nullptr) event_base_free(base_);
    cli_.reset();
    if (server_ != nullptr) server_->stop();
    unsetenv("MOM_REDIS");
}

int redis_mom_t::on_sentinel(void *, tq_mom_msg_t *msg, void *arg) {
    auto *self = static_cast<redis_mom_t *>(arg);
    const auto *ilm = static_cast<const UMpls__UdpIlm *>(msg->value);
    if (msg->cmd == TQ_MOM_CMD_END) self->subscribed_ = true;
    if (msg->cmd == TQ_MOM_CMD_SET && ilm != nullptr && ilm->index != nullptr)
        self->seen_ = std::max(self->seen_, ilm->index->in_label);
    return 0;
}

int redis_mom_t::on_link(void *, uint32_t, uint32_t type, void *arg) {
    return static_cast<redis_mom_t *>(arg)->link_ = type, 0;
}

bool redis_mom_t::pump(const std::function<bool()> &cond) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end) return false;
        event_base_loop(base_, EVLOOP_NONBLOCK | EVLOOP_ONCE);
        usleep(100);
    }
    return true;
}

bool redis_mom_t::sentinel_round() {
    UMpls__UdpIlmKey key = U_MPLS__UDP_ILM_KEY__INIT;
    UMpls__UdpIlm rec = U_MPLS__UDP_ILM__INIT;
    key.in_label = ++sent_;
    rec.index = &key;
    if (tq_mom_publish(&ctx_, kSentinelDb, &rec.base, 1, 0) != TQ_MOM_OK) return false;
    return pump([&] { return seen_ >= key.in_label; });
}

bool redis_mom_t::settle() { return sentinel_round() && sentinel_round(); }

std::vector<std::string> redis_mom_t::keys(uint32_t db) {
    settle();
    cli_->select(static_cast<int>(db));
    std::vector<std::string> keys = cli_->keys("*");
    std::sort(keys.begin(), keys.end());
    return keys;
}

// The server drops every connection of the client (the plain client asking
// is spared); the client notices on its subscriber connection.
void redis_mom_t::cut(uint32_t) {
    cli_->command({"CLIENT", "KILL", "TYPE", "pubsub"});
    cli_->command({"CLIENT", "KILL", "TYPE", "normal", "SKIPME", "yes"});
    pump([&] { return link_ == TQ_MOM_CONN_LOST; });
}

// The client retries by itself every second.
void redis_mom_t::restore(uint32_t) { pump([&] { return link_ == TQ_MOM_CONN_BACK; }); }

}  // namespace

bool test_mom_can_run(const std::string &kind) {
    return kind == "mem" || (kind == "redis" && redis_server_t::available());
}

std::unique_ptr<test_mom_t> test_mom_new(const std::string &kind, std::string &why) {
    if (kind == "mem") return std::make_unique<mem_mom_t>();
    if (kind != "redis") return why = "no MOM kind " + kind, nullptr;
    auto mom = std::make_unique<redis_mom_t>();
    if (!mom->start(why)) return nullptr;
    return mom;
}
