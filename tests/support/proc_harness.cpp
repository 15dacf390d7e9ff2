#include "proc_harness.h"

#include <fcntl.h>
#include <poll.h>
#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

temp_dir_t::temp_dir_t() {
    char tmpl[] = "/tmp/l3vpn-test-XXXXXX";
    const char *p = mkdtemp(tmpl);
    path_ = p != nullptr ? p : "/tmp";
}

temp_dir_t::~temp_dir_t() {
    std::error_code ec;
    if (path_ != "/tmp") fs::remove_all(path_, ec);
}

namespace {
std::string find_redis_server() {
    for (const char *p : {"/usr/bin/redis-server", "/usr/local/bin/redis-server", "/usr/sbin/redis-server"})
        if (access(p, X_OK) == 0) return p;
    return "";
}

int wait_pid(pid_t pid, int timeout_ms, bool *done) {
    int status = 0;
    for (int waited = 0; waited <= timeout_ms; waited += 10) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) {
            *done = true;
            if (WIFEXITED(status)) return WEXITSTATUS(status);
            if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
            return -1;
        }
        usleep(10 * 1000);
    }
    *done = false;
    return -1;
}
}  // namespace

bool redis_server_t::available() { return !find_redis_server().empty(); }

redis_server_t::redis_server_t(const std::string &dir) : dir_(dir), sock_(dir + "/redis.sock") {}

redis_server_t::~redis_server_t() { stop(); }

void redis_server_t::use_conf(const std::string &conf, const std::vector<std::string> &options) {
    conf_ = conf;
    options_ = options;
}

bool redis_server_t::start() {
    std::string bin = find_redis_server();
    if (bin.empty()) return false;
    std::vector<std::string> args{bin};
    if (conf_.empty()) {
        args.insert(args.end(), {"--port", "0", "--save", "", "--appendonly", "no",
                                 "--notify-keyspace-events", "K$hgx"});
    } else {
        args.push_back(conf_);
        args.insert(args.end(), options_.begin(), options_.end());
    }
    args.insert(args.end(), {"--unixsocket", sock_, "--unixsocketperm", "700", "--dir", dir_});
    pid_ = fork();
    if (pid_ == 0) {
        int fd = open((dir_ + "/redis.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
        }
        std::vector<char *> argv;
        for (std::string &a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(bin.c_str(), argv.data());
        _exit(127);
    }
    return wait_until(
        [&] {
            redis_cli_t cli(sock_);
            std::string pong = cli.ok() ? cli.command({"PING"}) : "";
            return pong == "PONG" || pong.starts_with("NOAUTH");
        },
        5000);
}

void redis_server_t::stop() {
    if (pid_ <= 0) return;
    {
        // A server whose default user may not shut it down ends on SIGTERM alike.
        redis_cli_t cli(sock_);
        if (cli.ok() && cli.command({"SHUTDOWN", "NOSAVE"}) != "(no reply)") ::kill(pid_, SIGTERM);
    }
    bool done = false;
    wait_pid(pid_, 3000, &done);
    if (!done) {
        ::kill(pid_, SIGKILL);
        wait_pid(pid_, 3000, &done);
    }
    pid_ = -1;
}

void redis_server_t::kill_hard() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    bool done = false;
    wait_pid(pid_, 3000, &done);
    pid_ = -1;
}

daemon_proc_t::daemon_proc_t(std::string root, std::string mom_redis, int log_level)
    : root_(std::move(root)), mom_redis_(std::move(mom_redis)), log_(root_ + "/daemon.log"),
      level_(log_level) {}

daemon_proc_t::~daemon_proc_t() {
    if (pid_ > 0) stop(SIGKILL);
}

// A program of the build tree: the one CTest names, else the one this harness
// was built in, so a test binary also runs by hand from anywhere.
static std::string built(const char *rel) {
    const char *dir = getenv("L3VPN_BUILD_DIR");
    return std::string(dir != nullptr ? dir : L3VPN_HARNESS_BUILD_DIR) + rel;
}

std::string daemon_proc_t::binary() { return built("/app/proc/ce_mpls_l3vpn"); }

bool daemon_proc_t::start() {
    for (const char *d : {"/var/run/ssat", "/data/sw_mpls", "/data/route/tbl_dbg", "/var/sw_mpls/ham"})
        fs::create_directories(root_ + d);
    std::ofstream(root_ + "/data/sw_mpls/ce_l3vpn_zlog.dbg") << level_ << "\n";
    std::string bin = binary();
    pid_ = fork();
    if (pid_ == 0) {
        int fd = open(log_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
        }
        setenv("L3VPN_ROOT", root_.c_str(), 1);
        setenv("MOM_REDIS", mom_redis_.c_str(), 1);
        for (const auto &[name, value] : env_) setenv(name.c_str(), value.c_str(), 1);
        execl(bin.c_str(), bin.c_str(), (char *)nullptr);
        _exit(127);
    }
    return pid_ > 0;
}

int daemon_proc_t::stop(int sig) {
    if (pid_ <= 0) return -1;
    ::kill(pid_, sig);
    bool done = false;
    int rv = wait_pid(pid_, 5000, &done);
    if (!done) {
        ::kill(pid_, SIGKILL);
        rv = wait_pid(pid_, 5000, &done);
    }
    pid_ = -1;
    return rv;
}

int daemon_proc_t::wait_exit(int timeout_ms) {
    if (pid_ <= 0) return -1;
    bool done = false;
    int rv = wait_pid(pid_, timeout_ms, &done);
    if (done) pid_ = -1;
    return done ? rv : -1;
}

bool daemon_proc_t::running() {
    if (pid_ <= 0) return false;
    bool done = false;
    wait_pid(pid_, 0, &done);
    if (done) pid_ = -1;
    return !done;
}

std::string daemon_proc_t::log() const { return file_text(log_); }

std::string daemon_proc_t::sanitizer_report() const {
    const std::string text = log();
    for (const char *report : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:"})
        if (size_t at = text.find(report); at != std::string::npos) return text.substr(at, 2000);
    return "";
}

std::string file_text(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

std::vector<std::string> text_lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    return lines;
}

ctl_result_t run_ctl(const std::vector<std::string> &args, const std::string &scratch) {
    const std::string out = scratch + "/ctl.out", err = scratch + "/ctl.err";
    std::string bin = built("/tools/l3vpn-ctl");
    pid_t pid = fork();
    if (pid == 0) {
        dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
        dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
        std::vector<char *> argv{bin.data()};
        for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(bin.c_str(), argv.data());
        _exit(127);
    }
    ctl_result_t r;
    int st = 0;
    if (pid > 0 && waitpid(pid, &st, 0) == pid)
        r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    r.out = file_text(out);
    r.err = file_text(err);
    return r;
}

redis_cli_t::redis_cli_t(const std::string &sock) {
    struct timeval tv = {2, 0};
    c_ = redisConnectUnixWithTimeout(sock.c_str(), tv);
    if (c_ != nullptr && c_->err != 0) {
        redisFree(c_);
        c_ = nullptr;
    }
}

redis_cli_t::redis_cli_t(const std::string &sock, const std::string &user, const std::string &pass)
    : redis_cli_t(sock) {
    if (c_ != nullptr && command({"AUTH", user, pass}) != "OK") {
        redisFree(c_);
        c_ = nullptr;
    }
}

redis_cli_t::~redis_cli_t() {
    if (c_ != nullptr) redisFree(c_);
}

std::string redis_reply_text(const redisReply *r) {
    if (r == nullptr) return "(no reply)";
    switch (r->type) {
    case REDIS_REPLY_STRING:
    case REDIS_REPLY_STATUS:
    case REDIS_REPLY_ERROR: return std::string(r->str, r->len);
    case REDIS_REPLY_INTEGER: return std::to_string(r->integer);
    case REDIS_REPLY_NIL: return "(nil)";
    default: return "(array)";
    }
}

namespace {
redisReply *run_words(redisContext *c, const std::vector<std::string> &words) {
    std::vector<const char *> argv;
    std::vector<size_t> lens;
    for (const std::string &w : words) {
        argv.push_back(w.data());
        lens.push_back(w.size());
    }
    return static_cast<redisReply *>(redisCommandArgv(c, argv.size(), argv.data(), lens.data()));
}

void flatten(const redisReply *r, std::vector<std::string> &out) {
    if (r == nullptr || r->type != REDIS_REPLY_ARRAY) {
        out.push_back(redis_reply_text(r));
        return;
    }
    for (size_t i = 0; i < r->elements; ++i) flatten(r->element[i], out);
}
}  // namespace

std::string redis_cli_t::command(const std::vector<std::string> &words) {
    if (c_ == nullptr) return "(no connection)";
    redisReply *r = run_words(c_, words);
    std::string text = redis_reply_text(r);
    if (r != nullptr) freeReplyObject(r);
    return text;
}

std::vector<std::string> redis_cli_t::command_flat(const std::vector<std::string> &words) {
    std::vector<std::string> out;
    if (c_ == nullptr) return out;
    redisReply *r = run_words(c_, words);
    flatten(r, out);
    if (r != nullptr) freeReplyObject(r);
    return out;
}

void redis_cli_t::select(int db) { command({"SELECT", std::to_string(db)}); }

std::vector<std::string> redis_cli_t::keys(const std::string &pattern) {
    std::vector<std::string> out;
    if (c_ == nullptr) return out;
    auto *r = static_cast<redisReply *>(redisCommand(c_, "KEYS %b", pattern.data(), pattern.size()));
    if (r != nullptr && r->type == REDIS_REPLY_ARRAY)
        for (size_t i = 0; i < r->elements; ++i) out.emplace_back(r->element[i]->str, r->element[i]->len);
    if (r != nullptr) freeReplyObject(r);
    std::sort(out.begin(), out.end());
    return out;
}

bool redis_cli_t::get(const std::string &key, std::string &out) {
    if (c_ == nullptr) return false;
    auto *r = static_cast<redisReply *>(redisCommand(c_, "GET %b", key.data(), key.size()));
    bool found = r != nullptr && r->type == REDIS_REPLY_STRING;
    if (found) out.assign(r->str, r->len);
    if (r != nullptr) freeReplyObject(r);
    return found;
}

std::vector<std::pair<std::string, std::string>> redis_cli_t::hgetall(const std::string &key) {
    std::vector<std::pair<std::string, std::string>> out;
    if (c_ == nullptr) return out;
    auto *r = static_cast<redisReply *>(redisCommand(c_, "HGETALL %b", key.data(), key.size()));
    if (r != nullptr && r->type == REDIS_REPLY_ARRAY)
        for (size_t i = 0; i + 1 < r->elements; i += 2)
            out.emplace_back(std::string(r->element[i]->str, r->element[i]->len),
                             std::string(r->element[i + 1]->str, r->element[i + 1]->len));
    if (r != nullptr) freeReplyObject(r);
    return out;
}

void redis_cli_t::set(const std::string &key, const std::string &value) { command({"SET", key, value}); }
void redis_cli_t::del(const std::string &key) { command({"DEL", key}); }
void redis_cli_t::flushall() { command({"FLUSHALL"}); }

bool redis_cli_t::psubscribe(const std::string &pattern) {
    if (c_ == nullptr) return false;
    auto *r = static_cast<redisReply *>(redisCommand(c_, "PSUBSCRIBE %b", pattern.data(), pattern.size()));
    const bool ok = r != nullptr && r->type == REDIS_REPLY_ARRAY;
    if (r != nullptr) freeReplyObject(r);
    return ok;
}

// Reads only what is buffered or arrives before the deadline, so the
// connection stays usable for the next call.
std::vector<std::string> redis_cli_t::messages(int wait_ms, size_t max) {
    std::vector<std::string> out;
    if (c_ == nullptr) return out;
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
    while (out.size() < max) {
        void *reply = nullptr;
        if (redisGetReplyFromReader(c_, &reply) != REDIS_OK) break;
        if (reply != nullptr) {
            auto *r = static_cast<redisReply *>(reply);
            if (r->type == REDIS_REPLY_ARRAY && r->elements == 4)
                out.push_back(redis_reply_text(r->element[2]) + " " + redis_reply_text(r->element[3]));
            freeReplyObject(r);
            continue;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        struct pollfd p = {c_->fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
        if (redisBufferRead(c_) != REDIS_OK) break;
    }
    return out;
}
