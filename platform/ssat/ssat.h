// Debug-command service: one Unix stream socket per module at
// /var/run/ssat/<module>.sock (under L3VPN_ROOT), mode 0600.
//
// A request is one line: the command name, then its arguments as name:value
// words in the order of the command's argument format ("%d" an integer, "%a"
// a dotted IPv4 address, "%v" an IPv6 address, "void" none). The handler runs
// on the event loop with its standard output sent to the requester; a bad
// request gets the command's argument format back and runs nothing.
#pragma once
#include <cstdint>
#include <string>

enum { SSAT_MAX_ARGS = 16 };
enum { SSAT_ARG_INT = 1, SSAT_ARG_V4 = 2, SSAT_ARG_V6 = 3 };

struct ssat_arg_t {
    int type;
    int64_t i;       // %d
    uint32_t v4;     // %a: the address bytes in network order, as stored in memory
    uint8_t v6[16];  // %v
};

struct ssat_args_t {
    int argc;
    ssat_arg_t argv[SSAT_MAX_ARGS];
};

typedef int (*ssat_cmd_func_t)(const ssat_args_t *args);

// Opens the module's socket on the context's event loop. 0, or -1 with a log line.
// A second call for a module whose socket is open does nothing and returns 0.
int ssat_lib_init(void *global, const char *module);
// Registers a command of a module (flags 0). 0, -4 bad arguments, -17 duplicate.
int ssat_reg_mod_cmd(const char *module, const char *cmd, uint32_t flags, const char *arg_fmt,
                     ssat_cmd_func_t func);

// Parses "name:value ..." against an argument format; 0 or -4. Exposed for the
// tests and the fuzzer.
int ssat_parse_args(const char *arg_fmt, const char *request_args, ssat_args_t *out);

// Runs a registered command in-process with its output captured (tests).
// Returns the handler's result when it ran, -4 for bad arguments (output: the
// usage line), -2 for an unknown command, -1 for an unknown module or when the
// output cannot be captured (the handler is not run then).
int ssat_run_local(const char *module, const char *request_line, std::string &output);

// Client side: sends one request line to a module's socket and returns its
// output; 0, or -1 when the socket cannot be reached (errno tells why), or -2
// when the reply did not end within timeout_ms (<= 0: no limit).
int ssat_client_request(const char *module, const std::string &line, std::string &output,
                        int timeout_ms);
// Closes every socket and forgets every command (tests; before the loop is freed).
void ssat_lib_reset(void);
