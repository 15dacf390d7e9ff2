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

// Strings, hashes, generic and expiry events carry the records; lists, sets,
// sorted sets and streams tell of a value of the wrong type under a key.
constexpr const char *NOTICE_CLASSES = "K$hgxlszt";

// Writes inside an open data sync, one record each: an equal value is not
// written again, so an unchanged restart leaves no notice. KEYS[1] the record;
// ARGV[1] 's' (ARGV[2] the bytes), 'h' (field name, value pairs; a missing
// field equals an empty value) or 'd' (delete: through here too, so that a
// replay after NOSCRIPT keeps the writes of a key in order). PERSIST drops an
// expiry left by an older client's marks and says nothing when there is none.
constexpr const char *CAS_LUA =
    "local k, op = KEYS[1], ARGV[1]\n"
    "if op == 'd' then return redis.call('DEL', k) end\n"
    "if op == 's' then\n"
    "  if redis.pcall('GET', k) == ARGV[2] then redis.call('PERSIST', k) return 0 end\n"
    "  redis.call('SET', k, ARGV[2])\n"
    "  return 1\n"
    "end\n"
    "local names = {}\n"
    "for i = 2, #ARGV, 2 do names[#names + 1] = ARGV[i] end\n"
    "local have = redis.call('HMGET', k, unpack(names))\n"
    "redis.call('PERSIST', k)\n"
    "local put = {}\n"
    "for i = 1, #names do\n"
    "  local want = ARGV[2 * i + 1]\n"
    "  if have[i] ~= want and not (have[i] == false and want == '') then\n"
    "    put[#put + 1] = names[i]\n"
    "    put[#put + 1] = want\n"
    "  end\n"
    "end\n"
    "if #put == 0 then return 0 end\n"
    "redis.call('HSET', k, unpack(put))\n"
    "return 1\n";

// Keys per UNLINK of the sweep, and UNLINKs per round trip: each one stays
// well under a millisecond of the server's time.
constexpr size_t DS_DEL_KEYS = 100;
constexpr size_t DS_DEL_PIPE = 64;

std::string_view reply_str(const redisReply *r) {
    return r->str == nullptr ? std::string_view() : std::string_view(r->str, r->len);
}

bool is_wrongtype(const redisReply *r) {
    return r->type == REDIS_REPLY_ERROR && reply_str(r).starts_with("WRONGTYPE");
}

bool is_noscript(const redisReply *r) {
    return r->type == REDIS_REPLY_ERROR && reply_str(r).starts_with("NOSCRIPT");
}

int cas_replay(tq_mom_redis_t *r, std::vector<tq_mom_redis_t::cas_owed_t> &refused);

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

// A compare-and-set that wrote (or deleted): its drift report will be our own.
void note_cas(tq_mom_redis_t *r, const tq_redis_cmd_t &cmd, const redisReply *rep) {
    if (rep->type == REDIS_REPLY_INTEGER && rep->integer > 0) r->self_changed.insert(cmd[3]);
}

// Sends what is queued and reads the replies owed to pipelined writes.
int drain(tq_mom_redis_t *r) {
    if (flush(r) != TQ_MOM_OK) return TQ_MOM_ERR_CONN;
    // From the first refused compare-and-set on, every later one is sent again
    // too, in order: another client may have loaded the script in between, and
    // a later write of a key that went through must not be undone by the resend.
    std::vector<tq_mom_redis_t::cas_owed_t> refused;
    for (; r->owed > 0; --r->owed) {
        tq_redis_reply_t rep = read_reply(r);
        if (rep == nullptr) return TQ_MOM_ERR_CONN;
        uint64_t seq = r->replies_read++;
        bool cas = !r->cas_owed.empty() && r->cas_owed.front().seq == seq;
        if (cas && (!refused.empty() || is_noscript(rep.get()))) {
            refused.push_back(std::move(r->cas_owed.front()));
        } else if (rep->type == REDIS_REPLY_ERROR) {
            ++r->write_errors;
            fprintf(stderr, "tq_mom_redis: write refused: %.*s\n", static_cast<int>(rep->len),
                    rep->str);
        } else if (cas) {
            note_cas(r, r->cas_owed.front().cmd, rep.get());
        }
        if (cas) r->cas_owed.pop_front();
    }
    return refused.empty() ? TQ_MOM_OK : cas_replay(r, refused);
}

void owe(tq_mom_redis_t *r) {
    ++r->owed;
    ++r->replies_sent;
}

// Queues a SELECT when db is not the connection's database (its reply is owed).
bool select_db(tq_mom_redis_t *r, uint32_t db) {
    if (r->cur_db == static_cast<int>(db)) return true;
    if (!append(r, {"SELECT", std::to_string(db)})) return false;
    owe(r);
    r->cur_db = static_cast<int>(db);
    return true;
}

void flush_cb(evutil_socket_t, short, void *p) {
    auto *r = static_cast<tq_mom_redis_t *>(p);
    if (r->cmd != nullptr) drain(r);
}

// A pipelined write: sent at once unless it may wait for the end of the turn.
// A compare-and-set is kept until its reply comes, in case it must be replayed.
int write_async(tq_mom_redis_t *r, uint32_t db, std::vector<tq_redis_cmd_t> cmds, bool batch,
                bool cas = false) {
    if (r->cmd == nullptr || !select_db(r, db)) return TQ_MOM_ERR_CONN;
    for (tq_redis_cmd_t &c : cmds) {
        if (!append(r, c)) return TQ_MOM_ERR_CONN;
        if (cas) r->cas_owed.push_back({r->replies_sent, db, std::move(c)});
        owe(r);
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

int write_cmds(tq_mom_redis_t *r, uint32_t db, std::vector<tq_redis_cmd_t> cmds, bool is_sync,
               bool batch) {
    return is_sync ? write_sync(r, db, cmds) : write_async(r, db, std::move(cmds), batch);
}

// ---- data sync --------------------------------------------------------------

int load_cas(tq_mom_redis_t *r, uint32_t db) {
    if (r->cas_loaded) return TQ_MOM_OK;
    std::vector<tq_redis_reply_t> replies;
    int rv = tq_redis_cmd_run(r, db, {{"SCRIPT", "LOAD", CAS_LUA}}, replies);
    if (rv != TQ_MOM_OK) return rv;
    if (replies[0]->type != REDIS_REPLY_STRING) {
        fprintf(stderr, "tq_mom_redis: cannot load the data-sync script: %.*s\n",
                static_cast<int>(replies[0]->len), replies[0]->str);
        return TQ_MOM_ERR;
    }
    r->cas_sha = reply_str(replies[0].get());
    r->cas_loaded = true;
    return TQ_MOM_OK;
}

// One compare-and-set, waited for; a flushed script cache loads the script
// again and sends it once more. TQ_MOM_ERR when the store refuses it.
int cas_run_sync(tq_mom_redis_t *r, uint32_t db, tq_redis_cmd_t &cmd) {
    std::vector<tq_redis_reply_t> replies;
    int rv = TQ_MOM_OK;
    for (int tries = 0; tries < 2; ++tries) {
        if ((rv = load_cas(r, db)) != TQ_MOM_OK) return rv;
        cmd[1] = r->cas_sha;
        if ((rv = tq_redis_cmd_run(r, db, {cmd}, replies)) != TQ_MOM_OK) return rv;
        if (!is_noscript(replies[0].get())) break;
        r->cas_loaded = false;
    }
    if (replies[0]->type != REDIS_REPLY_ERROR) {
        note_cas(r, cmd, replies[0].get());
        return TQ_MOM_OK;
    }
    ++r->write_errors;
    fprintf(stderr, "tq_mom_redis: write refused: %.*s\n", static_cast<int>(replies[0]->len),
            replies[0]->str);
    return TQ_MOM_ERR;
}

// The script cache was flushed under pipelined compare-and-sets: load it again
// and send them again, in order, from the first refused one on.
int cas_replay(tq_mom_redis_t *r, std::vector<tq_mom_redis_t::cas_owed_t> &refused) {
    r->cas_loaded = false;
    for (tq_mom_redis_t::cas_owed_t &w : refused)
        if (cas_run_sync(r, w.db, w.cmd) == TQ_MOM_ERR_CONN) return TQ_MOM_ERR_CONN;
    return TQ_MOM_OK;
}

// A write of a key inside an open sync: args are the script's ARGV.
int write_cas(tq_mom_redis_t *r, uint32_t db, const std::string &key,
              std::vector<std::string> args, bool is_sync, bool batch) {
    int rv = load_cas(r, db);
    if (rv != TQ_MOM_OK) return rv;
    tq_redis_cmd_t cmd = {"EVALSHA", r->cas_sha, "1", key};
    for (std::string &a : args) cmd.push_back(std::move(a));
    if (!is_sync) return write_async(r, db, {std::move(cmd)}, batch, true);
    return cas_run_sync(r, db, cmd);
}

// The marks go with the connection that kept them.
void drop_if_lost(tq_mom_redis_t *r) {
    if (r->cmd == nullptr) r->syncs.clear();
}

int drain_if_up(tq_mom_redis_t *r) {
    int rv = r->cmd != nullptr ? drain(r) : TQ_MOM_ERR_CONN;
    drop_if_lost(r);
    return rv;
}

// Clears key's mark in every open sync that covers it; whether one does.
bool unmark(tq_mom_redis_t *r, uint32_t db, const std::string &key) {
    drop_if_lost(r);
    bool covered = false;
    for (tq_mom_redis_t::sync_t &s : r->syncs)
        if (s.db == db && s.scope.holds(key)) {
            s.marks.erase(key);
            covered = true;
        }
    return covered;
}

// ---- decoding ---------------------------------------------------------------

// A record is delivered only under its own key: a key text that does not
// parse, or that names another record, would leave outputs no delete can reach.
ProtobufCMessage *own_key_only(tq_mom_redis_t *r, const std::string &key, ProtobufCMessage *msg) {
    std::string own;
    if (msg == nullptr || (tq_mom_record_key(msg, own) == 0 && own == key)) return msg;
    tq_redis_count_bad(r, key, TQ_REDIS_BAD_KEY);
    tq_mom_free(msg);
    return nullptr;
}

ProtobufCMessage *decode_string(tq_mom_redis_t *r, const ProtobufCMessageDescriptor *desc,
                                const std::string &key, const redisReply *rep) {
    ProtobufCMessage *msg = tq_mom_unpack(desc, reply_str(rep));
    if (msg == nullptr) tq_redis_count_bad(r, key, TQ_REDIS_BAD_DECODE);
    return own_key_only(r, key, msg);
}

// An HGETALL reply: null for an empty hash (the record is gone) or a bad one.
ProtobufCMessage *decode_hash(tq_mom_redis_t *r, const ProtobufCMessageDescriptor *desc,
                              const std::string &key, const redisReply *rep) {
    if (is_wrongtype(rep)) tq_redis_count_bad(r, key, TQ_REDIS_BAD_TYPE);
    if (rep->type != REDIS_REPLY_ARRAY || rep->elements == 0) return nullptr;
    std::vector<std::pair<std::string, std::string>> fields;
    for (size_t i = 0; i + 1 < rep->elements; i += 2)
        fields.emplace_back(reply_str(rep->element[i]), reply_str(rep->element[i + 1]));
    ProtobufCMessage *msg = tq_mom_hash_unpack(desc, fields);
    if (msg == nullptr) tq_redis_count_bad(r, key, TQ_REDIS_BAD_DECODE);
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

}  // namespace

tq_redis_scope_t tq_redis_scope(const ProtobufCMessage *item, uint32_t mode) {
    if (tq_mom_key_desc(item->descriptor) == nullptr)
        return {tq_mom_table_name(item->descriptor), true};
    return {tq_mom_table_prefix(item, mode == TQ_MOM_MODE_OWNER), false};
}

namespace {

// The glob of a table's keys (or of an owner slice); the exact key of an unkeyed table.
std::string table_glob(const ProtobufCMessage *item, uint32_t mode) {
    if (tq_mom_key_desc(item->descriptor) == nullptr)
        return tq_redis_glob_escape(tq_mom_table_name(item->descriptor));
    return tq_redis_glob_escape(tq_mom_table_prefix(item, mode == TQ_MOM_MODE_OWNER)) + "*";
}

// Calls f with every key matching glob, in SCAN steps that each cost the
// server little; a key may come more than once.
template <class F>
int scan_each(tq_mom_redis_t *r, uint32_t db, const std::string &glob, F &&f) {
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
        for (size_t i = 0; i < batch->elements; ++i) f(std::string(reply_str(batch->element[i])));
    } while (cursor != "0");
    return TQ_MOM_OK;
}

// Every key matching glob, each once.
int scan_keys(tq_mom_redis_t *r, uint32_t db, const std::string &glob,
              std::vector<std::string> &keys) {
    std::unordered_set<std::string> seen;
    return scan_each(r, db, glob, [&](std::string key) {
        if (seen.insert(key).second) keys.push_back(std::move(key));
    });
}

tq_mom_redis_t::sync_t sync_of(uint32_t db, const ProtobufCMessage *item, uint32_t mode) {
    return {db, tq_redis_scope(item, mode), false, {}};
}

std::vector<tq_mom_redis_t::sync_t>::iterator find_sync(tq_mom_redis_t *r,
                                                        const tq_mom_redis_t::sync_t &s) {
    return std::find_if(r->syncs.begin(), r->syncs.end(), [&](const tq_mom_redis_t::sync_t &o) {
        return o.db == s.db && o.scope == s.scope;
    });
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

// Keeps the keys of the table (or slice) as the sync's marks, in the client:
// nothing is written, so a daemon that dies mid-sync leaves every record as it
// was. expire is only checked, for callers written against real expiries.
int op_dsbegin(tq_mom_client_t *c, void *, uint32_t db, const ProtobufCMessage *item,
               uint32_t mode, int32_t expire, uint32_t) {
    if (mode > TQ_MOM_MODE_OWNER || expire <= 0) return TQ_MOM_ERR_PARAM;
    tq_mom_redis_t *r = tq_redis_of(c);
    drop_if_lost(r);
    // The reports of the last sync's own writes came long before (the sync ran
    // to its end first); one never delivered must not hide a later change.
    r->self_changed.clear();
    tq_mom_redis_t::sync_t s = sync_of(db, item, mode);
    int rv = TQ_MOM_OK;
    std::vector<tq_redis_reply_t> replies;
    if (!s.scope.exact) {
        rv = scan_each(r, db, table_glob(item, mode), [&](std::string k) { s.marks.insert(std::move(k)); });
    } else if ((rv = tq_redis_cmd_run(r, db, {{"EXISTS", s.scope.prefix}}, replies)) == TQ_MOM_OK &&
               replies[0]->integer == 1) {
        s.marks.insert(s.scope.prefix);
    }
    if (rv == TQ_MOM_OK && !s.marks.empty() &&
        (rv = tq_redis_cmd_run(r, db, {{"TYPE", *s.marks.begin()}}, replies)) == TQ_MOM_OK)
        s.hash = reply_str(replies[0].get()) == "hash";
    if (rv != TQ_MOM_OK) return rv;
    auto old = find_sync(r, s);
    if (old != r->syncs.end()) *old = std::move(s);
    else r->syncs.push_back(std::move(s));
    return TQ_MOM_OK;
}

// Deletes the keys still marked, UNLINK by UNLINK, then ends the sync.
int op_dsend(tq_mom_client_t *c, void *global, uint32_t db, const ProtobufCMessage *item,
             uint32_t mode, tq_mom_msg_cb_t cb, void *arg) {
    if (mode > TQ_MOM_MODE_OWNER) return TQ_MOM_ERR_PARAM;
    tq_mom_redis_t *r = tq_redis_of(c);
    // Like every synchronous call, it first sees the pending writes through.
    if (drain_if_up(r) != TQ_MOM_OK) return TQ_MOM_ERR_CONN;
    tq_mom_redis_t::sync_t s = sync_of(db, item, mode);
    bool hash = r->hash_tables.count({db, item->descriptor}) != 0;
    auto open = find_sync(r, s);
    if (open != r->syncs.end()) {
        s = std::move(*open);
        r->syncs.erase(open);
        hash = hash || s.hash;
    }
    std::vector<std::string> stale(s.marks.begin(), s.marks.end());
    s.marks.clear();
    std::vector<tq_redis_cmd_t> cmds;
    for (size_t at = 0; at < stale.size(); at += DS_DEL_KEYS) {
        size_t end = std::min(stale.size(), at + DS_DEL_KEYS);
        tq_redis_cmd_t del = {"UNLINK"};
        for (size_t i = at; i < end; ++i) {
            unmark(r, db, stale[i]);  // an overlapping sync sees it as any delete
            del.push_back(std::move(stale[i]));
        }
        cmds.push_back(std::move(del));
        if (cmds.size() < DS_DEL_PIPE && end < stale.size()) continue;
        std::vector<tq_redis_reply_t> replies;
        int rv = tq_redis_cmd_run(r, db, cmds, replies);
        if (rv != TQ_MOM_OK) return rv;
        for (const tq_redis_reply_t &rep : replies)
            if (rep->type == REDIS_REPLY_ERROR) return TQ_MOM_ERR;
        cmds.clear();
    }
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
    tq_mom_redis_t *r = tq_redis_of(c);
    if (unmark(r, db, key)) return write_cas(r, db, key, {"s", std::move(bytes)}, is_sync, batch);
    return write_cmds(r, db, {{"SET", std::move(key), std::move(bytes)}}, is_sync, batch);
}

// The fields of tq_mom_hash_write: zeros stored as empty values, sub-messages
// not given left as they are. PERSIST drops an expiry left by an older
// client's data-sync marks.
int op_hmset(tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *value, bool is_sync,
             bool batch) {
    std::string key;
    std::vector<std::pair<std::string, std::string>> fields;
    if (tq_mom_record_key(value, key) != 0 || tq_mom_hash_write(value, fields) != 0)
        return TQ_MOM_ERR_PARAM;
    tq_mom_redis_t *r = tq_redis_of(c);
    bool in_sync = unmark(r, db, key);
    if (fields.empty()) return TQ_MOM_OK;  // nothing to store: Redis has no empty hash
    r->hash_tables.emplace(db, value->descriptor);
    tq_redis_cmd_t args = {in_sync ? "h" : "HSET"};
    if (!in_sync) args.push_back(key);
    for (auto &[name, bytes] : fields) {
        args.push_back(std::move(name));
        args.push_back(std::move(bytes));
    }
    if (in_sync) return write_cas(r, db, key, std::move(args), is_sync, batch);
    return write_cmds(r, db, {std::move(args), {"PERSIST", key}}, is_sync, batch);
}

int op_del(tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *value, bool is_sync,
           bool batch) {
    std::string key;
    if (tq_mom_record_key(value, key) != 0) return TQ_MOM_ERR_PARAM;
    tq_mom_redis_t *r = tq_redis_of(c);
    if (unmark(r, db, key)) return write_cas(r, db, key, {"d"}, is_sync, batch);
    return write_cmds(r, db, {{"DEL", key}}, is_sync, batch);
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
    op_del,    op_publish,      op_get,     op_destroy,          tq_redis_watch,
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
    // A new connection: the marks of the old one and its script are gone.
    r->syncs.clear();
    r->cas_loaded = false;
    r->cas_owed.clear();
    r->replies_sent = r->replies_read = 0;
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

void tq_redis_count_bad(tq_mom_redis_t *r, const std::string &key, uint32_t why) {
    static constexpr const char *kWhy[] = {"does not decode", "key does not match its record",
                                           "is of another type"};
    ++r->bad_values;
    if (r->bad_cb != nullptr) r->bad_cb(key.c_str(), why, r->bad_arg);
    else fprintf(stderr, "tq_mom_redis: value of \"%s\" %s, skipped\n", key.c_str(), kWhy[why]);
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

void tq_mom_redis_set_bad_cb(tq_mom_client_t *c, tq_redis_bad_cb_t cb, void *arg) {
    tq_mom_redis_t *r = redis_of_any(c);
    if (r == nullptr) return;
    r->bad_cb = cb;
    r->bad_arg = arg;
}

bool tq_mom_redis_link_up(tq_mom_client_t *c) {
    tq_mom_redis_t *r = redis_of_any(c);
    return r != nullptr && r->state == TQ_REDIS_UP;
}

uint64_t tq_mom_redis_reconnects(tq_mom_client_t *c) {
    tq_mom_redis_t *r = redis_of_any(c);
    return r != nullptr ? r->reconnects : 0;
}

uint64_t tq_mom_redis_write_errors(tq_mom_client_t *c) {
    tq_mom_redis_t *r = redis_of_any(c);
    return r != nullptr ? r->write_errors : 0;
}

uint64_t tq_mom_redis_commands(tq_mom_client_t *c) {
    tq_mom_redis_t *r = redis_of_any(c);
    return r != nullptr ? r->commands : 0;
}
