// End-to-end harness: a private redis-server on a Unix socket, the daemon as a
// process under a private L3VPN_ROOT, and a plain Redis client to look at the
// store the way the lower layers would.
#pragma once
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

struct redisContext;
struct redisReply;

// A reply as text: strings, statuses and errors as they are, integers in
// decimal, "(nil)", "(array)", or "(no reply)" for none.
std::string redis_reply_text(const redisReply *r);

// Everything in a file, "" when it cannot be read.
std::string file_text(const std::string &path);
// The lines of a text without their newlines.
std::vector<std::string> text_lines(const std::string &text);

// A run of the operator tool l3vpn-ctl of this build.
struct ctl_result_t {
    int status = -1;  // exit status, or 128+signal
    std::string out, err;
};
// scratch: a folder for the captured output.
ctl_result_t run_ctl(const std::vector<std::string> &args, const std::string &scratch);

// A temporary folder, removed with everything in it.
class temp_dir_t {
public:
    temp_dir_t();
    ~temp_dir_t();
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

class redis_server_t {
public:
    // True when a redis-server binary can be found.
    static bool available();
    explicit redis_server_t(const std::string &dir);
    ~redis_server_t();
    // The next start() runs the server on a configuration file (the shipped
    // one) with options over it (an ACL file, ...); the socket, its mode and
    // the folder stay the harness's.
    void use_conf(const std::string &conf, const std::vector<std::string> &options);
    bool start();          // waits until it answers PING (or asks for credentials)
    void stop();           // SHUTDOWN NOSAVE (SIGTERM when it is refused), then waits
    void kill_hard();      // SIGKILL
    const std::string &socket() const { return sock_; }
    std::string mom_redis() const { return "unix:" + sock_; }

private:
    std::string dir_, sock_, conf_;
    std::vector<std::string> options_;
    pid_t pid_ = -1;
};

class daemon_proc_t {
public:
    // root: the L3VPN_ROOT folder (created with the folders the daemon needs).
    daemon_proc_t(std::string root, std::string mom_redis, int log_level = 4);
    ~daemon_proc_t();
    static std::string binary();
    // An environment variable for the daemon, beside L3VPN_ROOT and MOM_REDIS
    // (L3VPN_METRICS, ...); taken by the next start().
    void set_env(const std::string &name, const std::string &value) { env_.emplace_back(name, value); }
    bool start();
    // Sends sig and waits; returns the exit status (or 128+signal).
    int stop(int sig = 15);
    // Waits up to timeout_ms for the process to end by itself; -1 if still running.
    int wait_exit(int timeout_ms);
    bool running();
    pid_t pid() const { return pid_; }
    const std::string &log_path() const { return log_; }
    std::string log() const;
    // The first sanitizer report in the log (a sanitized build), "" when none.
    std::string sanitizer_report() const;
    const std::string &root() const { return root_; }

private:
    std::string root_, mom_redis_, log_;
    int level_;
    std::vector<std::pair<std::string, std::string>> env_;
    pid_t pid_ = -1;
};

// A synchronous Redis client for assertions.
class redis_cli_t {
public:
    explicit redis_cli_t(const std::string &sock);
    // Logged in as user: not ok() when AUTH is refused.
    redis_cli_t(const std::string &sock, const std::string &user, const std::string &pass);
    ~redis_cli_t();
    bool ok() const { return c_ != nullptr; }
    void select(int db);
    std::vector<std::string> keys(const std::string &pattern);
    bool get(const std::string &key, std::string &out);
    std::vector<std::pair<std::string, std::string>> hgetall(const std::string &key);
    void set(const std::string &key, const std::string &value);
    void del(const std::string &key);
    void flushall();
    // Runs an arbitrary command given as words; returns the reply as text.
    std::string command(const std::vector<std::string> &words);
    // The same, with every element of a reply made of arrays as text, in order.
    std::vector<std::string> command_flat(const std::vector<std::string> &words);
    // Subscribed mode: PSUBSCRIBE, then the channel and payload ("channel event")
    // of every message that arrives within wait_ms, or of the first max ones.
    bool psubscribe(const std::string &pattern);
    std::vector<std::string> messages(int wait_ms, size_t max = SIZE_MAX);

private:
    redisContext *c_ = nullptr;
};

// Polls cond every 20 ms until it holds or timeout_ms passes.
template <typename F>
bool wait_until(F cond, int timeout_ms);

#include "proc_harness_wait.h"
