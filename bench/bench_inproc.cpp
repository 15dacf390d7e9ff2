#include "bench/bench_inproc.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_main.h"
#include "app/proc/ce_l3vpn_proto_op.h"
#include "app/proc/ce_l3vpn_tbl.h"
#include "app/proc/ce_l3vpn_wake.h"
#include "platform/cap/libs_cap_mem.h"
#include "platform/mom/tq_mom_name.h"
#include "platform/runtime/tq_global.h"
#include "p_mpls.pb-c.h"
#include "s_route.pb-c.h"
#include "u_mpls.pb-c.h"

namespace {
// Raised above the load so no entry meets a capacity.
constexpr struct {
    const char *path;
    int32_t value;
} kCaps[] = {
    {"s_mpls/l3vpn/capacity/ftnv4", 64000},  {"s_mpls/l3vpn/capacity/ftnv6", 64000},
    {"s_mpls/l3vpn/capacity/vc_ftn", 64000}, {"s_mpls/l3vpn/capacity/ilm", 64000},
    {"s_mpls/l3vpn/capacity/ecmp_size", 64000}, {"s_mpls/l3vpn/capacity/ecmp_max_path", 8},
};

ProtobufCMessage *unpack(const bench_rec_t &r) { return tq_mom_unpack(r.desc, r.bytes); }

// A client in front of the in-memory one that can log the writes passing through.
struct logging_client_t : tq_mom_client_t {
    tq_mom_client_t *inner;
    std::vector<bench_write_t> **log;
};
tq_mom_client_t *in(tq_mom_client_t *c) { return static_cast<logging_client_t *>(c)->inner; }
void log_write(tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *v, bool set) {
    std::vector<bench_write_t> *log = *static_cast<logging_client_t *>(c)->log;
    if (log == nullptr) return;
    std::string key;
    tq_mom_record_key(v, key);
    log->push_back({db, key, set});
}

const tq_mom_ops_t kLoggingOps = {
    "bench-log",
    [](tq_mom_client_t *c, void *g, uint32_t db) { return in(c)->ops->connect_sync(in(c), g, db); },
    [](tq_mom_client_t *c, void *g, uint32_t db, tq_mom_conn_cb_t cb, void *a) {
        return in(c)->ops->connect(in(c), g, db, cb, a);
    },
    [](tq_mom_client_t *c, void *g, uint32_t db, tq_mom_reconn_cb_t cb, void *a) {
        return in(c)->ops->set_reconnect_cb(in(c), g, db, cb, a);
    },
    [](tq_mom_client_t *c, void *g, uint32_t db, const ProtobufCMessage *i, uint32_t f,
       tq_mom_msg_cb_t cb, void *a) { return in(c)->ops->subscribe(in(c), g, db, i, f, cb, a); },
    [](tq_mom_client_t *c, void *g, uint32_t db, const ProtobufCMessage *i, uint32_t m,
       tq_mom_msg_cb_t cb, void *a) { return in(c)->ops->scan(in(c), g, db, i, m, cb, a); },
    [](tq_mom_client_t *c, void *g, uint32_t db, const ProtobufCMessage *i, uint32_t m, int32_t e,
       uint32_t f) { return in(c)->ops->dsbegin(in(c), g, db, i, m, e, f); },
    [](tq_mom_client_t *c, void *g, uint32_t db, const ProtobufCMessage *i, uint32_t m,
       tq_mom_msg_cb_t cb, void *a) { return in(c)->ops->dsend(in(c), g, db, i, m, cb, a); },
    [](tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *v, bool s, bool b) {
        log_write(c, db, v, true);
        return in(c)->ops->set(in(c), db, v, s, b);
    },
    [](tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *v, bool s, bool b) {
        return in(c)->ops->hmset(in(c), db, v, s, b);
    },
    [](tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *v, bool s, bool b) {
        log_write(c, db, v, false);
        return in(c)->ops->del(in(c), db, v, s, b);
    },
    [](tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *v) {
        return in(c)->ops->publish(in(c), db, v);
    },
    [](tq_mom_client_t *c, uint32_t db, const ProtobufCMessage *k, ProtobufCMessage **o) {
        return in(c)->ops->get(in(c), db, k, o);
    },
    [](tq_mom_client_t *c) { delete static_cast<logging_client_t *>(c); },
    [](tq_mom_client_t *c, void *g, uint32_t db, const ProtobufCMessage *item, uint32_t mode,
       tq_mom_msg_cb_t cb, void *a) {
        return in(c)->ops->watch(in(c), g, db, item, mode, cb, a);
    },
};
}  // namespace

int bench_inproc_start(bench_inproc_t &env) {
    namespace fs = std::filesystem;
    std::string root = fs::temp_directory_path() / ("l3vpn-bench-" + std::to_string(getpid()));
    for (const char *d : {"/var/run/ssat", "/data/sw_mpls", "/data/route/tbl_dbg"})
        fs::create_directories(root + d);
    setenv("L3VPN_ROOT", root.c_str(), 1);

    env.mom = mom_mem_new();
    auto *front = new logging_client_t;
    front->ops = &kLoggingOps;
    front->inner = env.mom;
    front->log = &env.log;
    env.ctx = tq_global_init_with_mom("udp-mpls-l3vpn", front);
    if (env.ctx == nullptr) return -1;
    ce_l3vpn_global = env.ctx;
    libs_cap_mem_install();
    for (const auto &c : kCaps) libs_cap_mem_set_int32(c.path, c.value);
    libs_cap_mem_set_bool("s_mpls/l3vpn/ability/support_mpls", true);
    ce_l3_table_init(env.ctx);
    ce_l3vpn_proto_op_init();
    if (ce_l3vpn_rdnd_awake_cb(tq_global_master(env.ctx)) != 0) return -2;
    mom_mem_dispatch_all(env.mom);  // connections: the database-ready chain
    libs_cap_mem_fire_event(LIBS_CAP_EVT_GLOBAL_READY);
    mom_mem_dispatch_all(env.mom);  // subscriptions, their markers and the data sync
    return mom_mem_sub_count(env.mom, 6, &p_mpls__mom_msg_ftn__descriptor) == 1 ? 0 : -3;
}

void bench_inproc_write(bench_inproc_t &env, const std::vector<bench_rec_t> &recs) {
    const uint32_t opt = 0;
    for (const bench_rec_t &r : recs) {
        ProtobufCMessage *m = unpack(r);
        tq_mom_set_ext(env.ctx, r.db, &opt, m, 1, 0);
        tq_mom_free(m);
    }
}

void bench_inproc_delete(bench_inproc_t &env, const std::vector<bench_rec_t> &recs) {
    for (const bench_rec_t &r : recs) {
        ProtobufCMessage *m = unpack(r);
        tq_mom_del(env.ctx, r.db, m, 1, 0);
        tq_mom_free(m);
    }
}

int bench_inproc_dispatch(bench_inproc_t &env) { return mom_mem_dispatch_all(env.mom); }

const ProtobufCMessageDescriptor *bench_out_desc(const std::string &key) {
    static const ProtobufCMessageDescriptor *const kDescs[] = {
        &s_route__comm_rt__descriptor, &s_route__vir_rt__descriptor,
        &u_mpls__udp_ilm__descriptor, &s_route__in_sub_adj__descriptor,
        &u_mpls__udp_mpls_enable__descriptor, &u_mpls__udp_ttl_copy_enable__descriptor,
        &u_mpls__udp_lab_sw__descriptor};
    std::string_view table = std::string_view(key).substr(0, key.find('|'));
    for (const ProtobufCMessageDescriptor *d : kDescs)
        if (table == d->name) return d;
    return nullptr;
}

bench_out_map_t bench_inproc_outputs(bench_inproc_t &env) {
    bench_out_map_t out;
    for (uint32_t db : {6u, 8u, 10u}) {
        for (const std::string &key : mom_mem_keys(env.mom, db)) {
            if (!bench_is_output(db, key)) continue;
            const ProtobufCMessageDescriptor *d = bench_out_desc(key);
            size_t bar = key.find('|');
            mom_mem_msg_ptr m = mom_mem_get(env.mom, db, d,
                                            bar == std::string::npos ? "" : key.substr(bar + 1));
            if (m != nullptr) tq_mom_pack(m.get(), out[{db, key}]);
        }
    }
    return out;
}

uint32_t bench_inproc_err_count() {
    uint32_t n = 0;
    for (const ce_l3vpn_err_row_t &r : ce_l3vpn_err_tbl) n += r.count;
    return n;
}

std::vector<std::string> bench_normalise(const bench_out_map_t &outs) {
    std::map<uint64_t, std::string> adj;  // MPLS id -> the adjacency without it
    for (const auto &[dk, bytes] : outs) {
        if (!dk.second.starts_with("s_route.in_sub_adj|")) continue;
        auto *m = reinterpret_cast<SRoute__InSubAdj *>(
            tq_mom_unpack(&s_route__in_sub_adj__descriptor, bytes));
        if (m == nullptr || m->index == nullptr) continue;
        uint64_t id = m->index->mplsid;
        m->index->mplsid = 0;
        tq_mom_pack(&m->base, adj[id]);
        tq_mom_free(&m->base);
    }
    std::vector<std::string> out;
    for (const auto &[dk, bytes] : outs) {
        const ProtobufCMessageDescriptor *d = bench_out_desc(dk.second);
        ProtobufCMessage *m = d != nullptr ? tq_mom_unpack(d, bytes) : nullptr;
        if (m == nullptr) {
            out.push_back("bad:" + dk.second);
            continue;
        }
        uint64_t *id = nullptr;
        if (d == &s_route__in_sub_adj__descriptor)
            id = &reinterpret_cast<SRoute__InSubAdj *>(m)->index->mplsid;
        else if (d == &s_route__comm_rt__descriptor)
            id = &reinterpret_cast<SRoute__CommRt *>(m)->index->mpls_id;
        else if (d == &s_route__vir_rt__descriptor)
            id = &reinterpret_cast<SRoute__VirRt *>(m)->index->mpls_id;
        std::string ref;
        if (id != nullptr) {
            auto it = adj.find(*id);
            ref = it != adj.end() ? it->second : "missing:" + std::to_string(*id);
            *id = 0;
        }
        std::string key, packed;
        tq_mom_record_key(m, key);
        tq_mom_pack(m, packed);
        tq_mom_free(m);
        out.push_back(std::to_string(dk.first) + "/" + key + "=" + packed + "@" + ref);
    }
    std::sort(out.begin(), out.end());
    return out;
}
