#include "platform/cap/libs_cap.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {
struct cap_sub_t {
    void *handle;
    libs_cap_chg_cb_t cb;
};

struct cap_event_reg_t {
    std::string module;
    libs_cap_event_cb_t cb;
};

// The service's whole state: one per process.
struct cap_state_t {
    const libs_cap_backend_t *installed = nullptr;
    const libs_cap_backend_t *running = nullptr;
    void *global = nullptr;
    bool watching = false;
    std::vector<cap_event_reg_t> event_cbs;
    std::map<std::string, cap_sub_t> subs;
    libs_cap_values_t last;  // the values of the last read
};

cap_state_t &state() {
    static cap_state_t s;
    return s;
}

void fill_msg(libs_cap_msg_t *msg, uint32_t event, const std::string &path,
              const std::string &value) {
    *msg = libs_cap_msg_t{};
    msg->event = event;
    snprintf(msg->path, sizeof msg->path, "%s", path.c_str());
    snprintf(msg->value, sizeof msg->value, "%s", value.c_str());
}

void confirm_sub(const std::string &path, const cap_sub_t &sub) {
    libs_cap_msg_t msg;
    fill_msg(&msg, LIBS_CAP_MSG_SUB_OK, path, "");
    sub.cb(sub.handle, &msg);
}

// Re-reads the store. A failed read forgets every value, so the getters fail
// and their callers keep their defaults.
libs_cap_values_t read_store() {
    libs_cap_values_t now;
    const libs_cap_backend_t *be = state().running;
    if (be == nullptr || be->read_all(&now) != 0) {
        fprintf(stderr, "libs_cap: cannot read the capability store\n");
        now.clear();
    }
    return now;
}

// Callbacks may subscribe or register while we iterate: work on copies.
void fire_event(uint32_t event) {
    const std::vector<cap_event_reg_t> regs = state().event_cbs;
    for (const cap_event_reg_t &r : regs) r.cb(event);
}

void dispatch_changes(const libs_cap_values_t &before, const libs_cap_values_t &now) {
    const std::map<std::string, cap_sub_t> subs = state().subs;
    for (const auto &[path, sub] : subs) {
        auto cur = now.find(path);
        if (cur == now.end()) continue;  // a removed value carries nothing to report
        auto old = before.find(path);
        if (old != before.end() && old->second == cur->second) continue;
        libs_cap_msg_t msg;
        fill_msg(&msg, LIBS_CAP_MSG_CHANGED, path, cur->second);
        sub.cb(sub.handle, &msg);
    }
}

void on_backend(void *, uint32_t what) {
    cap_state_t &s = state();
    switch (what) {
        case LIBS_CAP_BE_READY:
            s.last = read_store();
            fire_event(LIBS_CAP_EVT_GLOBAL_READY);
            break;
        case LIBS_CAP_BE_CHANGED: {
            libs_cap_values_t before = std::move(s.last);
            s.last = read_store();
            dispatch_changes(before, s.last);
            break;
        }
        case LIBS_CAP_BE_FE_READY:
            fire_event(LIBS_CAP_EVT_FE_L3VPN_READY);
            break;
        default:
            break;
    }
}

// Both kinds subscribe alike: the message carries the text, the callback parses it.
int subscribe(void *handle, const char *path, libs_cap_chg_cb_t cb) {
    if (path == nullptr || cb == nullptr) return LIBS_CAP_ERR_PARAM;
    cap_sub_t sub{handle, cb};
    state().subs[path] = sub;
    if (state().watching) confirm_sub(path, sub);
    return LIBS_CAP_OK;
}

int lookup(const char *path, const std::string **text) {
    if (path == nullptr) return LIBS_CAP_ERR_PARAM;
    const libs_cap_values_t &last = state().last;
    auto it = last.find(path);
    if (it == last.end()) return LIBS_CAP_ERR_NOT_FOUND;
    *text = &it->second;
    return LIBS_CAP_OK;
}

int copy_key(const libs_cap_msg_t *pmsg, uint32_t key_size, char *key, uint32_t *aux) {
    size_t len = strnlen(pmsg->path, sizeof pmsg->path);
    if (len == sizeof pmsg->path || len + 1 > key_size) return LIBS_CAP_ERR;
    memcpy(key, pmsg->path, len + 1);
    if (aux != nullptr) *aux = LIBS_CAP_SCOPE_GLOBAL;
    return LIBS_CAP_OK;
}

std::string msg_value(const libs_cap_msg_t *pmsg) {
    return std::string(pmsg->value, strnlen(pmsg->value, sizeof pmsg->value));
}
}  // namespace

int libs_cap_parse_int32(const std::string &text, int32_t *value) {
    if (text.empty() || text.size() > 11) return LIBS_CAP_ERR;
    size_t i = (text[0] == '-' || text[0] == '+') ? 1 : 0;
    if (i == text.size()) return LIBS_CAP_ERR;
    for (size_t k = i; k < text.size(); ++k)
        if (text[k] < '0' || text[k] > '9') return LIBS_CAP_ERR;
    errno = 0;
    long long v = strtoll(text.c_str(), nullptr, 10);
    if (errno != 0 || v < INT32_MIN || v > INT32_MAX) return LIBS_CAP_ERR;
    *value = static_cast<int32_t>(v);
    return LIBS_CAP_OK;
}

int libs_cap_parse_bool(const std::string &text, bool *value) {
    if (text == "true" || text == "1") {
        *value = true;
        return LIBS_CAP_OK;
    }
    if (text == "false" || text == "0") {
        *value = false;
        return LIBS_CAP_OK;
    }
    return LIBS_CAP_ERR;
}

void libs_cap_set_backend(const libs_cap_backend_t *backend) { state().installed = backend; }

int libs_cap_event_callback_reg(const char *module, libs_cap_event_cb_t cb, uint32_t) {
    if (module == nullptr || cb == nullptr) return LIBS_CAP_ERR_PARAM;
    for (cap_event_reg_t &r : state().event_cbs)
        if (r.module == module) {
            r.cb = cb;
            return LIBS_CAP_OK;
        }
    state().event_cbs.push_back({module, cb});
    return LIBS_CAP_OK;
}

int libs_cap_init(void *global, const char *module) {
    if (global == nullptr || module == nullptr) return LIBS_CAP_ERR_PARAM;
    cap_state_t &s = state();
    if (s.running != nullptr) return LIBS_CAP_OK;
    const libs_cap_backend_t *be =
        s.installed != nullptr ? s.installed : libs_cap_default_backend();
    if (be == nullptr) {
        fprintf(stderr, "libs_cap: %s: no capability store\n", module);
        return LIBS_CAP_ERR_BACKEND;
    }
    s.running = be;
    s.global = global;
    if (be->watch(global, on_backend, nullptr) != 0) {
        fprintf(stderr, "libs_cap: %s: the %s store does not start\n", module, be->name);
        s.running = nullptr;
        return LIBS_CAP_ERR_BACKEND;
    }
    s.watching = true;
    const std::map<std::string, cap_sub_t> subs = s.subs;
    for (const auto &[path, sub] : subs) confirm_sub(path, sub);
    return LIBS_CAP_OK;
}

int libs_cap_ce_get_g_cap_int32(void *, const char *path, int32_t *value) {
    const std::string *text = nullptr;
    if (value == nullptr) return LIBS_CAP_ERR_PARAM;
    int rv = lookup(path, &text);
    return rv != LIBS_CAP_OK ? rv : libs_cap_parse_int32(*text, value);
}

int libs_cap_ce_get_g_cap_bool(void *, const char *path, bool *value) {
    const std::string *text = nullptr;
    if (value == nullptr) return LIBS_CAP_ERR_PARAM;
    int rv = lookup(path, &text);
    return rv != LIBS_CAP_OK ? rv : libs_cap_parse_bool(*text, value);
}

int libs_cap_ce_get_g_cap_text(void *, const char *path, std::string *text) {
    const std::string *stored = nullptr;
    if (text == nullptr) return LIBS_CAP_ERR_PARAM;
    int rv = lookup(path, &stored);
    if (rv == LIBS_CAP_OK) *text = *stored;
    return rv;
}

int libs_cap_ce_subscribe_g_cap_int32(void *handle, const char *path, libs_cap_chg_cb_t cb) {
    return subscribe(handle, path, cb);
}

int libs_cap_ce_subscribe_g_cap_bool(void *handle, const char *path, libs_cap_chg_cb_t cb) {
    return subscribe(handle, path, cb);
}

int libs_cap_ce_get_g_cap_int32_by_pmsg(const libs_cap_msg_t *pmsg, uint32_t key_size, char *key,
                                        int32_t *value, uint32_t *aux) {
    if (pmsg == nullptr || key == nullptr || value == nullptr) return LIBS_CAP_ERR_PARAM;
    int32_t v = 0;
    if (libs_cap_parse_int32(msg_value(pmsg), &v) != LIBS_CAP_OK) return LIBS_CAP_ERR;
    int rv = copy_key(pmsg, key_size, key, aux);
    if (rv == LIBS_CAP_OK) *value = v;
    return rv;
}

int libs_cap_ce_get_g_cap_bool_by_pmsg(const libs_cap_msg_t *pmsg, uint32_t key_size, char *key,
                                       bool *value, uint32_t *aux) {
    if (pmsg == nullptr || key == nullptr || value == nullptr) return LIBS_CAP_ERR_PARAM;
    bool v = false;
    if (libs_cap_parse_bool(msg_value(pmsg), &v) != LIBS_CAP_OK) return LIBS_CAP_ERR;
    int rv = copy_key(pmsg, key_size, key, aux);
    if (rv == LIBS_CAP_OK) *value = v;
    return rv;
}

void libs_cap_reset(void) {
    cap_state_t &s = state();
    if (s.running != nullptr && s.running->stop != nullptr) s.running->stop();
    s = cap_state_t{};
}
