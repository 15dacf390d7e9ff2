// l3vpn_bench: the daemon's adds and deletes in process and through Redis, its
// restart and its memory, each beside a floor measured in the same run.
//   l3vpn_bench [--scale F] [--rounds N] [--redis-rounds N] [--inproc-only]
// Times are the best of the rounds: the machine may be shared.
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <cstdarg>
#include <memory>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_msg_op.h"
#include "app/proc/ce_l3vpn_tbl.h"
#include "bench/bench_inproc.h"
#include "bench/bench_redis.h"
#include "p_mpls.pb-c.h"
#include "platform/mom/tq_mom_name.h"
#include "support/proc_harness.h"
#include "u_mpls.pb-c.h"

namespace {
struct row_t {
    std::string name;
    double daemon, floor;  // seconds, or a figure when unit is set
    double goal;           // ratio goal, or the figure's ceiling
    const char *unit = nullptr;
};
std::vector<row_t> g_rows;
std::vector<std::string> g_notes;

void note(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void note(const char *fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    g_notes.push_back(buf);
    fprintf(stderr, "  %s\n", buf);
}

// The best of the rounds: the machine is shared, the slower ones measure the neighbours.
double best(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.front();
}

std::string key_text(const std::string &key) {
    size_t bar = key.find('|');
    return bar == std::string::npos ? "" : key.substr(bar + 1);
}

// ---- in process ------------------------------------------------------------------

struct out_msg_t {
    uint32_t db;
    ProtobufCMessage *msg;
};

int (*handler(const ProtobufCMessageDescriptor *d, bool add))(void *, void *) {
    if (d == &p_mpls__mom_msg_ftn__descriptor) return add ? ce_l3_ftn_add : ce_l3_ftn_del;
    if (d == &u_mpls__udp_vc_ftn__descriptor) return add ? ce_l3_vc_ftn_add : ce_l3_vc_ftn_del;
    return add ? ce_l3_ilm_add : ce_l3_ilm_del;
}

// Node memory held per entry, from the allocator's own count, handlers called
// with the outputs switched off (the in-memory store would count otherwise).
void inproc_memory(const std::vector<bench_rec_t> &recs, uint32_t entries) {
    for (int i = CE_TBL_UDP_MPLS_ENABLE; i < CE_TBL_NUM; ++i)
        ss_rt_tbl_set_skip(ce_l3vpn_tbl_handles[i], 1);
    std::vector<ProtobufCMessage *> msgs;
    for (const bench_rec_t &r : recs) msgs.push_back(tq_mom_unpack(r.desc, r.bytes));
    malloc_trim(0);
    size_t m0 = mallinfo2().uordblks;
    uint32_t n0 = ce_l3vpn_mem_cnt;
    for (ProtobufCMessage *m : msgs) handler(m->descriptor, true)(m, nullptr);
    size_t m1 = mallinfo2().uordblks;
    uint32_t n1 = ce_l3vpn_mem_cnt;
    for (ProtobufCMessage *m : msgs) handler(m->descriptor, false)(m, nullptr);
    size_t m2 = mallinfo2().uordblks;
    for (ProtobufCMessage *m : msgs) tq_mom_free(m);
    for (int i = CE_TBL_UDP_MPLS_ENABLE; i < CE_TBL_NUM; ++i)
        ss_rt_tbl_set_skip(ce_l3vpn_tbl_handles[i], 0);
    double per = static_cast<double>(m1 - m0) / entries;
    g_rows.push_back({"memory in process (heap/entry)", per, 0, 300, "B"});
    note("in-process heap: +%zu bytes for %u entries (%u live nodes, %.1f nodes/entry); "
         "after deleting all: %+lld bytes, nodes %u -> %u",
         m1 - m0, entries, n1 - n0, static_cast<double>(n1 - n0) / entries,
         static_cast<long long>(m2) - static_cast<long long>(m0), n0, ce_l3vpn_mem_cnt);
}

// Output messages in the order of the daemon's writes: each key once (first
// write), or every write as the daemon made it.
std::vector<out_msg_t> in_order(const std::vector<bench_write_t> &log, bool set,
                                const bench_out_map_t &outs, bool every) {
    std::vector<out_msg_t> v;
    std::set<std::pair<uint32_t, std::string>> seen;
    for (const bench_write_t &w : log) {
        if (w.set != set || !bench_is_output(w.db, w.key)) continue;
        auto it = outs.find({w.db, w.key});
        if (it == outs.end()) {
            if (!every) continue;
            // A delete of a key already gone: the same key as the record it names.
            v.push_back({w.db, tq_mom_item_from_key(bench_out_desc(w.key), w.key)});
            continue;
        }
        if (!every && !seen.insert({w.db, w.key}).second) continue;
        v.push_back({w.db, tq_mom_unpack(bench_out_desc(w.key), it->second)});
    }
    return v;
}

struct floor_t {
    double add, del;
};

// The floor: the same store, the same input records read and unpacked, the
// given output records written and then deleted; no daemon in between.
floor_t floor_run(const std::vector<bench_rec_t> &recs, const std::vector<out_msg_t> &sets,
                  const std::vector<out_msg_t> &dels) {
    tq_mom_client_t *fmom = mom_mem_new();
    tq_global_t fctx = mom_mem_ctx(fmom);
    const uint32_t opt = 0;
    std::vector<std::string> texts;
    for (const bench_rec_t &r : recs) texts.push_back(key_text(r.key));
    for (const bench_rec_t &rec : recs) {
        ProtobufCMessage *m = tq_mom_unpack(rec.desc, rec.bytes);
        tq_mom_set_ext(&fctx, rec.db, &opt, m, 1, 0);
        tq_mom_free(m);
    }
    floor_t f{};
    double t = bench_now();
    for (size_t i = 0; i < recs.size(); ++i)
        mom_mem_get(fmom, recs[i].db, recs[i].desc, texts[i]);  // read and unpack, freed
    for (const out_msg_t &o : sets) tq_mom_set_ext(&fctx, o.db, &opt, o.msg, 1, 0);
    f.add = bench_now() - t;
    t = bench_now();
    for (const out_msg_t &o : dels) tq_mom_del(&fctx, o.db, o.msg, 1, 0);
    f.del = bench_now() - t;
    mom_mem_free(fmom);
    return f;
}

void free_msgs(std::vector<out_msg_t> &v) {
    for (out_msg_t &o : v) tq_mom_free(o.msg);
    v.clear();
}

bench_out_map_t run_inproc(const std::vector<bench_rec_t> &recs, uint32_t entries, int rounds) {
    bench_inproc_t env;
    if (int rv = bench_inproc_start(env); rv != 0) {
        fprintf(stderr, "in-process start failed: %d\n", rv);
        exit(1);
    }
    // A first round, not timed, logs the daemon's writes and keeps its outputs.
    std::vector<bench_write_t> log;
    env.log = &log;
    bench_inproc_write(env, recs);
    bench_inproc_dispatch(env);
    bench_out_map_t outs = bench_inproc_outputs(env);
    bench_inproc_delete(env, recs);
    bench_inproc_dispatch(env);
    env.log = nullptr;

    std::vector<double> add, del, fadd, fdel, radd, rdel;
    for (int r = 0; r < rounds; ++r) {
        bench_inproc_write(env, recs);
        double t = bench_now();
        bench_inproc_dispatch(env);
        add.push_back(bench_now() - t);
        bench_inproc_delete(env, recs);
        t = bench_now();
        bench_inproc_dispatch(env);
        del.push_back(bench_now() - t);
    }
    for (const ce_l3vpn_err_row_t &row : ce_l3vpn_err_tbl)
        if (row.count != 0 && row.name != nullptr && row.level > 1)
            note("error-statistics row \"%s\" (level %u): %u", row.name, row.level, row.count);
    size_t sets = 0, dels = 0;
    for (const bench_write_t &w : log) (w.set ? sets : dels) += bench_is_output(w.db, w.key);
    size_t left = bench_inproc_outputs(env).size();
    note("in-process: %zu input records, %zu output records; the daemon made %zu output sets "
         "and %zu output deletes per round; %zu outputs left after deleting all",
         recs.size(), outs.size(), sets, dels, left);

    std::vector<out_msg_t> s1 = in_order(log, true, outs, false), d1 = in_order(log, false, outs, false);
    std::vector<out_msg_t> sa = in_order(log, true, outs, true), da = in_order(log, false, outs, true);
    for (int r = 0; r < rounds; ++r) {
        floor_run(recs, s1, d1);  // warms the allocator as the daemon's first round did
        floor_t f = floor_run(recs, s1, d1);
        fadd.push_back(f.add), fdel.push_back(f.del);
        f = floor_run(recs, sa, da);
        radd.push_back(f.add), rdel.push_back(f.del);
    }
    free_msgs(s1), free_msgs(d1), free_msgs(sa), free_msgs(da);

    g_rows.push_back({"in-process add", best(add), best(fadd), 2.0});
    g_rows.push_back({"in-process delete", best(del), best(fdel), 2.0});
    note("in-process rates: %.0f adds/s, %.0f deletes/s (entries; %.2f records per entry)",
         entries / best(add), entries / best(del), double(recs.size()) / entries);
    note("floor replaying every daemon write (repeats included): add %.3f s (ratio %.2f), "
         "delete %.3f s (ratio %.2f)",
         best(radd), best(add) / best(radd), best(rdel), best(del) / best(rdel));
    inproc_memory(recs, entries);
    return outs;
}

// ---- through Redis -----------------------------------------------------------------

std::vector<bench_op_t> ops_of(const std::vector<bench_rec_t> &recs, const bench_out_map_t *outs,
                               bool set, bool get = false) {
    std::vector<bench_op_t> ops;
    for (const bench_rec_t &r : recs) ops.push_back({r.db, &r.key, set ? &r.bytes : nullptr, get});
    if (outs != nullptr)
        for (const auto &[dk, bytes] : *outs) ops.push_back({dk.first, &dk.second, set ? &bytes : nullptr, get});
    return ops;
}

bool wait_counts(redisContext *poll, long long d6, long long d10, double timeout_s) {
    double end = bench_now() + timeout_s;
    while (bench_now() < end) {
        if (bench_dbsize(poll, 6) == d6 && bench_dbsize(poll, 10) == d10) return true;
        usleep(500);
    }
    return false;
}

bool wait_synced(daemon_proc_t &d, double timeout_s) {
    double end = bench_now() + timeout_s;
    while (bench_now() < end) {
        if (bench_synced()) return true;
        if (!d.running()) return false;
        usleep(2000);
    }
    return false;
}

void flush_data(redisContext *c) {
    for (uint32_t db : {6u, 8u, 10u}) {
        freeReplyObject(redisCommand(c, "SELECT %u", db));
        freeReplyObject(redisCommand(c, "FLUSHDB"));
    }
}

struct redis_times_t {
    double add = 1e9, del = 1e9, fadd = 1e9, fdel = 1e9, restart = 1e9, frestart = 1e9, rss = 1e9;
};

void run_redis(const std::vector<bench_rec_t> &recs, uint32_t entries, const bench_out_map_t &ref,
               redis_times_t &best) {
    if (!redis_server_t::available()) {
        note("no redis-server: end-to-end cases skipped");
        return;
    }
    temp_dir_t dir;
    redis_server_t redis(dir.path());
    if (!redis.start()) {
        note("redis-server did not start");
        return;
    }
    redisContext *w = redisConnectUnix(redis.socket().c_str());
    redisContext *p = redisConnectUnix(redis.socket().c_str());
    bench_redis_caps(w);
    std::string root = dir.path() + "/root";
    setenv("L3VPN_ROOT", root.c_str(), 1);  // where the debug sockets are
    long long out6 = 0, out10 = 0;
    for (const auto &[dk, b] : ref) (dk.first == 6 ? out6 : out10) += dk.first != 8;

    auto d = std::make_unique<daemon_proc_t>(root, redis.mom_redis(), 1);
    d->start();
    if (!wait_synced(*d, 30)) {
        note("daemon did not sync: %s", d->log().c_str());
        return;
    }
    long rss0 = bench_rss_kb(d->pid()), cnt0 = bench_mem_cnt();

    // Adds: from the first input written to the last output present.
    double t = bench_now();
    bench_pipeline(w, ops_of(recs, nullptr, true));
    bool ok = wait_counts(p, recs.size() + out6, out10, 120);
    double e2e_add = bench_now() - t;
    long rss1 = bench_rss_kb(d->pid()), cnt1 = bench_mem_cnt();
    bench_out_map_t outs = bench_redis_outputs(p);
    bool same = bench_normalise(outs) == bench_normalise(ref);
    note("end-to-end add: outputs %s (%zu records, %s the in-process run's)", ok ? "complete" : "TIMED OUT",
         outs.size(), same ? "same as" : "DIFFERENT FROM");
    note("daemon RSS %ld -> %ld kB: %.0f bytes/entry; get-mem_cnt %ld -> %ld", rss0, rss1,
         (rss1 - rss0) * 1024.0 / entries, cnt0, cnt1);

    t = bench_now();
    bench_pipeline(w, ops_of(recs, nullptr, false));
    ok = wait_counts(p, 0, 0, 120);
    double e2e_del = bench_now() - t;
    long cnt2 = bench_mem_cnt(), rss2 = bench_rss_kb(d->pid());
    note("end-to-end delete: %s; get-mem_cnt back to %ld (start %ld); RSS %ld kB", ok ? "all outputs gone" : "TIMED OUT",
         cnt2, cnt0, rss2);
    d->stop();

    // Floors: the same records written by one pipelined client.
    flush_data(w);
    t = bench_now();
    bench_pipeline(w, ops_of(recs, &outs, true));
    double f_add = bench_now() - t;
    t = bench_now();
    bench_pipeline(w, ops_of(recs, &outs, false));
    double f_del = bench_now() - t;
    best.add = std::min(best.add, e2e_add), best.fadd = std::min(best.fadd, f_add);
    best.del = std::min(best.del, e2e_del), best.fdel = std::min(best.fdel, f_del);
    best.rss = std::min(best.rss, (rss1 - rss0) * 1024.0 / entries);

    // Restart over the inputs and the daemon's outputs.
    bench_pipeline(w, ops_of(recs, &outs, true));
    d = std::make_unique<daemon_proc_t>(root, redis.mom_redis(), 1);
    t = bench_now();
    d->start();
    ok = wait_synced(*d, 120);
    double restart = bench_now() - t;
    long rss3 = bench_rss_kb(d->pid());
    usleep(200000);
    bench_out_map_t after = bench_redis_outputs(p);
    note("restart: %s; outputs after it %s (%zu records); RSS %ld kB", ok ? "synced" : "NOT SYNCED",
         after == outs ? "byte-identical" : "DIFFERENT", after.size(), rss3);
    d->stop();
    // Its floor: read every input and output, write every output once.
    std::vector<bench_op_t> ops = ops_of(recs, &outs, false, true);
    for (const auto &[dk, bytes] : outs) ops.push_back({dk.first, &dk.second, &bytes});
    t = bench_now();
    bench_pipeline(w, ops);
    double f_restart = bench_now() - t;
    best.restart = std::min(best.restart, restart), best.frestart = std::min(best.frestart, f_restart);
    redisFree(w);
    redisFree(p);
    redis.stop();
}

void print_table() {
    printf("\n%-34s %12s %12s %8s %8s %s\n", "case", "daemon", "floor", "ratio", "goal", "result");
    for (const row_t &r : g_rows) {
        if (r.unit != nullptr) {
            printf("%-34s %10.0f %s %12s %8s %7s%s %s\n", r.name.c_str(), r.daemon, r.unit, "-", "-",
                   "<=", std::to_string(static_cast<int>(r.goal)).c_str(),
                   r.daemon <= r.goal ? "met" : "missed");
            continue;
        }
        double ratio = r.daemon / r.floor;
        printf("%-34s %10.3f s %10.3f s %8.2f %7s%.1f %s\n", r.name.c_str(), r.daemon, r.floor, ratio,
               "<=", r.goal, ratio <= r.goal ? "met" : "missed");
    }
}
}  // namespace

int main(int argc, char **argv) {
    double scale = 1.0;
    int rounds = 5, redis_rounds = 3;
    bool redis = true;
    for (int i = 1; i < argc; ++i) {
        if (!strcmp(argv[i], "--scale") && i + 1 < argc) scale = atof(argv[++i]);
        else if (!strcmp(argv[i], "--rounds") && i + 1 < argc) rounds = atoi(argv[++i]);
        else if (!strcmp(argv[i], "--redis-rounds") && i + 1 < argc) redis_rounds = atoi(argv[++i]);
        else if (!strcmp(argv[i], "--inproc-only")) redis = false;
    }
    bench_load_cfg_t cfg;
    cfg.ftn = static_cast<uint32_t>(cfg.ftn * scale);
    cfg.vc_ftn = static_cast<uint32_t>(cfg.vc_ftn * scale);
    cfg.ilm = static_cast<uint32_t>(cfg.ilm * scale);
    std::vector<bench_rec_t> recs = bench_load_build(cfg);
    uint32_t entries = bench_load_entries(cfg);
    fprintf(stderr, "load: %u FTN over %u VRFs x2 next hops, %u VC-FTN, %u ILM = %u entries, %zu records\n",
            cfg.ftn, cfg.vrfs, cfg.vc_ftn, cfg.ilm, entries, recs.size());
    bench_out_map_t ref = run_inproc(recs, entries, rounds);
    if (redis) {
        redis_times_t b;
        for (int r = 0; r < redis_rounds; ++r) run_redis(recs, entries, ref, b);
        if (b.add < 1e9) {
            g_rows.push_back({"end-to-end add (Redis)", b.add, b.fadd, 1.5});
            g_rows.push_back({"end-to-end delete (Redis)", b.del, b.fdel, 1.5});
            g_rows.push_back({"memory daemon RSS (bytes/entry)", b.rss, 0, 300, "B"});
        }
        if (b.restart < 1e9) g_rows.push_back({"restart to end of data sync", b.restart, b.frestart, 1.5});
    }
    print_table();
    return 0;
}
