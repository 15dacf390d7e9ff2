// load, delete, dump, tables: records of the daemon's tables in the MOM.
#include <hiredis/hiredis.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <set>

#include "platform/mom/tq_mom_name.h"
#include "tools/l3vpn_ctl.h"
#include "tools/l3vpn_ctl_codec.h"
#include "tools/l3vpn_ctl_redis.h"
#include "tools/l3vpn_ctl_tables.h"

const char *const CTL_HELP_LOAD =
    "usage: l3vpn-ctl load FILE\n"
    "\n"
    "Writes the records of FILE into the MOM. FILE holds JSON lines, one record a\n"
    "line (blank lines and lines starting with # are skipped):\n"
    "  {\"table\": \"p_mpls.mom_msg_ilm\", \"index\": {\"in_label\": 5001, \"co_nhop\": \"192.0.2.1\",\n"
    "   \"out_ifx\": 101, \"opcode\": \"POP\"}, \"vrfid\": 1}\n"
    "table is the item message's full name (see `l3vpn-ctl tables`); the other members\n"
    "are fields by their names. Addresses are \"10.0.0.1\", \"2001:db8::1\" or\n"
    "{\"v4b\": \"<hex>\"}; label stacks are arrays; sub-messages are objects; enums and\n"
    "opcodes by name or number; bools true/false; 64-bit numbers may be strings;\n"
    "bytes are hex strings; null or a missing field is absent. An optional \"db\"\n"
    "puts the record into another database than its table's.\n"
    "\n"
    "String records are SET to the packed message. Hash records get one field per\n"
    "present field (fields the record leaves at zero are removed) and lose any\n"
    "data-sync expiry. Every line is checked first: a bad line is reported as\n"
    "FILE:LINE: reason, and then nothing of the file is written. The writes go in\n"
    "one MULTI/EXEC transaction.\n"
    "\n"
    "Exit status: 0 written, 1 bad file or Redis failure, 2 bad usage.\n";

const char *const CTL_HELP_DELETE =
    "usage: l3vpn-ctl delete FILE\n"
    "\n"
    "Deletes the records named by FILE (the JSON lines of `load`; only \"table\" and\n"
    "the key \"index\" are needed, other fields are checked and ignored). Every line\n"
    "is checked first: a bad line is reported as FILE:LINE: reason, and then nothing\n"
    "is deleted. The deletes go in one MULTI/EXEC transaction.\n"
    "\n"
    "Exit status: 0 done (also when some keys did not exist), 1 bad file or Redis\n"
    "failure, 2 bad usage.\n";

const char *const CTL_HELP_DUMP =
    "usage: l3vpn-ctl dump TABLE|all [--json] [--db N]\n"
    "\n"
    "Prints every record of TABLE (a message full name, see `l3vpn-ctl tables`), or\n"
    "of every table of the daemon that has records (all, each under a heading with\n"
    "its name and database), decoded.\n"
    "  (default)  an aligned table: one row per record, sub-message fields with dotted\n"
    "             names, addresses as text, opcodes and enums by name, MPLS ids as\n"
    "             {high, low} number\n"
    "  --json     JSON lines that `l3vpn-ctl load` reads back\n"
    "  --db N     read database N instead of the table's own\n"
    "Records are sorted by their Redis key. A record that does not decode is\n"
    "reported on standard error and skipped.\n"
    "\n"
    "Exit status: 0 all printed, 1 some record did not decode or Redis failed,\n"
    "2 bad usage or unknown table.\n";

const char *const CTL_HELP_TABLES =
    "usage: l3vpn-ctl tables\n"
    "\n"
    "Lists the daemon's 23 tables in creation order: database, data type, input or\n"
    "output, the owner slice (t_rt_owner) and the message full name.\n";

namespace {

// ---- reading record files ---------------------------------------------------

struct ctl_rec_t {
    size_t line = 0;
    const ctl_tbl_t *tbl = nullptr;
    unsigned db = 0;
    std::string key;
    std::string packed;                                      // string record
    std::vector<std::pair<std::string, std::string>> fields; // hash record
    std::vector<std::string> absent;                         // hash fields to remove
};

std::string ctl_trim(const std::string &s) {
    size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return "";
    return s.substr(b, s.find_last_not_of(" \t\r\n") - b + 1);
}

int ctl_parse_json(const std::string &text, ctl_json &out, std::string &err) {
    try {
        out = ctl_json::parse(text);
    } catch (const ctl_json::parse_error &e) {
        std::string what = e.what();
        size_t cut = what.find("] ");  // drop the library's "[json.exception...]" tag
        err = "bad JSON: " + (cut == std::string::npos ? what : what.substr(cut + 2));
        return -1;
    }
    return 0;
}

int ctl_rec_table(const ctl_json &j, ctl_rec_t &rec, std::string &err) {
    if (!j.is_object()) {
        err = "not a JSON object";
        return -1;
    }
    auto t = j.find("table");
    if (t == j.end() || !t->is_string()) {
        err = "missing \"table\" (the item message's full name)";
        return -1;
    }
    rec.tbl = ctl_tbl_find(t->get<std::string>());
    if (rec.tbl == nullptr) {
        err = "unknown table '" + t->get<std::string>() + "'";
        return -1;
    }
    rec.db = rec.tbl->db;
    auto d = j.find("db");
    if (d == j.end() || d->is_null()) return 0;
    if (!d->is_number_unsigned() || d->get<uint64_t>() > INT32_MAX) {
        err = "\"db\" must be a database number, got " + d->dump();
        return -1;
    }
    rec.db = static_cast<unsigned>(d->get<uint64_t>());
    return 0;
}

// Everything a record line needs to be written (or deleted): table, key, bytes.
int ctl_rec_build(const ctl_json &j, bool with_data, ctl_rec_t &rec, std::string &err) {
    if (ctl_rec_table(j, rec, err) != 0) return -1;
    const ProtobufCMessageDescriptor *desc = rec.tbl->desc;
    if (tq_mom_key_desc(desc) != nullptr) {
        auto k = j.find("index");
        if (k == j.end() || k->is_null()) {
            err = "missing key \"index\" of " + std::string(desc->name);
            return -1;
        }
    }
    ctl_arena_t arena;
    ProtobufCMessage *msg = nullptr;
    if (ctl_json_to_msg(desc, j, {"table", "db"}, arena, &msg, err) != 0) return -1;
    if (tq_mom_record_key(msg, rec.key) != 0) {
        err = "key does not make a record name";
        return -1;
    }
    if (!with_data) return 0;
    if (rec.tbl->type == CTL_TBL_STRING) return tq_mom_pack(msg, rec.packed) == 0 ? 0 : -1;
    if (tq_mom_hash_fields(msg, rec.fields) != 0 || rec.fields.empty()) {
        err = "record has no field to write";
        return -1;
    }
    for (unsigned k = 0; k < desc->n_fields; ++k) {
        std::string name = desc->fields[k].name;
        auto same = [&](const auto &f) { return f.first == name; };
        if (std::none_of(rec.fields.begin(), rec.fields.end(), same)) rec.absent.push_back(name);
    }
    return 0;
}

// Reads and checks every line; reports each bad one. 0 when all are good.
int ctl_read_file(const std::string &path, bool with_data, std::vector<ctl_rec_t> &recs) {
    std::ifstream in(path);
    if (!in) return ctl_fail("", "cannot open " + path + ": " + strerror(errno));
    std::string line, err;
    int bad = 0;
    for (size_t no = 1; std::getline(in, line); ++no) {
        std::string text = ctl_trim(line);
        if (text.empty() || text[0] == '#') continue;
        ctl_json j;
        ctl_rec_t rec;
        rec.line = no;
        if (ctl_parse_json(text, j, err) != 0 || ctl_rec_build(j, with_data, rec, err) != 0) {
            fprintf(stderr, "%s:%zu: %s\n", path.c_str(), no, err.c_str());
            ++bad;
            continue;
        }
        recs.push_back(std::move(rec));
    }
    if (bad > 0)
        fprintf(stderr, "l3vpn-ctl: %s: %d bad line%s, nothing written\n", path.c_str(), bad,
                bad == 1 ? "" : "s");
    return bad > 0 ? -1 : 0;
}

// ---- writing ---------------------------------------------------------------------

// Commands for recs inside MULTI/EXEC, selecting each record's database.
std::vector<ctl_cmd_t> ctl_txn(const std::vector<ctl_rec_t> &recs,
                               void (*add)(const ctl_rec_t &, std::vector<ctl_cmd_t> &)) {
    std::vector<ctl_cmd_t> cmds{{"MULTI"}};
    long cur = -1;
    for (const ctl_rec_t &r : recs) {
        if (r.db != cur) cmds.push_back({"SELECT", std::to_string(r.db)});
        cur = r.db;
        add(r, cmds);
    }
    cmds.push_back({"EXEC"});
    return cmds;
}

void ctl_add_write(const ctl_rec_t &r, std::vector<ctl_cmd_t> &cmds) {
    if (r.tbl->type == CTL_TBL_STRING) {
        cmds.push_back({"SET", r.key, r.packed});
        return;
    }
    if (!r.absent.empty()) {
        ctl_cmd_t hdel{"HDEL", r.key};
        hdel.insert(hdel.end(), r.absent.begin(), r.absent.end());
        cmds.push_back(std::move(hdel));
    }
    ctl_cmd_t hset{"HSET", r.key};
    for (const auto &[name, bytes] : r.fields) {
        hset.push_back(name);
        hset.push_back(bytes);
    }
    cmds.push_back(std::move(hset));
    cmds.push_back({"PERSIST", r.key});
}

void ctl_add_delete(const ctl_rec_t &r, std::vector<ctl_cmd_t> &cmds) {
    cmds.push_back({"DEL", r.key});
}

// Runs the transaction; on success sums the integer replies into *sum.
int ctl_run_txn(ctl_redis_t &r, const std::vector<ctl_cmd_t> &cmds, long long *sum,
                std::string &err) {
    std::vector<ctl_reply_t> reps = ctl_redis_pipeline(r, cmds, err);
    if (reps.empty()) return -1;
    const redisReply *exec = reps.back().get();
    if (exec->type != REDIS_REPLY_ARRAY) {
        err = "transaction refused, nothing written: " + ctl_reply_text(exec);
        return -1;
    }
    int rc = 0;
    for (size_t i = 0; i < exec->elements; ++i) {
        const redisReply *e = exec->element[i];
        if (e->type == REDIS_REPLY_ERROR) {
            err = "Redis refused " + cmds[i + 1][0] + " " + (cmds[i + 1].size() > 1 ? cmds[i + 1][1] : "") +
                  ": " + ctl_reply_text(e);
            rc = -1;
        } else if (e->type == REDIS_REPLY_INTEGER && sum != nullptr && cmds[i + 1][0] == "DEL") {
            *sum += e->integer;
        }
    }
    return rc;
}

// Every database a file names must exist before anything is written.
int ctl_check_dbs(ctl_redis_t &r, const std::string &path, const std::vector<ctl_rec_t> &recs) {
    std::set<unsigned> seen;
    std::string err;
    for (const ctl_rec_t &rec : recs) {
        if (!seen.insert(rec.db).second) continue;
        if (ctl_redis_select(r, rec.db, err) == 0) continue;
        fprintf(stderr, "%s:%zu: database %u: %s\n", path.c_str(), rec.line, rec.db, err.c_str());
        return -1;
    }
    return 0;
}

// A hash record cannot go where another kind of value sits.
int ctl_check_hash_types(ctl_redis_t &r, const std::string &path,
                         const std::vector<ctl_rec_t> &recs) {
    std::vector<ctl_cmd_t> cmds;
    std::vector<const ctl_rec_t *> asked;
    for (const ctl_rec_t &rec : recs) {
        if (rec.tbl->type != CTL_TBL_HASH) continue;
        cmds.push_back({"SELECT", std::to_string(rec.db)});
        cmds.push_back({"TYPE", rec.key});
        asked.push_back(&rec);
    }
    if (cmds.empty()) return 0;
    std::string err;
    std::vector<ctl_reply_t> reps = ctl_redis_pipeline(r, cmds, err);
    if (reps.empty()) return ctl_fail("load", err);
    int rc = 0;
    for (size_t i = 0; i < asked.size(); ++i) {
        std::string type = ctl_reply_text(reps[2 * i + 1].get());
        if (type == "none" || type == "hash") continue;
        fprintf(stderr, "%s:%zu: key '%s' holds a %s, not a hash\n", path.c_str(), asked[i]->line,
                asked[i]->key.c_str(), type.c_str());
        rc = -1;
    }
    if (rc != 0) fprintf(stderr, "l3vpn-ctl: %s: nothing written\n", path.c_str());
    return rc;
}

int ctl_records_cmd(ctl_global_t &g, const std::vector<std::string> &words, bool is_load) {
    const char *what = is_load ? "load" : "delete";
    ctl_args_t a;
    std::string err;
    if (ctl_parse_args(g, words, {}, 0, a, err) != 0) return ctl_fail(what, err, CTL_EXIT_USAGE);
    if (a.help) return fputs(is_load ? CTL_HELP_LOAD : CTL_HELP_DELETE, stdout), CTL_EXIT_OK;
    if (a.pos.size() != 1)
        return ctl_fail(what, "expects one FILE (see --help)", CTL_EXIT_USAGE);
    const std::string &path = a.pos[0];
    std::vector<ctl_rec_t> recs;
    if (ctl_read_file(path, is_load, recs) != 0) return CTL_EXIT_FAIL;
    ctl_redis_t r;
    if (!recs.empty() && ctl_redis_connect(ctl_redis_addr(g.redis), r, err) != 0)
        return ctl_fail(what, err);
    if (!recs.empty() && ctl_check_dbs(r, path, recs) != 0) return CTL_EXIT_FAIL;
    if (is_load && ctl_check_hash_types(r, path, recs) != 0) return CTL_EXIT_FAIL;
    long long deleted = 0;
    if (!recs.empty() &&
        ctl_run_txn(r, ctl_txn(recs, is_load ? ctl_add_write : ctl_add_delete), &deleted, err) != 0)
        return ctl_fail(what, path + ": " + err);
    if (is_load)
        printf("loaded %zu record%s from %s\n", recs.size(), recs.size() == 1 ? "" : "s",
               path.c_str());
    else
        printf("deleted %lld of %zu record%s named in %s\n", deleted, recs.size(),
               recs.size() == 1 ? "" : "s", path.c_str());
    return CTL_EXIT_OK;
}

// ---- dump ---------------------------------------------------------------------------

struct ctl_msg_free_t {
    void operator()(ProtobufCMessage *m) const { protobuf_c_message_free_unpacked(m, nullptr); }
};
using ctl_msg_ptr = std::unique_ptr<ProtobufCMessage, ctl_msg_free_t>;

struct ctl_dump_t {
    ctl_redis_t &r;
    bool json;
    long db_override;  // -1: each table's own
    bool all;
    int failures = 0;
};

// One fetched value into a message; null (and a report) when it does not decode.
// *gone is set when the record vanished between the scan and the read.
ProtobufCMessage *ctl_decode(ctl_dump_t &d, const ctl_tbl_t *t, unsigned db,
                             const std::string &key, const redisReply *rep, bool *gone) {
    *gone = rep->type == REDIS_REPLY_NIL || (rep->type == REDIS_REPLY_ARRAY && rep->elements == 0);
    if (*gone) return nullptr;
    ProtobufCMessage *msg = nullptr;
    if (t->type == CTL_TBL_STRING && rep->type == REDIS_REPLY_STRING) {
        msg = tq_mom_unpack(t->desc, std::string_view(rep->str, rep->len));
    } else if (t->type == CTL_TBL_HASH && rep->type == REDIS_REPLY_ARRAY) {
        std::vector<std::pair<std::string, std::string>> fields;
        for (size_t i = 0; i + 1 < rep->elements; i += 2)
            fields.emplace_back(ctl_reply_text(rep->element[i]), ctl_reply_text(rep->element[i + 1]));
        msg = tq_mom_hash_unpack(t->desc, fields);
    }
    if (msg == nullptr) {
        std::string why = rep->type == REDIS_REPLY_ERROR ? ctl_reply_text(rep) : "does not decode";
        fprintf(stderr, "l3vpn-ctl: dump: db %u key '%s': %s as %s %s\n", db, key.c_str(),
                why.c_str(), ctl_tbl_type_name(t->type), t->desc->name);
        ++d.failures;
    }
    return msg;
}

int ctl_fetch(ctl_dump_t &d, const ctl_tbl_t *t, unsigned db, const std::vector<std::string> &keys,
              std::vector<ctl_msg_ptr> &out, std::string &err) {
    return ctl_redis_fetch(
        d.r, t, keys,
        [&](size_t i, const redisReply *rep) {
            bool gone = false;
            ProtobufCMessage *m = ctl_decode(d, t, db, keys[i], rep, &gone);
            if (m != nullptr) out.emplace_back(m);
        },
        err);
}

void ctl_print_table(const ProtobufCMessageDescriptor *desc, const std::vector<ctl_msg_ptr> &msgs) {
    std::vector<std::vector<std::string>> rows{ctl_msg_columns(desc)};
    for (const ctl_msg_ptr &m : msgs) rows.push_back(ctl_msg_cells(m.get()));
    std::vector<size_t> width(rows[0].size(), 0);
    for (const auto &row : rows)
        for (size_t c = 0; c < row.size() && c < width.size(); ++c)
            width[c] = std::max(width[c], row[c].size());
    for (const auto &row : rows) {
        std::string line;
        for (size_t c = 0; c < row.size(); ++c) {
            line += row[c];
            if (c + 1 < row.size()) line += std::string(width[c] - row[c].size() + 2, ' ');
        }
        puts(line.c_str());
    }
}

void ctl_print_json(const ctl_dump_t &d, const std::vector<ctl_msg_ptr> &msgs) {
    for (const ctl_msg_ptr &m : msgs) {
        ctl_json line = {{"table", m->descriptor->name}};
        if (d.db_override >= 0) line["db"] = d.db_override;
        ctl_json fields = ctl_msg_to_json(m.get());
        for (auto &[k, v] : fields.items()) line[k] = std::move(v);
        puts(line.dump(-1, ' ', false, ctl_json::error_handler_t::replace).c_str());
    }
}

int ctl_dump_table(ctl_dump_t &d, const ctl_tbl_t *t) {
    unsigned db = d.db_override >= 0 ? static_cast<unsigned>(d.db_override) : t->db;
    std::string err;
    std::vector<std::string> keys;
    std::vector<ctl_msg_ptr> msgs;
    if (ctl_redis_select(d.r, db, err) != 0 || ctl_redis_table_keys(d.r, t, keys, err) != 0 ||
        ctl_fetch(d, t, db, keys, msgs, err) != 0)
        return ctl_fail("dump", err);
    if (d.json) {
        ctl_print_json(d, msgs);
    } else if (d.all && !msgs.empty()) {
        printf("== %s (db %u, %s, %zu record%s) ==\n", t->desc->name, db, ctl_tbl_type_name(t->type),
               msgs.size(), msgs.size() == 1 ? "" : "s");
        ctl_print_table(t->desc, msgs);
        puts("");
    } else if (!d.all) {
        if (msgs.empty())
            printf("(no records of %s in db %u)\n", t->desc->name, db);
        else
            ctl_print_table(t->desc, msgs);
    }
    fflush(stdout);
    return CTL_EXIT_OK;
}

int ctl_parse_db(const std::string &text, long &db) {
    char *end = nullptr;
    errno = 0;
    long v = strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || v < 0 || v > INT32_MAX) return -1;
    db = v;
    return 0;
}

}  // namespace

int ctl_cmd_load(ctl_global_t &g, const std::vector<std::string> &words) {
    return ctl_records_cmd(g, words, true);
}

int ctl_cmd_delete(ctl_global_t &g, const std::vector<std::string> &words) {
    return ctl_records_cmd(g, words, false);
}

int ctl_cmd_dump(ctl_global_t &g, const std::vector<std::string> &words) {
    ctl_args_t a;
    std::string err;
    if (ctl_parse_args(g, words, {{"--json", false}, {"--db", true}}, 0, a, err) != 0)
        return ctl_fail("dump", err, CTL_EXIT_USAGE);
    if (a.help) return fputs(CTL_HELP_DUMP, stdout), CTL_EXIT_OK;
    if (a.pos.size() != 1) return ctl_fail("dump", "expects TABLE or all (see --help)", CTL_EXIT_USAGE);
    long db = -1;
    if (a.has("--db") && ctl_parse_db(a.value("--db"), db) != 0)
        return ctl_fail("dump", "--db expects a database number", CTL_EXIT_USAGE);
    std::vector<const ctl_tbl_t *> tables;
    bool all = a.pos[0] == "all";
    if (all) {
        tables = ctl_tbl_distinct();
    } else if (const ctl_tbl_t *t = ctl_tbl_find(a.pos[0]); t != nullptr) {
        tables.push_back(t);
    } else {
        return ctl_fail("dump", "unknown table '" + a.pos[0] + "' (see l3vpn-ctl tables)",
                        CTL_EXIT_USAGE);
    }
    ctl_redis_t r;
    if (ctl_redis_connect(ctl_redis_addr(g.redis), r, err) != 0) return ctl_fail("dump", err);
    ctl_dump_t d{r, a.has("--json"), db, all};
    for (const ctl_tbl_t *t : tables)
        if (ctl_dump_table(d, t) != CTL_EXIT_OK) return CTL_EXIT_FAIL;
    return d.failures > 0 ? CTL_EXIT_FAIL : CTL_EXIT_OK;
}

int ctl_cmd_tables(ctl_global_t &g, const std::vector<std::string> &words) {
    ctl_args_t a;
    if (int st = ctl_parse_opts_only(g, words, {}, "tables", CTL_HELP_TABLES, a); st >= 0) return st;
    printf("%-3s %-3s %-7s %-7s %-6s %s\n", "#", "db", "type", "use", "owner", "table");
    int no = 1;
    for (const ctl_tbl_t &t : ctl_tbl_all()) {
        std::string owner = t.owner != 0 ? std::to_string(t.owner) : "-";
        printf("%-3d %-3u %-7s %-7s %-6s %s\n", no++, t.db, ctl_tbl_type_name(t.type),
               t.use == CTL_TBL_INPUT ? "input" : "output", owner.c_str(), t.desc->name);
    }
    return CTL_EXIT_OK;
}
