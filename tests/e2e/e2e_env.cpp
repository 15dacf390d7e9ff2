#include "e2e/e2e_env.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "p_libpub.pb-c.h"
#include "p_mpls.pb-c.h"
#include "platform/mom/tq_mom.h"
#include "platform/mom/tq_mom_name.h"
#include "s_route.pb-c.h"
#include "u_mpls.pb-c.h"

// ---- records ---------------------------------------------------------------------

namespace {
// A p_libpub.ip built from text, living as long as the holder.
struct ip_holder_t {
    PLibpub__Ip ip = P_LIBPUB__IP__INIT;
    PLibpub__Ipv4 v4 = P_LIBPUB__IPV4__INIT;
    PLibpub__Ipv6 v6 = P_LIBPUB__IPV6__INIT;
    uint8_t bytes[16] = {};

    explicit ip_holder_t(const std::string &text) {
        if (inet_pton(AF_INET, text.c_str(), bytes) == 1) {
            memcpy(&v4.data, bytes, 4);
            ip.addr_case = P_LIBPUB__IP__ADDR_V4;
            ip.v4 = &v4;
        } else if (inet_pton(AF_INET6, text.c_str(), bytes) == 1) {
            v6.data.data = bytes;
            v6.data.len = 16;
            ip.addr_case = P_LIBPUB__IP__ADDR_V6;
            ip.v6 = &v6;
        } else {
            ADD_FAILURE() << "not an address: " << text;
        }
    }
};

// The wire's six label slots of FTN and ILM keys.
template <typename Index>
void set_slots(Index &idx, const std::vector<uint32_t> &labels) {
    uint32_t *slots[] = {&idx.lb_st_0, &idx.lb_st_1, &idx.lb_st_2,
                         &idx.lb_st_3, &idx.lb_st_4, &idx.lb_st_5};
    idx.lb_cnt = static_cast<uint32_t>(labels.size());
    for (size_t i = 0; i < labels.size() && i < 6; ++i) *slots[i] = labels[i];
}
}  // namespace

e2e_rec_t e2e_pack(int db, const ProtobufCMessage *msg) {
    e2e_rec_t r{db, "", ""};
    EXPECT_EQ(tq_mom_record_key(msg, r.key), 0);
    EXPECT_EQ(tq_mom_pack(msg, r.value), 0);
    return r;
}

e2e_rec_t e2e_ftn(const e2e_ftn_t &f) {
    ip_holder_t prefix(f.prefix), nh(f.nh);
    PMpls__FtnIndex idx = P_MPLS__FTN_INDEX__INIT;
    idx.vrf_id = f.vrf;
    idx.prefix = &prefix.ip;
    idx.prefix_len = f.len;
    idx.out_ifx = f.ifx;
    idx.con_nh = &nh.ip;
    idx.opcode = f.opcode;
    set_slots(idx, f.labels);
    PMpls__MomMsgFtn ftn = P_MPLS__MOM_MSG_FTN__INIT;
    ftn.index = &idx;
    return e2e_pack(6, &ftn.base);
}

e2e_rec_t e2e_ilm(const e2e_ilm_t &i) {
    ip_holder_t nh(i.nh);
    PMpls__IlmIndex idx = P_MPLS__ILM_INDEX__INIT;
    idx.in_label = i.in_label;
    idx.co_nhop = &nh.ip;
    idx.out_ifx = i.ifx;
    idx.opcode = i.opcode;
    set_slots(idx, i.labels);
    PMpls__MomMsgIlm ilm = P_MPLS__MOM_MSG_ILM__INIT;
    ilm.index = &idx;
    ilm.vrfid = i.vrf;
    ilm.vc_ifx = i.vc_ifx;
    return e2e_pack(6, &ilm.base);
}

e2e_rec_t e2e_vc_ftn(const e2e_vc_ftn_t &v) {
    ip_holder_t nh(v.nh);
    UMpls__UdpVcFtnKey key = U_MPLS__UDP_VC_FTN_KEY__INIT;
    key.vc_ifx = v.vc_ifx;
    key.co_nhop = &nh.ip;
    key.out_ifx = v.ifx;
    std::vector<uint32_t> labels = v.labels;
    UMpls__UdpVcFtn rec = U_MPLS__UDP_VC_FTN__INIT;
    rec.index = &key;
    rec.opcode = v.opcode;
    rec.n_label_stack = labels.size();
    rec.label_stack = labels.empty() ? nullptr : labels.data();
    rec.vc_mode = v.vc_mode;
    rec.sd_vid = v.sd_vid;
    rec.cw = v.cw;
    return e2e_pack(6, &rec.base);
}

e2e_rec_t e2e_mpls_enable(bool on) {
    PMpls__MomConfGlobalEnable rec = P_MPLS__MOM_CONF_GLOBAL_ENABLE__INIT;
    rec.mpls_enable = on;
    return e2e_pack(4, &rec.base);
}

e2e_rec_t e2e_ttl_copy(bool on) {
    PMpls__MomConfVpnTtl rec = P_MPLS__MOM_CONF_VPN_TTL__INIT;
    rec.vpn_ttl_enable = on;
    return e2e_pack(4, &rec.base);
}

e2e_rec_t e2e_lab_sw(uint32_t ifx, int32_t enable) {
    PMpls__LabelSwitchIndex idx = P_MPLS__LABEL_SWITCH_INDEX__INIT;
    idx.ifx = ifx;
    PMpls__MomConfLabelSwitch rec = P_MPLS__MOM_CONF_LABEL_SWITCH__INIT;
    rec.index = &idx;
    rec.enable = enable;
    return e2e_pack(4, &rec.base);
}

void e2e_msg_free_t::operator()(ProtobufCMessage *m) const { tq_mom_free(m); }

const e2e_table_t E2E_FTN_RT{6, "s_route.comm_rt|1|", &s_route__comm_rt__descriptor};
const e2e_table_t E2E_VC_VIR_RT{6, "s_route.vir_rt|8|", &s_route__vir_rt__descriptor};
const e2e_table_t E2E_ILM_VIR_RT{6, "s_route.vir_rt|7|", &s_route__vir_rt__descriptor};
const e2e_table_t E2E_UDP_ILM{10, "u_mpls.udp_ilm|", &u_mpls__udp_ilm__descriptor};
const e2e_table_t E2E_FTN_ADJ{10, "s_route.in_sub_adj|1|", &s_route__in_sub_adj__descriptor};
const e2e_table_t E2E_VC_ADJ{10, "s_route.in_sub_adj|8|", &s_route__in_sub_adj__descriptor};
const e2e_table_t E2E_ILM_ADJ{10, "s_route.in_sub_adj|7|", &s_route__in_sub_adj__descriptor};
const e2e_table_t E2E_LAB_SW{8, "u_mpls.udp_lab_sw|", &u_mpls__udp_lab_sw__descriptor};
const e2e_table_t E2E_MPLS_EN{8, "u_mpls.udp_mpls_enable", &u_mpls__udp_mpls_enable__descriptor};
const e2e_table_t E2E_TTL_COPY{8, "u_mpls.udp_ttl_copy_enable",
                               &u_mpls__udp_ttl_copy_enable__descriptor};
const std::vector<e2e_table_t> E2E_OUTPUTS = {E2E_FTN_RT,  E2E_VC_VIR_RT, E2E_ILM_VIR_RT,
                                              E2E_UDP_ILM, E2E_FTN_ADJ,   E2E_VC_ADJ,
                                              E2E_ILM_ADJ, E2E_LAB_SW,    E2E_MPLS_EN,
                                              E2E_TTL_COPY};

std::string e2e_ip_text(const ProtobufCMessage *m) {
    const auto *ip = reinterpret_cast<const PLibpub__Ip *>(m);
    char text[INET6_ADDRSTRLEN] = "";
    if (ip == nullptr) return "";
    if (ip->addr_case == P_LIBPUB__IP__ADDR_V4 && ip->v4 != nullptr) {
        inet_ntop(AF_INET, &ip->v4->data, text, sizeof text);
        return std::string("v4:") + text;
    }
    if (ip->addr_case == P_LIBPUB__IP__ADDR_V6 && ip->v6 != nullptr && ip->v6->data.len == 16) {
        inet_ntop(AF_INET6, ip->v6->data.data, text, sizeof text);
        return std::string("v6:") + text;
    }
    return "";
}

std::vector<e2e_row_t> e2e_err_rows(const std::string &show_info, const std::string &name) {
    std::string text = show_info;
    for (const char *code : {"\033[1;31m", "\033[0m"})
        for (size_t at = text.find(code); at != std::string::npos; at = text.find(code))
            text.erase(at, strlen(code));
    std::vector<e2e_row_t> out;
    std::istringstream lines(text);
    for (std::string l; std::getline(lines, l);) {
        std::istringstream words(l);
        std::string first;
        e2e_row_t r;
        if (words >> first && first == name &&
            words >> r.count >> r.history >> r.data1 >> r.data2 >> r.line >> r.level)
            out.push_back(r);
    }
    return out;
}

// ---- Redis ------------------------------------------------------------------------

namespace {
void append(redisContext *c, const std::vector<std::string> &words) {
    std::vector<const char *> argv;
    std::vector<size_t> lens;
    for (const std::string &w : words) {
        argv.push_back(w.data());
        lens.push_back(w.size());
    }
    redisAppendCommandArgv(c, static_cast<int>(argv.size()), argv.data(), lens.data());
}

void drain(redisContext *c, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        void *r = nullptr;
        if (redisGetReply(c, &r) != REDIS_OK) return;
        freeReplyObject(r);
    }
}

// Keys under a prefix that carry an expiry.
constexpr const char *kMarkedLua =
    "local n = 0 "
    "for _, k in ipairs(redis.call('KEYS', ARGV[1])) do "
    "  if redis.call('PTTL', k) >= 0 then n = n + 1 end "
    "end "
    "return n";
}  // namespace

e2e_redis_t::e2e_redis_t(const std::string &sock) {
    struct timeval tv = {5, 0};
    c_ = redisConnectUnixWithTimeout(sock.c_str(), tv);
    if (c_ != nullptr && c_->err != 0) {
        redisFree(c_);
        c_ = nullptr;
    }
}

e2e_redis_t::~e2e_redis_t() {
    if (c_ != nullptr) redisFree(c_);
}

void e2e_redis_t::select(int db) {
    if (db == db_ || c_ == nullptr) return;
    auto *r = static_cast<redisReply *>(redisCommand(c_, "SELECT %d", db));
    if (r != nullptr) freeReplyObject(r);
    db_ = db;
}

std::string e2e_redis_t::cmd(int db, const std::vector<std::string> &words) {
    if (c_ == nullptr) return "(no connection)";
    select(db);
    append(c_, words);
    void *r = nullptr;
    if (redisGetReply(c_, &r) != REDIS_OK) return "(no reply)";
    std::string text = redis_reply_text(static_cast<redisReply *>(r));
    freeReplyObject(r);
    return text;
}

std::vector<std::string> e2e_redis_t::keys(int db, const std::string &pattern) {
    std::vector<std::string> out;
    if (c_ == nullptr) return out;
    select(db);
    auto *r = static_cast<redisReply *>(redisCommand(c_, "KEYS %b", pattern.data(), pattern.size()));
    if (r != nullptr && r->type == REDIS_REPLY_ARRAY)
        for (size_t i = 0; i < r->elements; ++i) out.emplace_back(r->element[i]->str, r->element[i]->len);
    if (r != nullptr) freeReplyObject(r);
    return out;
}

std::vector<std::string> e2e_redis_t::mget(int db, const std::vector<std::string> &keys) {
    std::vector<std::string> out(keys.size());
    if (c_ == nullptr || keys.empty()) return out;
    select(db);
    std::vector<std::string> words{"MGET"};
    words.insert(words.end(), keys.begin(), keys.end());
    append(c_, words);
    void *v = nullptr;
    if (redisGetReply(c_, &v) != REDIS_OK) return out;
    auto *r = static_cast<redisReply *>(v);
    if (r->type == REDIS_REPLY_ARRAY)
        for (size_t i = 0; i < r->elements && i < out.size(); ++i)
            if (r->element[i]->type == REDIS_REPLY_STRING)
                out[i].assign(r->element[i]->str, r->element[i]->len);
    freeReplyObject(r);
    return out;
}

void e2e_redis_t::put(const std::vector<e2e_rec_t> &recs) {
    if (c_ == nullptr) return;
    size_t n = 0;
    for (const e2e_rec_t &r : recs) {
        if (r.db != db_) {
            append(c_, {"SELECT", std::to_string(r.db)});
            db_ = r.db;
            ++n;
        }
        append(c_, {"SET", r.key, r.value});
        ++n;
    }
    drain(c_, n);
}

void e2e_redis_t::del(const std::vector<e2e_rec_t> &recs) {
    if (c_ == nullptr) return;
    size_t n = 0;
    for (const e2e_rec_t &r : recs) {
        if (r.db != db_) {
            append(c_, {"SELECT", std::to_string(r.db)});
            db_ = r.db;
            ++n;
        }
        append(c_, {"DEL", r.key});
        ++n;
    }
    drain(c_, n);
}

long e2e_redis_t::dbsize(int db) { return std::strtol(cmd(db, {"DBSIZE"}).c_str(), nullptr, 10); }

long e2e_redis_t::marked(int db, const std::string &prefix) {
    return std::strtol(cmd(db, {"EVAL", kMarkedLua, "0", prefix + "*"}).c_str(), nullptr, 10);
}

// ---- fixture ------------------------------------------------------------------------

void e2e_env_t::SetUp() {
    if (!redis_server_t::available())
        GTEST_SKIP() << "no redis-server binary found: the end-to-end tests need a real Redis";
    fresh_store();
}

// A sanitizer report from the daemon (sanitized build) fails the test even when
// the outputs came out right.
void e2e_env_t::check_daemon_log() {
    if (daemon_ == nullptr) return;
    std::string log = daemon_->log();
    for (const char *report : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:"}) {
        size_t at = log.find(report);
        if (at != std::string::npos) ADD_FAILURE() << "daemon: " << log.substr(at, 2000);
    }
}

void e2e_env_t::fresh_store() {
    check_daemon_log();
    daemon_.reset();
    redis_.reset();
    server_.reset();
    dir_ = std::make_unique<temp_dir_t>();
    server_ = std::make_unique<redis_server_t>(dir_->path());
    ASSERT_TRUE(server_->start()) << "redis-server did not start in " << dir_->path();
    redis_ = std::make_unique<e2e_redis_t>(server_->socket());
    ASSERT_TRUE(redis_->ok());
    setenv("L3VPN_ROOT", (dir_->path() + "/root").c_str(), 1);
}

void e2e_env_t::TearDown() {
    check_daemon_log();
    if (daemon_ != nullptr && HasFailure()) {
        std::string log = daemon_->log();
        fprintf(stderr, "---- daemon log, last lines ----\n%s\n",
                log.substr(log.size() > 3000 ? log.size() - 3000 : 0).c_str());
    }
    daemon_.reset();
    redis_.reset();
    if (server_ != nullptr) server_->stop();
    server_.reset();
    dir_.reset();
}

bool e2e_env_t::start_daemon(int log_level) {
    daemon_ = std::make_unique<daemon_proc_t>(dir_->path() + "/root", server_->mom_redis(), log_level);
    return daemon_->start();
}

void e2e_env_t::start(int log_level) {
    ASSERT_TRUE(start_daemon(log_level));
    ASSERT_TRUE(wait_synced()) << daemon_->log();
}

bool e2e_env_t::wait_synced(int timeout_s) {
    e2e_ctl_t r = ctl({"wait-synced", "--timeout", std::to_string(timeout_s)});
    if (r.status != 0) fprintf(stderr, "wait-synced: %s%s", r.out.c_str(), r.err.c_str());
    return r.status == 0;
}

e2e_ctl_t e2e_env_t::ctl(const std::vector<std::string> &args) {
    const char *b = getenv("L3VPN_BUILD_DIR");
    std::string bin = std::string(b != nullptr ? b : "build") + "/tools/l3vpn-ctl";
    std::string out = dir_->path() + "/ctl.out", err = dir_->path() + "/ctl.err";
    std::vector<std::string> words{bin, "--redis", server_->mom_redis(), "--root",
                                   dir_->path() + "/root"};
    words.insert(words.end(), args.begin(), args.end());
    pid_t pid = fork();
    if (pid == 0) {
        int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(o, 1);
        dup2(e, 2);
        std::vector<char *> argv;
        for (std::string &w : words) argv.push_back(w.data());
        argv.push_back(nullptr);
        execv(bin.c_str(), argv.data());
        _exit(127);
    }
    e2e_ctl_t r;
    int st = 0;
    if (pid > 0 && waitpid(pid, &st, 0) == pid)
        r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    auto slurp = [](const std::string &path) {
        std::ifstream f(path);
        std::stringstream ss;
        ss << f.rdbuf();
        return ss.str();
    };
    r.out = slurp(out);
    r.err = slurp(err);
    return r;
}

std::string e2e_env_t::dbg(const std::string &line) {
    std::vector<std::string> args{"cmd", "udp-mpls-l3vpn"};
    std::istringstream words(line);
    for (std::string w; words >> w;) args.push_back(w);
    e2e_ctl_t r = ctl(args);
    EXPECT_EQ(r.status, 0) << line << ": " << r.err;
    return r.out;
}

e2e_rows_t e2e_env_t::rows(const e2e_table_t &t) {
    e2e_rows_t out;
    std::vector<std::string> keys = redis_->keys(t.db, std::string(t.prefix) + "*");
    std::vector<std::string> values = redis_->mget(t.db, keys);
    for (size_t i = 0; i < keys.size(); ++i) {
        e2e_msg_t m(tq_mom_unpack(t.desc, values[i]));
        EXPECT_NE(m, nullptr) << "output " << keys[i] << " does not decode";
        if (m != nullptr) out.emplace(keys[i], std::move(m));
    }
    return out;
}

e2e_msg_t e2e_env_t::get(const e2e_table_t &t, const std::string &key) {
    std::vector<std::string> v = redis_->mget(t.db, {key});
    if (v[0].empty() && redis_->cmd(t.db, {"EXISTS", key}) != "1") return nullptr;
    return e2e_msg_t(tq_mom_unpack(t.desc, v[0]));
}

e2e_snap_t e2e_env_t::snapshot() {
    e2e_snap_t snap;
    for (const e2e_table_t &t : E2E_OUTPUTS) {
        std::vector<std::string> keys = redis_->keys(t.db, std::string(t.prefix) + "*");
        std::vector<std::string> values = redis_->mget(t.db, keys);
        for (size_t i = 0; i < keys.size(); ++i)
            snap[std::to_string(t.db) + "|" + keys[i]] = values[i];
    }
    return snap;
}

bool e2e_env_t::wait_outputs(const std::map<const e2e_table_t *, size_t> &want, int timeout_ms) {
    auto settled = [&] {
        for (const auto &[t, n] : want)
            if (count(*t) != n) return false;
        for (const e2e_table_t &t : E2E_OUTPUTS)
            if (redis_->marked(t.db, t.prefix) != 0) return false;
        return true;
    };
    e2e_snap_t last;
    return wait_until(
        [&] {
            if (!settled()) return false;
            usleep(150 * 1000);
            e2e_snap_t now = snapshot();
            bool same = settled() && now == last;
            last = std::move(now);
            return same;
        },
        timeout_ms);
}

size_t e2e_env_t::occurrences(const std::string &hay, const std::string &needle) {
    size_t n = 0;
    for (size_t at = hay.find(needle); at != std::string::npos; at = hay.find(needle, at + 1)) ++n;
    return n;
}

bool e2e_env_t::wait_log(const std::string &text, int times, int timeout_ms) {
    return wait_until([&] { return occurrences(daemon_->log(), text) >= static_cast<size_t>(times); },
                      timeout_ms);
}
