// The benchmark load: FTN, VC-FTN and ILM input records, built once, packed,
// under the Redis keys every writer uses.
#pragma once
#include <protobuf-c/protobuf-c.h>

#include <cstdint>
#include <string>
#include <vector>

struct bench_rec_t {
    uint32_t db;
    const ProtobufCMessageDescriptor *desc;
    std::string key;    // "T|<key text>"
    std::string bytes;  // the packed record
};

struct bench_load_cfg_t {
    uint32_t ftn = 20000;    // entries; each one has two next hops (two records)
    uint32_t vrfs = 4;
    uint32_t vc_ftn = 5000;  // one next hop each
    uint32_t ilm = 10000;    // opcodes cycle POP, SWAP, SWAP_PUSH, POP_L3SWITCH, PUSH
    uint32_t salt = 0;       // shifts labels, so a second load rewrites every entry
};

// Entries (FTN keys + VC-FTN + ILM) and records (FTN records count twice).
uint32_t bench_load_entries(const bench_load_cfg_t &cfg);
std::vector<bench_rec_t> bench_load_build(const bench_load_cfg_t &cfg);

// One record of each kind by index, for the soak's random mix. kind 0 FTN (nh 0 or 1),
// 1 VC-FTN, 2 ILM. The record differs with salt (labels) but not its key.
bench_rec_t bench_ftn_rec(uint32_t i, uint32_t vrfs, uint32_t nh, uint32_t salt);
bench_rec_t bench_vc_ftn_rec(uint32_t i, uint32_t salt);
bench_rec_t bench_ilm_rec(uint32_t i, uint32_t salt);

// The daemon's output tables: (db, table name) pairs.
struct bench_out_tbl_t {
    uint32_t db;
    const char *table;
};
extern const bench_out_tbl_t bench_out_tables[];
extern const size_t bench_out_table_num;
bool bench_is_output(uint32_t db, const std::string &key);
