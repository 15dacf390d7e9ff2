// verify: the lower layers' records in the store against what the inputs
// imply, and the running daemon's state against the same.
//
// The second path is the daemon's own code. It runs in this process on a copy
// of the store (inputs and outputs) and does what a restart does: reads its
// outputs back (the inner adjacencies keep their MPLS ids), replays the
// inputs, sweeps what the replay did not write. Every record it then writes
// differently, adds or deletes in the copy is a record the store has wrong; an
// exact store gives none, since an unchanged restart writes nothing.
#include <hiredis/hiredis.h>
#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <tuple>

#include "app/proc/ce_l3vpn_proto_op.h"
#include "platform/cap/libs_cap_mem.h"
#include "platform/mom/tq_mom_name.h"
#include "platform/ssat/ssat.h"
#include "s_route.pb-c.h"
#include "tools/l3vpn_ctl.h"
#include "tools/l3vpn_ctl_codec.h"
#include "tools/l3vpn_ctl_inproc.h"
#include "tools/l3vpn_ctl_redis.h"
#include "tools/l3vpn_ctl_tables.h"

const char *const CTL_HELP_VERIFY =
    "usage: l3vpn-ctl verify [--json]\n"
    "\n"
    "Checks the lower layers' records in the store against what the inputs imply,\n"
    "and the running daemon's state against the same. It copies every record of the\n"
    "daemon's tables (inputs and outputs) and the capability values, runs the\n"
    "daemon's own start-up and first data sync on the copy in this process, as a\n"
    "restart would (outputs read back with their MPLS ids, inputs replayed, the rest\n"
    "swept), and compares the copy before and after. It then asks the running daemon\n"
    "over its debug socket (under --root) for its databases and node count and\n"
    "compares them with those of the daemon run here. One line a difference:\n"
    "  store TABLE KEY: missing     the inputs imply a record the store lacks\n"
    "  store TABLE KEY: stale       the store holds a record nothing implies\n"
    "  store TABLE KEY: differs: field F: store A, expected B\n"
    "  daemon COMMAND ENTRY: ...    the running daemon holds another state\n"
    "KEY is the record's key text (\"-\" for a table of one record), ENTRY the first\n"
    "line of an entry in the debug command's output. A summary line follows. When\n"
    "the daemon does not answer, a line says so and only the store is verified.\n"
    "  --json   one JSON object a difference, then one with the summary\n"
    "The local tunnel address comes from L3VPN_LOCAL_TNL_V4 and _V6, as for the\n"
    "daemon. Nothing is written to the store.\n"
    "\n"
    "Exit status: 0 no difference, 1 differences or a failure, 2 bad usage.\n";

namespace {

// ---- printed texts ---------------------------------------------------------------

constexpr const char *VFY_STORE = "store";
constexpr const char *VFY_DAEMON = "daemon";
constexpr const char *VFY_MISSING = "missing";
constexpr const char *VFY_STALE = "stale";
constexpr const char *VFY_DIFFERS = "differs: ";
constexpr const char *VFY_FIELD = "field %s: store %s, expected %s";
constexpr const char *VFY_BYTES = "stored bytes differ, every field equal";
constexpr const char *VFY_NO_DECODE = "the stored record does not decode";
constexpr const char *VFY_ONLY_DAEMON = "held by the daemon, not implied by the store";
constexpr const char *VFY_NOT_DAEMON = "implied by the store, not held by the daemon";
constexpr const char *VFY_ENTRY = "daemon %s, expected %s";
constexpr const char *VFY_NOTHING = "nothing";
constexpr const char *VFY_NO_UC_ID = "{id of no UC record}";
constexpr const char *VFY_NO_ANSWER = "verify: the daemon does not answer on %s (%s): only the store was verified\n";
constexpr const char *VFY_SUMMARY = "verify: %zu difference%s (%zu in the store, %zu in the daemon)\n";
constexpr const char *VFY_CLEAN = "verify: no difference: the store holds what its inputs imply%s\n";
constexpr const char *VFY_CLEAN_DAEMON = ", and the daemon holds the same state";

constexpr int VFY_PROBE_MS = 2000;  // a daemon that does not answer this soon is not compared
constexpr int VFY_DUMP_MS = 30000;  // a full database dump can take a while

// The daemon's state as its debug commands show it, compared entry by entry.
struct vfy_cmd_t {
    const char *line;
    const char *skip;  // lines that start so are not compared
};
const vfy_cmd_t VFY_CMDS[] = {
    {"get-mem_cnt", nullptr},
    // The id allocator only moves up: a daemon that freed ids is ahead of a restart.
    {"dump-basic-info", "mpls id"},
    {"dump-ftn-db count:0 is_form:1", nullptr},
    {"dump-vc-ftn-db count:0 is_form:1", nullptr},
    {"dump-ilm-db count:0 is_form:1", nullptr},
    {"dump-in-adj-db count:0 is_form:1", nullptr},
};
using vfy_outputs_t = std::vector<std::string>;  // one per VFY_CMDS entry

struct vfy_diff_t {
    bool in_daemon;  // else in the store
    std::string table, key, what;
};

// A printed text of any length.
std::string vfy_text(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string vfy_text(const char *fmt, ...) {
    va_list ap, again;
    va_start(ap, fmt);
    va_copy(again, ap);
    int n = vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    std::string out(n > 0 ? static_cast<size_t>(n) : 0, '\0');
    if (n > 0) vsnprintf(out.data(), out.size() + 1, fmt, again);
    va_end(again);
    return out;
}

// ---- the store against the copy after the in-process run ---------------------------

std::string vfy_key_text(const std::string &key) {
    size_t bar = key.find('|');
    return bar == std::string::npos ? "-" : key.substr(bar + 1);
}

// Hash fields as Redis compares them in a data sync: an empty field is a missing one.
std::map<std::string, std::string> vfy_filled(const mom_mem_rec_t &r) {
    std::map<std::string, std::string> out;
    for (const auto &[name, bytes] : r.fields)
        if (!bytes.empty()) out.emplace(name, bytes);
    return out;
}

bool vfy_same(const mom_mem_rec_t &a, const mom_mem_rec_t &b) {
    if (a.type != b.type) return false;
    return a.type == MOM_MEM_REC_STRING ? a.bytes == b.bytes : vfy_filled(a) == vfy_filled(b);
}

// "field F: store A, expected B; ..." for the fields that differ.
std::string vfy_fields(const ctl_tbl_t *t, const mom_mem_rec_t &store, const mom_mem_rec_t &want) {
    mom_mem_msg_ptr s = ctl_store_decode(t->desc, store), w = ctl_store_decode(t->desc, want);
    if (s == nullptr || w == nullptr || store.type != want.type) return VFY_NO_DECODE;
    std::vector<std::string> cols = ctl_msg_columns(t->desc);
    std::vector<std::string> sc = ctl_msg_cells(s.get()), wc = ctl_msg_cells(w.get());
    std::string out;
    for (size_t i = 0; i < cols.size() && i < sc.size() && i < wc.size(); ++i) {
        if (sc[i] != wc[i])
            out += (out.empty() ? "" : "; ") + vfy_text(VFY_FIELD, cols[i].c_str(), sc[i].c_str(), wc[i].c_str());
    }
    return out.empty() ? VFY_BYTES : out;
}

void vfy_store(const ctl_store_t &before, const ctl_store_t &after, std::vector<vfy_diff_t> &out) {
    for (const auto &[db, was] : before) {
        const mom_mem_db_t &now = after.at(db);
        std::set<std::string> keys;
        for (const auto &[key, rec] : was) keys.insert(key);
        for (const auto &[key, rec] : now) keys.insert(key);
        for (const std::string &key : keys) {
            const ctl_tbl_t *t = ctl_tbl_find(key.substr(0, key.find('|')));
            auto b = was.find(key), a = now.find(key);
            if (t == nullptr || (b != was.end() && a != now.end() && vfy_same(b->second, a->second)))
                continue;
            std::string what = b == was.end()   ? VFY_MISSING
                               : a == now.end() ? VFY_STALE
                                                : VFY_DIFFERS + vfy_fields(t, b->second, a->second);
            out.push_back({false, t->desc->name, vfy_key_text(key), what});
        }
    }
}

// ---- MPLS ids -------------------------------------------------------------------------
//
// A restart keeps the id of every adjacency it reads back from UC and numbers
// the others anew. An adjacency whose UC record went is one of those: its
// routes would move to a new id, and the store would seem to lack other keys
// than the one it lost. The ids the run here gave anew are therefore mapped
// back to the ids the store's routes name for the same next hops (a route's
// key without its id), so that the lost record is reported under its own key.

// The tables whose key ends with an MPLS id.
struct vfy_id_tbl_t {
    const ProtobufCMessageDescriptor *desc;
    const char *field;  // of the key
    bool route;
};
const vfy_id_tbl_t VFY_ID_TBLS[] = {
    {&s_route__comm_rt__descriptor, "mpls_id", true},
    {&s_route__vir_rt__descriptor, "mpls_id", true},
    {&s_route__in_sub_adj__descriptor, "mplsid", false},
};
using vfy_idmap_t = std::map<std::string, uint64_t>;  // id text -> id
using vfy_ids_t = std::set<std::string>;

// Calls f(key, stem, id) for every record of an id table: the key without
// its id, and the id's text.
template <typename F>
void vfy_each_id(const ctl_store_t &store, bool routes, F &&f) {
    for (const vfy_id_tbl_t &t : VFY_ID_TBLS) {
        if (t.route != routes) continue;
        const std::string prefix = std::string(t.desc->name) + "|";
        for (const auto &[key, rec] : store.at(ctl_tbl_find(t.desc->name)->db)) {
            size_t bar = key.rfind('|');
            if (key.rfind(prefix, 0) == 0) f(t, key, key.substr(0, bar), key.substr(bar + 1));
        }
    }
}

vfy_ids_t vfy_uc_ids(const ctl_store_t &store) {
    vfy_ids_t ids;
    vfy_each_id(store, false, [&](const vfy_id_tbl_t &, const std::string &, const std::string &,
                                  const std::string &id) { ids.insert(id); });
    return ids;
}

// New ids of after -> the id the store's routes name for the same next hops,
// where every route of the new id agrees on one such id and no UC record holds it.
vfy_idmap_t vfy_kept_ids(const ctl_store_t &before, const ctl_store_t &after) {
    const vfy_ids_t read_back = vfy_uc_ids(before), used = vfy_uc_ids(after);
    std::map<std::string, std::set<std::string>> named;  // route stem -> ids of no UC record
    vfy_each_id(before, true, [&](const vfy_id_tbl_t &, const std::string &, const std::string &stem,
                                  const std::string &id) {
        if (read_back.count(id) == 0) named[stem].insert(id);
    });
    std::map<std::string, std::set<std::string>> votes;  // new id -> the ids its routes had
    vfy_each_id(after, true, [&](const vfy_id_tbl_t &, const std::string &, const std::string &stem,
                                 const std::string &id) {
        if (read_back.count(id) != 0) return;
        auto n = named.find(stem);
        votes[id].insert(n != named.end() && n->second.size() == 1 ? *n->second.begin() : "");
    });
    vfy_idmap_t out;
    std::set<std::string> taken;
    for (const auto &[id, olds] : votes) {
        const std::string &old = *olds.begin();
        if (olds.size() == 1 && !old.empty() && used.count(old) == 0 && taken.insert(old).second)
            out[id] = strtoull(old.c_str(), nullptr, 10);
    }
    return out;
}

// The record with its key's id field set to id, under its new Redis key.
bool vfy_reid(const vfy_id_tbl_t &t, const mom_mem_rec_t &rec, uint64_t id, std::string &key,
              mom_mem_rec_t &out) {
    mom_mem_msg_ptr m(rec.type == MOM_MEM_REC_STRING ? tq_mom_unpack(t.desc, rec.bytes) : nullptr);
    auto *k = m != nullptr ? const_cast<ProtobufCMessage *>(tq_mom_item_key(m.get())) : nullptr;
    const ProtobufCFieldDescriptor *f =
        k != nullptr ? protobuf_c_message_descriptor_get_field_by_name(k->descriptor, t.field) : nullptr;
    if (f == nullptr || f->type != PROTOBUF_C_TYPE_UINT64) return false;
    *reinterpret_cast<uint64_t *>(reinterpret_cast<char *>(k) + f->offset) = id;
    out = mom_mem_rec_t{};
    out.type = MOM_MEM_REC_STRING;
    return tq_mom_pack(m.get(), out.bytes) == 0 && tq_mom_record_key(m.get(), key) == 0;
}

void vfy_apply_ids(ctl_store_t &after, const vfy_idmap_t &ids) {
    std::vector<std::tuple<uint32_t, std::string, std::string, mom_mem_rec_t>> moves;
    for (bool routes : {true, false})
        vfy_each_id(after, routes, [&](const vfy_id_tbl_t &t, const std::string &key, const std::string &,
                                       const std::string &id) {
            auto to = ids.find(id);
            std::string new_key;
            mom_mem_rec_t rec;
            uint32_t db = ctl_tbl_find(t.desc->name)->db;
            if (to != ids.end() && vfy_reid(t, after.at(db).at(key), to->second, new_key, rec))
                moves.emplace_back(db, key, new_key, std::move(rec));
        });
    for (auto &[db, from, to, rec] : moves) {
        after[db].erase(from);
        after[db][to] = std::move(rec);
    }
}

// In a debug command's line: an id mapped back shows as the store's; an id of
// no UC record (an adjacency whose opcode the lower layers are not given gets
// a new one on every restart) shows as one word. Ids print as "{high, low} id".
std::string vfy_line_ids(const std::string &words, const vfy_ids_t &uc, const vfy_idmap_t &kept) {
    static const std::regex id_text(R"(\{\d+, \d+\} (\d+))");
    std::string out;
    auto at = words.cbegin();
    for (std::sregex_iterator m(words.begin(), words.end(), id_text), end; m != end; ++m) {
        out.append(at, (*m)[0].first);
        auto k = kept.find((*m)[1].str());
        if (k != kept.end())
            out += vfy_text("{%u, %u} %llu", static_cast<uint32_t>(k->second >> 32), static_cast<uint32_t>(k->second),
                            static_cast<unsigned long long>(k->second));
        else
            out += uc.count((*m)[1].str()) != 0 ? (*m)[0].str() : VFY_NO_UC_ID;
        at = (*m)[0].second;
    }
    return out.append(at, words.cend());
}

// ---- the running daemon against the daemon run here ---------------------------------

std::string vfy_words(const std::string &line) {
    std::istringstream in(line);
    std::string out, w;
    while (in >> w) out += (out.empty() ? "" : " ") + w;
    return out;
}

// The entries of a debug command's output: an unindented line and the indented
// lines under it, those as a set (a restart replays the next hops of an entry
// in its own order; the first line names the first opcode). A "[dbg] name:value"
// line is an entry "name" holding value.
using vfy_entries_t = std::map<std::string, std::multiset<std::string>>;

vfy_entries_t vfy_entries(const std::string &text, const char *skip,
                          const std::function<std::string(const std::string &)> &ids) {
    vfy_entries_t out;
    std::string head;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        std::string words = ids(vfy_words(line));
        if (words.empty() || (skip != nullptr && words.rfind(skip, 0) == 0)) continue;
        if (line[0] == ' ' || line[0] == '\t') {
            out[head].insert(words);
            continue;
        }
        size_t colon = words.rfind(':');
        bool named = words.rfind("[dbg]", 0) == 0 && colon != std::string::npos;
        head = named ? words.substr(0, colon) : words;
        std::multiset<std::string> &body = out[head];
        if (named) body.insert(vfy_words(words.substr(colon + 1)));
    }
    return out;
}

// The lines of a that b lacks, joined; "nothing" when none.
std::string vfy_minus(const std::multiset<std::string> &a, const std::multiset<std::string> &b) {
    std::vector<std::string> rest;
    std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(rest));
    std::string out;
    for (const std::string &l : rest) out += (out.empty() ? "" : "; ") + l;
    return out.empty() ? VFY_NOTHING : out;
}

// The running daemon's ids against the store's UC records; the ids of the
// daemon run here against the copy's, with what kept maps back.
void vfy_daemon(const vfy_outputs_t &live, const vfy_outputs_t &want, const ctl_store_t &before,
                const ctl_store_t &after, const vfy_idmap_t &kept, std::vector<vfy_diff_t> &out) {
    const vfy_ids_t live_uc = vfy_uc_ids(before), want_uc = vfy_uc_ids(after);
    auto live_ids = [&](const std::string &l) { return vfy_line_ids(l, live_uc, {}); };
    auto want_ids = [&](const std::string &l) { return vfy_line_ids(l, want_uc, kept); };
    for (size_t i = 0; i < std::size(VFY_CMDS); ++i) {
        const std::string line = VFY_CMDS[i].line, table = line.substr(0, line.find(' '));
        vfy_entries_t l = vfy_entries(live[i], VFY_CMDS[i].skip, live_ids);
        vfy_entries_t w = vfy_entries(want[i], VFY_CMDS[i].skip, want_ids);
        std::set<std::string> heads;
        for (const auto &[h, body] : l) heads.insert(h);
        for (const auto &[h, body] : w) heads.insert(h);
        for (const std::string &h : heads) {
            auto a = l.find(h), b = w.find(h);
            std::string what;
            if (b == w.end()) {
                what = VFY_ONLY_DAEMON;
            } else if (a == l.end()) {
                what = VFY_NOT_DAEMON;
            } else if (a->second != b->second) {
                what = VFY_DIFFERS + vfy_text(VFY_ENTRY, vfy_minus(a->second, b->second).c_str(),
                                              vfy_minus(b->second, a->second).c_str());
            } else {
                continue;
            }
            out.push_back({true, table, h, what});
        }
    }
}

// The running daemon's answers; false with why when it does not answer.
bool vfy_ask_daemon(vfy_outputs_t &out, std::string &why) {
    std::string probe;
    int rc = ssat_client_request(CTL_DAEMON_MODULE, VFY_CMDS[0].line, probe, VFY_PROBE_MS);
    for (size_t i = 0; rc == 0 && i < std::size(VFY_CMDS); ++i) {
        out.emplace_back();
        rc = ssat_client_request(CTL_DAEMON_MODULE, VFY_CMDS[i].line, out.back(), VFY_DUMP_MS);
    }
    if (rc == 0) return true;
    why = rc == -1 ? strerror(errno) : "no complete reply in time";
    return false;
}

// ---- the daemon in this process ------------------------------------------------------

// A private root while the daemon runs here: its debug socket (and anything
// else under the fixed paths) never touches the running daemon's.
class vfy_root_t {
public:
    vfy_root_t() {
        const char *was = getenv("L3VPN_ROOT");
        had_ = was != nullptr;
        if (had_) saved_ = was;
        char tmpl[] = "/tmp/l3vpn-verify-XXXXXX";
        if (mkdtemp(tmpl) != nullptr) path_ = tmpl;
        if (!path_.empty()) setenv("L3VPN_ROOT", path_.c_str(), 1);
    }
    ~vfy_root_t() {
        ssat_lib_reset();  // closes the socket
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
        if (had_)
            setenv("L3VPN_ROOT", saved_.c_str(), 1);
        else
            unsetenv("L3VPN_ROOT");
    }
    bool ok() const { return !path_.empty(); }

private:
    std::string path_, saved_;
    bool had_ = false;
};

// Runs the daemon's start-up and first data sync on a copy of store; the copy
// after the run and the daemon's answers to VFY_CMDS. 0, or -1 with err.
int vfy_inproc(const ctl_store_t &store, const libs_cap_values_t &caps, tq_mom_client_t *&mom,
               vfy_outputs_t &want, std::string &err) {
    vfy_root_t root;
    if (!root.ok()) return err = std::string("cannot make a private root: ") + strerror(errno), -1;
    mom = mom_mem_new();
    for (const auto &[db, recs] : store)
        for (const auto &[key, rec] : recs) mom_mem_put(mom, db, key, rec);
    void *ctx = ctl_inproc_ctx(mom);  // kept for the rest of the process: the copy lives in it
    ctl_inproc_quiet();
    ce_l3vpn_proto_op_init();
    ctl_inproc_init(ctx);
    for (const auto &[path, value] : caps) libs_cap_mem_set(path.c_str(), value.c_str());
    if (ctl_inproc_wake(ctx) != 0 || ctl_inproc_ready(ctx) != 0)
        return err = "the daemon's start-up in this process did not reach its data sync", -1;
    for (const vfy_cmd_t &c : VFY_CMDS) {
        want.emplace_back();
        if (ctl_inproc_cmd(c.line, want.back()) != 0)
            return err = std::string("debug command in this process failed: ") + c.line, -1;
    }
    return 0;
}

int vfy_read_caps(ctl_redis_t &r, libs_cap_values_t &caps, std::string &err) {
    if (ctl_redis_select(r, CTL_CAP_DB, err) != 0) return -1;
    ctl_reply_t rep = ctl_redis_cmd(r, {"HGETALL", CTL_CAP_KEY}, err);
    if (rep == nullptr) return -1;
    for (size_t i = 0; rep->type == REDIS_REPLY_ARRAY && i + 1 < rep->elements; i += 2)
        caps[ctl_reply_text(rep->element[i])] = ctl_reply_text(rep->element[i + 1]);
    return 0;
}

// ---- output --------------------------------------------------------------------------

void vfy_print(const std::vector<vfy_diff_t> &diffs, bool daemon, const std::string &why, bool json) {
    size_t in_daemon = 0;
    for (const vfy_diff_t &d : diffs) in_daemon += d.in_daemon;
    const std::string sock = ctl_sock_path(CTL_DAEMON_MODULE);
    if (json) {
        auto line = [](const ctl_json &j) { puts(j.dump(-1, ' ', false, ctl_json::error_handler_t::replace).c_str()); };
        for (const vfy_diff_t &d : diffs)
            line({{"kind", d.in_daemon ? VFY_DAEMON : VFY_STORE}, {"table", d.table}, {"key", d.key}, {"what", d.what}});
        ctl_json sum = {{"differences", diffs.size()}, {"store", diffs.size() - in_daemon},
                        {"daemon", in_daemon}, {"daemon_compared", daemon}};
        if (!daemon) sum["daemon_unreachable"] = sock + ": " + why;
        line(sum);
        return;
    }
    for (const vfy_diff_t &d : diffs)
        printf("%s %s %s: %s\n", d.in_daemon ? VFY_DAEMON : VFY_STORE, d.table.c_str(), d.key.c_str(),
               d.what.c_str());
    if (!daemon) printf(VFY_NO_ANSWER, sock.c_str(), why.c_str());
    if (diffs.empty())
        printf(VFY_CLEAN, daemon ? VFY_CLEAN_DAEMON : "");
    else
        printf(VFY_SUMMARY, diffs.size(), diffs.size() == 1 ? "" : "s", diffs.size() - in_daemon, in_daemon);
}

}  // namespace

int ctl_cmd_verify(ctl_global_t &g, const std::vector<std::string> &words) {
    ctl_args_t a;
    if (int st = ctl_parse_opts_only(g, words, {{"--json", false}}, "verify", CTL_HELP_VERIFY, a); st >= 0)
        return st;
    std::string err;
    ctl_redis_t r;
    ctl_store_t store;
    libs_cap_values_t caps;
    if (ctl_redis_connect(ctl_redis_addr(g.redis), r, err) != 0 || ctl_redis_read_store(r, store, err) != 0 ||
        vfy_read_caps(r, caps, err) != 0)
        return ctl_fail("verify", err);
    vfy_outputs_t live, want;
    std::string why;
    bool daemon = vfy_ask_daemon(live, why);
    tq_mom_client_t *mom = nullptr;
    if (vfy_inproc(store, caps, mom, want, err) != 0) return ctl_fail("verify", err);
    ctl_store_t after;
    for (const auto &[db, recs] : store) after[db] = mom_mem_records(mom, db);
    const vfy_idmap_t kept = vfy_kept_ids(store, after);
    vfy_apply_ids(after, kept);
    std::vector<vfy_diff_t> diffs;
    vfy_store(store, after, diffs);
    if (daemon) vfy_daemon(live, want, store, after, kept, diffs);
    vfy_print(diffs, daemon, why, a.has("--json"));
    return diffs.empty() ? CTL_EXIT_OK : CTL_EXIT_FAIL;
}
