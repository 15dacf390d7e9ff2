// Capability service: global ability and capacity values of the switch, read
// by path ("s_mpls/l3vpn/capacity/ilm"), with a ready event and per-path
// change callbacks.
//
// The values sit in a store behind a small backend seam (libs_cap_backend_t):
// Redis in production (db 4, hash "capability|global", one field per path,
// value a decimal number or true/false), an in-memory store in the tests
// (libs_cap_mem.h). This front end keeps the last values read, answers the
// getters from them, and on a change notice re-reads the store and calls the
// change callback of every subscribed path whose value differs.
#pragma once
#include <cstdint>
#include <map>
#include <string>

enum {
    LIBS_CAP_OK = 0,
    LIBS_CAP_ERR_PARAM = -4,
    LIBS_CAP_ERR_NOT_FOUND = -7,  // no value stored under the path
    LIBS_CAP_ERR = -11,           // a value or a message that does not parse
    LIBS_CAP_ERR_BACKEND = -17,   // no backend, or the backend failed
};

// Events of the event callback.
enum {
    LIBS_CAP_EVT_GLOBAL_READY = 0,    // global values readable (after every connection)
    LIBS_CAP_EVT_FE_L3VPN_READY = 1,  // the forwarding engine's own values readable
};

// Events carried by a change message.
enum {
    LIBS_CAP_MSG_CHANGED = 4,
    LIBS_CAP_MSG_SUB_OK = 29,
};

enum { LIBS_CAP_PATH_MAX = 256, LIBS_CAP_VALUE_MAX = 64 };

// Scope reported through the auxiliary word of the by-message getters.
enum { LIBS_CAP_SCOPE_GLOBAL = 0 };

// A change message, handed to a change callback for the callback's duration.
struct libs_cap_msg_t {
    uint32_t event;  // LIBS_CAP_MSG_CHANGED or LIBS_CAP_MSG_SUB_OK
    char path[LIBS_CAP_PATH_MAX];
    char value[LIBS_CAP_VALUE_MAX];  // text as stored; empty for SUB_OK
};

typedef int (*libs_cap_event_cb_t)(uint32_t event);
typedef int (*libs_cap_chg_cb_t)(void *handle, libs_cap_msg_t *msg);

// Registers a module's event callback (flags: 1 = global events). 0 or -4.
int libs_cap_event_callback_reg(const char *module, libs_cap_event_cb_t cb, uint32_t flags);
// Starts the service on the process context with the installed backend.
// 0; -4 null argument; -17 no backend or the backend did not start.
// A second call while started returns 0 and changes nothing.
int libs_cap_init(void *global, const char *module);

// Getters: 0 and *value set, -7 when the path holds nothing (or the store could
// not be read), -11 when its text is not of the asked kind, -4 null argument.
int libs_cap_ce_get_g_cap_int32(void *handle, const char *path, int32_t *value);
int libs_cap_ce_get_g_cap_bool(void *handle, const char *path, bool *value);
// The text stored under a path as last read, so that a refused value can be
// named: 0, or -7 when the path holds nothing.
int libs_cap_ce_get_g_cap_text(void *handle, const char *path, std::string *text);

// Follows one path: cb(handle, msg) with LIBS_CAP_MSG_SUB_OK once the service
// watches the store, then with LIBS_CAP_MSG_CHANGED on every change of the value.
// Subscribing a path again replaces its callback. 0 or -4.
int libs_cap_ce_subscribe_g_cap_int32(void *handle, const char *path, libs_cap_chg_cb_t cb);
int libs_cap_ce_subscribe_g_cap_bool(void *handle, const char *path, libs_cap_chg_cb_t cb);

// Extracts path (into key, key_size bytes with the terminator) and value from a
// change message; *aux receives the scope (LIBS_CAP_SCOPE_GLOBAL), aux may be
// null. 0; -4 null argument; -11 path too long or value not of the kind.
int libs_cap_ce_get_g_cap_int32_by_pmsg(const libs_cap_msg_t *pmsg, uint32_t key_size, char *key,
                                        int32_t *value, uint32_t *aux);
int libs_cap_ce_get_g_cap_bool_by_pmsg(const libs_cap_msg_t *pmsg, uint32_t key_size, char *key,
                                       bool *value, uint32_t *aux);

// Value texts: an int32 is a decimal number (optional sign, nothing else); a
// bool is "true"/"false" (or "1"/"0"). 0 or -11.
int libs_cap_parse_int32(const std::string &text, int32_t *value);
int libs_cap_parse_bool(const std::string &text, bool *value);

// ---- storage backends ---------------------------------------------------------

typedef std::map<std::string, std::string> libs_cap_values_t;

// What a backend reports to the front end.
enum {
    LIBS_CAP_BE_READY = 0,     // connected and read: the front end re-reads, then fires event 0
    LIBS_CAP_BE_CHANGED = 1,   // the store may have changed: the front end re-reads and compares
    LIBS_CAP_BE_FE_READY = 2,  // fires event 1
};
typedef void (*libs_cap_notify_t)(void *arg, uint32_t what);

struct libs_cap_backend_t {
    const char *name;
    // Reads every stored value into *out (cleared first). 0, or non-zero when
    // the store cannot be read.
    int (*read_all)(libs_cap_values_t *out);
    // Connects on the process context and starts watching: notify(arg, READY)
    // once the values have been read after each connection, notify(arg,
    // CHANGED) on every change notice. 0, or non-zero when it cannot start.
    int (*watch)(void *global, libs_cap_notify_t notify, void *arg);
    // Stops watching (tests, end of process).
    void (*stop)(void);
};

// Installs the backend that libs_cap_init starts (null: back to the default).
void libs_cap_set_backend(const libs_cap_backend_t *backend);
// The backend used when none is installed; the Redis backend in the daemon,
// null until it is linked in (see libs_cap_default.cpp).
const libs_cap_backend_t *libs_cap_default_backend(void);

// Stops the backend and forgets callbacks, subscriptions and values (tests).
void libs_cap_reset(void);
