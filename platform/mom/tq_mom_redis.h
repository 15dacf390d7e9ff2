// The Redis MOM client's extras: its counters, and the connection helpers that
// the process's other Redis users (the capability store) share with it.
// tq_mom_redis_new() itself is declared in tq_mom.h.
#pragma once
#include <cstdint>
#include <string>

struct event_base;
struct redisContext;
struct redisAsyncContext;
struct tq_mom_client_t;

// Where the store is: "unix:/path/redis.sock" or "host:port" ("[v6]:port").
struct tq_redis_addr_t {
    bool is_unix;
    std::string path;  // socket path, or host name
    int port;
};
// 0, or -4 with out untouched when the text is neither form.
int tq_redis_addr_parse(const std::string &text, tq_redis_addr_t &out);
// MOM_REDIS; 127.0.0.1:6379 when unset, or when unreadable (said on stderr).
tq_redis_addr_t tq_redis_addr_from_env(void);

// Credentials: MOM_REDIS_AUTH_FILE names a file holding one line
// "USER PASSWORD" (a trailing newline allowed), read again at every
// connection; a file that others (neither its owner nor its group) may read
// or write is refused. Every connection logs in with AUTH USER PASSWORD before
// anything else; without the variable no AUTH is sent.
constexpr const char *TQ_REDIS_AUTH_ENV = "MOM_REDIS_AUTH_FILE";
// Why a connection failed: the server was not reached, or it did not take
// this process's credentials (the file cannot be used, AUTH was refused, or
// the server wants credentials and none are named).
enum { TQ_REDIS_FAIL_CONN = 1, TQ_REDIS_FAIL_AUTH = 2 };
// Told of every credentials failure, with the reason as one line. Without
// one, a failure the caller does not ask about goes to stderr.
typedef void (*tq_redis_auth_fail_cb_t)(const char *why);
void tq_redis_set_auth_fail_cb(tq_redis_auth_fail_cb_t cb);

// A blocking connection with a connect and I/O timeout, logged in; null when
// it fails, with the reason in *err and its kind in *fail when given. Without
// credentials it sends a PING, so that a server wanting some says so here.
redisContext *tq_redis_connect(const tq_redis_addr_t &addr, int timeout_ms,
                               std::string *err = nullptr, int *fail = nullptr);
// A non-blocking connection driven by `master`; null when it fails at once.
// AUTH goes first; a refusal frees the connection, which its disconnect
// callback reports as a connection that failed.
redisAsyncContext *tq_redis_connect_async(const tq_redis_addr_t &addr, struct event_base *master);
// Makes sure keyspace notifications carry at least the classes in `need`
// ("K$hgx"), keeping what the server has already: CONFIG GET, then CONFIG SET
// of the union when something is missing. 0, or -11 when the server refuses
// (said on stderr with the classes missing: a user without CONFIG SET needs
// them in the server's configuration).
int tq_redis_enable_notices(redisContext *c, const char *need);
// Escapes the glob characters of a key text for MATCH, KEYS and PSUBSCRIBE.
std::string tq_redis_glob_escape(const std::string &text);

// Counters of the client made by tq_mom_redis_new (0 for another client).
// Values that do not decode (skipped, never delivered).
uint64_t tq_mom_redis_bad_values(tq_mom_client_t *c);
// Why a record was skipped: its value does not decode, its key does not parse
// or names another record, the store holds another type under the key.
enum { TQ_REDIS_BAD_DECODE = 0, TQ_REDIS_BAD_KEY = 1, TQ_REDIS_BAD_TYPE = 2 };
// Told of every skipped record with its Redis key ("T|<key text>").
typedef void (*tq_redis_bad_cb_t)(const char *redis_key, uint32_t why, void *arg);
void tq_mom_redis_set_bad_cb(tq_mom_client_t *c, tq_redis_bad_cb_t cb, void *arg);
// Whether the link is up now; how many times it came back after a loss.
bool tq_mom_redis_link_up(tq_mom_client_t *c);
uint64_t tq_mom_redis_reconnects(tq_mom_client_t *c);
// Error replies to pipelined writes.
uint64_t tq_mom_redis_write_errors(tq_mom_client_t *c);
// Commands sent on the command connection (each one a request of its own,
// pipelined or not).
uint64_t tq_mom_redis_commands(tq_mom_client_t *c);
