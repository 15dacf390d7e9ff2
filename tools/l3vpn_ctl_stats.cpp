// stats: the daemon's figures (those of its metrics endpoint) through the
// debug command "show-stats", as a table or as JSON lines.
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "platform/ssat/ssat.h"
#include "tools/l3vpn_ctl.h"
#include "tools/l3vpn_ctl_inproc.h"

const char *const CTL_HELP_STATS =
    "usage: l3vpn-ctl stats [--json]\n"
    "\n"
    "Prints the running daemon's figures, the same ones its metrics endpoint serves\n"
    "(L3VPN_METRICS): entries, next hops, adjacencies, capacities, waiting records,\n"
    "refusals, notices handled, data syncs, the MOM link and the writes sent to the\n"
    "lower layers. It runs the debug command \"show-stats\" over the socket under\n"
    "--root and prints one row a sample: metric, labels, value.\n"
    "  --json   one object a sample: {\"metric\": ..., \"labels\": {...}, \"value\": ...}\n"
    "\n"
    "Exit status: 0 printed, 1 the daemon cannot be reached or answered something\n"
    "else, 2 bad usage.\n";

namespace {

using json = nlohmann::ordered_json;  // keys in the order written

constexpr const char *CTL_STATS_CMD = "show-stats";
constexpr int CTL_STATS_TIMEOUT_MS = 10000;
constexpr const char *CTL_STATS_HEAD[] = {"METRIC", "LABELS", "VALUE"};

struct ctl_sample_t {
    std::string metric;
    std::vector<std::pair<std::string, std::string>> labels;
    std::string value;
};

// A quoted label value from at (just past the opening quote) to its closing
// quote, with \\, \" and \n undone; false when it does not end.
bool ctl_take_quoted(const std::string &line, size_t &at, std::string &out) {
    for (; at < line.size(); ++at) {
        char ch = line[at];
        if (ch == '"') {
            ++at;
            return true;
        }
        if (ch == '\\' && at + 1 < line.size()) ch = line[++at] == 'n' ? '\n' : line[at];
        out += ch;
    }
    return false;
}

// `name{k="v",...} value` or `name value`.
bool ctl_parse_sample(const std::string &line, ctl_sample_t &s) {
    size_t at = line.find_first_of("{ ");
    if (at == std::string::npos || at == 0) return false;
    s.metric = line.substr(0, at);
    if (line[at] == '{') {
        for (++at; at < line.size() && line[at] != '}';) {
            size_t eq = line.find("=\"", at);
            if (eq == std::string::npos) return false;
            std::string name = line.substr(at, eq - at), value;
            at = eq + 2;
            if (!ctl_take_quoted(line, at, value)) return false;
            s.labels.emplace_back(name, value);
            if (at < line.size() && line[at] == ',') ++at;
        }
        if (at >= line.size()) return false;
        ++at;
    }
    if (at >= line.size() || line[at] != ' ') return false;
    s.value = line.substr(at + 1);
    return !s.value.empty() && s.value.find(' ') == std::string::npos;
}

std::string ctl_labels_text(const ctl_sample_t &s) {
    std::string out;
    for (const auto &[name, value] : s.labels) out += (out.empty() ? "" : ",") + name + "=" + value;
    return out.empty() ? "-" : out;
}

// A number as a JSON number (integers stay exact); anything else as text.
json ctl_value_json(const std::string &text) {
    json v = json::parse(text, nullptr, false);
    return v.is_number() ? v : json(text);
}

void ctl_print_table(const std::vector<ctl_sample_t> &samples) {
    size_t w0 = strlen(CTL_STATS_HEAD[0]), w1 = strlen(CTL_STATS_HEAD[1]), w2 = strlen(CTL_STATS_HEAD[2]);
    for (const ctl_sample_t &s : samples) {
        w0 = std::max(w0, s.metric.size());
        w1 = std::max(w1, ctl_labels_text(s).size());
        w2 = std::max(w2, s.value.size());
    }
    auto row = [&](const std::string &a, const std::string &b, const std::string &c) {
        printf("%-*s  %-*s  %*s\n", static_cast<int>(w0), a.c_str(), static_cast<int>(w1), b.c_str(),
               static_cast<int>(w2), c.c_str());
    };
    row(CTL_STATS_HEAD[0], CTL_STATS_HEAD[1], CTL_STATS_HEAD[2]);
    for (const ctl_sample_t &s : samples) row(s.metric, ctl_labels_text(s), s.value);
}

void ctl_print_json(const std::vector<ctl_sample_t> &samples) {
    for (const ctl_sample_t &s : samples) {
        json labels = json::object();
        for (const auto &[name, value] : s.labels) labels[name] = value;
        json line = {{"metric", s.metric}, {"labels", labels}, {"value", ctl_value_json(s.value)}};
        printf("%s\n", line.dump().c_str());
    }
}

}  // namespace

int ctl_cmd_stats(ctl_global_t &g, const std::vector<std::string> &words) {
    ctl_args_t a;
    if (int st = ctl_parse_opts_only(g, words, {{"--json", false}}, "stats", CTL_HELP_STATS, a); st >= 0)
        return st;
    std::string out;
    int rc = ssat_client_request(CTL_DAEMON_MODULE, CTL_STATS_CMD, out, CTL_STATS_TIMEOUT_MS);
    int saved = errno;
    if (rc == -1)
        return ctl_fail("stats", "cannot reach " + ctl_sock_path(CTL_DAEMON_MODULE) + ": " + strerror(saved));
    if (rc != 0) return ctl_fail("stats", std::string("no complete reply to ") + CTL_STATS_CMD);
    std::vector<ctl_sample_t> samples;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        if (line.empty()) continue;
        ctl_sample_t s;
        if (!ctl_parse_sample(line, s)) return ctl_fail("stats", "unexpected reply line: " + line);
        samples.push_back(std::move(s));
    }
    a.has("--json") ? ctl_print_json(samples) : ctl_print_table(samples);
    return CTL_EXIT_OK;
}
