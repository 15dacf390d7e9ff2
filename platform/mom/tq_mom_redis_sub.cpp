// The MOM on Redis, subscriber side: keyspace notifications and published
// messages on a connection of their own, turned into notices; the end marker
// of a subscription; connection loss and reconnection.
//
// Events are queued as they arrive and delivered from an event made active on
// the loop, so that the records of a burst are read in one pipeline.
//
// Drift watches use client tracking in broadcast mode: the command connection
// (which makes every write of this client) tracks the watched prefixes with
// NOLOOP and redirects invalidations to the subscriber connection, so only
// foreign writes arrive, on __redis__:invalidate.
#include <event2/event.h>
#include <hiredis/async.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>
#include <string_view>

#include "platform/mom/tq_mom_name.h"
#include "platform/mom/tq_mom_redis_int.h"

namespace {

constexpr struct timeval RETRY_TV = {1, 0};
constexpr const char *INVALIDATE_CHANNEL = "__redis__:invalidate";

std::string_view reply_str(const redisReply *r) {
    return r->str == nullptr ? std::string_view() : std::string_view(r->str, r->len);
}

// Callbacks may register or drop reconnect callbacks: report from a copy.
void report(tq_mom_redis_t *r, uint32_t type) {
    const std::map<uint32_t, tq_redis_reconn_t> reconns = r->reconns;
    for (const auto &[db, rc] : reconns) rc.cb(rc.global, db, type, rc.arg);
}

// Reported from the loop, not from inside the connection's own callbacks.
void link_back(tq_mom_redis_t *r) {
    r->state = TQ_REDIS_UP;
    ++r->reconnects;
    fprintf(stderr, "tq_mom_redis: connection back\n");
    r->back_report = true;
    event_active(r->link_ev, EV_TIMEOUT, 0);
}

void push_note(tq_mom_redis_t *r, tq_redis_sub_t *s, int kind, std::string_view text) {
    r->notes.push_back({s, kind, std::string(text)});
    event_active(r->note_ev, EV_TIMEOUT, 0);
}

void on_confirm(tq_mom_redis_t *r, tq_redis_sub_t *s) {
    if (++s->confirmed == 2 && !s->ended) {
        s->ended = true;
        push_note(r, s, TQ_REDIS_NOTE_END, "");
    }
    if (r->state == TQ_REDIS_BACK && r->awaiting > 0 && --r->awaiting == 0) link_back(r);
}

// A list, set, sorted set or stream written under a table's key: the read that
// follows finds the wrong type and reports the key, where it would go unseen.
bool tq_redis_foreign_write(std::string_view event) {
    static constexpr std::string_view kEvents[] = {"lpush", "rpush", "linsert", "lset", "sadd",
                                                   "zadd", "zincr", "xadd"};
    for (std::string_view e : kEvents)
        if (event == e) return true;
    return false;
}

void on_keyspace(tq_mom_redis_t *r, tq_redis_sub_t *s, std::string_view channel,
                 std::string_view event) {
    if (!channel.starts_with(s->prefix)) return;
    std::string_view key = channel.substr(s->prefix.size());
    if (event == "set" || event == "rename_to" || tq_redis_foreign_write(event))
        push_note(r, s, TQ_REDIS_NOTE_SET, key);
    else if (event == "hset") push_note(r, s, TQ_REDIS_NOTE_HSET, key);
    else if (event == "del" || event == "expired" || event == "rename_from")
        push_note(r, s, TQ_REDIS_NOTE_DEL, key);
}

// Replies of one subscribed table: confirmations, keyspace events, messages.
void sub_reply(redisAsyncContext *ac, void *reply, void *privdata) {
    auto *r = static_cast<tq_mom_redis_t *>(ac->data);
    auto *rep = static_cast<redisReply *>(reply);
    auto *s = static_cast<tq_redis_sub_t *>(privdata);
    if (r != nullptr && rep != nullptr && rep->type == REDIS_REPLY_ERROR) {
        // A refused subscription would leave the table waiting for ever.
        fprintf(stderr, "tq_mom_redis: subscription refused: %.*s\n", static_cast<int>(rep->len),
                rep->str);
        tq_redis_link_lost(r, "subscription refused");
        return;
    }
    if (r == nullptr || rep == nullptr || rep->type != REDIS_REPLY_ARRAY || rep->elements < 3)
        return;
    std::string_view kind = reply_str(rep->element[0]);
    if (kind == "subscribe" || kind == "psubscribe") {
        on_confirm(r, s);
    } else if (kind == "message") {
        std::string_view channel = reply_str(rep->element[1]);
        std::string_view payload = reply_str(rep->element[2]);
        if (channel == s->channel) push_note(r, s, TQ_REDIS_NOTE_PUB, payload);
        else on_keyspace(r, s, channel, payload);
    } else if (kind == "pmessage" && rep->elements >= 4) {
        on_keyspace(r, s, reply_str(rep->element[2]), reply_str(rep->element[3]));
    }
}

int send_sub(tq_mom_redis_t *r, tq_redis_sub_t *s) {
    const char *verb = tq_mom_key_desc(s->desc) != nullptr ? "PSUBSCRIBE" : "SUBSCRIBE";
    const char *ks[] = {verb, s->keyspace.c_str()};
    size_t ks_len[] = {strlen(verb), s->keyspace.size()};
    const char *pub[] = {"SUBSCRIBE", s->channel.c_str()};
    size_t pub_len[] = {9, s->channel.size()};
    if (redisAsyncCommandArgv(r->sub, sub_reply, s, 2, ks, ks_len) != REDIS_OK ||
        redisAsyncCommandArgv(r->sub, sub_reply, s, 2, pub, pub_len) != REDIS_OK)
        return TQ_MOM_ERR;
    return TQ_MOM_OK;
}

void sub_connected(const redisAsyncContext *ac, int status) {
    auto *r = static_cast<tq_mom_redis_t *>(ac->data);
    if (r == nullptr) return;
    if (status != REDIS_OK) {
        r->sub = nullptr;  // hiredis frees it after this callback
        tq_redis_link_lost(r, "subscriber connection failed");
        return;
    }
    if (r->state == TQ_REDIS_BACK && r->awaiting == 0) link_back(r);
}

void sub_disconnected(const redisAsyncContext *ac, int) {
    auto *r = static_cast<tq_mom_redis_t *>(ac->data);
    if (r == nullptr) return;  // our own close
    r->sub = nullptr;
    tq_redis_link_lost(r, "subscriber connection lost");
}

void link_cb(evutil_socket_t, short, void *p) {
    auto *r = static_cast<tq_mom_redis_t *>(p);
    if (r->state == TQ_REDIS_DOWN) {
        tq_redis_sub_close(r);
        evtimer_add(r->retry_ev, &RETRY_TV);
    }
    // Both pending: the link came back and was lost again since the last turn.
    if (r->back_report) {
        r->back_report = false;
        report(r, TQ_MOM_CONN_BACK);
    }
    if (r->lost_report) {
        r->lost_report = false;
        report(r, TQ_MOM_CONN_LOST);
    }
}

void retry_cb(evutil_socket_t, short, void *p) {
    auto *r = static_cast<tq_mom_redis_t *>(p);
    if (r->state != TQ_REDIS_DOWN) return;
    if (tq_redis_cmd_open(r) != TQ_MOM_OK) {
        evtimer_add(r->retry_ev, &RETRY_TV);
        return;
    }
    r->state = TQ_REDIS_BACK;
    if (tq_redis_sub_open(r) != TQ_MOM_OK) {
        r->state = TQ_REDIS_DOWN;
        evtimer_add(r->retry_ev, &RETRY_TV);
    }
}

void deliver_end(tq_mom_redis_t *r, tq_redis_sub_t *s) {
    if ((s->flags & TQ_MOM_SUB_EXISTING) != 0)
        tq_redis_scan_deliver(r, s->global, s->db, nullptr, s->desc, TQ_MOM_MODE_TABLE, s->cb,
                              s->arg);
    tq_mom_msg_t msg = {TQ_MOM_CMD_END, TQ_MOM_FLAG_SCAN_OVER, nullptr, TQ_MOM_OK};
    s->cb(s->global, &msg, s->arg);
}

// Delivers a message that needs no read (a delete, a published message).
void deliver_direct(tq_mom_redis_t *r, const tq_redis_note_t &n) {
    tq_redis_sub_t *s = n.sub;
    bool del = n.kind == TQ_REDIS_NOTE_DEL;
    ProtobufCMessage *msg =
        del ? tq_mom_item_from_key(s->desc, n.text) : tq_mom_unpack(s->desc, n.text);
    if (msg == nullptr) {
        tq_redis_count_bad(r, del ? n.text : s->channel,
                           del ? TQ_REDIS_BAD_KEY : TQ_REDIS_BAD_DECODE);
        return;
    }
    tq_redis_deliver(s->global, s->cb, s->arg, del ? TQ_MOM_CMD_DEL : TQ_MOM_CMD_SET, msg, false);
}

bool needs_read(const tq_redis_note_t &n) {
    return n.kind == TQ_REDIS_NOTE_SET || n.kind == TQ_REDIS_NOTE_HSET;
}

// Reads the records of a run of set/hset events of one table in one pipeline,
// then delivers them in order; a record gone by then delivers nothing.
size_t deliver_reads(tq_mom_redis_t *r, const std::vector<tq_redis_note_t> &notes, size_t i) {
    tq_redis_sub_t *s = notes[i].sub;
    std::vector<std::string> keys;
    size_t j = i;
    for (; j < notes.size() && needs_read(notes[j]) && notes[j].sub == s; ++j)
        keys.push_back(notes[j].text);
    std::vector<tq_redis_record_t> recs;
    tq_redis_fetch(r, s->db, s->desc, keys, recs);
    for (const tq_redis_record_t &rec : recs)
        if (rec.msg != nullptr)
            tq_redis_deliver(s->global, s->cb, s->arg,
                             rec.hash ? TQ_MOM_CMD_HSET : TQ_MOM_CMD_SET, rec.msg, rec.hash);
    return j;
}

// ---- drift watches ----------------------------------------------------------

// Redis refuses overlapping prefixes: keep the shortest of each family; the
// watches filter what arrives.
std::vector<std::string> tracked_prefixes(const tq_mom_redis_t *r) {
    std::set<std::string> all;
    for (const tq_mom_redis_t::watch_t &w : r->watches) all.insert(w.scope.prefix);
    std::vector<std::string> kept;
    for (const std::string &p : all)
        if (kept.empty() || !p.starts_with(kept.back())) kept.push_back(p);
    return kept;
}

// Turns tracking on for the current connections once the subscriber's id is
// known. OFF first: a new prefix may cover one already tracked.
int tracking_sync(tq_mom_redis_t *r) {
    if (r->tracking || r->watches.empty() || r->sub_id <= 0 || r->cmd == nullptr)
        return TQ_MOM_OK;
    tq_redis_cmd_t on = {"CLIENT", "TRACKING", "ON", "REDIRECT", std::to_string(r->sub_id),
                         "BCAST", "NOLOOP"};
    for (const std::string &p : tracked_prefixes(r)) {
        on.push_back("PREFIX");
        on.push_back(p);
    }
    std::vector<tq_redis_reply_t> replies;
    uint32_t db = r->cur_db >= 0 ? static_cast<uint32_t>(r->cur_db) : 0;
    int rv = tq_redis_cmd_run(r, db, {{"CLIENT", "TRACKING", "OFF"}, on}, replies);
    if (rv != TQ_MOM_OK) return rv;
    if (replies[1]->type == REDIS_REPLY_ERROR) {
        fprintf(stderr, "tq_mom_redis: CLIENT TRACKING: %.*s\n", static_cast<int>(replies[1]->len),
                replies[1]->str);
        return TQ_MOM_ERR;
    }
    r->tracking = true;
    return TQ_MOM_OK;
}

void client_id_reply(redisAsyncContext *ac, void *reply, void *) {
    auto *r = static_cast<tq_mom_redis_t *>(ac->data);
    auto *rep = static_cast<redisReply *>(reply);
    if (r == nullptr || rep == nullptr || rep->type != REDIS_REPLY_INTEGER) return;
    r->sub_id = rep->integer;
    if (!r->watches.empty()) event_active(r->note_ev, EV_TIMEOUT, 0);  // tracking, from the loop
}

// An invalidation: the keys changed by other clients, or null for a flush.
void invalidate_reply(redisAsyncContext *ac, void *reply, void *) {
    auto *r = static_cast<tq_mom_redis_t *>(ac->data);
    auto *rep = static_cast<redisReply *>(reply);
    if (r == nullptr || rep == nullptr || rep->type != REDIS_REPLY_ARRAY || rep->elements < 3 ||
        reply_str(rep->element[0]) != "message")
        return;
    const redisReply *keys = rep->element[2];
    if (keys->type == REDIS_REPLY_ARRAY) {
        for (size_t i = 0; i < keys->elements; ++i)
            r->drifts.emplace_back(reply_str(keys->element[i]));
    } else {
        r->drift_all = true;
    }
    event_active(r->note_ev, EV_TIMEOUT, 0);
}

int send_invalidate_sub(tq_mom_redis_t *r) {
    const char *argv[] = {"SUBSCRIBE", INVALIDATE_CHANNEL};
    size_t lens[] = {9, strlen(INVALIDATE_CHANNEL)};
    return redisAsyncCommandArgv(r->sub, invalidate_reply, nullptr, 2, argv, lens) == REDIS_OK
               ? TQ_MOM_OK
               : TQ_MOM_ERR;
}

// One notice per watch and distinct key; a flush tells every watch once.
void drifts_run(tq_mom_redis_t *r) {
    if (r->drifts.empty() && !r->drift_all) return;
    std::vector<std::string> keys;
    keys.swap(r->drifts);
    bool all = r->drift_all;
    r->drift_all = false;
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    std::erase_if(keys, [r](const std::string &k) { return r->self_changed.erase(k) != 0; });
    if (keys.empty() && !all) return;
    const std::vector<tq_mom_redis_t::watch_t> watches = r->watches;  // callbacks may add some
    for (const tq_mom_redis_t::watch_t &w : watches) {
        tq_mom_msg_t msg = {TQ_MOM_CMD_DRIFT, TQ_MOM_FLAG_NONE, nullptr, TQ_MOM_OK};
        if (all) {
            w.cb(w.global, &msg, w.arg);
            continue;
        }
        for (const std::string &key : keys) {
            if (!w.scope.holds(key)) continue;
            msg.value = const_cast<char *>(key.c_str());
            w.cb(w.global, &msg, w.arg);
        }
    }
}

}  // namespace

int tq_redis_link_init(tq_mom_redis_t *r) {
    r->link_ev = event_new(r->master, -1, 0, link_cb, r);
    r->retry_ev = evtimer_new(r->master, retry_cb, r);
    return r->link_ev != nullptr && r->retry_ev != nullptr ? TQ_MOM_OK : TQ_MOM_ERR_NOMEM;
}

int tq_redis_sub_open(tq_mom_redis_t *r) {
    if (r->sub != nullptr) return TQ_MOM_OK;
    redisAsyncContext *ac = tq_redis_connect_async(r->addr, r->master);
    if (ac == nullptr) return TQ_MOM_ERR_CONN;
    ac->data = r;
    redisAsyncSetConnectCallback(ac, sub_connected);
    redisAsyncSetDisconnectCallback(ac, sub_disconnected);
    r->sub = ac;
    r->awaiting = 0;
    // Before any SUBSCRIBE: a subscribed connection takes no other command.
    r->sub_id = 0;
    r->tracking = false;
    redisAsyncCommand(ac, client_id_reply, nullptr, "CLIENT ID");
    if (!r->watches.empty()) send_invalidate_sub(r);
    // A new connection re-subscribes every table and delivers its end marker
    // again: what changed while the link was down reaches the daemon only
    // through the data sync that the markers trigger.
    for (const std::unique_ptr<tq_redis_sub_t> &s : r->subs) {
        s->confirmed = 0;
        s->ended = false;
        if (send_sub(r, s.get()) == TQ_MOM_OK) r->awaiting += 2;
    }
    return TQ_MOM_OK;
}

void tq_redis_sub_close(tq_mom_redis_t *r) {
    redisAsyncContext *ac = r->sub;
    if (ac == nullptr) return;
    r->sub = nullptr;
    r->sub_id = 0;
    r->tracking = false;
    // The next connection delivers the markers again; stale ones would end a
    // table's wait before its new subscription stands.
    std::erase_if(r->notes, [](const tq_redis_note_t &n) { return n.kind == TQ_REDIS_NOTE_END; });
    ac->data = nullptr;  // its last callbacks (null replies, disconnect) are ours to ignore
    redisAsyncFree(ac);
}

void tq_redis_link_lost(tq_mom_redis_t *r, const char *why) {
    if (r->cmd != nullptr) {
        redisFree(r->cmd);
        r->cmd = nullptr;
    }
    r->cur_db = -1;
    r->owed = 0;
    if (r->state == TQ_REDIS_UP) {
        fprintf(stderr, "tq_mom_redis: connection lost: %s\n", why);
        r->lost_report = true;
    } else if (r->state != TQ_REDIS_BACK) {
        return;  // not up yet: the retries go on
    }
    r->state = TQ_REDIS_DOWN;
    event_active(r->link_ev, EV_TIMEOUT, 0);
}

void tq_redis_link_retry(tq_mom_redis_t *r) {
    tq_redis_sub_close(r);
    r->state = TQ_REDIS_DOWN;
    evtimer_add(r->retry_ev, &RETRY_TV);
}

int tq_redis_subscribe(tq_mom_redis_t *r, void *global, uint32_t db, const ProtobufCMessage *item,
                       uint32_t flags, tq_mom_msg_cb_t cb, void *arg) {
    if (r->state != TQ_REDIS_UP || r->sub == nullptr) return TQ_MOM_ERR_CONN;
    const ProtobufCMessageDescriptor *desc = item->descriptor;
    tq_redis_sub_t *s = nullptr;
    for (const std::unique_ptr<tq_redis_sub_t> &old : r->subs)
        if (old->db == db && old->desc == desc) s = old.get();
    if (s == nullptr) {
        r->subs.push_back(std::make_unique<tq_redis_sub_t>());
        s = r->subs.back().get();
    }
    s->db = db;
    s->desc = desc;
    s->flags = flags;
    s->cb = cb;
    s->arg = arg;
    s->global = global;
    s->prefix = "__keyspace@" + std::to_string(db) + "__:";
    s->keyspace = tq_mom_key_desc(desc) != nullptr
                      ? s->prefix + tq_redis_glob_escape(tq_mom_table_prefix(item, false)) + "*"
                      : s->prefix + tq_mom_table_name(desc);
    s->channel = tq_mom_channel(db, desc);
    s->confirmed = 0;
    s->ended = false;
    return send_sub(r, s);
}

void tq_redis_notes_run(tq_mom_redis_t *r) {
    if (r->state == TQ_REDIS_BACK) return;  // the last confirmation runs them again
    // The return is reported before the end markers of the new connection, as
    // a loss is before them: the table client knows the link is back when its
    // data sync starts.
    if (r->back_report && !r->lost_report && r->state == TQ_REDIS_UP) {
        r->back_report = false;
        report(r, TQ_MOM_CONN_BACK);
    }
    tracking_sync(r);
    std::vector<tq_redis_note_t> notes;
    notes.swap(r->notes);
    for (size_t i = 0; i < notes.size();) {
        const tq_redis_note_t &n = notes[i];
        if (needs_read(n)) {
            i = deliver_reads(r, notes, i);
            continue;
        }
        if (n.kind == TQ_REDIS_NOTE_END) deliver_end(r, n.sub);
        else deliver_direct(r, n);
        ++i;
    }
    drifts_run(r);
}

int tq_redis_watch(tq_mom_client_t *c, void *global, uint32_t db, const ProtobufCMessage *item,
                   uint32_t mode, tq_mom_msg_cb_t cb, void *arg) {
    tq_mom_redis_t *r = tq_redis_of(c);
    if (mode > TQ_MOM_MODE_OWNER) return TQ_MOM_ERR_PARAM;
    if (r->state != TQ_REDIS_UP || r->sub == nullptr) return TQ_MOM_ERR_CONN;
    tq_redis_scope_t scope = tq_redis_scope(item, mode);
    for (tq_mom_redis_t::watch_t &w : r->watches)
        if (w.db == db && w.scope == scope) {
            w.cb = cb;
            w.arg = arg;
            w.global = global;
            return TQ_MOM_OK;
        }
    if (r->watches.empty() && send_invalidate_sub(r) != TQ_MOM_OK) return TQ_MOM_ERR;
    r->watches.push_back({db, std::move(scope), cb, arg, global});
    r->tracking = false;
    // A link lost meanwhile re-enables it on the new connections.
    if (tracking_sync(r) != TQ_MOM_ERR) return TQ_MOM_OK;
    r->watches.pop_back();  // refused: the others are tracked as before
    tracking_sync(r);
    return TQ_MOM_ERR;
}
