// End-to-end environment: a private redis-server, the daemon as a process, and
// the operator tool l3vpn-ctl to write its input records and read its outputs
// back (as the JSON lines of "load" and "dump --json").
#pragma once
#include <gtest/gtest.h>

#include <map>
#include <memory>

#include "e2e/e2e_records.h"
#include "support/proc_harness.h"

// An output table: one message's records in one database, of one owner (t_rt_owner) or all.
struct e2e_table_t {
    int db;
    const char *name;
    int owner;
};
inline constexpr e2e_table_t E2E_FTN_RT{6, "s_route.comm_rt", 1};
inline constexpr e2e_table_t E2E_VC_VIR_RT{6, "s_route.vir_rt", 8};
inline constexpr e2e_table_t E2E_ILM_VIR_RT{6, "s_route.vir_rt", 7};
inline constexpr e2e_table_t E2E_UDP_ILM{10, "u_mpls.udp_ilm", 0};
inline constexpr e2e_table_t E2E_FTN_ADJ{10, "s_route.in_sub_adj", 1};
inline constexpr e2e_table_t E2E_VC_ADJ{10, "s_route.in_sub_adj", 8};
inline constexpr e2e_table_t E2E_ILM_ADJ{10, "s_route.in_sub_adj", 7};
inline constexpr e2e_table_t E2E_LAB_SW{8, "u_mpls.udp_lab_sw", 0};
inline constexpr e2e_table_t E2E_MPLS_EN{8, "u_mpls.udp_mpls_enable", 0};
inline constexpr e2e_table_t E2E_TTL_COPY{8, "u_mpls.udp_ttl_copy_enable", 0};

// A row of the error statistics in "show-info" (colour codes taken out).
struct e2e_row_t {
    long count = 0, history = 0, data1 = 0, data2 = 0, line = 0;
    std::string level;
};
std::vector<e2e_row_t> e2e_err_rows(const std::string &show_info, const std::string &name);
size_t e2e_occurrences(const std::string &hay, const std::string &needle);

// One private Redis and the daemon on it. A test fixture holds one; the fault
// tests build a second one for their fresh-daemon reference.
class e2e_store_t {
public:
    virtual ~e2e_store_t() = default;
    // Drops the daemon and the store and begins again with an empty Redis.
    void fresh_store();
    // Starts the daemon and waits for its data sync.
    void start(int log_level = 4);
    bool start_daemon(int log_level = 4);
    // "l3vpn-ctl wait-synced": the daemon's data sync has run.
    bool wait_synced(int timeout_s = 20);
    // l3vpn-ctl against this store and this daemon's root.
    ctl_result_t ctl(const std::vector<std::string> &args);
    // A debug command through "l3vpn-ctl cmd udp-mpls-l3vpn ...".
    std::string dbg(const std::string &line);
    std::string show_info() { return dbg("show-info is_clean:0 is_detail:0"); }
    // "l3vpn-ctl load" / "delete" of records.
    void load(const std::vector<json> &recs) { write_records("load", recs); }
    void unload(const std::vector<json> &recs) { write_records("delete", recs); }

    // A command on database db, its reply as text.
    std::string redis(int db, const std::vector<std::string> &words);
    std::vector<std::string> keys(int db, const std::string &pattern);
    size_t count(const e2e_table_t &t);
    // The records of a table as "dump --json" prints them.
    std::vector<json> rows(const e2e_table_t &t);
    // The whole store as "dump all --json" prints it, and the records that do not decode.
    std::string snapshot();
    // Waits until the tables named hold the given number of records and two
    // looks 150 ms apart agree.
    bool wait_outputs(const std::map<const e2e_table_t *, size_t> &want, int timeout_ms = 10000);
    // Waits until the whole store stays the same for quiet_ms.
    bool wait_quiet(int quiet_ms, int timeout_ms = 20000);
    // Waits until the daemon's log holds text `times` times.
    bool wait_log(const std::string &text, int times = 1, int timeout_ms = 10000);

    std::unique_ptr<temp_dir_t> dir_;
    std::unique_ptr<redis_server_t> server_;
    std::unique_ptr<redis_cli_t> redis_;
    std::unique_ptr<daemon_proc_t> daemon_;

private:
    void write_records(const char *how, const std::vector<json> &recs);
};

// Fixture: one Redis, one daemon. Skips when no redis-server is installed.
class e2e_env_t : public ::testing::Test, public e2e_store_t {
protected:
    void SetUp() override;
    void TearDown() override;
};
