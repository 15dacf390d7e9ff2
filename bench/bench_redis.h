// The daemon as a process against a private Redis on a Unix socket, and a
// pipelined client beside it for the floors.
#pragma once
#include <hiredis/hiredis.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bench/bench_inproc.h"
#include "bench/bench_records.h"

// One pipelined write (SET, or DEL when bytes is null) or read (GET).
struct bench_op_t {
    uint32_t db;
    const std::string *key;
    const std::string *bytes;  // SET value; null: DEL (or GET when get is set)
    bool get = false;
};

double bench_now();
// Sends every operation in one pipeline (SELECT where the database changes)
// and reads every reply; returns the replies that were errors.
int bench_pipeline(redisContext *c, const std::vector<bench_op_t> &ops);
// Record count of a database.
long long bench_dbsize(redisContext *c, uint32_t db);
// Every output record in the store (db 6, 8 and 10, the daemon's tables).
bench_out_map_t bench_redis_outputs(redisContext *c);
// Capacities raised above the load (capability hash on db 4).
void bench_redis_caps(redisContext *c);

// The daemon's debug socket: true once the table client's "sub cb" history
// row shows a finished data sync.
bool bench_synced();
// The daemon's live node count from get-mem_cnt; -1 when unreachable.
long bench_mem_cnt();
// VmRSS of a process in kB.
long bench_rss_kb(pid_t pid);
