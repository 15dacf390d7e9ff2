#include "e2e/e2e_env.h"

#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>

std::vector<e2e_row_t> e2e_err_rows(const std::string &show_info, const std::string &name) {
    std::string text = show_info;
    for (const char *code : {"\033[1;31m", "\033[0m"})
        for (size_t at = text.find(code); at != std::string::npos; at = text.find(code))
            text.erase(at, strlen(code));
    std::vector<e2e_row_t> out;
    for (const std::string &l : text_lines(text)) {
        std::istringstream words(l);
        std::string first;
        e2e_row_t r;
        if (words >> first && first == name &&
            words >> r.count >> r.history >> r.data1 >> r.data2 >> r.line >> r.level)
            out.push_back(r);
    }
    return out;
}

size_t e2e_occurrences(const std::string &hay, const std::string &needle) {
    size_t n = 0;
    for (size_t at = hay.find(needle); at != std::string::npos; at = hay.find(needle, at + 1)) ++n;
    return n;
}

void e2e_env_t::SetUp() {
    if (!redis_server_t::available())
        GTEST_SKIP() << "no redis-server binary found: the end-to-end tests need a real Redis";
    fresh_store();
}

// A sanitizer report from the daemon fails the test even when the outputs came out right.
void e2e_store_t::fresh_store() {
    if (daemon_ != nullptr) {
        EXPECT_EQ(daemon_->sanitizer_report(), "");
    }
    daemon_.reset();
    redis_.reset();
    server_.reset();
    dir_ = std::make_unique<temp_dir_t>();
    server_ = std::make_unique<redis_server_t>(dir_->path());
    ASSERT_TRUE(server_->start()) << "redis-server did not start in " << dir_->path();
    redis_ = std::make_unique<redis_cli_t>(server_->socket());
}

void e2e_env_t::TearDown() {
    if (daemon_ == nullptr) return;
    EXPECT_EQ(daemon_->sanitizer_report(), "");
    if (HasFailure()) {
        std::string log = daemon_->log();
        if (getenv("E2E_FULL_LOG") == nullptr) log.erase(0, log.size() > 3000 ? log.size() - 3000 : 0);
        fprintf(stderr, "---- daemon log, last lines ----\n%s\n", log.c_str());
    }
}

bool e2e_store_t::start_daemon(int log_level) {
    daemon_ = std::make_unique<daemon_proc_t>(dir_->path() + "/root", server_->mom_redis(), log_level);
    return daemon_->start();
}

void e2e_store_t::start(int log_level) {
    ASSERT_TRUE(start_daemon(log_level));
    ASSERT_TRUE(wait_synced()) << daemon_->log();
}

bool e2e_store_t::wait_synced(int timeout_s) {
    ctl_result_t r = ctl({"wait-synced", "--timeout", std::to_string(timeout_s)});
    if (r.status != 0) fprintf(stderr, "wait-synced: %s%s", r.out.c_str(), r.err.c_str());
    return r.status == 0;
}

ctl_result_t e2e_store_t::ctl(const std::vector<std::string> &args) {
    std::vector<std::string> words{"--redis", server_->mom_redis(), "--root", dir_->path() + "/root"};
    words.insert(words.end(), args.begin(), args.end());
    return run_ctl(words, dir_->path());
}

std::string e2e_store_t::dbg(const std::string &line) {
    std::vector<std::string> args{"cmd", "udp-mpls-l3vpn"};
    std::istringstream words(line);
    for (std::string w; words >> w;) args.push_back(w);
    ctl_result_t r = ctl(args);
    EXPECT_EQ(r.status, 0) << line << ": " << r.err;
    return r.out;
}

void e2e_store_t::write_records(const char *how, const std::vector<json> &recs) {
    const std::string path = dir_->path() + "/records.jsonl";
    std::ofstream f(path);
    for (const json &r : recs) f << r.dump() << "\n";
    f.close();
    ctl_result_t r = ctl({how, path});
    EXPECT_EQ(r.status, 0) << how << ": " << r.err;
}

std::string e2e_store_t::redis(int db, const std::vector<std::string> &words) {
    redis_->select(db);
    return redis_->command(words);
}

std::vector<std::string> e2e_store_t::keys(int db, const std::string &pattern) {
    redis_->select(db);
    return redis_->keys(pattern);
}

size_t e2e_store_t::count(const e2e_table_t &t) {
    return keys(t.db, t.name + (t.owner != 0 ? "|" + std::to_string(t.owner) + "|*" : "*")).size();
}

std::vector<json> e2e_store_t::rows(const e2e_table_t &t) {
    ctl_result_t r = ctl({"dump", t.name, "--json"});
    EXPECT_EQ(r.status, 0) << r.err;
    std::vector<json> out;
    for (const std::string &l : text_lines(r.out)) {
        json rec = json::parse(l);
        if (t.owner == 0 || rec["index"]["t_rt_owner"] == t.owner) out.push_back(rec);
    }
    return out;
}

std::string e2e_store_t::snapshot() {
    ctl_result_t r = ctl({"dump", "all", "--json"});
    EXPECT_LE(r.status, 1) << r.err;  // 1: some record did not decode, as bad input leaves
    return r.out + r.err;
}

bool e2e_store_t::wait_outputs(const std::map<const e2e_table_t *, size_t> &want, int timeout_ms) {
    auto settled = [&] {
        for (const auto &[t, n] : want)
            if (count(*t) != n) return false;
        return true;
    };
    std::string last;
    return wait_until(
        [&] {
            if (!settled()) return false;
            usleep(150 * 1000);
            std::string now = snapshot();
            bool same = settled() && now == last;
            last = std::move(now);
            return same;
        },
        timeout_ms);
}

bool e2e_store_t::wait_log(const std::string &text, int times, int timeout_ms) {
    auto seen = [&] { return e2e_occurrences(daemon_->log(), text) >= static_cast<size_t>(times); };
    return wait_until(seen, timeout_ms);
}

bool e2e_store_t::wait_quiet(int quiet_ms, int timeout_ms) {
    std::string last = snapshot();
    auto since = std::chrono::steady_clock::now();
    return wait_until(
        [&] {
            usleep(50 * 1000);
            std::string now = snapshot();
            if (now != last) {
                last = std::move(now);
                since = std::chrono::steady_clock::now();
            }
            return std::chrono::steady_clock::now() - since >= std::chrono::milliseconds(quiet_ms);
        },
        timeout_ms);
}
