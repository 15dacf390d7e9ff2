// The daemon in this process over the in-memory MOM: the same wake-up chain,
// tables, capability values and handlers as the daemon, without a server.
#pragma once
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "bench/bench_records.h"
#include "platform/mom/tq_mom_mem.h"

// Output writes in the order the daemon made them (db, key, set or delete).
struct bench_write_t {
    uint32_t db;
    std::string key;
    bool set;
};

struct bench_inproc_t {
    tq_mom_client_t *mom = nullptr;  // the daemon's store
    void *ctx = nullptr;
    // While set, every write through the context is logged here (the floor
    // replays the same writes in the same order).
    std::vector<bench_write_t> *log = nullptr;
};

// Starts the chain up to the end of the first data sync; 0 on success.
int bench_inproc_start(bench_inproc_t &env);
// Writes the records as an upstream producer would (notices queued, not delivered).
void bench_inproc_write(bench_inproc_t &env, const std::vector<bench_rec_t> &recs);
void bench_inproc_delete(bench_inproc_t &env, const std::vector<bench_rec_t> &recs);
// Delivers every queued notice (the daemon's work); returns callbacks run.
int bench_inproc_dispatch(bench_inproc_t &env);
// Every output record of the store: (db, key) -> packed bytes.
using bench_out_map_t = std::map<std::pair<uint32_t, std::string>, std::string>;
bench_out_map_t bench_inproc_outputs(bench_inproc_t &env);
// Sum of the error-statistics counts (0 after a clean run).
uint32_t bench_inproc_err_count();

const ProtobufCMessageDescriptor *bench_out_desc(const std::string &key);
// Output records with every MPLS id replaced by the inner adjacency it names,
// so that two runs that allocated ids in another order compare equal.
std::vector<std::string> bench_normalise(const bench_out_map_t &outs);
