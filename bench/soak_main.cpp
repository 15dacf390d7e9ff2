// l3vpn_soak: random adds and deletes of FTN, VC-FTN and ILM records through a
// real Redis while the daemon runs; then the outputs must match what a fresh
// daemon makes of the final inputs, and the node count and resident memory
// must come back.
//   l3vpn_soak [--ops N] [--seed S]
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "bench/bench_inproc.h"
#include "bench/bench_redis.h"
#include "support/proc_harness.h"

namespace {
constexpr uint32_t kFtn = 4000, kVcFtn = 1000, kIlm = 2000, kVrfs = 4;
constexpr uint32_t kSlots = kFtn * 2 + kVcFtn + kIlm;
constexpr uint32_t kBatch = 1000;

bench_rec_t slot_rec(uint32_t slot, uint32_t salt) {
    if (slot < kFtn * 2) return bench_ftn_rec(slot / 2, kVrfs, slot % 2, salt);
    if (slot < kFtn * 2 + kVcFtn) return bench_vc_ftn_rec(slot - kFtn * 2, salt);
    return bench_ilm_rec(slot - kFtn * 2 - kVcFtn, salt);
}

// Waits until two reads a while apart give the same outputs; returns them.
bench_out_map_t settled_outputs(redisContext *c, double timeout_s) {
    double end = bench_now() + timeout_s;
    bench_out_map_t last = bench_redis_outputs(c);
    while (bench_now() < end) {
        usleep(300000);
        bench_out_map_t now = bench_redis_outputs(c);
        if (now == last) return now;
        last.swap(now);
    }
    return last;
}

bool check(bool ok, const char *what) {
    printf("%-58s %s\n", what, ok ? "ok" : "FAILED");
    return ok;
}
}  // namespace

int main(int argc, char **argv) {
    uint32_t ops = 200000, seed = 1;
    for (int i = 1; i + 1 < argc; ++i) {
        if (!strcmp(argv[i], "--ops")) ops = static_cast<uint32_t>(atol(argv[++i]));
        else if (!strcmp(argv[i], "--seed")) seed = static_cast<uint32_t>(atol(argv[++i]));
    }
    if (!redis_server_t::available()) {
        fprintf(stderr, "no redis-server\n");
        return 2;
    }
    temp_dir_t dir;
    redis_server_t redis(dir.path());
    if (!redis.start()) return 2;
    redisContext *w = redisConnectUnix(redis.socket().c_str());
    redisContext *p = redisConnectUnix(redis.socket().c_str());
    bench_redis_caps(w);
    std::string root = dir.path() + "/root";
    setenv("L3VPN_ROOT", root.c_str(), 1);
    daemon_proc_t d(root, redis.mom_redis(), 1);
    d.start();
    for (int i = 0; i < 1500 && !bench_synced(); ++i) usleep(20000);
    long cnt0 = bench_mem_cnt(), rss0 = bench_rss_kb(d.pid());
    if (cnt0 < 0) {
        fprintf(stderr, "daemon not reachable:\n%s\n", d.log().c_str());
        return 2;
    }

    // Each slot holds no record or the record of one salt; an add picks a new
    // salt, so the labels (and inner adjacencies) change as entries come back.
    std::vector<int64_t> salt(kSlots, -1);
    std::mt19937 rng(seed);
    std::vector<bench_rec_t> batch;
    std::vector<bench_op_t> pipe;
    long rss_half = 0;
    double t0 = bench_now();
    for (uint32_t n = 0; n < ops;) {
        batch.clear();
        pipe.clear();
        std::vector<bool> adds;
        for (uint32_t k = 0; k < kBatch && n < ops; ++k, ++n) {
            uint32_t slot = rng() % kSlots;
            bool add = salt[slot] < 0;
            batch.push_back(slot_rec(slot, add ? n : static_cast<uint32_t>(salt[slot])));
            salt[slot] = add ? static_cast<int64_t>(n) : -1;
            adds.push_back(add);
        }
        for (size_t k = 0; k < batch.size(); ++k)
            pipe.push_back({batch[k].db, &batch[k].key, adds[k] ? &batch[k].bytes : nullptr});
        bench_pipeline(w, pipe);
        if (n == ops / 2) {  // the live set there is about the size of the end one
            settled_outputs(p, 120);
            rss_half = bench_rss_kb(d.pid());
        }
    }
    double t_write = bench_now() - t0;
    bench_out_map_t got = settled_outputs(p, 120);
    double t_all = bench_now() - t0;
    long rss_end = bench_rss_kb(d.pid());
    printf("%u operations over %u slots written in %.2f s, outputs settled after %.2f s\n", ops,
           kSlots, t_write, t_all);

    // What a fresh daemon makes of the final inputs.
    std::vector<bench_rec_t> final_in;
    for (uint32_t s = 0; s < kSlots; ++s)
        if (salt[s] >= 0) final_in.push_back(slot_rec(s, static_cast<uint32_t>(salt[s])));
    bench_inproc_t env;
    if (bench_inproc_start(env) != 0) return 2;
    setenv("L3VPN_ROOT", root.c_str(), 1);  // the in-process daemon moved it
    bench_inproc_write(env, final_in);
    bench_inproc_dispatch(env);
    bench_out_map_t want = bench_inproc_outputs(env);
    printf("final inputs: %zu records; outputs: %zu in Redis, %zu expected\n", final_in.size(),
           got.size(), want.size());

    bool ok = check(bench_normalise(got) == bench_normalise(want),
                    "outputs match the final inputs (MPLS ids aside)");
    if (!ok) {
        std::string log = d.log();
        fprintf(stderr, "daemon log (end):\n%s\n", log.substr(log.size() > 3000 ? log.size() - 3000 : 0).c_str());
    }
    // Everything deleted: the node count comes back to where it started.
    std::vector<bench_op_t> dels;
    for (const bench_rec_t &r : final_in) dels.push_back({r.db, &r.key, nullptr});
    bench_pipeline(w, dels);
    bench_out_map_t empty = settled_outputs(p, 60);
    long cnt_end = bench_mem_cnt(), rss_empty = bench_rss_kb(d.pid());
    ok &= check(empty.empty(), "no output left once every input is deleted");
    char line[160];
    snprintf(line, sizeof line, "get-mem_cnt back to its start (%ld -> %ld)", cnt0, cnt_end);
    ok &= check(cnt_end == cnt0, line);
    // Resident memory: between the half-way point and the end the live set is
    // about the same, so growth there is what leaks look like.
    long growth = rss_end - rss_half;
    snprintf(line, sizeof line, "RSS start %ld, half %ld, end %ld, emptied %ld kB: growth %+ld kB",
             rss0, rss_half, rss_end, rss_empty, growth);
    ok &= check(growth < 1024, line);
    ok &= check(d.running(), "daemon still running");
    d.stop();
    redisFree(w);
    redisFree(p);
    redis.stop();
    return ok ? 0 : 1;
}
