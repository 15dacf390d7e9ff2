// The operator's side of a live daemon: the debug commands through l3vpn-ctl
// cmd, a lowered capacity through l3vpn-ctl cap, and bad records written into
// the store by hand.
#include <algorithm>
#include <csignal>
#include <sstream>
#include <unistd.h>

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
    // A row of show-refused: table, reason and count in their columns.
    static std::string refused_row(const std::string &table, const std::string &reason, long n) {
        std::string count = std::to_string(n);
        return table + std::string(41 - table.size(), ' ') + reason + std::string(11 - reason.size(), ' ') +
               std::string(12 - count.size(), ' ') + count + "\n";
    }
    // The key and packed value the tool writes for rec, taken from a spare database.
    kv_t packed(json rec) {
        rec["db"] = 9;
        load({rec});
        std::vector<std::string> k = keys(9, "*");
        EXPECT_EQ(k.size(), 1u);
        kv_t out{k.at(0), redis(9, {"GET", k.at(0)})};
        redis(9, {"DEL", k.at(0)});  // a flush would look like a change of the outputs
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

constexpr const char *kAlarm =
    "%ILM_MPLS-4-RESOURCE_ALLOCATED: The number of ILM entries allocated is greater than "
    "hardware capacity.";

class e2e_cap_t : public e2e_ops_t {
protected:
    // Written as any producer would (the tool refuses values it cannot parse).
    void set_cap(const std::string &name, const std::string &value) {
        redis(4, {"HSET", "capability|global", "s_mpls/l3vpn/capacity/" + name, value});
        ASSERT_TRUE(wait_log("CAP change callback.", ++changes_));
    }
    std::vector<uint32_t> programmed_ilms() {
        std::vector<uint32_t> out;
        for (const std::string &k : keys(10, "u_mpls.udp_ilm|*"))
            out.push_back(static_cast<uint32_t>(std::stoul(k.substr(k.find('|') + 1))));
        std::sort(out.begin(), out.end());
        return out;
    }
    // "waiting for room ilm N" of show-refused, once it has settled on n (or the last seen).
    long waiting(const char *owner, long n) {
        long got = -1;
        for (int i = 0; i < 100 && got != n; ++i, usleep(100 * 1000)) {
            std::istringstream out(dbg("show-refused"));
            for (std::string line; std::getline(out, line);)
                if (line.starts_with(std::string("waiting for room ") + owner + " "))
                    got = std::stol(line.substr(line.find_last_of(' ') + 1));
        }
        return got;
    }
    std::string log_line(const std::string &part) {
        for (const std::string &l : text_lines(daemon_->log()))
            if (l.find(part) != std::string::npos) return l;
        return "";
    }
    int changes_ = 0;
};

// Entries over capacity wait and go in, oldest first, as room is made by a
// delete or a raised capacity; the refusal names the entry; a restart keeps
// the programmed set and the order of the waiting ones.
TEST_F(e2e_cap_t, EntriesOverCapacityWaitAndGoInOldestFirst) {
    set_cap("ilm", "3");
    for (uint32_t l : {100, 101, 102, 103, 104}) load({swap(l)});
    ASSERT_TRUE(wait_outputs({{&E2E_UDP_ILM, 3}}));
    EXPECT_EQ(programmed_ilms(), (std::vector<uint32_t>{100, 101, 102}));
    ASSERT_TRUE(wait_log("refused tbl:p_mpls.mom_msg_ilm key:104|"));
    ASSERT_TRUE(wait_log(kAlarm));
    const std::string line = log_line("refused tbl:p_mpls.mom_msg_ilm key:103|");
    EXPECT_NE(line.find(" WARN "), std::string::npos) << line;
    EXPECT_NE(line.find(" reason:capacity ilm full, cur:3, cap:3, kept aside"), std::string::npos) << line;
    EXPECT_EQ(waiting("ilm", 2), 2);

    unload({swap(101)});  // room for the oldest waiting one
    ASSERT_TRUE(wait_outputs({{&E2E_UDP_ILM, 3}, {&E2E_ILM_VIR_RT, 3}}));
    EXPECT_EQ(programmed_ilms(), (std::vector<uint32_t>{100, 102, 103}));
    unload({swap(104)});  // a delete of a waiting entry takes it out of line
    EXPECT_EQ(waiting("ilm", 0), 0);
    for (uint32_t l = 200; l < 220; ++l) load({swap(l)});
    ASSERT_EQ(waiting("ilm", 20), 20);
    set_cap("ilm", "13");  // raised: ten of the twenty, in the order they came
    ASSERT_TRUE(wait_outputs({{&E2E_UDP_ILM, 13}}));
    std::vector<uint32_t> before = programmed_ilms();
    EXPECT_EQ(before.back(), 209u);
    EXPECT_EQ(waiting("ilm", 10), 10);

    // Restarted: the same thirteen, nothing rewritten, the ten still waiting.
    const std::string outputs = snapshot();
    EXPECT_EQ(daemon_->stop(SIGKILL), 128 + SIGKILL);
    ASSERT_TRUE(start_daemon(4));
    ASSERT_TRUE(wait_synced());
    EXPECT_EQ(programmed_ilms(), before);
    EXPECT_EQ(snapshot(), outputs);
    EXPECT_EQ(waiting("ilm", 10), 10);
    // After a restart "oldest" is the store's order: one of the ten goes in.
    unload({swap(100)});
    ASSERT_TRUE(wait_outputs({{&E2E_ILM_VIR_RT, 13}}));
    std::vector<uint32_t> after = programmed_ilms();
    ASSERT_EQ(after.size(), 13u);
    EXPECT_GE(after.back(), 210u);
    EXPECT_EQ(std::vector<uint32_t>(after.begin(), after.end() - 1),
              std::vector<uint32_t>(before.begin() + 1, before.end()));
}

// Limits the ability record advertises beside the entry capacities: the ECMP
// path limit makes further next hops wait, the label depth refuses deeper
// stacks, and a capability value that is not usable is refused by name
// while the previous value stays.
TEST_F(e2e_cap_t, PathLimitLabelDepthAndBadCapabilityValues) {
    set_cap("ecmp_max_path", "1");
    load({swap(300, "192.0.2.1"), swap(300, "192.0.2.2")});
    ASSERT_TRUE(wait_log("reason:capacity ecmp full, paths:1, cap:1, kept aside"));
    ASSERT_TRUE(wait_outputs({{&E2E_ILM_VIR_RT, 1}}));
    unload({swap(300, "192.0.2.1")});
    ASSERT_TRUE(wait_outputs({{&E2E_ILM_VIR_RT, 1}, {&E2E_UDP_ILM, 1}}));
    EXPECT_EQ(rows(E2E_ILM_VIR_RT).at(0).dump().find("192.0.2.1"), std::string::npos);

    set_cap("encap_label_depth", "2");
    load({e2e_vc_ftn(3001, "192.0.2.1", 101, {16, 17, 18})});
    ASSERT_TRUE(wait_log("key:3001|v4:192.0.2.1|101 reason:invalid LABEL_DEPTH"));
    EXPECT_EQ(count(E2E_VC_VIR_RT), 0u);

    for (const char *bad : {"abc", "", "0x10", " 7", "-5", "9"}) {
        SCOPED_TRACE(bad);
        set_cap("encap_label_depth", bad);
        EXPECT_TRUE(wait_log(std::string("refused tbl:capability key:s_mpls/l3vpn/capacity/"
                                         "encap_label_depth reason:value value:\"") + bad + "\""));
    }
    // name, path, kind, current, default: still 2.
    std::istringstream row(dbg("dump-cap-info is_form:0").substr(
        dbg("dump-cap-info is_form:0").find("encap_label_dpth")));
    std::string name, path, kind, current;
    row >> name >> path >> kind >> current;
    EXPECT_EQ(current, "2");
}

// ---- bad input ----------------------------------------------------------------

const std::string kBadKey = "p_mpls.mom_msg_ftn|not-a-key";

struct bad_case_t {
    const char *name;
    std::vector<std::vector<std::string>> cmds;  // in db 6, in order
    std::string log;                             // the refusal's line (a part of it)
};

// Bad records in the store are refused one by one, each with a WARN line that
// names its table, key and reason and a count by table and reason; the daemon
// keeps running and a good record written afterwards is still programmed.
TEST_F(e2e_ops_t, EachBadRecordIsRefusedNamedAndCounted) {
    const auto [ftn_key, ftn_value] = packed(e2e_ftn(1, "10.9.0.0", 16, 101, "192.0.2.1", {1001}));
    const std::string ilm_value = packed(e2e_ilm(9001, "192.0.2.1", 101, {6001}, 3)).second;
    const std::string ftn_text = ftn_key.substr(ftn_key.find('|') + 1);
    const std::string refused = "refused tbl:p_mpls.mom_msg_ftn key:";
    const auto [deep_key, deep_value] = packed(e2e_vc_ftn(3001, "192.0.2.1", 101, std::vector<uint32_t>(1000, 16)));
    const bad_case_t cases[] = {
        {"garbage bytes", {{"SET", ftn_key, "\xff\xff\xff garbage"}},
         refused + ftn_text + " reason:decode value does not decode"},
        {"an ILM under an FTN key", {{"SET", ftn_key, ilm_value}}, refused + ftn_text + " reason:decode"},
        // One step at a time: a value read after its delete is not there to refuse.
        {"junk under a key that does not parse", {{"SET", kBadKey, "junk"}}, refused + "not-a-key reason:decode"},
        {"its delete", {{"DEL", kBadKey}}, refused + "not-a-key reason:key key does not match its record"},
        // A good record under a key that is not its own must not be programmed:
        // no delete could ever reach its outputs.
        {"a good record under a key not its own", {{"SET", kBadKey, ftn_value}},
         refused + "not-a-key reason:key"},
        {"a list under an FTN key", {{"DEL", ftn_key}, {"RPUSH", ftn_key, "x"}},
         refused + ftn_text + " reason:type another type under the key"},
        {"1000 labels", {{"SET", deep_key, deep_value}},
         "refused tbl:u_mpls.udp_vc_ftn key:3001|v4:192.0.2.1|101 reason:invalid LABEL_DEPTH, rv 4"},
    };
    for (const bad_case_t &c : cases) {
        SCOPED_TRACE(c.name);
        size_t seen = e2e_occurrences(daemon_->log(), c.log);
        for (const std::vector<std::string> &cmd : c.cmds) redis(6, cmd);
        EXPECT_TRUE(wait_log(c.log, static_cast<int>(seen) + 1)) << "no line: " << c.log;
        ASSERT_TRUE(daemon_->running());
    }
    redis(6, {"DEL", ftn_key});
    // A flood: every record counted, at most ten lines a second, then one line
    // telling how many were held back.
    std::vector<std::string> flood = {"MSET"};
    for (int i = 0; i < 200; ++i) {
        flood.push_back("p_mpls.mom_msg_ftn|flood" + std::to_string(i));
        flood.push_back("x");
    }
    usleep(1100 * 1000);
    redis(6, flood);
    const std::string decoded = refused_row("p_mpls.mom_msg_ftn", "decode", 203);
    for (int i = 0; i < 100 && dbg("show-refused").find(decoded) == std::string::npos; ++i) usleep(100 * 1000);
    usleep(1100 * 1000);
    const std::string junk = refused + "not-a-key reason:decode";
    const size_t junk_seen = e2e_occurrences(daemon_->log(), junk);
    redis(6, {"SET", kBadKey, "junk"});
    ASSERT_TRUE(wait_log(junk, static_cast<int>(junk_seen) + 1));
    EXPECT_NE(daemon_->log().find("more lines not logged in the last 1000 ms"), std::string::npos);
    EXPECT_LT(e2e_occurrences(daemon_->log(), "key:flood"), 50u);  // ten a second of 200
    const std::string table = dbg("show-refused");
    for (const std::string &row : {refused_row("p_mpls.mom_msg_ftn", "decode", 204),
                                   refused_row("p_mpls.mom_msg_ftn", "key", 2),
                                   refused_row("p_mpls.mom_msg_ftn", "type", 1),
                                   refused_row("u_mpls.udp_vc_ftn", "invalid", 1)})
        EXPECT_NE(table.find(row), std::string::npos) << row << " in\n" << table;

    // A good record after all of them: programmed, and nothing else is.
    load({e2e_ftn(1, "10.1.0.0", 16, 101, "192.0.2.1", {1001})});
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 1}, {&E2E_FTN_ADJ, 1}, {&E2E_VC_VIR_RT, 0}, {&E2E_VC_ADJ, 0},
                              {&E2E_ILM_VIR_RT, 0}, {&E2E_UDP_ILM, 0}, {&E2E_ILM_ADJ, 0}}));
    EXPECT_TRUE(daemon_->running());
}

}  // namespace
