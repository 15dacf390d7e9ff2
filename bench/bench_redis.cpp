#include "bench/bench_redis.h"

#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "platform/ssat/ssat.h"

double bench_now() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

int bench_pipeline(redisContext *c, const std::vector<bench_op_t> &ops) {
    int64_t cur = -1;
    size_t sent = 0;
    for (const bench_op_t &op : ops) {
        if (op.db != cur) {
            redisAppendCommand(c, "SELECT %u", op.db);
            cur = op.db, ++sent;
        }
        if (op.get)
            redisAppendCommand(c, "GET %b", op.key->data(), op.key->size());
        else if (op.bytes != nullptr)
            redisAppendCommand(c, "SET %b %b", op.key->data(), op.key->size(), op.bytes->data(),
                               op.bytes->size());
        else
            redisAppendCommand(c, "DEL %b", op.key->data(), op.key->size());
        ++sent;
    }
    int errors = 0;
    for (size_t i = 0; i < sent; ++i) {
        void *r = nullptr;
        if (redisGetReply(c, &r) != REDIS_OK) return -1;
        errors += static_cast<redisReply *>(r)->type == REDIS_REPLY_ERROR;
        freeReplyObject(r);
    }
    return errors;
}

long long bench_dbsize(redisContext *c, uint32_t db) {
    freeReplyObject(redisCommand(c, "SELECT %u", db));
    auto *r = static_cast<redisReply *>(redisCommand(c, "DBSIZE"));
    long long n = r != nullptr && r->type == REDIS_REPLY_INTEGER ? r->integer : -1;
    freeReplyObject(r);
    return n;
}

bench_out_map_t bench_redis_outputs(redisContext *c) {
    bench_out_map_t out;
    for (uint32_t db : {6u, 8u, 10u}) {
        freeReplyObject(redisCommand(c, "SELECT %u", db));
        auto *keys = static_cast<redisReply *>(redisCommand(c, "KEYS *"));
        std::vector<std::string> names;
        for (size_t i = 0; keys != nullptr && i < keys->elements; ++i) {
            std::string k(keys->element[i]->str, keys->element[i]->len);
            if (bench_is_output(db, k)) names.push_back(k);
        }
        freeReplyObject(keys);
        for (const std::string &k : names)
            redisAppendCommand(c, "GET %b", k.data(), k.size());
        for (const std::string &k : names) {
            void *r = nullptr;
            if (redisGetReply(c, &r) != REDIS_OK) break;
            auto *rep = static_cast<redisReply *>(r);
            if (rep->type == REDIS_REPLY_STRING) out[{db, k}].assign(rep->str, rep->len);
            freeReplyObject(rep);
        }
    }
    return out;
}

void bench_redis_caps(redisContext *c) {
    freeReplyObject(redisCommand(c, "SELECT 4"));
    for (const char *p : {"ftnv4", "ftnv6", "vc_ftn", "ilm", "ecmp_size"})
        freeReplyObject(redisCommand(c, "HSET capability|global s_mpls/l3vpn/capacity/%s 64000", p));
    freeReplyObject(redisCommand(c, "HSET capability|global s_mpls/l3vpn/capacity/ecmp_max_path 8"));
    freeReplyObject(redisCommand(c, "HSET capability|global s_mpls/l3vpn/ability/support_mpls true"));
}

bool bench_synced() {
    std::string out;
    if (ssat_client_request("udp-mpls-l3vpn", "tbl-show-info is_clean:0 is_detail:0", out, 2000) != 0)
        return false;
    size_t at = out.find("sub cb");
    return at != std::string::npos;
}

long bench_mem_cnt() {
    std::string out;
    if (ssat_client_request("udp-mpls-l3vpn", "get-mem_cnt", out, 2000) != 0) return -1;
    size_t at = out.find("memory count:");
    return at == std::string::npos ? -1 : strtol(out.c_str() + at + 13, nullptr, 10);
}

long bench_rss_kb(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmRSS:", 0) == 0) return strtol(line.c_str() + 6, nullptr, 10);
    return -1;
}
