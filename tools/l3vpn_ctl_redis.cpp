#include "tools/l3vpn_ctl_redis.h"

#include <hiredis/hiredis.h>
#include <sys/time.h>

#include <algorithm>
#include <cstdlib>

#include "platform/mom/tq_mom_name.h"
#include "platform/mom/tq_mom_redis.h"
#include "tools/l3vpn_ctl_tables.h"

namespace {

constexpr int CTL_CONNECT_TIMEOUT_S = 5;
constexpr int CTL_REPLY_TIMEOUT_S = 60;  // a full table scan of a big database
constexpr size_t CTL_FETCH_BATCH = 512;

std::string ctl_ctx_error(const redisContext *c) {
    return c != nullptr && c->err != 0 ? c->errstr : "connection failed";
}

void ctl_append(redisContext *c, const ctl_cmd_t &cmd) {
    std::vector<const char *> argv;
    std::vector<size_t> lens;
    for (const std::string &w : cmd) {
        argv.push_back(w.data());
        lens.push_back(w.size());
    }
    redisAppendCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lens.data());
}

// A fetched value as stored; false when the key went (or holds another kind).
bool ctl_stored(const redisReply *rep, int type, mom_mem_rec_t &rec) {
    rec = mom_mem_rec_t{};
    rec.type = type;
    if (type == MOM_MEM_REC_STRING && rep->type == REDIS_REPLY_STRING) {
        rec.bytes.assign(rep->str, rep->len);
        return true;
    }
    if (type != MOM_MEM_REC_HASH || rep->type != REDIS_REPLY_ARRAY || rep->elements == 0) return false;
    for (size_t i = 0; i + 1 < rep->elements; i += 2)
        rec.fields[ctl_reply_text(rep->element[i])] = ctl_reply_text(rep->element[i + 1]);
    return true;
}

}  // namespace

void ctl_reply_free_t::operator()(redisReply *r) const { freeReplyObject(r); }

ctl_redis_t::~ctl_redis_t() {
    if (c != nullptr) redisFree(c);
}

std::string ctl_redis_addr(const std::string &given) {
    if (!given.empty()) return given;
    const char *env = getenv("MOM_REDIS");
    return env != nullptr && *env != '\0' ? env : "127.0.0.1:6379";
}

int ctl_redis_connect(const std::string &addr, ctl_redis_t &r, std::string &err) {
    r.addr = addr;
    tq_redis_addr_t where{};
    if (tq_redis_addr_parse(addr, where) != 0) {
        err = "bad Redis address '" + addr + "' (unix:/path or host:port)";
        return -1;
    }
    std::string why;
    int fail = 0;
    r.c = tq_redis_connect(where, CTL_CONNECT_TIMEOUT_S * 1000, &why, &fail);
    if (r.c == nullptr) {
        err = (fail == TQ_REDIS_FAIL_AUTH ? "Redis at " : "cannot connect to Redis at ") + addr +
              ": " + why;
        return -1;
    }
    timeval rt{CTL_REPLY_TIMEOUT_S, 0};
    redisSetTimeout(r.c, rt);
    return 0;
}

ctl_reply_t ctl_redis_cmd(ctl_redis_t &r, const ctl_cmd_t &cmd, std::string &err) {
    std::vector<ctl_reply_t> replies = ctl_redis_pipeline(r, {cmd}, err);
    return replies.empty() ? nullptr : std::move(replies.front());
}

std::vector<ctl_reply_t> ctl_redis_pipeline(ctl_redis_t &r, const std::vector<ctl_cmd_t> &cmds,
                                            std::string &err) {
    std::vector<ctl_reply_t> out;
    for (const ctl_cmd_t &cmd : cmds) ctl_append(r.c, cmd);
    for (size_t i = 0; i < cmds.size(); ++i) {
        void *reply = nullptr;
        if (redisGetReply(r.c, &reply) != REDIS_OK || reply == nullptr) {
            err = "Redis at " + r.addr + ": " + ctl_ctx_error(r.c);
            return {};
        }
        out.emplace_back(static_cast<redisReply *>(reply));
    }
    return out;
}

int ctl_redis_select(ctl_redis_t &r, unsigned db, std::string &err) {
    ctl_reply_t rep = ctl_redis_cmd(r, {"SELECT", std::to_string(db)}, err);
    if (rep == nullptr) return -1;
    if (rep->type == REDIS_REPLY_ERROR) {
        err = "SELECT " + std::to_string(db) + ": " + ctl_reply_text(rep.get());
        return -1;
    }
    return 0;
}

std::string ctl_reply_text(const redisReply *r) {
    if (r == nullptr) return "(no reply)";
    switch (r->type) {
    case REDIS_REPLY_STRING:
    case REDIS_REPLY_STATUS:
    case REDIS_REPLY_ERROR:
        return std::string(r->str, r->len);
    case REDIS_REPLY_INTEGER:
        return std::to_string(r->integer);
    case REDIS_REPLY_NIL:
        return "(nil)";
    default:
        return "(array of " + std::to_string(r->elements) + ")";
    }
}

int ctl_redis_table_keys(ctl_redis_t &r, const ctl_tbl_t *t, std::vector<std::string> &keys,
                         std::string &err) {
    std::string name = t->desc->name;
    if (tq_mom_key_desc(t->desc) == nullptr) {
        ctl_reply_t rep = ctl_redis_cmd(r, {"EXISTS", name}, err);
        if (rep == nullptr) return -1;
        if (rep->type == REDIS_REPLY_INTEGER && rep->integer > 0) keys.push_back(name);
        return 0;
    }
    std::string cursor = "0";
    do {
        ctl_reply_t rep = ctl_redis_cmd(r, {"SCAN", cursor, "MATCH", name + "|*", "COUNT", "1000"}, err);
        if (rep == nullptr) return -1;
        if (rep->type != REDIS_REPLY_ARRAY || rep->elements != 2) {
            err = "SCAN: " + ctl_reply_text(rep.get());
            return -1;
        }
        cursor = ctl_reply_text(rep->element[0]);
        const redisReply *list = rep->element[1];
        for (size_t i = 0; i < list->elements; ++i) keys.push_back(ctl_reply_text(list->element[i]));
    } while (cursor != "0");
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    return 0;
}

namespace {

int ctl_fetch_as(ctl_redis_t &r, bool hash, const std::vector<std::string> &keys,
                 const ctl_each_reply_t &each, std::string &err) {
    const char *verb = hash ? "HGETALL" : "GET";
    for (size_t at = 0; at < keys.size(); at += CTL_FETCH_BATCH) {
        size_t end = std::min(keys.size(), at + CTL_FETCH_BATCH);
        std::vector<ctl_cmd_t> cmds;
        for (size_t i = at; i < end; ++i) cmds.push_back({verb, keys[i]});
        std::vector<ctl_reply_t> reps = ctl_redis_pipeline(r, cmds, err);
        if (reps.empty()) return -1;
        for (size_t i = at; i < end; ++i) each(i, reps[i - at].get());
    }
    return 0;
}

}  // namespace

int ctl_redis_fetch(ctl_redis_t &r, const ctl_tbl_t *t, const std::vector<std::string> &keys,
                    const ctl_each_reply_t &each, std::string &err) {
    return ctl_fetch_as(r, t->type == CTL_TBL_HASH, keys, each, err);
}

namespace {

// Fetches keys as one kind of value into db; keys that hold the other kind go to odd.
int ctl_fetch_into(ctl_redis_t &r, bool hash, const std::vector<std::string> &keys, mom_mem_db_t &db,
                   std::vector<std::string> *odd, std::string &err) {
    auto keep = [&](size_t i, const redisReply *rep) {
        mom_mem_rec_t rec;
        if (ctl_stored(rep, hash ? MOM_MEM_REC_HASH : MOM_MEM_REC_STRING, rec))
            db[keys[i]] = std::move(rec);
        else if (odd != nullptr && rep->type == REDIS_REPLY_ERROR)
            odd->push_back(keys[i]);
    };
    return ctl_fetch_as(r, hash, keys, keep, err);
}

}  // namespace

int ctl_redis_read_store(ctl_redis_t &r, ctl_store_t &out, std::string &err) {
    for (const ctl_tbl_t *t : ctl_tbl_distinct()) {
        std::vector<std::string> keys, odd;
        bool hash = t->type == CTL_TBL_HASH;
        if (ctl_redis_select(r, t->db, err) != 0 || ctl_redis_table_keys(r, t, keys, err) != 0 ||
            ctl_fetch_into(r, hash, keys, out[t->db], &odd, err) != 0 ||
            ctl_fetch_into(r, !hash, odd, out[t->db], nullptr, err) != 0)
            return -1;
    }
    return 0;
}

mom_mem_msg_ptr ctl_store_decode(const ProtobufCMessageDescriptor *desc, const mom_mem_rec_t &rec) {
    if (rec.type == MOM_MEM_REC_STRING) return mom_mem_msg_ptr(tq_mom_unpack(desc, rec.bytes));
    std::vector<std::pair<std::string, std::string>> fields(rec.fields.begin(), rec.fields.end());
    return mom_mem_msg_ptr(tq_mom_hash_unpack(desc, fields));
}
