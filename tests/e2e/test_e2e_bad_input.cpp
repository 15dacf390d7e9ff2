// Bad records in the store are refused one by one with a log line (and an
// error-statistics row where the daemon parses them); the daemon keeps
// running and a good record written afterwards is still programmed.
#include "e2e/e2e_env.h"
#include "p_mpls.pb-c.h"
#include "u_mpls.pb-c.h"

namespace {

constexpr int kWaitMs = 10000;

struct bad_case_t {
    const char *name;
    std::vector<e2e_rec_t> (*records)();  // written in order (a value "" deletes)
    std::string log;                      // the refusal's log line (a part of it)
    const char *row;                      // error-statistics row that counts it, or null
};

std::string ftn_key() { return e2e_ftn({1, "10.9.0.0", 16, 101, "192.0.2.1", {1001}, 1}).key; }

std::vector<e2e_rec_t> garbage() { return {{6, ftn_key(), "\xff\xff\xff garbage"}}; }

std::vector<e2e_rec_t> wrong_type() {
    e2e_rec_t ilm = e2e_ilm({9001, "192.0.2.1", 101, {6001}, 3});
    return {{6, ftn_key(), ilm.value}};
}

std::vector<e2e_rec_t> unparsable_key() {
    return {{6, "p_mpls.mom_msg_ftn|not-a-key", "junk"}, {6, "p_mpls.mom_msg_ftn|not-a-key", ""}};
}

// A good record under a key that is not its own must not be programmed: no
// delete could ever reach its outputs.
std::vector<e2e_rec_t> good_record_bad_key() {
    return {{6, "p_mpls.mom_msg_ftn|not-a-key", e2e_ftn({1, "10.9.0.0", 16, 101, "192.0.2.1", {1001}, 1}).value}};
}

std::vector<e2e_rec_t> huge_label_stack() {
    return {e2e_vc_ftn({3001, "192.0.2.1", 101, std::vector<uint32_t>(1000, 16), 1, 0, 0, 0})};
}

std::vector<e2e_rec_t> in_label_too_big() { return {e2e_ilm({0x100000, "192.0.2.1", 101, {6001}, 3})}; }

std::vector<e2e_rec_t> ftn_swap() { return {e2e_ftn({1, "10.9.0.0", 16, 101, "192.0.2.1", {1001}, 3})}; }

std::vector<e2e_rec_t> ftn_no_next_hop() { return {e2e_ftn({1, "10.9.0.0", 16, 101, "0.0.0.0", {1001}, 1})}; }

std::vector<bad_case_t> bad_cases() {
    const std::string undecodable = "value of \"" + ftn_key() + "\" does not decode, skipped";
    return {
        {"garbage bytes", garbage, undecodable, nullptr},
        {"an ILM under an FTN key", wrong_type, undecodable, nullptr},
        {"a key that does not parse", unparsable_key,
         "value of \"p_mpls.mom_msg_ftn|not-a-key\" key does not parse, skipped", nullptr},
        {"a good record under a key not its own", good_record_bad_key,
         "value of \"p_mpls.mom_msg_ftn|not-a-key\" key does not match its record, skipped", nullptr},
        {"1000 labels", huge_label_stack,
         "fail:SS_MPLS_CHECK_LABEL_DEPTH_VALID(n_label_stack) code:23 error depth 1000", "LABEL_DEPTH"},
        {"in-label above 20 bits", in_label_too_big,
         "fail:SS_MPLS_CHECK_LABEL_VALID(ilm->index->in_label) code:24 in_labels:1048576", "LABEL_INVALID"},
        {"FTN with SWAP", ftn_swap, "fail:mpls_is_opcode_with_ftn(data->opcode) code:26 3", "OPCODE"},
        {"FTN without next hop", ftn_no_next_hop,
         "fail:mpls_is_ip_zero(&ftn->nhop.nh_ip, ftn->nhop.pro) == false && ftn->nhop.nh_ifx != 0 "
         "code:27 \n",
         "NHOP_EMPTY"},
    };
}

class e2e_bad_input_t : public e2e_env_t {
protected:
    // Count of an error-statistics row in "show-info", 0 when not shown.
    long row_count(const std::string &name) {
        std::vector<e2e_row_t> rows = e2e_err_rows(dbg("show-info is_clean:0 is_detail:0"), name);
        return rows.empty() ? 0 : rows[0].count;
    }
};

TEST_F(e2e_bad_input_t, EachBadRecordIsRefusedAndTheDaemonGoesOn) {
    start(4);
    for (const bad_case_t &c : bad_cases()) {
        SCOPED_TRACE(c.name);
        long before = c.row != nullptr ? row_count(c.row) : 0;
        size_t seen = occurrences(daemon_->log(), c.log);
        for (const e2e_rec_t &r : c.records()) {
            if (r.value.empty())
                redis_->del(r);
            else
                redis_->put(r);
        }
        EXPECT_TRUE(wait_log(c.log, static_cast<int>(seen) + 1, kWaitMs)) << "no line: " << c.log;
        if (c.row != nullptr) {
            EXPECT_EQ(row_count(c.row), before + 1) << c.row;
        }
        ASSERT_TRUE(daemon_->running());
    }

    // A good record after all of them: programmed, and nothing else is.
    redis_->put(e2e_ftn({1, "10.1.0.0", 16, 101, "192.0.2.1", {1001}, 1}));
    ASSERT_TRUE(wait_outputs({{&E2E_FTN_RT, 1}, {&E2E_FTN_ADJ, 1}, {&E2E_VC_VIR_RT, 0}, {&E2E_VC_ADJ, 0},
                              {&E2E_ILM_VIR_RT, 0}, {&E2E_UDP_ILM, 0}, {&E2E_ILM_ADJ, 0}},
                             kWaitMs));
    EXPECT_TRUE(daemon_->running());
}

}  // namespace
