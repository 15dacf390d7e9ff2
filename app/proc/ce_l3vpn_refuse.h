// Refused input: every record the daemon does not take (does not decode, key
// does not match, wrong type in the store, fails validation, over capacity,
// capability value out of range) is counted by table and reason and logged
// once at WARN with the table, the key text and the reason. The lines are
// rate-limited so that a flood of bad records cannot fill a disk; the counts
// are never limited.
#pragma once
#include <cstdint>
#include <string_view>

enum ce_refuse_reason_t {
    CE_REFUSE_DECODE = 0,  // the value does not decode as the table's record
    CE_REFUSE_KEY,         // the key does not parse, or names another record
    CE_REFUSE_TYPE,        // the store holds another type under the key
    CE_REFUSE_INVALID,     // the record fails validation
    CE_REFUSE_CAPACITY,    // over capacity: kept aside until there is room
    CE_REFUSE_VALUE,       // a capability value that does not parse or is out of range
    CE_REFUSE_NUM,
};

// Lines per window, then one line telling how many were not logged.
enum { CE_REFUSE_LOG_BURST = 10, CE_REFUSE_LOG_WINDOW_MS = 1000 };

// "decode", "key", "type", "invalid", "capacity", "value"; "unknown" past the end.
const char *ce_l3vpn_refuse_reason_name(uint32_t reason);

// Counts one refusal and logs it, limit permitting:
//   WARN "refused tbl:<table> key:<key> reason:<reason> <detail>"
void ce_l3vpn_refuse(std::string_view table, std::string_view key, ce_refuse_reason_t reason,
                     std::string_view detail);

// The same from a Redis key "T|<key text>" (or "T" for an unkeyed table).
void ce_l3vpn_refuse_redis_key(std::string_view redis_key, ce_refuse_reason_t reason,
                               std::string_view detail);

struct ce_msg_comm_t;

// The input record being handled (a protobuf-c message), so that refusals
// deeper down name its key; null when done. The text is made only on a refusal.
void ce_l3vpn_refuse_set_input(const void *wire);
// A refusal of the record being handled: its Redis key when one is set, else
// the entry the message describes ("in_label:4660 nhop:10.0.0.1 ifx:5").
void ce_l3vpn_refuse_msg(const ce_msg_comm_t *msg, ce_refuse_reason_t reason, const char *detail);
// A record that does not parse (rv from its parser): named by its Redis key
// and the check that failed.
void ce_l3vpn_refuse_record(const void *wire, int rv);
// The name of the check that failed last (set by CE_L3VPN_FAIL), for details.
const char *ce_l3vpn_refuse_last_check(void);
// The MOM client's report of a record it skipped (tq_redis_bad_cb_t).
void ce_l3vpn_refuse_mom_bad(const char *redis_key, uint32_t why, void *arg);

// Calls fn for every (table, reason) counted so far, in table then reason order.
typedef void (*ce_refuse_walk_fn)(const char *table, const char *reason, uint64_t count, void *arg);
void ce_l3vpn_refuse_walk(ce_refuse_walk_fn fn, void *arg);
uint64_t ce_l3vpn_refuse_count(std::string_view table, ce_refuse_reason_t reason);
uint64_t ce_l3vpn_refuse_total(void);
// Lines the limiter held back since the start.
uint64_t ce_l3vpn_refuse_unlogged(void);

// The "show-refused" output: one row per table and reason, then the total.
int ce_l3vpn_refuse_dump(void);
void ce_l3vpn_refuse_reset(void);
