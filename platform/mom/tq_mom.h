// The MOM record store, as the daemon and the table client see it.
//
// Every call takes `global`, the process context whose first word is the MOM
// client (tq_global_t). Records are protobuf-c messages; a table is named by
// its item message (see tq_mom_name.h for the naming shared by every process).
// Callbacks run on the event loop and get the same `global` back.
#pragma once
#include <cstdint>
#include <protobuf-c/protobuf-c.h>

enum {
    TQ_MOM_OK = 0,
    TQ_MOM_ERR_NOMEM = -2,
    TQ_MOM_ERR_PARAM = -4,
    TQ_MOM_ERR_NOT_FOUND = -7,
    TQ_MOM_ERR = -11,       // the store refused or failed the request
    TQ_MOM_ERR_CONN = -17,  // no connection to the store
};

// Notice commands.
enum {
    TQ_MOM_CMD_SET = 1,        // string record added or changed
    TQ_MOM_CMD_DEL = 3,        // record deleted or expired (key sub-message only)
    TQ_MOM_CMD_HSET = 4,       // hash record added or changed (value: tq_mom_hash_res_t)
    TQ_MOM_CMD_HSCAN = 6,      // hash record delivered by a scan (value: tq_mom_hash_res_t)
    TQ_MOM_CMD_SCAN = 24,      // string record delivered by a scan
    TQ_MOM_CMD_END = 29,       // end marker of a subscription or a data-sync step
    TQ_MOM_CMD_DRIFT = 30,     // a watched record was changed by another client (tq_mom_watch)
};

// Notice flags (sync markers).
enum {
    TQ_MOM_FLAG_NONE = 0,
    TQ_MOM_FLAG_SCAN_OVER = 1,
    TQ_MOM_FLAG_PEXPIRE_OVER = 2,
    TQ_MOM_FLAG_PEXPIREDEL_OVER = 3,
    TQ_MOM_FLAG_PEXPIREFIELD_OVER = 4,
    TQ_MOM_FLAG_DEL_OVER = 5,
};

// Subscription flag bits. 0 delivers only changes and the end marker.
enum { TQ_MOM_SUB_EXISTING = 0x1 };  // deliver the existing records before the marker

// Mode of scans and data-sync calls: 0 the whole table, 1 the owner slice named
// by the first key field of the template's key (its t_rt_owner).
enum { TQ_MOM_MODE_TABLE = 0, TQ_MOM_MODE_OWNER = 1 };

// Reconnect callback types.
enum { TQ_MOM_CONN_LOST = 1, TQ_MOM_CONN_BACK = 2 };

struct tq_mom_hash_res_t {
    ProtobufCMessage *value;
    uint32_t error_code;
};

struct tq_mom_msg_t {
    uint32_t cmd;
    uint32_t flag;
    void *value;  // the record; for hash notices a tq_mom_hash_res_t
    uint32_t error;
};

// The record of a notice belongs to the client and is freed after the callback.
typedef int (*tq_mom_msg_cb_t)(void *global, tq_mom_msg_t *msg, void *arg);
typedef int (*tq_mom_conn_cb_t)(void *global, void *arg);
typedef int (*tq_mom_reconn_cb_t)(void *global, uint32_t db, uint32_t type, void *arg);

int tq_mom_client_connect_sync(void *global, uint32_t db);
int tq_mom_client_connect(void *global, uint32_t db, tq_mom_conn_cb_t cb, void *arg);
int tq_mom_client_set_reconnect_cb(void *global, uint32_t db, tq_mom_reconn_cb_t cb, void *arg);

// Subscribes the table of `item`: changes arrive as cmd 1/3/4 notices, and the
// end marker (cmd 29, flag SCAN_OVER) once the subscription is in place.
int tq_mom_subscribe(void *global, uint32_t db, const ProtobufCMessage *item, uint32_t flags,
                     tq_mom_msg_cb_t cb, void *arg);
// Calls cb once per stored record of the table (or owner slice, mode 1), before
// it returns. Never delivers cmd 29.
int tq_mom_scan_sync(void *global, uint32_t db, const ProtobufCMessage *item, uint32_t mode,
                     tq_mom_msg_cb_t cb, void *arg);

// Data sync: begin marks every record of the table (or slice); the marks are
// kept in the client, never in the store, and go when the connection does
// (nothing expires). `expire` must be > 0 and is otherwise unused. While the
// sync is open every write or delete of a record clears its mark, and a write
// equal to the stored record (per field for a hash) does not rewrite it and
// gives no notice. End deletes the records still marked, then calls cb with
// cmd 29 and flag PEXPIREDEL_OVER (string) or PEXPIREFIELD_OVER (hash), and
// closes the sync. A begin on a table (or slice) already in a sync starts over.
int tq_mom_dsbegin_sync(void *global, uint32_t db, const ProtobufCMessage *item, uint32_t mode,
                        int32_t expire, uint32_t flags);
int tq_mom_dsend(void *global, uint32_t db, const ProtobufCMessage *item, uint32_t mode,
                 tq_mom_msg_cb_t cb, void *arg);

// Writes. `value` is one item message with its key sub-message filled; `num`
// is the number of records (1) and `flags` is reserved (0). The pipelined forms
// may batch while *opt is 0; any other value sends the write at once.
int tq_mom_set_ext(void *global, uint32_t db, const uint32_t *opt, const ProtobufCMessage *value,
                   uint32_t num, uint32_t flags);
int tq_mom_set_sync(void *global, uint32_t db, const ProtobufCMessage *value);
// Hash writes store every scalar, string, bytes and repeated field of value,
// zeros included; a null sub-message is not written and keeps what the record
// holds (see tq_mom_hash_write).
int tq_mom_hmset(void *global, uint32_t db, const ProtobufCMessage *value, uint32_t num,
                 uint32_t flags);
int tq_mom_hmset_sync(void *global, uint32_t db, const ProtobufCMessage *value);
// Deletes by the key of `value` (only its key sub-message is read).
int tq_mom_del(void *global, uint32_t db, const ProtobufCMessage *value, uint32_t num,
               uint32_t flags);
int tq_mom_del_sync(void *global, uint32_t db, const ProtobufCMessage *value);
// Publishes a message on the table's channel; it is not stored.
int tq_mom_publish(void *global, uint32_t db, const ProtobufCMessage *value, uint32_t num,
                   uint32_t flags);
// Reads the record with the key of `key` (an item message). On success *out
// holds a record to release with tq_mom_free; a missing record gives
// TQ_MOM_ERR_NOT_FOUND.
int tq_mom_get_sync(void *global, uint32_t db, const ProtobufCMessage *key, ProtobufCMessage **out);
void tq_mom_free(ProtobufCMessage *msg);

// Drift watch: calls cb with cmd 30 (TQ_MOM_CMD_DRIFT, flag 0) when another
// client changes, deletes or flushes a record of the table (or owner slice,
// mode 1); this client's own writes are not reported. value is the Redis key
// of the record as a const char * valid during the call, or null when the
// whole store may have changed (a flush). Keys carry no database number, so a
// change of the same key on another database is reported too, and notices may
// be merged: a notice means "re-read", never "this exact record". Watches stay
// in place across reconnections. TQ_MOM_ERR_PARAM when the client cannot watch.
int tq_mom_watch(void *global, uint32_t db, const ProtobufCMessage *item, uint32_t mode,
                 tq_mom_msg_cb_t cb, void *arg);

// ---- client implementations -------------------------------------------------
// A MOM client is a table of operations over its own state; the calls above
// dispatch through the client in the context's first word.
struct tq_mom_client_t;
struct tq_mom_ops_t {
    const char *name;
    int (*connect_sync)(tq_mom_client_t *c, void *global, uint32_t db);
    int (*connect)(tq_mom_client_t *c, void *global, uint32_t db, tq_mom_conn_cb_t cb, void *arg);
    int (*set_reconnect_cb)(tq_mom_client_t *c, void *global, uint32_t db, tq_mom_reconn_cb_t cb,
                            void *arg);
    int (*subscribe)(tq_mom_client_t *c, void *global, uint32_t db, const ProtobufCMessage *item,
                     uint32_t flags, tq_mom_msg_cb_t cb, void *arg);
    int (*scan)(tq_mom_client_t *c, void *global, uint32_t db, const ProtobufCMessage *item,
                uint32_t mode, tq_mom_msg_cb_t cb, void *arg);
    int (*dsbegin)(tq_mom_client_t *c, void *global, uint32_t db, const ProtobufCMessage *item,
                   uint32_t mode, int32_t expire, uint32_t flags);
    int (*dsend)(tq_mom_client_t *c, void *global, uint32_t db, const ProtobufCMessage *item,
                 uint32_t mode, tq_mom_msg_cb_t cb, void *arg);
    // is_sync: flush and wait for the reply; batch: may wait for the end of the loop turn.
    int (*set)(tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *value, bool is_sync,
               bool batch);
    int (*hmset)(tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *value, bool is_sync,
                 bool batch);
    int (*del)(tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *value, bool is_sync,
               bool batch);
    int (*publish)(tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *value);
    int (*get)(tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *key, ProtobufCMessage **out);
    void (*destroy)(tq_mom_client_t *c);
    // Optional: null when the client cannot watch (tq_mom_watch gives TQ_MOM_ERR_PARAM).
    int (*watch)(tq_mom_client_t *c, void *global, uint32_t db, const ProtobufCMessage *item,
                 uint32_t mode, tq_mom_msg_cb_t cb, void *arg);
};

struct tq_mom_client_t {
    const tq_mom_ops_t *ops;
};

// The Redis client (address from MOM_REDIS: "unix:/path" or "host:port",
// default 127.0.0.1:6379), driven by `master`.
tq_mom_client_t *tq_mom_redis_new(struct event_base *master);
void tq_mom_client_free(tq_mom_client_t *c);
