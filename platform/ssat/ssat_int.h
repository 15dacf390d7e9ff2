// Internals shared by the parts of the debug-command service.
#pragma once
#include <sys/types.h>

#include <cstdint>
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
    // Drop lines: at most SSAT_DROP_LOG_BURST a window; drop_ev ends the window
    // with one line for the drops not told one by one.
    struct event *drop_ev = nullptr;
    int drop_lines = 0;
    int drop_quiet = 0;
};

// Texts the service answers by itself, without a capture file.
inline constexpr std::string_view SSAT_TEXT_TOO_LONG = "request too long\n";
inline constexpr std::string_view SSAT_TEXT_NO_CAPTURE = "output capture failed\n";

// A reply: the output (a handler's, or the service's usage and command list)
// in a capture file read from offset 0, so it never sits in the heap; or,
// with fd < 0, one of the fixed texts above.
struct ssat_reply_t {
    int fd = -1;
    off_t size = 0;
    std::string_view fixed;
};

// The module of that name, made on first use; null for an empty name.
ssat_mod_t *ssat_mod_get(std::string_view name);
ssat_mod_t *ssat_mod_find(std::string_view name);

// Answers one request line of a module into a reply whose file the caller
// closes. Returns the handler's result when it ran, -2 for an unknown command,
// -4 for bad arguments, -1 when the output could not be captured (the reply is
// then SSAT_TEXT_NO_CAPTURE).
int ssat_serve_line(const ssat_mod_t &mod, std::string_view line, ssat_reply_t &reply);

// Server side: drops every open connection / closes a module's listening socket.
void ssat_srv_close_conns(void);
void ssat_srv_close_mod(ssat_mod_t &mod);

// What the server holds for clients that do not take their replies. A request
// runs only while the reply bytes left of all clients are under
// SSAT_SPOOL_MAX; room is made by dropping the client that has taken nothing
// for longest, if for SSAT_IDLE_MIN_MS, else the request waits. A client that
// has taken nothing for SSAT_STALL_MS with more than SSAT_UNREAD_MAX left is
// dropped, and any that takes nothing for 30 s.
inline constexpr off_t SSAT_UNREAD_MAX = off_t{4} << 20;
inline constexpr off_t SSAT_SPOOL_MAX = off_t{16} << 20;
inline constexpr int SSAT_STALL_MS = 1000;
inline constexpr int SSAT_IDLE_MIN_MS = 100;

// The server's holdings (tests): open connections, the reply bytes left in
// capture files, replies begun and clients dropped so far.
struct ssat_srv_stats_t {
    int conns;
    int64_t spooled;
    int64_t served;
    int64_t dropped;
};
ssat_srv_stats_t ssat_srv_stats(void);
