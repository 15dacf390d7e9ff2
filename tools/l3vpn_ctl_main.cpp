// l3vpn-ctl: the operator's tool for the MPLS L3VPN daemon.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/mom/tq_mom_redis.h"
#include "tools/l3vpn_ctl.h"

namespace {

const char *const CTL_USAGE =
    "usage: l3vpn-ctl [--redis ADDR] [--auth-file FILE] [--root DIR] COMMAND [ARGS...]\n"
    "\n"
    "Operator tool of the MPLS L3VPN daemon: its records in the MOM, the\n"
    "capabilities, and its debug commands.\n"
    "\n"
    "commands:\n"
    "  load FILE                    write the records of a JSON-lines file\n"
    "  delete FILE                  delete the records a JSON-lines file names\n"
    "  dump TABLE|all [--json] [--db N]\n"
    "                               print the records of a table, or of every table\n"
    "  tables                       list the daemon's tables\n"
    "  cap get PATH | cap set PATH VALUE | cap list\n"
    "                               read or set capability values\n"
    "  cmd MODULE COMMAND [ARGS...]\n"
    "                               run a debug command over the module's socket\n"
    "  wait-synced [--timeout SECONDS] [--module NAME]\n"
    "                               wait until the daemon has finished its data sync\n"
    "  verify [--json]              compare the outputs in the store with what the\n"
    "                               inputs imply, and with what the daemon holds\n"
    "  graph [--vrf N | --label N | --all] [-o FILE]\n"
    "                               draw entries, next hops, adjacencies and outputs\n"
    "                               (Graphviz DOT, or SVG for FILE.svg)\n"
    "  stats [--json]               the daemon's figures (those of its metrics\n"
    "                               endpoint), as a table or JSON lines\n"
    "\n"
    "options (before or after COMMAND):\n"
    "  --redis ADDR   the MOM's Redis, unix:/path or host:port\n"
    "                 (default: $MOM_REDIS, else 127.0.0.1:6379)\n"
    "  --auth-file FILE  the Redis user and password, one line \"USER PASSWORD\"\n"
    "                 (sets MOM_REDIS_AUTH_FILE; none: no AUTH is sent)\n"
    "  --root DIR     prefix of the daemon's fixed paths, such as its debug sockets\n"
    "                 (sets L3VPN_ROOT)\n"
    "  --help         this text; l3vpn-ctl COMMAND --help tells about a command\n"
    "\n"
    "Exit status: 0 success, 1 failure, 2 bad usage.\n";

typedef int (*ctl_run_t)(ctl_global_t &g, const std::vector<std::string> &words);

struct ctl_command_t {
    const char *name;
    ctl_run_t run;
};

const ctl_command_t ctl_commands[] = {
    {"load", ctl_cmd_load},     {"delete", ctl_cmd_delete}, {"dump", ctl_cmd_dump},
    {"tables", ctl_cmd_tables}, {"cap", ctl_cmd_cap},       {"cmd", ctl_cmd_cmd},
    {"wait-synced", ctl_cmd_wait_synced},
    {"verify", ctl_cmd_verify},
    {"graph", ctl_cmd_graph},
    {"stats", ctl_cmd_stats},
};

// Takes a global option at words[i] (moving i past its value); 1 taken,
// 0 not a global option, -1 with err.
int ctl_take_global(ctl_global_t &g, const std::vector<std::string> &words, size_t &i,
                    std::string &err) {
    const std::string &w = words[i];
    for (const char *name : {"--redis", "--root", "--auth-file"}) {
        std::string value;
        size_t n = strlen(name);
        if (w == name) {
            if (i + 1 >= words.size()) {
                err = std::string(name) + " needs a value";
                return -1;
            }
            value = words[++i];
        } else if (w.compare(0, n + 1, std::string(name) + "=") == 0) {
            value = w.substr(n + 1);
        } else {
            continue;
        }
        if (strcmp(name, "--redis") == 0)
            g.redis = value;
        else if (strcmp(name, "--root") == 0)
            setenv("L3VPN_ROOT", value.c_str(), 1);
        else
            setenv(TQ_REDIS_AUTH_ENV, value.c_str(), 1);
        return 1;
    }
    return 0;
}

const ctl_optspec_t *ctl_find_opt(const std::vector<ctl_optspec_t> &own, const std::string &w,
                                  std::string &inline_value, bool &has_inline) {
    for (const ctl_optspec_t &o : own) {
        size_t n = strlen(o.name);
        has_inline = o.takes_value && w.size() > n && w.compare(0, n, o.name) == 0 && w[n] == '=';
        if (w == o.name || has_inline) {
            inline_value = has_inline ? w.substr(n + 1) : "";
            return &o;
        }
    }
    return nullptr;
}

}  // namespace

bool ctl_args_t::has(const std::string &name) const {
    for (const auto &o : opts)
        if (o.first == name) return true;
    return false;
}

std::string ctl_args_t::value(const std::string &name, const std::string &dflt) const {
    std::string v = dflt;
    for (const auto &o : opts)
        if (o.first == name) v = o.second;  // the last one given wins
    return v;
}

int ctl_parse_opts_only(ctl_global_t &g, const std::vector<std::string> &words,
                        const std::vector<ctl_optspec_t> &own, const char *name, const char *help,
                        ctl_args_t &out) {
    std::string err;
    if (ctl_parse_args(g, words, own, 0, out, err) != 0) return ctl_fail(name, err, CTL_EXIT_USAGE);
    if (out.help) return fputs(help, stdout), CTL_EXIT_OK;
    if (!out.pos.empty()) return ctl_fail(name, "takes no arguments", CTL_EXIT_USAGE);
    return -1;
}

int ctl_parse_args(ctl_global_t &g, const std::vector<std::string> &words,
                   const std::vector<ctl_optspec_t> &own, size_t verbatim_after, ctl_args_t &out,
                   std::string &err) {
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string &w = words[i];
        if ((verbatim_after > 0 && out.pos.size() >= verbatim_after) || w.size() < 2 ||
            w.compare(0, 2, "--") != 0) {
            out.pos.push_back(w);
            continue;
        }
        int taken = ctl_take_global(g, words, i, err);
        if (taken < 0) return -1;
        if (taken > 0) continue;
        if (w == "--help") {
            out.help = true;
            continue;
        }
        std::string value;
        bool has_inline = false;
        const ctl_optspec_t *o = ctl_find_opt(own, w, value, has_inline);
        if (o == nullptr) {
            err = "unknown option " + w;
            return -1;
        }
        if (o->takes_value && !has_inline) {
            if (i + 1 >= words.size()) {
                err = w + " needs a value";
                return -1;
            }
            value = words[++i];
        }
        out.opts.emplace_back(o->name, value);
    }
    return 0;
}

int ctl_fail(const char *what, const std::string &msg, int status) {
    if (what != nullptr && *what != '\0')
        fprintf(stderr, "l3vpn-ctl: %s: %s\n", what, msg.c_str());
    else
        fprintf(stderr, "l3vpn-ctl: %s\n", msg.c_str());
    return status;
}

int main(int argc, char **argv) {
    std::vector<std::string> words(argv + 1, argv + argc);
    ctl_global_t g;
    std::string err;
    size_t i = 0;
    for (; i < words.size() && words[i].rfind("--", 0) == 0; ++i) {
        if (words[i] == "--help") return fputs(CTL_USAGE, stdout), CTL_EXIT_OK;
        int taken = ctl_take_global(g, words, i, err);
        if (taken == 0) err = "unknown option " + words[i];
        if (taken <= 0) return fprintf(stderr, "l3vpn-ctl: %s\n%s", err.c_str(), CTL_USAGE), CTL_EXIT_USAGE;
    }
    if (i >= words.size()) return fputs(CTL_USAGE, stderr), CTL_EXIT_USAGE;
    for (const ctl_command_t &c : ctl_commands)
        if (words[i] == c.name)
            return c.run(g, std::vector<std::string>(words.begin() + static_cast<long>(i) + 1, words.end()));
    fprintf(stderr, "l3vpn-ctl: unknown command '%s'\n%s", words[i].c_str(), CTL_USAGE);
    return CTL_EXIT_USAGE;
}
