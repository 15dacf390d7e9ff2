// Inside the Redis MOM client: its state, shared by the command side
// (tq_mom_redis.cpp) and the subscriber side (tq_mom_redis_sub.cpp).
#pragma once
#include <hiredis/hiredis.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/mom/tq_mom.h"
#include "platform/mom/tq_mom_redis.h"

struct event;
struct redisAsyncContext;
struct tq_mom_redis_t;

struct tq_redis_reply_free_t {
    void operator()(redisReply *r) const { freeReplyObject(r); }
};
using tq_redis_reply_t = std::unique_ptr<redisReply, tq_redis_reply_free_t>;

// One command as words (binary safe).
using tq_redis_cmd_t = std::vector<std::string>;

// A subscribed table.
struct tq_redis_sub_t {
    uint32_t db;
    const ProtobufCMessageDescriptor *desc;
    uint32_t flags;
    tq_mom_msg_cb_t cb;
    void *arg;
    void *global;
    std::string keyspace;  // pattern (keyed table) or channel (unkeyed)
    std::string prefix;    // channel text before the record key
    std::string channel;   // publish channel
    int confirmed;         // confirmations since the last (re)subscribe
    bool ended;            // end marker delivered
};

// A keyspace event or published message waiting to be delivered.
struct tq_redis_note_t {
    tq_redis_sub_t *sub;
    int kind;           // TQ_REDIS_NOTE_*
    std::string text;   // record key, or the published bytes
};
enum {
    TQ_REDIS_NOTE_SET,   // read the record, deliver cmd 1 (or 4 for a hash)
    TQ_REDIS_NOTE_HSET,  // read the hash, deliver cmd 4
    TQ_REDIS_NOTE_DEL,   // deleted or expired: cmd 3 with the key alone
    TQ_REDIS_NOTE_PUB,   // published message: cmd 1
    TQ_REDIS_NOTE_END,   // subscription confirmed: end marker
};

struct tq_redis_reconn_t {
    tq_mom_reconn_cb_t cb;
    void *arg;
    void *global;
};

struct tq_redis_conn_cb_t {
    uint32_t db;
    tq_mom_conn_cb_t cb;
    void *global;
    void *arg;
};

// Link state: NEVER before the first connection; UP while both connections
// stand; DOWN after a loss (reported) or a first connection that failed (not
// reported), retried every second; BACK while a new subscriber connection
// re-subscribes.
enum { TQ_REDIS_NEVER, TQ_REDIS_UP, TQ_REDIS_DOWN, TQ_REDIS_BACK };

// The keys a data sync or a drift watch covers: those of a table or of an
// owner slice ("T|", "T|<owner>|"), or the one key of an unkeyed table ("T").
struct tq_redis_scope_t {
    std::string prefix;
    bool exact;  // unkeyed: the key is the prefix itself
    bool holds(std::string_view key) const { return exact ? key == prefix : key.starts_with(prefix); }
    bool operator==(const tq_redis_scope_t &) const = default;
};
tq_redis_scope_t tq_redis_scope(const ProtobufCMessage *item, uint32_t mode);

struct tq_mom_redis_t : tq_mom_client_t {
    struct event_base *master = nullptr;
    tq_redis_addr_t addr{};
    int state = TQ_REDIS_NEVER;

    // command connection
    redisContext *cmd = nullptr;
    int cur_db = -1;       // database selected on it, -1 unknown
    uint32_t owed = 0;     // replies of pipelined writes not read yet
    struct event *flush_ev = nullptr;

    // subscriber connection
    redisAsyncContext *sub = nullptr;
    int awaiting = 0;          // confirmations before the link is back
    std::vector<std::unique_ptr<tq_redis_sub_t>> subs;
    std::vector<tq_redis_note_t> notes;
    struct event *note_ev = nullptr;

    std::map<uint32_t, tq_redis_reconn_t> reconns;
    std::vector<tq_redis_conn_cb_t> conn_cbs;
    struct event *conn_ev = nullptr;
    struct event *link_ev = nullptr;  // reports link changes from the loop
    struct event *retry_ev = nullptr;
    bool lost_report = false;  // a loss of an up link waits to be reported
    bool back_report = false;  // so does its return

    uint64_t bad_values = 0;
    tq_redis_bad_cb_t bad_cb = nullptr;
    void *bad_arg = nullptr;
    uint64_t reconnects = 0;
    uint64_t write_errors = 0;
    uint64_t commands = 0;

    // ---- drift watches (tq_mom_redis_sub.cpp) ----
    // Client tracking in broadcast mode on the command connection, redirected
    // to the subscriber connection; both ids change on every reconnection.
    struct watch_t {
        uint32_t db;
        tq_redis_scope_t scope;
        tq_mom_msg_cb_t cb;
        void *arg;
        void *global;
    };
    std::vector<watch_t> watches;
    long long sub_id = 0;          // CLIENT ID of the subscriber connection, 0 unknown
    bool tracking = false;         // tracking is on for the current connections
    std::vector<std::string> drifts;  // invalidated keys waiting for delivery
    bool drift_all = false;           // a flush: every watch is told

    // ---- data sync (tq_mom_redis.cpp) ----
    // The marks of an open data sync live here and never in the store: a lost
    // connection drops them, and nothing is left behind to expire.
    struct sync_t {
        uint32_t db;
        tq_redis_scope_t scope;
        bool hash;           // the table held hash records when the sync began
        std::unordered_set<std::string> marks;  // keys not written since
    };
    std::vector<sync_t> syncs;
    // Tables this client has written hash records to, for the end marker's flag.
    std::set<std::pair<uint32_t, const ProtobufCMessageDescriptor *>> hash_tables;
    // The compare-and-set script of writes inside a sync, loaded per connection.
    std::string cas_sha;
    bool cas_loaded = false;
    // Pipelined replies by number, so that a compare-and-set refused with
    // NOSCRIPT (script cache flushed) can be sent again once reloaded.
    struct cas_owed_t {
        uint64_t seq;
        uint32_t db;
        std::vector<std::string> cmd;
    };
    std::deque<cas_owed_t> cas_owed;
    // Keys a compare-and-set changed: Redis reports writes made inside a script
    // to the drift watch even with NOLOOP, so their reports are this client's own.
    std::unordered_set<std::string> self_changed;
    uint64_t replies_sent = 0, replies_read = 0;
};

enum {
    TQ_REDIS_BATCH = 512,         // pipelined commands before a flush mid-turn
    TQ_REDIS_FETCH_CHUNK = 1000,  // values read per pipeline by scans
    TQ_REDIS_TIMEOUT_MS = 10000,  // connect and I/O timeout of the command connection
};

inline tq_mom_redis_t *tq_redis_of(tq_mom_client_t *c) { return static_cast<tq_mom_redis_t *>(c); }

// ---- command side (tq_mom_redis.cpp) ----------------------------------------
// Opens the command connection and enables notices. 0 or TQ_MOM_ERR_CONN.
int tq_redis_cmd_open(tq_mom_redis_t *r);
// Runs commands on db in one round trip after what is pending; the replies
// in order. TQ_MOM_ERR_CONN when the connection fails.
int tq_redis_cmd_run(tq_mom_redis_t *r, uint32_t db, const std::vector<tq_redis_cmd_t> &cmds,
                     std::vector<tq_redis_reply_t> &replies);
// Reads the records under keys (strings and hashes) in pipelined round trips;
// out[i] is null when keys[i] holds nothing or a bad value.
struct tq_redis_record_t {
    ProtobufCMessage *msg;
    bool hash;
};
int tq_redis_fetch(tq_mom_redis_t *r, uint32_t db, const ProtobufCMessageDescriptor *desc,
                   const std::vector<std::string> &keys, std::vector<tq_redis_record_t> &out);
// Scans the table (or slice) and calls cb per record, as cmd 24 or 6.
int tq_redis_scan_deliver(tq_mom_redis_t *r, void *global, uint32_t db,
                          const ProtobufCMessage *item, const ProtobufCMessageDescriptor *desc,
                          uint32_t mode, tq_mom_msg_cb_t cb, void *arg);
// Delivers one record to cb (string or hash notice) and frees it.
void tq_redis_deliver(void *global, tq_mom_msg_cb_t cb, void *arg, uint32_t cmd,
                      ProtobufCMessage *msg, bool hash);
void tq_redis_count_bad(tq_mom_redis_t *r, const std::string &key, uint32_t why);

// ---- subscriber side and the link (tq_mom_redis_sub.cpp) --------------------
// Creates the link and retry events.
int tq_redis_link_init(tq_mom_redis_t *r);
int tq_redis_sub_open(tq_mom_redis_t *r);
void tq_redis_sub_close(tq_mom_redis_t *r);
int tq_redis_subscribe(tq_mom_redis_t *r, void *global, uint32_t db, const ProtobufCMessage *item,
                       uint32_t flags, tq_mom_msg_cb_t cb, void *arg);
// A connection failed: drops the command connection and reports on the loop.
void tq_redis_link_lost(tq_mom_redis_t *r, const char *why);
// Starts the one-second retries after a first connection that failed.
void tq_redis_link_retry(tq_mom_redis_t *r);
void tq_redis_notes_run(tq_mom_redis_t *r);
// The ops entry of tq_mom_watch.
int tq_redis_watch(tq_mom_client_t *c, void *global, uint32_t db, const ProtobufCMessage *item,
                   uint32_t mode, tq_mom_msg_cb_t cb, void *arg);
