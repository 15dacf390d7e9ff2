// l3vpn-ctl: the operator's tool. Each subcommand is one entry of the command
// table in l3vpn_ctl_main.cpp.
#pragma once
#include <string>
#include <vector>

// Exit statuses.
enum { CTL_EXIT_OK = 0, CTL_EXIT_FAIL = 1, CTL_EXIT_USAGE = 2 };

// Options every subcommand takes.
struct ctl_global_t {
    std::string redis;  // --redis ADDR; empty: MOM_REDIS or the default
};

// A subcommand's arguments once the options are taken out.
struct ctl_args_t {
    std::vector<std::string> pos;
    std::vector<std::pair<std::string, std::string>> opts;  // own options, in order given
    bool help = false;

    bool has(const std::string &name) const;
    std::string value(const std::string &name, const std::string &dflt = "") const;
};

struct ctl_optspec_t {
    const char *name;  // "--json"
    bool takes_value;
};

// Splits a subcommand's words into options and positionals. The global options
// (--redis, --root, --auth-file) and --help are recognised everywhere; after verbatim_after
// positionals every word is a positional. 0, or -1 with err.
int ctl_parse_args(ctl_global_t &g, const std::vector<std::string> &words,
                   const std::vector<ctl_optspec_t> &own, size_t verbatim_after, ctl_args_t &out,
                   std::string &err);

// For a subcommand that takes options only: parses them, answers --help and
// refuses positionals. -1 when the subcommand goes on, else the status to end with.
int ctl_parse_opts_only(ctl_global_t &g, const std::vector<std::string> &words,
                        const std::vector<ctl_optspec_t> &own, const char *name, const char *help,
                        ctl_args_t &out);

// Subcommands: (global options, words after the subcommand name) -> exit status.
int ctl_cmd_load(ctl_global_t &g, const std::vector<std::string> &words);
int ctl_cmd_delete(ctl_global_t &g, const std::vector<std::string> &words);
int ctl_cmd_dump(ctl_global_t &g, const std::vector<std::string> &words);
int ctl_cmd_tables(ctl_global_t &g, const std::vector<std::string> &words);
int ctl_cmd_cap(ctl_global_t &g, const std::vector<std::string> &words);
int ctl_cmd_cmd(ctl_global_t &g, const std::vector<std::string> &words);
int ctl_cmd_wait_synced(ctl_global_t &g, const std::vector<std::string> &words);
int ctl_cmd_verify(ctl_global_t &g, const std::vector<std::string> &words);
int ctl_cmd_graph(ctl_global_t &g, const std::vector<std::string> &words);
int ctl_cmd_stats(ctl_global_t &g, const std::vector<std::string> &words);

// Help texts, printed by "COMMAND --help".
extern const char *const CTL_HELP_LOAD;
extern const char *const CTL_HELP_DELETE;
extern const char *const CTL_HELP_DUMP;
extern const char *const CTL_HELP_TABLES;
extern const char *const CTL_HELP_CAP;
extern const char *const CTL_HELP_CMD;
extern const char *const CTL_HELP_WAIT_SYNCED;
extern const char *const CTL_HELP_VERIFY;
extern const char *const CTL_HELP_GRAPH;
extern const char *const CTL_HELP_STATS;

// "l3vpn-ctl: <what>: <msg>" on standard error; returns status.
int ctl_fail(const char *what, const std::string &msg, int status = CTL_EXIT_FAIL);
// The debug socket of a module: $L3VPN_ROOT/var/run/ssat/MODULE.sock.
std::string ctl_sock_path(const std::string &module);
