// In-memory MOM: the same records, keys, notices and data sync as the Redis
// client, without a server. The operator tool runs the daemon on a copy of the
// store with it (l3vpn-ctl verify); the tests run the table client and the
// daemon on it. Notices wait in a queue until the test calls
// mom_mem_dispatch_all(), so a write made from inside a callback never recurses.
// Set and hset notices read the record when delivered (a record gone by then
// delivers nothing, its delete follows); deletes and expiries carry the record
// rebuilt from its key. Data sync as on Redis: tq_mom_dsbegin_sync keeps the
// slice's keys as marks in the client; a write or delete clears a key's mark,
// and inside the sync a write equal to the stored record changes nothing and
// gives no notice; a lost connection drops the marks of its db. tq_mom_dsend
// queues the deletes of the keys still marked, then its own cmd 29:
// PEXPIREFIELD_OVER once the table has held a hash record on that database,
// PEXPIREDEL_OVER otherwise. Hash writes store what tq_mom_hash_write gives.
// Scans call back before they return.
//
//   tq_mom_client_t *mom = mom_mem_new();
//   tq_global_t ctx = mom_mem_ctx(mom);           // pass &ctx as `global`
//   tq_mom_subscribe(&ctx, 6, item, 0, cb, arg);
//   mom_mem_dispatch_all(mom);                    // delivers the end marker
//   ...
//   mom_mem_free(mom);
#pragma once
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/mom/tq_mom.h"
#include "platform/runtime/tq_global.h"

// Operations that can be counted and made to fail.
enum mom_mem_op_t {
    MOM_MEM_OP_CONNECT_SYNC,
    MOM_MEM_OP_CONNECT,
    MOM_MEM_OP_RECONNECT_CB,
    MOM_MEM_OP_SUBSCRIBE,
    MOM_MEM_OP_SCAN,
    MOM_MEM_OP_DSBEGIN,
    MOM_MEM_OP_DSEND,
    MOM_MEM_OP_SET,
    MOM_MEM_OP_HMSET,
    MOM_MEM_OP_DEL,
    MOM_MEM_OP_PUBLISH,
    MOM_MEM_OP_GET,
    MOM_MEM_OP_COUNT,
};

// A record as Redis holds it: a packed message, or a hash of packed fields.
enum { MOM_MEM_REC_STRING = 1, MOM_MEM_REC_HASH = 2 };
struct mom_mem_rec_t {
    int type = 0;
    std::string bytes;                          // string record
    std::map<std::string, std::string> fields;  // hash record: field name -> packed field
};
using mom_mem_db_t = std::map<std::string, mom_mem_rec_t, std::less<>>;

struct mom_mem_msg_deleter_t {
    void operator()(ProtobufCMessage *m) const { tq_mom_free(m); }
};
using mom_mem_msg_ptr = std::unique_ptr<ProtobufCMessage, mom_mem_msg_deleter_t>;

tq_mom_client_t *mom_mem_new();
void mom_mem_free(tq_mom_client_t *c);  // same as tq_mom_client_free
// A context around the client: {c, no loop, no name}.
tq_global_t mom_mem_ctx(tq_mom_client_t *c);

// Delivers queued notices until the queue stays empty; returns how many
// callbacks ran.
int mom_mem_dispatch_all(tq_mom_client_t *c);

// The next n calls of op return code (a negative TQ_MOM_ERR_* usually) and do nothing.
void mom_mem_fail_next(tq_mom_client_t *c, mom_mem_op_t op, uint32_t n, int code);

// Connection of a database: lost calls its reconnect callback with type 1 and
// makes every call on that db return TQ_MOM_ERR_CONN until back (type 2).
void mom_mem_conn_lost(tq_mom_client_t *c, uint32_t db);
void mom_mem_conn_back(tq_mom_client_t *c, uint32_t db);
// Reads a record back decoded: key_text as in the Redis key after "T|" ("" for
// an unkeyed table). Null when there is none.
mom_mem_msg_ptr mom_mem_get(tq_mom_client_t *c, uint32_t db,
                            const ProtobufCMessageDescriptor *item_desc,
                            std::string_view key_text);
// Stores a record under its Redis key as it is, with no notice and no mark: a
// record the store held before the process started.
void mom_mem_put(tq_mom_client_t *c, uint32_t db, const std::string &key, mom_mem_rec_t rec);
// Every record of a database by Redis key.
const mom_mem_db_t &mom_mem_records(tq_mom_client_t *c, uint32_t db);
// Redis keys of a database, sorted.
std::vector<std::string> mom_mem_keys(tq_mom_client_t *c, uint32_t db);
// Subscriptions of a table on db.
size_t mom_mem_sub_count(tq_mom_client_t *c, uint32_t db,
                         const ProtobufCMessageDescriptor *item_desc);

// Calls of op so far, refused ones included.
uint32_t mom_mem_op_count(tq_mom_client_t *c, mom_mem_op_t op);
// Drops records, subscriptions, queued notices, failures, connection state and counts.
void mom_mem_clear(tq_mom_client_t *c);
