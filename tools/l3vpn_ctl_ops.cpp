// cap, cmd, wait-synced: capabilities and the daemon's debug socket.
#include <hiredis/hiredis.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>

#include "platform/runtime/tq_path.h"
#include "platform/ssat/ssat.h"
#include "tools/l3vpn_ctl.h"
#include "tools/l3vpn_ctl_inproc.h"
#include "tools/l3vpn_ctl_redis.h"

const char *const CTL_HELP_CAP =
    "usage: l3vpn-ctl cap get PATH\n"
    "       l3vpn-ctl cap set PATH VALUE\n"
    "       l3vpn-ctl cap list\n"
    "\n"
    "Capability values of the capability service: Redis database 4, hash\n"
    "\"capability|global\", one field per path (s_mpls/l3vpn/capacity/ilm, ...).\n"
    "VALUE is a decimal 32-bit number or true/false. get prints the value (exit 1\n"
    "when the path is not set); list prints every path and value.\n";

const char *const CTL_HELP_CMD =
    "usage: l3vpn-ctl cmd MODULE COMMAND [ARGS...]\n"
    "\n"
    "Runs a debug command of a running process over its socket\n"
    "$L3VPN_ROOT/var/run/ssat/MODULE.sock and prints the output. ARGS are name:value\n"
    "words in the order of the command's argument format, e.g.\n"
    "  l3vpn-ctl cmd udp-mpls-l3vpn tbl-show-info is_clean:0 is_detail:0\n"
    "A request the command does not accept gets its argument format back.\n"
    "\n"
    "Exit status: 0 answered, 1 the socket cannot be reached or the reply did not\n"
    "end in time, 2 bad usage.\n";

const char *const CTL_HELP_WAIT_SYNCED =
    "usage: l3vpn-ctl wait-synced [--timeout SECONDS] [--module NAME]\n"
    "\n"
    "Waits until the daemon (module udp-mpls-l3vpn unless --module says otherwise)\n"
    "has finished its data sync: every 200 ms it asks \"tbl-show-info is_clean:0\n"
    "is_detail:0\" over the debug socket and stops when the table library's history\n"
    "row \"sub cb\" shows count + history >= 1. The library counts that row right\n"
    "after the daemon's data-sync function has returned, which happens once every\n"
    "subscribed table has delivered its end marker.\n"
    "\n"
    "Exit status: 0 synced, 1 not synced within the timeout (default 30 s), 2 bad\n"
    "usage.\n";

namespace {

constexpr int CTL_CMD_TIMEOUT_MS = 30000;  // a full database dump can take a while
constexpr int CTL_POLL_MS = 200;
constexpr int CTL_POLL_REQ_MS = 2000;  // longest wait for one reply
constexpr int CTL_POLL_MIN_MS = 100;   // shortest, when the deadline is near
constexpr double CTL_SYNC_TIMEOUT_S = 30;
constexpr const char *CTL_SYNC_ROW = "sub cb";

// ---- cap -----------------------------------------------------------------------

bool ctl_cap_value_ok(const std::string &v) {
    if (v == "true" || v == "false") return true;
    size_t i = (!v.empty() && (v[0] == '-' || v[0] == '+')) ? 1 : 0;
    if (i == v.size() || v.size() > 11) return false;
    if (!std::all_of(v.begin() + static_cast<long>(i), v.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return false;
    long long n = strtoll(v.c_str(), nullptr, 10);
    return n >= INT32_MIN && n <= INT32_MAX;
}

int ctl_cap_list(ctl_redis_t &r) {
    std::string err;
    ctl_reply_t rep = ctl_redis_cmd(r, {"HGETALL", CTL_CAP_KEY}, err);
    if (rep == nullptr) return ctl_fail("cap", err);
    if (rep->type != REDIS_REPLY_ARRAY) return ctl_fail("cap", ctl_reply_text(rep.get()));
    std::vector<std::pair<std::string, std::string>> caps;
    size_t width = 0;
    for (size_t i = 0; i + 1 < rep->elements; i += 2) {
        caps.emplace_back(ctl_reply_text(rep->element[i]), ctl_reply_text(rep->element[i + 1]));
        width = std::max(width, caps.back().first.size());
    }
    std::sort(caps.begin(), caps.end());
    for (const auto &[path, value] : caps)
        printf("%-*s  %s\n", static_cast<int>(width), path.c_str(), value.c_str());
    return CTL_EXIT_OK;
}

int ctl_cap_get(ctl_redis_t &r, const std::string &path) {
    std::string err;
    ctl_reply_t rep = ctl_redis_cmd(r, {"HGET", CTL_CAP_KEY, path}, err);
    if (rep == nullptr) return ctl_fail("cap", err);
    if (rep->type == REDIS_REPLY_NIL) return ctl_fail("cap", path + " is not set");
    if (rep->type != REDIS_REPLY_STRING) return ctl_fail("cap", ctl_reply_text(rep.get()));
    printf("%s\n", ctl_reply_text(rep.get()).c_str());
    return CTL_EXIT_OK;
}

int ctl_cap_set(ctl_redis_t &r, const std::string &path, const std::string &value) {
    std::string err;
    ctl_reply_t rep = ctl_redis_cmd(r, {"HSET", CTL_CAP_KEY, path, value}, err);
    if (rep == nullptr) return ctl_fail("cap", err);
    if (rep->type == REDIS_REPLY_ERROR) return ctl_fail("cap", ctl_reply_text(rep.get()));
    printf("%s = %s\n", path.c_str(), value.c_str());
    return CTL_EXIT_OK;
}

// ---- wait-synced -----------------------------------------------------------------

// The "sub cb" row of a tbl-show-info reply: "%-20s %8d %8d ..." (name, count,
// history, ...). The library prints a row of that level only once it counted.
bool ctl_sync_row(const std::string &out, long *count, long *history) {
    std::istringstream lines(out);
    std::string line;
    while (std::getline(lines, line)) {
        size_t b = line.find_first_not_of(' ');
        if (b == std::string::npos || line.compare(b, strlen(CTL_SYNC_ROW), CTL_SYNC_ROW) != 0)
            continue;
        std::istringstream rest(line.substr(b + strlen(CTL_SYNC_ROW)));
        if (rest >> *count >> *history) return true;
    }
    return false;
}

// One look at the daemon's history; true (and a line printed) once it synced,
// otherwise last tells what was seen.
bool ctl_poll_synced(const std::string &module, int wait_ms, std::string &last) {
    std::string out;
    long count = 0, history = 0;
    int rc = ssat_client_request(module.c_str(), "tbl-show-info is_clean:0 is_detail:0", out, wait_ms);
    if (rc == -1) {
        last = "cannot reach " + ctl_sock_path(module) + ": " + strerror(errno);
        return false;
    }
    if (rc != 0) {
        last = "no complete reply to tbl-show-info";
        return false;
    }
    if (!ctl_sync_row(out, &count, &history) || count + history < 1) {
        last = "the \"sub cb\" row is not counted yet";
        return false;
    }
    printf("%s: data sync done (\"sub cb\" count %ld, history %ld)\n", module.c_str(), count,
           history);
    return true;
}

double ctl_parse_seconds(const std::string &text) {
    char *end = nullptr;
    double v = strtod(text.c_str(), &end);
    return text.empty() || *end != '\0' || !(v > 0) || v > 86400 ? -1 : v;
}

}  // namespace

std::string ctl_sock_path(const std::string &module) {
    return tq_path(("/var/run/ssat/" + module + ".sock").c_str());
}

int ctl_cmd_cap(ctl_global_t &g, const std::vector<std::string> &words) {
    ctl_args_t a;
    std::string err;
    if (ctl_parse_args(g, words, {}, 0, a, err) != 0) return ctl_fail("cap", err, CTL_EXIT_USAGE);
    if (a.help) return fputs(CTL_HELP_CAP, stdout), CTL_EXIT_OK;
    const std::string verb = a.pos.empty() ? "" : a.pos[0];
    size_t want = verb == "list" ? 1 : verb == "get" ? 2 : verb == "set" ? 3 : 0;
    if (want == 0 || a.pos.size() != want)
        return ctl_fail("cap", "expects get PATH, set PATH VALUE or list (see --help)", CTL_EXIT_USAGE);
    if (want > 1 && a.pos[1].empty()) return ctl_fail("cap", "empty PATH", CTL_EXIT_USAGE);
    if (verb == "set" && !ctl_cap_value_ok(a.pos[2]))
        return ctl_fail("cap", "VALUE must be a 32-bit decimal number or true/false, not '" +
                                   a.pos[2] + "'", CTL_EXIT_USAGE);
    ctl_redis_t r;
    if (ctl_redis_connect(ctl_redis_addr(g.redis), r, err) != 0 ||
        ctl_redis_select(r, CTL_CAP_DB, err) != 0)
        return ctl_fail("cap", err);
    if (verb == "list") return ctl_cap_list(r);
    if (verb == "get") return ctl_cap_get(r, a.pos[1]);
    return ctl_cap_set(r, a.pos[1], a.pos[2]);
}

int ctl_cmd_cmd(ctl_global_t &g, const std::vector<std::string> &words) {
    ctl_args_t a;
    std::string err;
    if (ctl_parse_args(g, words, {}, 2, a, err) != 0) return ctl_fail("cmd", err, CTL_EXIT_USAGE);
    if (a.help) return fputs(CTL_HELP_CMD, stdout), CTL_EXIT_OK;
    if (a.pos.size() < 2) return ctl_fail("cmd", "expects MODULE COMMAND [ARGS...]", CTL_EXIT_USAGE);
    std::string line = a.pos[1];
    for (size_t i = 2; i < a.pos.size(); ++i) line += " " + a.pos[i];
    std::string out;
    int rc = ssat_client_request(a.pos[0].c_str(), line, out, CTL_CMD_TIMEOUT_MS);
    int saved = errno;
    fwrite(out.data(), 1, out.size(), stdout);
    fflush(stdout);
    if (rc == -1)
        return ctl_fail("cmd", "cannot reach " + ctl_sock_path(a.pos[0]) + ": " + strerror(saved));
    if (rc != 0)
        return ctl_fail("cmd", "no complete reply from " + a.pos[0] + " within " +
                                   std::to_string(CTL_CMD_TIMEOUT_MS / 1000) + " s");
    return CTL_EXIT_OK;
}

// Synced means: the table library of the daemon has counted its "sub cb"
// history row, which it does right after the daemon's data-sync function has
// returned (that runs once every subscribed table delivered its end marker).
// Polling "tbl-show-info is_clean:0" reads that row without changing it, so the
// daemon needs no extra state for this.
int ctl_cmd_wait_synced(ctl_global_t &g, const std::vector<std::string> &words) {
    ctl_args_t a;
    std::string err;
    if (ctl_parse_args(g, words, {{"--timeout", true}, {"--module", true}}, 0, a, err) != 0)
        return ctl_fail("wait-synced", err, CTL_EXIT_USAGE);
    if (a.help) return fputs(CTL_HELP_WAIT_SYNCED, stdout), CTL_EXIT_OK;
    if (!a.pos.empty()) return ctl_fail("wait-synced", "takes no positional arguments", CTL_EXIT_USAGE);
    double timeout = a.has("--timeout") ? ctl_parse_seconds(a.value("--timeout")) : CTL_SYNC_TIMEOUT_S;
    if (timeout < 0) return ctl_fail("wait-synced", "--timeout expects seconds", CTL_EXIT_USAGE);
    const std::string module = a.value("--module", CTL_DAEMON_MODULE);
    using clock = std::chrono::steady_clock;
    auto deadline = clock::now() + std::chrono::duration_cast<clock::duration>(
                                       std::chrono::duration<double>(timeout));
    std::string last = "no answer yet";
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now());
        if (ctl_poll_synced(module, std::clamp(static_cast<int>(left.count()), CTL_POLL_MIN_MS,
                                               CTL_POLL_REQ_MS), last))
            return CTL_EXIT_OK;
        if (clock::now() >= deadline) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(CTL_POLL_MS));
    }
    char secs[32];
    snprintf(secs, sizeof secs, "%g", timeout);
    return ctl_fail("wait-synced", module + " has not finished its data sync within " + secs +
                                       " s (waited for the \"sub cb\" row of tbl-show-info to "
                                       "count 1; last: " + last + ")");
}
