// Internals shared by the parts of the debug-command service.
#pragma once
#include <string>
#include <string_view>
#include <vector>

#include "platform/ssat/ssat.h"

struct ssat_fmt_arg_t {
    std::string_view name;
    int type;
};

// Takes the next blank-separated word off the front of s (empty when none is left).
std::string_view ssat_next_word(std::string_view &s);
// The arguments a format asks for: their count, or -4 when there are more than SSAT_MAX_ARGS.
int ssat_fmt_parse(std::string_view fmt, ssat_fmt_arg_t (&args)[SSAT_MAX_ARGS]);

// Socket path of a module, under L3VPN_ROOT; empty when the module name cannot
// be a file name.
std::string ssat_sock_path(const char *module);

struct event;

struct ssat_cmd_t {
    std::string name;
    std::string fmt;
    ssat_cmd_func_t func;
};

// A module: its commands in registration order and, once opened, its socket.
struct ssat_mod_t {
    std::string name;
    std::vector<ssat_cmd_t> cmds;
    int listen_fd = -1;
    struct event *listen_ev = nullptr;
    std::string path;
    // While accept lacks descriptors or memory the socket is not watched;
    // this timer watches it again. pause_ms: the current pause, 0 when serving.
    struct event *retry_ev = nullptr;
    int pause_ms = 0;
};

// The module of that name, made on first use; null for an empty name.
ssat_mod_t *ssat_mod_get(std::string_view name);
ssat_mod_t *ssat_mod_find(std::string_view name);

// Answers one request line of a module into out. Returns the handler's result
// when it ran, -2 for an unknown command, -4 for bad arguments, -1 when the
// output could not be captured.
int ssat_serve_line(const ssat_mod_t &mod, std::string_view line, std::string &out);

// Server side: drops every open connection / closes a module's listening socket.
void ssat_srv_close_conns(void);
void ssat_srv_close_mod(ssat_mod_t &mod);
