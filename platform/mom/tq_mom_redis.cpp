// The MOM on Redis, command side: one blocking connection carries every read
// and write in order. Writes are pipelined and flushed when the loop turn ends
// or a batch fills; a synchronous call first drains what is pending.
#include <event2/event.h>
#include <hiredis/hiredis.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <unordered_set>

#include "platform/mom/tq_mom_name.h"
#include "platform/mom/tq_mom_redis_int.h"

namespace {

constexpr const char *NOTICE_CLASSES = "K$hgx";

// Marks every key of the table (or slice) to expire: ARGV pattern, milliseconds.
constexpr const char *DS_BEGIN_LUA =
    "local keys = redis.call('KEYS', ARGV[1])\n"
    "for i = 1, #keys do redis.call('PEXPIRE', keys[i], ARGV[2]) end\n"
    "return #keys\n";

// Deletes what still carries a mark; returns {deleted, table holds hashes}.
constexpr const char *DS_END_LUA =
    "local keys = redis.call('KEYS', ARGV[1])\n"
    "local n, hash = 0, 0\n"
    "for i = 1, #keys do\n"
    "  local k = keys[i]\n"
    "  if hash == 0 and redis.call('TYPE', k)['ok'] == 'hash' then hash = 1 end\n"
    "  if redis.call('PTTL', k) > 0 then redis.call('DEL', k); n = n + 1 end\n"
    "end\n"
    "return {n, hash}\n";

std::string_view reply_str(const redisReply *r) {
    return r->str == nullptr ? std::string_view() : std::string_view(r->str, r->len);
}

bool is_wrongtype(const redisReply *r) {
    return r->type == REDIS_REPLY_ERROR && reply_str(r).starts_with("WRONGTYPE");
}

// ---- the connection ---------------------------------------------------------

bool append(tq_mom_redis_t *r, const tq_redis_cmd_t &cmd) {
    std::vector<const char *> argv;
    std::vector<size_t> lens;
    argv.reserve(cmd.size());
    lens.reserve(cmd.size());
    for (const std::string &w : cmd) {
        argv.push_back(w.data());
        lens.push_back(w.size());
    }
    if (redisAppendCommandArgv(r->cmd, static_cast<int>(argv.size()), argv.data(), lens.data()) !=
        REDIS_OK) {
        tq_redis_link_lost(r, "cannot queue a command");
        return false;
    }
    ++r->commands;
    return true;
}

int flush(tq_mom_redis_t *r) {
    int done = 0;
    while (r->cmd != nullptr && done == 0)
        if (redisBufferWrite(r->cmd, &done) != REDIS_OK) tq_redis_link_lost(r, "write failed");
    return r->cmd != nullptr ? TQ_MOM_OK : TQ_MOM_ERR_CONN;
}

tq_redis_reply_t read_reply(tq_mom_redis_t *r) {
    void *p = nullptr;
    if (redisGetReply(r->cmd, &p) != REDIS_OK || p == nullptr) {
        if (p != nullptr) freeReplyObject(p);
        tq_redis_link_lost(r, "read failed");
        return nullptr;
    }
    return tq_redis_reply_t(static_cast<redisReply *>(p));
}

// Sends what is queued and reads the replies owed to pipelined writes.
int drain(tq_mom_redis_t *r) {
    if (flush(r) != TQ_MOM_OK) return TQ_MOM_ERR_CONN;
    for (; r->owed > 0; --r->owed) {
        tq_redis_reply_t rep = read_reply(r);
        if (rep == nullptr) return TQ_MOM_ERR_CONN;
        if (rep->type == REDIS_REPLY_ERROR) {
            ++r->write_errors;
            fprintf(stderr, "tq_mom_redis: write refused: %.*s\n", static_cast<int>(rep->len),
                    rep->str);
        }
    }
    return TQ_MOM_OK;
}

// Queues a SELECT when db is not the connection's database (its reply is owed).
bool select_db(tq_mom_redis_t *r, uint32_t db) {
    if (r->cur_db == static_cast<int>(db)) return true;
    if (!append(r, {"SELECT", std::to_string(db)})) return false;
    ++r->owed;
    r->cur_db = static_cast<int>(db);
    return true;
}

void flush_cb(evutil_socket_t, short, void *p) {
    auto *r = static_cast<tq_mom_redis_t *>(p);
    if (r->cmd != nullptr) drain(r);
}

// A pipelined write: sent at once unless it may wait for the end of the turn.
int write_async(tq_mom_redis_t *r, uint32_t db, const std::vector<tq_redis_cmd_t> &cmds,
                bool batch) {
    if (r->cmd == nullptr || !select_db(r, db)) return TQ_MOM_ERR_CONN;
    for (const tq_redis_cmd_t &c : cmds) {
        if (!append(r, c)) return TQ_MOM_ERR_CONN;
        ++r->owed;
    }
    event_active(r->flush_ev, EV_TIMEOUT, 0);
    if (!batch && flush(r) != TQ_MOM_OK) return TQ_MOM_ERR_CONN;
    if (r->owed >= TQ_REDIS_BATCH) return drain(r);
    return TQ_MOM_OK;
}

int write_sync(tq_mom_redis_t *r, uint32_t db, const std::vector<tq_redis_cmd_t> &cmds) {
    std::vector<tq_redis_reply_t> replies;
    int rv = tq_redis_cmd_run(r, db, cmds, replies);
    if (rv != TQ_MOM_OK) return rv;
    for (const tq_redis_reply_t &rep : replies)
        if (rep->type == REDIS_REPLY_ERROR) {
            fprintf(stderr, "tq_mom_redis: write refused: %.*s\n", static_cast<int>(rep->len),
                    rep->str);
            return TQ_MOM_ERR;
        }
    return TQ_MOM_OK;
}

int write_cmds(tq_mom_redis_t *r, uint32_t db, const std::vector<tq_redis_cmd_t> &cmds,
               bool is_sync, bool batch) {
    return is_sync ? write_sync(r, db, cmds) : write_async(r, db, cmds, batch);
}

// ---- decoding ---------------------------------------------------------------

// A record is delivered only under its own key: a key text that does not
// parse, or that names another record, would leave outputs no delete can reach.
ProtobufCMessage *own_key_only(tq_mom_redis_t *r, const std::string &key, ProtobufCMessage *msg) {
    std::string own;
    if (msg == nullptr || (tq_mom_record_key(msg, own) == 0 && own == key)) return msg;
    tq_redis_count_bad(r, key, "key does not match its record");
    tq_mom_free(msg);
    return nullptr;
}

ProtobufCMessage *decode_string(tq_mom_redis_t *r, const ProtobufCMessageDescriptor *desc,
                                const std::string &key, const redisReply *rep) {
    ProtobufCMessage *msg = tq_mom_unpack(desc, reply_str(rep));
    if (msg == nullptr) tq_redis_count_bad(r, key, "does not decode");
    return own_key_only(r, key, msg);
}

// An HGETALL reply: null for an empty hash (the record is gone) or a bad one.
ProtobufCMessage *decode_hash(tq_mom_redis_t *r, const ProtobufCMessageDescriptor *desc,
                              const std::string &key, const redisReply *rep) {
    if (rep->type != REDIS_REPLY_ARRAY || rep->elements == 0) return nullptr;
    std::vector<std::pair<std::string, std::string>> fields;
    for (size_t i = 0; i + 1 < rep->elements; i += 2)
        fields.emplace_back(reply_str(rep->element[i]), reply_str(rep->element[i + 1]));
    ProtobufCMessage *msg = tq_mom_hash_unpack(desc, fields);
    if (msg == nullptr) tq_redis_count_bad(r, key, "hash does not decode");
    return own_key_only(r, key, msg);
}

int fetch_chunk(tq_mom_redis_t *r, uint32_t db, const ProtobufCMessageDescriptor *desc,
                const std::string *keys, size_t n, tq_redis_record_t *out) {
    std::vector<tq_redis_cmd_t> gets;
    for (size_t i = 0; i < n; ++i) gets.push_back({"GET", keys[i]});
    std::vector<tq_redis_reply_t> replies;
    int rv = tq_redis_cmd_run(r, db, gets, replies);
    if (rv != TQ_MOM_OK) return rv;
    std::vector<size_t> hashes;
    for (size_t i = 0; i < n; ++i) {
        const redisReply *rep = replies[i].get();
        out[i] = {nullptr, false};
        if (rep->type == REDIS_REPLY_STRING) out[i].msg = decode_string(r, desc, keys[i], rep);
        else if (is_wrongtype(rep)) hashes.push_back(i);
    }
    if (hashes.empty()) return TQ_MOM_OK;
    std::vector<tq_redis_cmd_t> hgets;
    for (size_t i : hashes) hgets.push_back({"HGETALL", keys[i]});
    rv = tq_redis_cmd_run(r, db, hgets, replies);
    if (rv != TQ_MOM_OK) return rv;
    for (size_t j = 0; j < hashes.size(); ++j) {
        size_t i = hashes[j];
        out[i] = {decode_hash(r, desc, keys[i], replies[j].get()), true};
    }
    return TQ_MOM_OK;
}

// ---- tables and slices ------------------------------------------------------

// The glob of a table's keys (or of an owner slice); the exact key of an unkeyed table.
std::string table_glob(const ProtobufCMessage *item, uint32_t mode) {
    if (tq_mom_key_desc(item->descriptor) == nullptr)
        return tq_redis_glob_escape(tq_mom_table_name(item->descriptor));
    return tq_redis_glob_escape(tq_mom_table_prefix(item, mode == TQ_MOM_MODE_OWNER)) + "*";
}

// Every key matching glob, each once (SCAN may repeat a key).
int scan_keys(tq_mom_redis_t *r, uint32_t db, const std::string &glob,
              std::vector<std::string> &keys) {
    std::unordered_set<std::string> seen;
    std::string cursor = "0";
    do {
        std::vector<tq_redis_reply_t> replies;
        int rv = tq_redis_cmd_run(r, db, {{"SCAN", cursor, "MATCH", glob, "COUNT", "1000"}},
                                  replies);
        if (rv != TQ_MOM_OK) return rv;
        const redisReply *rep = replies[0].get();
        if (rep->type != REDIS_REPLY_ARRAY || rep->elements != 2) return TQ_MOM_ERR;
        cursor = reply_str(rep->element[0]);
        const redisReply *batch = rep->element[1];
        for (size_t i = 0; i < batch->elements; ++i) {
            std::string key(reply_str(batch->element[i]));
            if (seen.insert(key).second) keys.push_back(std::move(key));
        }
    } while (cursor != "0");
    return TQ_MOM_OK;
}

// An empty item of a descriptor, for the naming calls that want a template.
struct item_buf_t {
    std::vector<char> mem;
    explicit item_buf_t(const ProtobufCMessageDescriptor *desc) : mem(desc->sizeof_message) {
        protobuf_c_message_init(desc, mem.data());
    }
    const ProtobufCMessage *get() const {
        return reinterpret_cast<const ProtobufCMessage *>(mem.data());
    }
};

int run_script(tq_mom_redis_t *r, uint32_t db, const char *lua,
               const std::vector<std::string> &args, tq_redis_reply_t &out) {
    tq_redis_cmd_t cmd = {"EVAL", lua, "0"};
    cmd.insert(cmd.end(), args.begin(), args.end());
    std::vector<tq_redis_reply_t> replies;
    int rv = tq_redis_cmd_run(r, db, {cmd}, replies);
    if (rv != TQ_MOM_OK) return rv;
    out = std::move(replies[0]);
    if (out->type != REDIS_REPLY_ERROR) return TQ_MOM_OK;
    fprintf(stderr, "tq_mom_redis: data-sync script failed: %.*s\n", static_cast<int>(out->len),
            out->str);
    return TQ_MOM_ERR;
}

// ---- operations -------------------------------------------------------------

int op_connect_sync(tq_mom_client_t *c, void *, uint32_t) {
    tq_mom_redis_t *r = tq_redis_of(c);
    if (r->state == TQ_REDIS_UP) return TQ_MOM_OK;
    if (r->state != TQ_REDIS_NEVER) return TQ_MOM_ERR_CONN;
    if (tq_redis_cmd_open(r) != TQ_MOM_OK || tq_redis_sub_open(r) != TQ_MOM_OK) {
        tq_redis_link_retry(r);
        return TQ_MOM_ERR_CONN;
    }
    r->state = TQ_REDIS_UP;
    return TQ_MOM_OK;
}

void conn_cb(evutil_socket_t, short, void *p) {
    auto *r = static_cast<tq_mom_redis_t *>(p);
    std::vector<tq_redis_conn_cb_t> cbs;
    cbs.swap(r->conn_cbs);
    for (const tq_redis_conn_cb_t &cb : cbs) cb.cb(cb.global, cb.arg);
}

int op_connect(tq_mom_client_t *c, void *global, uint32_t db, tq_mom_conn_cb_t cb, void *arg) {
    tq_mom_redis_t *r = tq_redis_of(c);
    if (r->state != TQ_REDIS_UP) return TQ_MOM_ERR_CONN;
    if (cb == nullptr) return TQ_MOM_OK;
    r->conn_cbs.push_back({db, cb, global, arg});
    struct timeval now = {0, 0};
    evtimer_add(r->conn_ev, &now);
    return TQ_MOM_OK;
}

int op_set_reconnect_cb(tq_mom_client_t *c, void *global, uint32_t db, tq_mom_reconn_cb_t cb,
                        void *arg) {
    tq_mom_redis_t *r = tq_redis_of(c);
    if (cb == nullptr) r->reconns.erase(db);
    else r->reconns[db] = {cb, arg, global};
    return TQ_MOM_OK;
}

int op_subscribe(tq_mom_client_t *c, void *global, uint32_t db, const ProtobufCMessage *item,
                 uint32_t flags, tq_mom_msg_cb_t cb, void *arg) {
    return tq_redis_subscribe(tq_redis_of(c), global, db, item, flags, cb, arg);
}

int op_scan(tq_mom_client_t *c, void *global, uint32_t db, const ProtobufCMessage *item,
            uint32_t mode, tq_mom_msg_cb_t cb, void *arg) {
    return tq_redis_scan_deliver(tq_redis_of(c), global, db, item, item->descriptor, mode, cb, arg);
}

int op_dsbegin(tq_mom_client_t *c, void *, uint32_t db, const ProtobufCMessage *item,
               uint32_t mode, int32_t expire, uint32_t) {
    if (mode > TQ_MOM_MODE_OWNER || expire <= 0) return TQ_MOM_ERR_PARAM;
    tq_redis_reply_t rep;
    std::string ms = std::to_string(static_cast<int64_t>(expire) * 1000);
    return run_script(tq_redis_of(c), db, DS_BEGIN_LUA, {table_glob(item, mode), ms}, rep);
}

int op_dsend(tq_mom_client_t *c, void *global, uint32_t db, const ProtobufCMessage *item,
             uint32_t mode, tq_mom_msg_cb_t cb, void *arg) {
    if (mode > TQ_MOM_MODE_OWNER) return TQ_MOM_ERR_PARAM;
    tq_redis_reply_t rep;
    int rv = run_script(tq_redis_of(c), db, DS_END_LUA, {table_glob(item, mode)}, rep);
    if (rv != TQ_MOM_OK) return rv;
    if (rep->type != REDIS_REPLY_ARRAY || rep->elements != 2) return TQ_MOM_ERR;
    bool hash = rep->element[1]->integer != 0;
    if (cb != nullptr) {
        tq_mom_msg_t msg = {TQ_MOM_CMD_END,
                            hash ? TQ_MOM_FLAG_PEXPIREFIELD_OVER : TQ_MOM_FLAG_PEXPIREDEL_OVER,
                            nullptr, TQ_MOM_OK};
        cb(global, &msg, arg);
    }
    return TQ_MOM_OK;
}

int op_set(tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *value, bool is_sync,
           bool batch) {
    std::string key, bytes;
    if (tq_mom_record_key(value, key) != 0 || tq_mom_pack(value, bytes) != 0)
        return TQ_MOM_ERR_PARAM;
    return write_cmds(tq_redis_of(c), db, {{"SET", key, bytes}}, is_sync, batch);
}

// Every field, then PERSIST: a hash write clears the data-sync mark too.
int op_hmset(tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *value, bool is_sync,
             bool batch) {
    std::string key;
    std::vector<std::pair<std::string, std::string>> fields;
    if (tq_mom_record_key(value, key) != 0 || tq_mom_hash_fields(value, fields) != 0)
        return TQ_MOM_ERR_PARAM;
    if (fields.empty()) return TQ_MOM_OK;  // nothing to store: Redis has no empty hash
    tq_redis_cmd_t hset = {"HSET", key};
    for (auto &[name, bytes] : fields) {
        hset.push_back(std::move(name));
        hset.push_back(std::move(bytes));
    }
    return write_cmds(tq_redis_of(c), db, {hset, {"PERSIST", key}}, is_sync, batch);
}

int op_del(tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *value, bool is_sync,
           bool batch) {
    std::string key;
    if (tq_mom_record_key(value, key) != 0) return TQ_MOM_ERR_PARAM;
    return write_cmds(tq_redis_of(c), db, {{"DEL", key}}, is_sync, batch);
}

int op_publish(tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *value) {
    std::string bytes;
    if (tq_mom_pack(value, bytes) != 0) return TQ_MOM_ERR_PARAM;
    return write_cmds(tq_redis_of(c), db,
                      {{"PUBLISH", tq_mom_channel(db, value->descriptor), bytes}}, false, true);
}

int op_get(tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *key_item,
           ProtobufCMessage **out) {
    std::string key;
    if (tq_mom_record_key(key_item, key) != 0) return TQ_MOM_ERR_PARAM;
    std::vector<tq_redis_record_t> recs;
    int rv = tq_redis_fetch(tq_redis_of(c), db, key_item->descriptor, {key}, recs);
    if (rv != TQ_MOM_OK) return rv;
    *out = recs[0].msg;
    return *out != nullptr ? TQ_MOM_OK : TQ_MOM_ERR_NOT_FOUND;
}

void op_destroy(tq_mom_client_t *c) {
    tq_mom_redis_t *r = tq_redis_of(c);
    if (r->cmd != nullptr) drain(r);
    tq_redis_sub_close(r);
    for (struct event *ev : {r->flush_ev, r->note_ev, r->conn_ev, r->link_ev, r->retry_ev})
        if (ev != nullptr) event_free(ev);
    if (r->cmd != nullptr) redisFree(r->cmd);
    delete r;
}

const tq_mom_ops_t REDIS_OPS = {
    "redis",   op_connect_sync, op_connect, op_set_reconnect_cb, op_subscribe,
    op_scan,   op_dsbegin,      op_dsend,   op_set,              op_hmset,
    op_del,    op_publish,      op_get,     op_destroy,
};

tq_mom_redis_t *redis_of_any(tq_mom_client_t *c) {
    return c != nullptr && c->ops == &REDIS_OPS ? tq_redis_of(c) : nullptr;
}

}  // namespace

// ---- shared with the subscriber side ----------------------------------------

int tq_redis_cmd_open(tq_mom_redis_t *r) {
    if (r->cmd != nullptr) return TQ_MOM_OK;
    r->cmd = tq_redis_connect(r->addr, TQ_REDIS_TIMEOUT_MS);
    if (r->cmd == nullptr) return TQ_MOM_ERR_CONN;
    r->cur_db = 0;
    r->owed = 0;
    // Notices may also be set up by the operator: a refusal is reported, not fatal.
    if (tq_redis_enable_notices(r->cmd, NOTICE_CLASSES) != 0)
        fprintf(stderr, "tq_mom_redis: cannot enable keyspace notifications\n");
    if (r->cmd->err == 0) return TQ_MOM_OK;
    tq_redis_link_lost(r, "setup failed");
    return TQ_MOM_ERR_CONN;
}

int tq_redis_cmd_run(tq_mom_redis_t *r, uint32_t db, const std::vector<tq_redis_cmd_t> &cmds,
                     std::vector<tq_redis_reply_t> &replies) {
    replies.clear();
    if (r->cmd == nullptr || !select_db(r, db) || drain(r) != TQ_MOM_OK) return TQ_MOM_ERR_CONN;
    for (const tq_redis_cmd_t &c : cmds)
        if (!append(r, c)) return TQ_MOM_ERR_CONN;
    if (flush(r) != TQ_MOM_OK) return TQ_MOM_ERR_CONN;
    for (size_t i = 0; i < cmds.size(); ++i) {
        tq_redis_reply_t rep = read_reply(r);
        if (rep == nullptr) {
            replies.clear();
            return TQ_MOM_ERR_CONN;
        }
        replies.push_back(std::move(rep));
    }
    return TQ_MOM_OK;
}

int tq_redis_fetch(tq_mom_redis_t *r, uint32_t db, const ProtobufCMessageDescriptor *desc,
                   const std::vector<std::string> &keys, std::vector<tq_redis_record_t> &out) {
    out.assign(keys.size(), {nullptr, false});
    for (size_t at = 0; at < keys.size(); at += TQ_REDIS_FETCH_CHUNK) {
        size_t n = std::min<size_t>(TQ_REDIS_FETCH_CHUNK, keys.size() - at);
        int rv = fetch_chunk(r, db, desc, keys.data() + at, n, out.data() + at);
        if (rv != TQ_MOM_OK) {
            for (tq_redis_record_t &rec : out) tq_mom_free(rec.msg);
            out.assign(keys.size(), {nullptr, false});
            return rv;
        }
    }
    return TQ_MOM_OK;
}

void tq_redis_deliver(void *global, tq_mom_msg_cb_t cb, void *arg, uint32_t cmd,
                      ProtobufCMessage *msg, bool hash) {
    tq_mom_hash_res_t res = {msg, TQ_MOM_OK};
    tq_mom_msg_t notice = {cmd, TQ_MOM_FLAG_NONE, hash ? static_cast<void *>(&res) : msg,
                           TQ_MOM_OK};
    cb(global, &notice, arg);
    tq_mom_free(msg);
}

int tq_redis_scan_deliver(tq_mom_redis_t *r, void *global, uint32_t db,
                          const ProtobufCMessage *item, const ProtobufCMessageDescriptor *desc,
                          uint32_t mode, tq_mom_msg_cb_t cb, void *arg) {
    if (mode > TQ_MOM_MODE_OWNER) return TQ_MOM_ERR_PARAM;
    item_buf_t empty(desc);
    if (item == nullptr) item = empty.get();
    std::vector<std::string> keys;
    int rv = TQ_MOM_OK;
    if (tq_mom_key_desc(desc) == nullptr) keys.push_back(tq_mom_table_name(desc));
    else rv = scan_keys(r, db, table_glob(item, mode), keys);
    // Read a chunk, then deliver it: callbacks may use the connection themselves.
    for (size_t at = 0; rv == TQ_MOM_OK && at < keys.size(); at += TQ_REDIS_FETCH_CHUNK) {
        size_t n = std::min<size_t>(TQ_REDIS_FETCH_CHUNK, keys.size() - at);
        std::vector<std::string> chunk(keys.begin() + at, keys.begin() + at + n);
        std::vector<tq_redis_record_t> recs;
        rv = tq_redis_fetch(r, db, desc, chunk, recs);
        for (const tq_redis_record_t &rec : recs)
            if (rec.msg != nullptr)
                tq_redis_deliver(global, cb, arg, rec.hash ? TQ_MOM_CMD_HSCAN : TQ_MOM_CMD_SCAN,
                                 rec.msg, rec.hash);
    }
    return rv;
}

void tq_redis_count_bad(tq_mom_redis_t *r, const std::string &key, const char *why) {
    ++r->bad_values;
    fprintf(stderr, "tq_mom_redis: value of \"%s\" %s, skipped\n", key.c_str(), why);
}

// ---- public -----------------------------------------------------------------

tq_mom_client_t *tq_mom_redis_new(struct event_base *master) {
    if (master == nullptr) return nullptr;
    auto *r = new tq_mom_redis_t{};
    r->ops = &REDIS_OPS;
    r->master = master;
    r->addr = tq_redis_addr_from_env();
    r->flush_ev = event_new(master, -1, 0, flush_cb, r);
    r->note_ev = event_new(master, -1, 0,
                           [](evutil_socket_t, short, void *p) {
                               tq_redis_notes_run(static_cast<tq_mom_redis_t *>(p));
                           },
                           r);
    r->conn_ev = evtimer_new(master, conn_cb, r);
    if (r->flush_ev == nullptr || r->note_ev == nullptr || r->conn_ev == nullptr ||
        tq_redis_link_init(r) != TQ_MOM_OK) {
        op_destroy(r);
        return nullptr;
    }
    return r;
}

uint64_t tq_mom_redis_bad_values(tq_mom_client_t *c) {
    tq_mom_redis_t *r = redis_of_any(c);
    return r != nullptr ? r->bad_values : 0;
}

uint64_t tq_mom_redis_write_errors(tq_mom_client_t *c) {
    tq_mom_redis_t *r = redis_of_any(c);
    return r != nullptr ? r->write_errors : 0;
}

uint64_t tq_mom_redis_commands(tq_mom_client_t *c) {
    tq_mom_redis_t *r = redis_of_any(c);
    return r != nullptr ? r->commands : 0;
}
