// End-to-end environment: a private redis-server, the daemon as a process,
// records written the way the upper layers write them and the outputs read
// back the way the lower layers read them.
#pragma once
#include <gtest/gtest.h>
#include <protobuf-c/protobuf-c.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/proc_harness.h"

struct redisContext;

// One record as it lies in the store.
struct e2e_rec_t {
    int db;
    std::string key, value;
};

// Input builders. Addresses are text ("192.0.2.1", "2001:db8::1").
struct e2e_ftn_t {
    uint32_t vrf = 1;
    std::string prefix;
    int32_t len = 24;
    uint32_t ifx = 0;
    std::string nh;
    std::vector<uint32_t> labels;
    int32_t opcode = 1;
};
struct e2e_ilm_t {
    uint32_t in_label = 0;
    std::string nh = "0.0.0.0";
    uint32_t ifx = 0;
    std::vector<uint32_t> labels;
    int32_t opcode = 0;
    uint32_t vrf = 0, vc_ifx = 0;
};
struct e2e_vc_ftn_t {
    uint32_t vc_ifx = 0;
    std::string nh;
    uint32_t ifx = 0;
    std::vector<uint32_t> labels;
    uint32_t opcode = 1, vc_mode = 0, sd_vid = 0, cw = 0;
};
e2e_rec_t e2e_ftn(const e2e_ftn_t &f);
e2e_rec_t e2e_ilm(const e2e_ilm_t &i);
e2e_rec_t e2e_vc_ftn(const e2e_vc_ftn_t &v);
e2e_rec_t e2e_mpls_enable(bool on);
e2e_rec_t e2e_ttl_copy(bool on);
e2e_rec_t e2e_lab_sw(uint32_t ifx, int32_t enable);
// Packs any message into a record of database db.
e2e_rec_t e2e_pack(int db, const ProtobufCMessage *msg);

// A decoded record, released with tq_mom_free.
struct e2e_msg_free_t {
    void operator()(ProtobufCMessage *m) const;
};
using e2e_msg_t = std::unique_ptr<ProtobufCMessage, e2e_msg_free_t>;
template <typename T>
T *e2e_as(const e2e_msg_t &m) {
    return reinterpret_cast<T *>(m.get());
}

// Output tables, each a prefix of keys in one database.
struct e2e_table_t {
    int db;
    const char *prefix;
    const ProtobufCMessageDescriptor *desc;
};
extern const e2e_table_t E2E_FTN_RT, E2E_VC_VIR_RT, E2E_ILM_VIR_RT, E2E_UDP_ILM, E2E_FTN_ADJ,
    E2E_VC_ADJ, E2E_ILM_ADJ, E2E_LAB_SW, E2E_MPLS_EN, E2E_TTL_COPY;
extern const std::vector<e2e_table_t> E2E_OUTPUTS;

// Text of "v4:a.b.c.d" / "v6:..." of a p_libpub.ip, "" when unset.
std::string e2e_ip_text(const ProtobufCMessage *ip);

// A row of the error statistics in "show-info": name, count, history, data1,
// data2, line and level word, colour codes taken out.
struct e2e_row_t {
    long count = 0, history = 0, data1 = 0, data2 = 0, line = 0;
    std::string level;
};
std::vector<e2e_row_t> e2e_err_rows(const std::string &show_info, const std::string &name);

// A plain synchronous client with pipelining for bulk work.
class e2e_redis_t {
public:
    explicit e2e_redis_t(const std::string &sock);
    ~e2e_redis_t();
    e2e_redis_t(const e2e_redis_t &) = delete;
    e2e_redis_t &operator=(const e2e_redis_t &) = delete;
    bool ok() const { return c_ != nullptr; }
    std::string cmd(int db, const std::vector<std::string> &words);
    std::vector<std::string> keys(int db, const std::string &pattern);
    // Values of keys, "" where missing, in one round trip per database.
    std::vector<std::string> mget(int db, const std::vector<std::string> &keys);
    // SETs the records in one pipeline.
    void put(const std::vector<e2e_rec_t> &recs);
    void put(const e2e_rec_t &rec) { put(std::vector<e2e_rec_t>{rec}); }
    void del(const std::vector<e2e_rec_t> &recs);
    void del(const e2e_rec_t &rec) { del(std::vector<e2e_rec_t>{rec}); }
    long dbsize(int db);
    // Keys under a prefix that still carry an expiry (a data-sync mark).
    long marked(int db, const std::string &prefix);

private:
    void select(int db);
    redisContext *c_ = nullptr;
    int db_ = -1;
};

// Records of one output table: key -> decoded record.
using e2e_rows_t = std::map<std::string, e2e_msg_t>;
// Every output record: "db|key" -> packed bytes.
using e2e_snap_t = std::map<std::string, std::string>;

// Result of a run of the operator tool.
struct e2e_ctl_t {
    int status = -1;
    std::string out, err;
};

// Fixture: one Redis, one daemon. Skips when no redis-server is installed.
class e2e_env_t : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Drops the daemon and the store and begins again with an empty Redis.
    void fresh_store();
    // Fails the test on a sanitizer report in the daemon's log.
    void check_daemon_log();
    // Starts the daemon (log level as in its level file) and waits for its data sync.
    void start(int log_level = 4);
    // Starts the daemon only.
    bool start_daemon(int log_level = 4);
    // "l3vpn-ctl wait-synced": the daemon's data sync has run.
    bool wait_synced(int timeout_s = 20);
    // Runs l3vpn-ctl against this store and this daemon's root.
    e2e_ctl_t ctl(const std::vector<std::string> &args);
    // A debug command through "l3vpn-ctl cmd udp-mpls-l3vpn ...".
    std::string dbg(const std::string &line);

    e2e_rows_t rows(const e2e_table_t &t);
    e2e_msg_t get(const e2e_table_t &t, const std::string &key);
    size_t count(const e2e_table_t &t) { return redis_->keys(t.db, std::string(t.prefix) + "*").size(); }
    e2e_snap_t snapshot();
    // Waits until every output table holds the given number of records, no
    // output carries a data-sync mark, and two looks 150 ms apart agree.
    bool wait_outputs(const std::map<const e2e_table_t *, size_t> &want, int timeout_ms);
    // Waits until the daemon's log holds text `times` times.
    bool wait_log(const std::string &text, int times, int timeout_ms);
    static size_t occurrences(const std::string &hay, const std::string &needle);

    std::unique_ptr<temp_dir_t> dir_;
    std::unique_ptr<redis_server_t> server_;
    std::unique_ptr<e2e_redis_t> redis_;
    std::unique_ptr<daemon_proc_t> daemon_;
};
