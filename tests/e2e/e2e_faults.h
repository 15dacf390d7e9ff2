// Faults around the daemon (kills, a lost store, dropped links, outputs changed
// behind its back) and what it must come back to: the state a fresh daemon
// reaches on the same inputs. Shared by the fault suite and scripts/faults.sh.
#pragma once
#include <map>
#include <set>

#include "e2e/e2e_env.h"

// What a daemon programmed, so that two runs compare equal when they installed
// the same forwarding state, whatever ids they numbered their adjacencies with.
struct e2e_state_t {
    // Record key (ids zeroed) -> record; a route carries the adjacency it names.
    std::map<std::string, std::string> recs;
    // A route with its adjacency minus TTL -> the MPLS id it uses.
    std::map<std::string, uint64_t> ids;
    std::string mem_cnt;               // "get-mem_cnt"
    std::map<std::string, long> nodes;  // the database sizes of "show-info"
    // Routes naming no adjacency, two adjacencies for one operation, records
    // with a TTL. (An adjacency no route names is compared as a record: a
    // fresh daemon keeps one for a next hop whose opcode is not installed.)
    std::vector<std::string> problems;
};
e2e_state_t e2e_capture(e2e_store_t &s);

struct e2e_diff_t {
    size_t lost = 0, stale = 0, wrong = 0;
    std::string text;  // the first differences, for a failure message
    bool same() const { return lost + stale + wrong == 0 && text.empty(); }
};
// Records, node counts and the memory count of got against want.
e2e_diff_t e2e_diff(const e2e_state_t &got, const e2e_state_t &want);
// Routes of before still there with the same adjacency but another id.
size_t e2e_ids_changed(const e2e_state_t &before, const e2e_state_t &after);

// The state a fresh daemon reaches on these inputs in a store of its own;
// kept per input set, so cases ending on the same inputs share one run.
const e2e_state_t &e2e_reference(const std::vector<json> &inputs);
// Waits for the daemon's data sync, then until its state is want's, or stays
// put for quiet_ms (0: until timeout_ms).
e2e_state_t e2e_settle(e2e_store_t &s, const e2e_state_t &want, int quiet_ms = 2000, int timeout_ms = 10000);

// The inputs: every kind of entry, an FTN over next hops of two opcodes,
// an ILM swapping to 100 or 200, ILMs into a VRF and a VC interface.
std::vector<json> e2e_base_inputs();
// n FTNs and n ILM swaps sharing n/10 label operations each.
std::vector<json> e2e_bulk_inputs(uint32_t n);
// A change of inputs: records deleted, then records written.
struct e2e_change_t {
    std::string name;
    std::vector<json> del, add;
};
std::vector<e2e_change_t> e2e_changes();
const e2e_change_t &e2e_change(const std::string &name);
std::vector<json> e2e_apply(std::vector<json> in, const e2e_change_t &c);
// Output tables, by Redis key.
bool e2e_is_output(int db, const std::string &key);
