// In-memory MOM. Records are held exactly as in Redis (packed strings, hashes of
// packed fields, under the shared key names), so what is read back is what the
// lower layers would read.
#include "platform/mom/tq_mom_mem.h"

#include <algorithm>
#include <array>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <utility>

#include "platform/mom/tq_mom_name.h"

namespace {

enum { REC_STRING = MOM_MEM_REC_STRING, REC_HASH = MOM_MEM_REC_HASH };
using mem_rec_t = mom_mem_rec_t;
using mem_db_t = mom_mem_db_t;

struct mem_target_t {
    void *global = nullptr;
    tq_mom_msg_cb_t cb = nullptr;
    void *arg = nullptr;
};

struct mem_sub_t {
    uint32_t db;
    std::string table;
    const ProtobufCMessageDescriptor *desc;
    mem_target_t to;
};

struct mem_reconn_t {
    void *global;
    tq_mom_reconn_cb_t cb;
    void *arg;
};

// A queued notice: a ready value, a record to read at delivery (as the Redis
// client reads on a keyspace event), or a connect completion.
struct mem_notice_t {
    enum kind_t { READY, READ, CONNECT } kind = READY;
    mem_target_t to;
    tq_mom_conn_cb_t conn_cb = nullptr;
    uint32_t cmd = 0, flag = 0, error = 0;
    mom_mem_msg_ptr value;
    bool wrap = false;  // deliver inside a tq_mom_hash_res_t
    uint32_t db = 0;
    std::string key;
    const ProtobufCMessageDescriptor *desc = nullptr;
};

// The part of a table a call acts on.
struct mem_slice_t {
    mem_slice_t() = default;
    std::string table, prefix;

    mem_slice_t(const ProtobufCMessage *item, uint32_t mode)
        : table(item->descriptor->name),
          prefix(tq_mom_table_prefix(item, mode == TQ_MOM_MODE_OWNER)) {}
    bool holds(std::string_view key) const {
        return key.starts_with(prefix) || (prefix == table + "|" && key == table);
    }
};

// An open data sync: its slice and the keys not written since it began.
struct mem_sync_t {
    uint32_t db = 0;
    mem_slice_t slice;
    std::set<std::string, std::less<>> marks;
};

struct mom_mem_t : tq_mom_client_t {
    std::map<uint32_t, mem_db_t> dbs;
    std::vector<mem_sync_t> syncs;
    std::vector<mem_sub_t> subs;
    std::deque<mem_notice_t> queue;
    std::map<uint32_t, mem_reconn_t> reconn;
    std::set<uint32_t> lost;
    std::set<std::pair<uint32_t, std::string>, std::less<>> hash_tables;  // (db, T) ever hashed
    std::array<uint32_t, MOM_MEM_OP_COUNT> calls{};
    std::array<std::pair<uint32_t, int>, MOM_MEM_OP_COUNT> fails{};
};

mom_mem_t *mem_of(tq_mom_client_t *c) { return static_cast<mom_mem_t *>(c); }

std::string_view table_of(std::string_view key) { return key.substr(0, key.find('|')); }

mom_mem_msg_ptr copy_msg(const ProtobufCMessage *m) {
    if (m == nullptr) return nullptr;
    std::string bytes;
    tq_mom_pack(m, bytes);
    return mom_mem_msg_ptr(tq_mom_unpack(m->descriptor, bytes));
}

mom_mem_msg_ptr decode(const mem_rec_t &rec, const ProtobufCMessageDescriptor *desc) {
    if (rec.type == REC_STRING) return mom_mem_msg_ptr(tq_mom_unpack(desc, rec.bytes));
    std::vector<std::pair<std::string, std::string>> fields(rec.fields.begin(), rec.fields.end());
    return mom_mem_msg_ptr(tq_mom_hash_unpack(desc, fields));
}

const mem_rec_t *find_rec(mom_mem_t *m, uint32_t db, std::string_view key) {
    auto d = m->dbs.find(db);
    if (d == m->dbs.end()) return nullptr;
    auto r = d->second.find(key);
    return r == d->second.end() ? nullptr : &r->second;
}

// Counts the call; a lost database or an injected failure refuses it.
int enter(mom_mem_t *m, mom_mem_op_t op, uint32_t db) {
    ++m->calls[op];
    if (m->lost.count(db) != 0) return TQ_MOM_ERR_CONN;
    auto &[left, code] = m->fails[op];
    if (left > 0) {
        --left;
        return code;
    }
    return 0;
}

int deliver(const mem_target_t &to, uint32_t cmd, uint32_t flag, uint32_t error,
            ProtobufCMessage *value, bool wrap) {
    tq_mom_hash_res_t res{value, 0};
    tq_mom_msg_t msg{cmd, flag, wrap ? static_cast<void *>(&res) : value, error};
    return to.cb(to.global, &msg, to.arg);
}

template <class F>
void for_subs(mom_mem_t *m, uint32_t db, std::string_view table, F &&f) {
    for (size_t i = 0; i < m->subs.size(); ++i)
        if (m->subs[i].db == db && m->subs[i].table == table) f(m->subs[i]);
}

void queue_read(mom_mem_t *m, uint32_t db, const std::string &key, uint32_t cmd) {
    for_subs(m, db, table_of(key), [&](const mem_sub_t &s) {
        mem_notice_t n;
        n.kind = mem_notice_t::READ;
        n.to = s.to;
        n.cmd = cmd;
        n.wrap = cmd == TQ_MOM_CMD_HSET;
        n.db = db;
        n.key = key;
        n.desc = s.desc;
        m->queue.push_back(std::move(n));
    });
}

void queue_del(mom_mem_t *m, uint32_t db, const std::string &key) {
    for_subs(m, db, table_of(key), [&](const mem_sub_t &s) {
        mom_mem_msg_ptr v(tq_mom_item_from_key(s.desc, key));
        if (v == nullptr) return;
        mem_notice_t n;
        n.to = s.to;
        n.cmd = TQ_MOM_CMD_DEL;
        n.value = std::move(v);
        m->queue.push_back(std::move(n));
    });
}

void queue_ready(mom_mem_t *m, const mem_target_t &to, uint32_t cmd, uint32_t flag,
                 mom_mem_msg_ptr value, bool wrap = false) {
    mem_notice_t n;
    n.to = to;
    n.cmd = cmd;
    n.flag = flag;
    n.value = std::move(value);
    n.wrap = wrap;
    m->queue.push_back(std::move(n));
}

// Delivers one notice; false when there was nothing to deliver (record gone).
bool deliver_notice(mem_notice_t &n, mom_mem_t *m) {
    if (n.kind == mem_notice_t::CONNECT) {
        if (n.conn_cb != nullptr) n.conn_cb(n.to.global, n.to.arg);
        return n.conn_cb != nullptr;
    }
    if (n.to.cb == nullptr) return false;
    if (n.kind == mem_notice_t::READ) {
        const mem_rec_t *rec = find_rec(m, n.db, n.key);
        int want = n.cmd == TQ_MOM_CMD_HSET ? REC_HASH : REC_STRING;
        if (rec == nullptr || rec->type != want) return false;
        n.value = decode(*rec, n.desc);
        if (n.value == nullptr) return false;
    }
    deliver(n.to, n.cmd, n.flag, n.error, n.value.get(), n.wrap);
    return true;
}

template <class F>
void for_slice(mom_mem_t *m, uint32_t db, const mem_slice_t &slice, F &&f) {
    for (auto &[key, rec] : m->dbs[db])
        if (slice.holds(key)) f(key, rec);
}

std::vector<std::string> slice_keys(mom_mem_t *m, uint32_t db, const mem_slice_t &slice) {
    std::vector<std::string> keys;
    for_slice(m, db, slice, [&](const std::string &key, mem_rec_t &) { keys.push_back(key); });
    return keys;
}

// Clears key's mark in every open sync that covers it; whether one does.
bool unmark(mom_mem_t *m, uint32_t db, const std::string &key) {
    bool covered = false;
    for (mem_sync_t &s : m->syncs)
        if (s.db == db && s.slice.holds(key)) {
            s.marks.erase(key);
            covered = true;
        }
    return covered;
}

// Hash field values as Redis compares them: a missing field equals an empty one.
bool same_field(const mem_rec_t &rec, const std::string &name, const std::string &bytes) {
    auto f = rec.fields.find(name);
    return f == rec.fields.end() ? bytes.empty() : f->second == bytes;
}

// ---- operations ------------------------------------------------------------

int op_connect_sync(tq_mom_client_t *c, void *, uint32_t db) {
    mom_mem_t *m = mem_of(c);
    int rv = enter(m, MOM_MEM_OP_CONNECT_SYNC, db);
    return rv;
}

int op_connect(tq_mom_client_t *c, void *global, uint32_t db, tq_mom_conn_cb_t cb, void *arg) {
    mom_mem_t *m = mem_of(c);
    int rv = enter(m, MOM_MEM_OP_CONNECT, db);
    if (rv != 0) return rv;
    mem_notice_t n;
    n.kind = mem_notice_t::CONNECT;
    n.to = {global, nullptr, arg};
    n.conn_cb = cb;
    m->queue.push_back(std::move(n));
    return 0;
}

int op_set_reconnect_cb(tq_mom_client_t *c, void *global, uint32_t db, tq_mom_reconn_cb_t cb,
                        void *arg) {
    mom_mem_t *m = mem_of(c);
    int rv = enter(m, MOM_MEM_OP_RECONNECT_CB, db);
    if (rv == 0) m->reconn[db] = {global, cb, arg};
    return rv;
}

int op_subscribe(tq_mom_client_t *c, void *global, uint32_t db, const ProtobufCMessage *item,
                 uint32_t flags, tq_mom_msg_cb_t cb, void *arg) {
    mom_mem_t *m = mem_of(c);
    int rv = enter(m, MOM_MEM_OP_SUBSCRIBE, db);
    if (rv != 0) return rv;
    mem_target_t to{global, cb, arg};
    m->subs.push_back({db, item->descriptor->name, item->descriptor, to});
    if (flags & TQ_MOM_SUB_EXISTING) {
        for_slice(m, db, mem_slice_t(item, TQ_MOM_MODE_TABLE),
                  [&](const std::string &, mem_rec_t &rec) {
                      mom_mem_msg_ptr v = decode(rec, item->descriptor);
                      if (v == nullptr) return;
                      bool hash = rec.type == REC_HASH;
                      queue_ready(m, to, hash ? TQ_MOM_CMD_HSCAN : TQ_MOM_CMD_SCAN, 0,
                                  std::move(v), hash);
                  });
    }
    queue_ready(m, to, TQ_MOM_CMD_END, TQ_MOM_FLAG_SCAN_OVER, nullptr);
    return 0;
}

int op_scan(tq_mom_client_t *c, void *global, uint32_t db, const ProtobufCMessage *item,
            uint32_t mode, tq_mom_msg_cb_t cb, void *arg) {
    mom_mem_t *m = mem_of(c);
    int rv = enter(m, MOM_MEM_OP_SCAN, db);
    if (rv != 0) return rv;
    // The callback may write; walk a snapshot of the keys and re-read each.
    for (const std::string &key : slice_keys(m, db, mem_slice_t(item, mode))) {
        const mem_rec_t *rec = find_rec(m, db, key);
        if (rec == nullptr) continue;
        mom_mem_msg_ptr v = decode(*rec, item->descriptor);
        if (v == nullptr) continue;
        bool hash = rec->type == REC_HASH;
        deliver({global, cb, arg}, hash ? TQ_MOM_CMD_HSCAN : TQ_MOM_CMD_SCAN, 0, 0, v.get(), hash);
    }
    return 0;
}

int op_dsbegin(tq_mom_client_t *c, void *, uint32_t db, const ProtobufCMessage *item,
               uint32_t mode, int32_t expire, uint32_t) {
    mom_mem_t *m = mem_of(c);
    int rv = enter(m, MOM_MEM_OP_DSBEGIN, db);
    if (rv != 0) return rv;
    if (expire <= 0) return TQ_MOM_ERR_PARAM;  // still checked, though nothing expires
    mem_sync_t sync{db, mem_slice_t(item, mode), {}};
    for (std::string &key : slice_keys(m, db, sync.slice)) sync.marks.insert(std::move(key));
    std::erase_if(m->syncs, [&](const mem_sync_t &s) {
        return s.db == db && s.slice.prefix == sync.slice.prefix;
    });
    m->syncs.push_back(std::move(sync));
    return 0;
}

int op_dsend(tq_mom_client_t *c, void *global, uint32_t db, const ProtobufCMessage *item,
             uint32_t mode, tq_mom_msg_cb_t cb, void *arg) {
    mom_mem_t *m = mem_of(c);
    int rv = enter(m, MOM_MEM_OP_DSEND, db);
    if (rv != 0) return rv;
    mem_slice_t slice(item, mode);
    bool any_hash = m->hash_tables.count({db, item->descriptor->name}) != 0;
    for_slice(m, db, slice, [&](const std::string &, mem_rec_t &rec) {
        any_hash = any_hash || rec.type == REC_HASH;
    });
    auto sync = std::find_if(m->syncs.begin(), m->syncs.end(), [&](const mem_sync_t &s) {
        return s.db == db && s.slice.prefix == slice.prefix;
    });
    if (sync != m->syncs.end()) {
        std::set<std::string, std::less<>> swept = std::move(sync->marks);
        m->syncs.erase(sync);
        for (const std::string &key : swept) {
            unmark(m, db, key);  // an overlapping sync sees the delete as any other
            if (m->dbs[db].erase(key) != 0) queue_del(m, db, key);
        }
    }
    if (cb != nullptr)
        queue_ready(m, {global, cb, arg}, TQ_MOM_CMD_END,
                    any_hash ? TQ_MOM_FLAG_PEXPIREFIELD_OVER : TQ_MOM_FLAG_PEXPIREDEL_OVER,
                    nullptr);
    return 0;
}

int op_set(tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *value, bool /*is_sync*/,
           bool /*batch*/) {
    mom_mem_t *m = mem_of(c);
    int rv = enter(m, MOM_MEM_OP_SET, db);
    if (rv != 0) return rv;
    std::string key;
    if ((rv = tq_mom_record_key(value, key)) != 0) return rv;
    std::string bytes;
    tq_mom_pack(value, bytes);
    mem_rec_t &rec = m->dbs[db][key];
    // Inside an open sync an equal write leaves the record alone, notice and all.
    if (unmark(m, db, key) && rec.type == REC_STRING && rec.bytes == bytes) return 0;
    rec = mem_rec_t{};
    rec.type = REC_STRING;
    rec.bytes = std::move(bytes);
    queue_read(m, db, key, TQ_MOM_CMD_SET);
    return 0;
}

int op_hmset(tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *value, bool /*is_sync*/,
             bool /*batch*/) {
    mom_mem_t *m = mem_of(c);
    int rv = enter(m, MOM_MEM_OP_HMSET, db);
    if (rv != 0) return rv;
    std::string key;
    std::vector<std::pair<std::string, std::string>> fields;
    if ((rv = tq_mom_record_key(value, key)) != 0 || (rv = tq_mom_hash_write(value, fields)) != 0)
        return rv;
    mem_db_t &d = m->dbs[db];
    auto it = d.find(key);
    if (it != d.end() && it->second.type == REC_STRING) return TQ_MOM_ERR;  // wrong type
    bool in_sync = unmark(m, db, key);
    if (fields.empty()) return 0;  // nothing to write: Redis has no empty hash
    m->hash_tables.emplace(db, value->descriptor->name);
    if (in_sync && it != d.end() &&
        std::all_of(fields.begin(), fields.end(),
                    [&](const auto &f) { return same_field(it->second, f.first, f.second); }))
        return 0;
    mem_rec_t &rec = d[key];
    rec.type = REC_HASH;
    for (auto &[name, bytes] : fields) rec.fields[name] = std::move(bytes);
    queue_read(m, db, key, TQ_MOM_CMD_HSET);
    return 0;
}

int op_del(tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *value, bool /*is_sync*/,
           bool /*batch*/) {
    mom_mem_t *m = mem_of(c);
    int rv = enter(m, MOM_MEM_OP_DEL, db);
    if (rv != 0) return rv;
    std::string key;
    if ((rv = tq_mom_record_key(value, key)) != 0) return rv;
    unmark(m, db, key);
    if (m->dbs[db].erase(key) != 0) queue_del(m, db, key);
    return 0;
}

int op_publish(tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *value) {
    mom_mem_t *m = mem_of(c);
    int rv = enter(m, MOM_MEM_OP_PUBLISH, db);
    if (rv != 0) return rv;
    for_subs(m, db, value->descriptor->name, [&](const mem_sub_t &s) {
        queue_ready(m, s.to, TQ_MOM_CMD_SET, 0, copy_msg(value));
    });
    return 0;
}

int op_get(tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *key, ProtobufCMessage **out) {
    mom_mem_t *m = mem_of(c);
    int rv = enter(m, MOM_MEM_OP_GET, db);
    if (rv != 0) return rv;
    std::string rkey;
    if ((rv = tq_mom_record_key(key, rkey)) != 0) return rv;
    const mem_rec_t *rec = find_rec(m, db, rkey);
    if (rec == nullptr) return TQ_MOM_ERR_NOT_FOUND;
    mom_mem_msg_ptr v = decode(*rec, key->descriptor);
    if (v == nullptr) return TQ_MOM_ERR;
    *out = v.release();
    return 0;
}

void op_destroy(tq_mom_client_t *c) { delete mem_of(c); }

// One client alone: nobody else can change a record behind its back.
int op_watch(tq_mom_client_t *, void *, uint32_t, const ProtobufCMessage *, uint32_t,
             tq_mom_msg_cb_t, void *) {
    return TQ_MOM_OK;
}

const tq_mom_ops_t MOM_MEM_OPS = {
    "mem",        op_connect_sync, op_connect, op_set_reconnect_cb, op_subscribe, op_scan,
    op_dsbegin,   op_dsend,        op_set,     op_hmset,            op_del,       op_publish,
    op_get,       op_destroy,      op_watch,
};

}  // namespace

tq_mom_client_t *mom_mem_new() {
    auto *m = new mom_mem_t();
    m->ops = &MOM_MEM_OPS;
    return m;
}

void mom_mem_free(tq_mom_client_t *c) { tq_mom_client_free(c); }

tq_global_t mom_mem_ctx(tq_mom_client_t *c) { return tq_global_t{c, nullptr, {}}; }

int mom_mem_dispatch_all(tq_mom_client_t *c) {
    mom_mem_t *m = mem_of(c);
    int ran = 0;
    // Round by round, so notices queued by a callback wait for the next round; a
    // callback that writes on every notice would loop forever, so stop somewhere.
    for (int round = 0; round < 100000 && !m->queue.empty(); ++round) {
        for (size_t n = m->queue.size(); n > 0 && !m->queue.empty(); --n) {
            mem_notice_t notice = std::move(m->queue.front());
            m->queue.pop_front();
            ran += deliver_notice(notice, m);
        }
    }
    return ran;
}

void mom_mem_fail_next(tq_mom_client_t *c, mom_mem_op_t op, uint32_t n, int code) {
    if (op < MOM_MEM_OP_COUNT) mem_of(c)->fails[op] = {n, code};
}

void mom_mem_conn_lost(tq_mom_client_t *c, uint32_t db) {
    mom_mem_t *m = mem_of(c);
    m->lost.insert(db);
    // The marks live in the client: a lost connection drops them, nothing was stored.
    std::erase_if(m->syncs, [&](const mem_sync_t &s) { return s.db == db; });
    auto it = m->reconn.find(db);
    if (it != m->reconn.end() && it->second.cb != nullptr)
        it->second.cb(it->second.global, db, TQ_MOM_CONN_LOST, it->second.arg);
}

void mom_mem_conn_back(tq_mom_client_t *c, uint32_t db) {
    mom_mem_t *m = mem_of(c);
    m->lost.erase(db);
    auto it = m->reconn.find(db);
    if (it != m->reconn.end() && it->second.cb != nullptr)
        it->second.cb(it->second.global, db, TQ_MOM_CONN_BACK, it->second.arg);
    // Subscriptions come back as on Redis: each ends with its marker again.
    for (const mem_sub_t &s : m->subs)
        if (s.db == db) queue_ready(m, s.to, TQ_MOM_CMD_END, TQ_MOM_FLAG_SCAN_OVER, nullptr);
}

mom_mem_msg_ptr mom_mem_get(tq_mom_client_t *c, uint32_t db,
                            const ProtobufCMessageDescriptor *item_desc,
                            std::string_view key_text) {
    if (item_desc == nullptr) return nullptr;
    std::string key = item_desc->name;
    if (tq_mom_key_desc(item_desc) != nullptr) key += "|" + std::string(key_text);
    const mem_rec_t *rec = find_rec(mem_of(c), db, key);
    return rec == nullptr ? nullptr : decode(*rec, item_desc);
}

void mom_mem_put(tq_mom_client_t *c, uint32_t db, const std::string &key, mom_mem_rec_t rec) {
    mem_of(c)->dbs[db][key] = std::move(rec);
}

const mom_mem_db_t &mom_mem_records(tq_mom_client_t *c, uint32_t db) { return mem_of(c)->dbs[db]; }

std::vector<std::string> mom_mem_keys(tq_mom_client_t *c, uint32_t db) {
    std::vector<std::string> keys;
    for (const auto &[key, rec] : mem_of(c)->dbs[db]) keys.push_back(key);
    return keys;
}

size_t mom_mem_sub_count(tq_mom_client_t *c, uint32_t db,
                         const ProtobufCMessageDescriptor *item_desc) {
    size_t n = 0;
    if (item_desc != nullptr)
        for_subs(mem_of(c), db, item_desc->name, [&](const mem_sub_t &) { ++n; });
    return n;
}

uint32_t mom_mem_op_count(tq_mom_client_t *c, mom_mem_op_t op) {
    return op < MOM_MEM_OP_COUNT ? mem_of(c)->calls[op] : 0;
}

void mom_mem_clear(tq_mom_client_t *c) {
    mom_mem_t *m = mem_of(c);
    const tq_mom_ops_t *ops = m->ops;
    *m = mom_mem_t{};
    m->ops = ops;
}
