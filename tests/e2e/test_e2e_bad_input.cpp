// Bad records in the store are refused one by one with a log line (and an
// error-statistics row where the daemon parses them); the daemon keeps
// running and a good record written afterwards is still programmed.
#include "e2e/e2e_env.h"

namespace {

const std::string kBadKey = "p_mpls.mom_msg_ftn|not-a-key";

using kv_t = std::pair<std::string, std::string>;

struct bad_case_t {
    const char *name;
    std::vector<kv_t> writes;  // SET in db 6 in order (a value "" deletes)
    std::string log;           // the refusal's log line (a part of it)
    const char *row;           // error-statistics row that counts it, or null
};

class e2e_bad_input_t : public e2e_env_t {
protected:
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
    // Count of an error-statistics row in "show-info", 0 when not shown.
    long row_count(const std::string &name) {
        std::vector<e2e_row_t> rows = e2e_err_rows(show_info(), name);
        return rows.empty() ? 0 : rows[0].count;
    }
};

TEST_F(e2e_bad_input_t, EachBadRecordIsRefusedAndTheDaemonGoesOn) {
    start(4);
    const auto [ftn_key, ftn_value] = packed(e2e_ftn(1, "10.9.0.0", 16, 101, "192.0.2.1", {1001}));
    const std::string ilm_value = packed(e2e_ilm(9001, "192.0.2.1", 101, {6001}, 3)).second;
    const std::string undecodable = "value of \"" + ftn_key + "\" does not decode, skipped";
    const std::string bad_key = "value of \"" + kBadKey + "\" key ";
    const bad_case_t cases[] = {
        {"garbage bytes", {{ftn_key, "\xff\xff\xff garbage"}}, undecodable, nullptr},
        {"an ILM under an FTN key", {{ftn_key, ilm_value}}, undecodable, nullptr},
        {"a key that does not parse", {{kBadKey, "junk"}, {kBadKey, ""}}, bad_key + "does not parse, skipped",
         nullptr},
        // A good record under a key that is not its own must not be programmed:
        // no delete could ever reach its outputs.
        {"a good record under a key not its own", {{kBadKey, ftn_value}},
         bad_key + "does not match its record, skipped", nullptr},
        {"1000 labels", {packed(e2e_vc_ftn(3001, "192.0.2.1", 101, std::vector<uint32_t>(1000, 16)))},
         "fail:SS_MPLS_CHECK_LABEL_DEPTH_VALID(n_label_stack) code:23 error depth 1000", "LABEL_DEPTH"},
        {"in-label above 20 bits", {packed(e2e_ilm(0x100000, "192.0.2.1", 101, {6001}, 3))},
         "fail:SS_MPLS_CHECK_LABEL_VALID(ilm->index->in_label) code:24 in_labels:1048576", "LABEL_INVALID"},
        {"FTN with SWAP", {packed(e2e_ftn(1, "10.9.0.0", 16, 101, "192.0.2.1", {1001}, 3))},
         "fail:mpls_is_opcode_with_ftn(data->opcode) code:26 3", "OPCODE"},
        {"FTN without next hop", {packed(e2e_ftn(1, "10.9.0.0", 16, 101, "0.0.0.0", {1001}))},
         "fail:mpls_is_ip_zero(&ftn->nhop.nh_ip, ftn->nhop.pro) == false && ftn->nhop.nh_ifx != 0 code:27 \n",
         "NHOP_EMPTY"},
    };
    for (const bad_case_t &c : cases) {
        SCOPED_TRACE(c.name);
        long before = c.row != nullptr ? row_count(c.row) : 0;
        size_t seen = e2e_occurrences(daemon_->log(), c.log);
        for (const auto &[key, value] : c.writes)
            redis(6, value.empty() ? std::vector<std::string>{"DEL", key}
                                   : std::vector<std::string>{"SET", key, value});
        EXPECT_TRUE(wait_log(c.log, static_cast<int>(seen) + 1)) << "no line: " << c.log;
        if (c.row != nullptr) {
            EXPECT_EQ(row_count(c.row), before + 1) << c.row;
        }
        ASSERT_TRUE(daemon_->running());
    }

    // A good record after all of them: programmed, and nothing else is.
    load({e2e_ftn(1, "10.1.0.0", 16, 101, "192.0.2.1", {1001})});
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 1}, {&E2E_FTN_ADJ, 1}, {&E2E_VC_VIR_RT, 0}, {&E2E_VC_ADJ, 0},
                              {&E2E_ILM_VIR_RT, 0}, {&E2E_UDP_ILM, 0}, {&E2E_ILM_ADJ, 0}}));
    EXPECT_TRUE(daemon_->running());
}

}  // namespace
