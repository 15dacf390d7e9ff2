// The operator's side of a live daemon: the debug commands through l3vpn-ctl
// cmd, a lowered capacity through l3vpn-ctl cap, and bad records written into
// the store by hand.
#include <algorithm>

#include "e2e/e2e_env.h"

namespace {

using kv_t = std::pair<std::string, std::string>;

class e2e_ops_t : public e2e_env_t {
protected:
    void SetUp() override {
        e2e_env_t::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        start(4);  // WARN lines and the capability change lines are wanted in the log
    }
    static bool has_line(const std::string &text, const std::string &line) {
        std::vector<std::string> lines = text_lines(text);
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }
    static json swap(uint32_t in_label, const std::string &nh = "192.0.2.1") {
        return e2e_ilm(in_label, nh, 101, {6000 + in_label}, 3);
    }
    bool programmed(uint32_t in_label) {
        return redis(10, {"EXISTS", "u_mpls.udp_ilm|" + std::to_string(in_label)}) == "1";
    }
    void set_ilm_cap(int cap) {
        ctl_result_t r = ctl({"cap", "set", "s_mpls/l3vpn/capacity/ilm", std::to_string(cap)});
        EXPECT_EQ(r.status, 0) << r.err;
    }
    // The key and packed value the tool writes for rec, taken from a spare database.
    kv_t packed(json rec) {
        rec["db"] = 9;
        load({rec});
        std::vector<std::string> k = keys(9, "*");
        EXPECT_EQ(k.size(), 1u);
        kv_t out{k.at(0), redis(9, {"GET", k.at(0)})};
        redis(9, {"FLUSHDB"});
        return out;
    }
};

// ---- debug commands -----------------------------------------------------------

TEST_F(e2e_ops_t, DebugCommandsShowTheLiveState) {
    EXPECT_EQ(dbg("get-mem_cnt"), "\n[dbg] memory count:0 \n");
    load({swap(5002)});
    ASSERT_TRUE(wait_outputs({{&E2E_UDP_ILM, 1}}));
    const std::string out = show_info();
    // The layout (separators, level listing, headers) is the daemon tests'
    // part; here the daemon's own state: five sections, its log level, its
    // tables and its rows.
    EXPECT_EQ(e2e_occurrences(out, std::string(87, '-') + "\n"), 5u);
    for (const char *l : {" Current zlog debug level is: 4 ", "          ilm db        1    10000",
                          "---  CAP  ------            0        0        0        0        0     NULL"})
        EXPECT_TRUE(has_line(out, l)) << "missing line \"" << l << "\" in\n" << out;
    // Counted rows: the message, and the lower-layer writes (a second "ILM_ADD").
    for (const char *name : {"ILM_VIR_RT_ADD", "ILM_IN_ADJ_ADD", "ILM_ADD"}) {
        std::vector<e2e_row_t> rows = e2e_err_rows(out, name);
        ASSERT_EQ(rows.size(), std::string(name) == "ILM_ADD" ? 2u : 1u) << name;
        for (const e2e_row_t &r : rows) {
            EXPECT_EQ(r.count, 1) << name;
            EXPECT_EQ(r.level, "INFO") << name;
        }
    }

    EXPECT_EQ(dbg("get-ilm in_label:5002"),
              "ilm    in_label 5002                            first_opcode SWAP           nhops 1\n"
              "    next hop                                   ifx weight  ef  opcode         labels"
              "                   mpls_id\n"
              "    192.0.2.1                                  101      1   1  SWAP           11002"
              "                    {0, 1} 1\n"
              "\n[dbg] get ilm:1\n");
    // A request without its arguments gets the argument format back.
    EXPECT_EQ(dbg("get-ilm"), "usage: get-ilm in_label:%d\n");
    // An entry, its next hop and its adjacency.
    EXPECT_EQ(dbg("get-mem_cnt"), "\n[dbg] memory count:3 \n");
    const std::vector<json> ftn = {e2e_ftn(1, "10.1.0.0", 16, 101, "192.0.2.1", {1001}),
                                   e2e_ftn(1, "10.1.0.0", 16, 102, "192.0.2.2", {1001})};
    load(ftn);
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 2}}));
    EXPECT_EQ(dbg("get-mem_cnt"), "\n[dbg] memory count:7 \n");
    unload(ftn);
    unload({swap(5002)});
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 0}, {&E2E_UDP_ILM, 0}, {&E2E_FTN_ADJ, 0}}));
    EXPECT_EQ(dbg("get-mem_cnt"), "\n[dbg] memory count:0 \n");
}

// ---- capacity -----------------------------------------------------------------

constexpr const char *kChange = "int32 CAP change callback.";
constexpr const char *kAlarm =
    "%ILM_MPLS-4-RESOURCE_ALLOCATED: The number of ILM entries allocated is greater than "
    "hardware capacity.";

// A capability change that lowers the ILM capacity is followed at once: new
// ILM entries are refused with the capacity line and the system-log alarm,
// and raising the capacity again lets new entries in.
TEST_F(e2e_ops_t, LoweredIlmCapacityRefusesNewEntriesUntilRaised) {
    load({swap(100), swap(101)});
    ASSERT_TRUE(wait_outputs({{&E2E_UDP_ILM, 2}, {&E2E_ILM_VIR_RT, 2}}));

    set_ilm_cap(2);
    ASSERT_TRUE(wait_log(kChange));
    load({swap(102)});
    ASSERT_TRUE(wait_log("ilm full, cur:2, cap:2"));
    ASSERT_TRUE(wait_log(kAlarm));
    std::string log = daemon_->log();
    size_t full = log.find("ilm full, cur:2, cap:2\n");
    size_t bol = log.rfind('\n', full) + 1;
    EXPECT_NE(log.substr(bol, full - bol).find(" WARN "), std::string::npos) << "a WARN line";
    EXPECT_EQ(e2e_occurrences(log, "CAP  FULL"), 1u);
    // A further next hop of an entry that exists is not a new entry.
    load({swap(100, "198.51.100.1")});
    ASSERT_TRUE(wait_outputs({{&E2E_UDP_ILM, 2}, {&E2E_ILM_VIR_RT, 3}}));
    EXPECT_FALSE(programmed(102));
    std::vector<e2e_row_t> row = e2e_err_rows(show_info(), "ILM_FULL");
    ASSERT_EQ(row.size(), 1u);
    EXPECT_EQ(row[0].count, 1);
    EXPECT_EQ(row[0].level, "WARNING");

    // Raised again: the refused entry, written once more, and a new one get in.
    set_ilm_cap(4);
    ASSERT_TRUE(wait_log(kChange, 2));
    load({swap(102), swap(103)});
    ASSERT_TRUE(wait_outputs({{&E2E_UDP_ILM, 4}, {&E2E_ILM_VIR_RT, 5}}));
    EXPECT_TRUE(programmed(102));
    EXPECT_TRUE(programmed(103));
    // Full again at four.
    load({swap(104)});
    ASSERT_TRUE(wait_log("ilm full, cur:4, cap:4"));
    EXPECT_FALSE(programmed(104));
}

// ---- bad input ----------------------------------------------------------------

const std::string kBadKey = "p_mpls.mom_msg_ftn|not-a-key";

struct bad_case_t {
    const char *name;
    std::vector<kv_t> writes;  // SET in db 6 in order (a value "" deletes)
    std::string log;           // the refusal's log line (a part of it)
};

// Bad records in the store are refused one by one with a log line; the daemon
// keeps running and a good record written afterwards is still programmed. The
// checks of parsed records are the daemon tests' part; one of them here shows
// the line reaching the log file and the row reaching show-info.
TEST_F(e2e_ops_t, EachBadRecordIsRefusedAndTheDaemonGoesOn) {
    const auto [ftn_key, ftn_value] = packed(e2e_ftn(1, "10.9.0.0", 16, 101, "192.0.2.1", {1001}));
    const std::string ilm_value = packed(e2e_ilm(9001, "192.0.2.1", 101, {6001}, 3)).second;
    const std::string undecodable = "value of \"" + ftn_key + "\" does not decode, skipped";
    const std::string bad_key = "value of \"" + kBadKey + "\" key ";
    const bad_case_t cases[] = {
        {"garbage bytes", {{ftn_key, "\xff\xff\xff garbage"}}, undecodable},
        {"an ILM under an FTN key", {{ftn_key, ilm_value}}, undecodable},
        {"a key that does not parse", {{kBadKey, "junk"}, {kBadKey, ""}}, bad_key + "does not parse, skipped"},
        // A good record under a key that is not its own must not be programmed:
        // no delete could ever reach its outputs.
        {"a good record under a key not its own", {{kBadKey, ftn_value}},
         bad_key + "does not match its record, skipped"},
        {"1000 labels", {packed(e2e_vc_ftn(3001, "192.0.2.1", 101, std::vector<uint32_t>(1000, 16)))},
         "fail:SS_MPLS_CHECK_LABEL_DEPTH_VALID(n_label_stack) code:23 error depth 1000"},
    };
    for (const bad_case_t &c : cases) {
        SCOPED_TRACE(c.name);
        size_t seen = e2e_occurrences(daemon_->log(), c.log);
        for (const auto &[key, value] : c.writes)
            redis(6, value.empty() ? std::vector<std::string>{"DEL", key}
                                   : std::vector<std::string>{"SET", key, value});
        EXPECT_TRUE(wait_log(c.log, static_cast<int>(seen) + 1)) << "no line: " << c.log;
        ASSERT_TRUE(daemon_->running());
    }
    // The refused label stack shows in the error statistics.
    std::vector<e2e_row_t> depth = e2e_err_rows(show_info(), "LABEL_DEPTH");
    ASSERT_EQ(depth.size(), 1u);
    EXPECT_EQ(depth[0].count, 1);

    // A good record after all of them: programmed, and nothing else is.
    load({e2e_ftn(1, "10.1.0.0", 16, 101, "192.0.2.1", {1001})});
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 1}, {&E2E_FTN_ADJ, 1}, {&E2E_VC_VIR_RT, 0}, {&E2E_VC_ADJ, 0},
                              {&E2E_ILM_VIR_RT, 0}, {&E2E_UDP_ILM, 0}, {&E2E_ILM_ADJ, 0}}));
    EXPECT_TRUE(daemon_->running());
}

}  // namespace
