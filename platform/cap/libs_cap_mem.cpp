#include "platform/cap/libs_cap_mem.h"

#include <string>

namespace {
struct mem_store_t {
    libs_cap_values_t values;
    libs_cap_notify_t notify = nullptr;
    void *arg = nullptr;
    bool fail_reads = false;
    bool fail_start = false;
    uint32_t reads = 0;
};

mem_store_t &store() {
    static mem_store_t s;
    return s;
}

void notify(uint32_t what) {
    if (store().notify != nullptr) store().notify(store().arg, what);
}

int mem_read_all(libs_cap_values_t *out) {
    mem_store_t &s = store();
    ++s.reads;
    out->clear();
    if (s.fail_reads) return -1;
    *out = s.values;
    return 0;
}

int mem_watch(void *, libs_cap_notify_t cb, void *arg) {
    mem_store_t &s = store();
    if (s.fail_start) return -1;
    s.notify = cb;
    s.arg = arg;
    return 0;
}

void mem_stop(void) {
    store().notify = nullptr;
    store().arg = nullptr;
}

const libs_cap_backend_t kMemBackend = {"memory", mem_read_all, mem_watch, mem_stop};
}  // namespace

const libs_cap_backend_t *libs_cap_mem_backend(void) { return &kMemBackend; }

void libs_cap_mem_install(void) {
    store() = mem_store_t{};
    libs_cap_set_backend(&kMemBackend);
}

void libs_cap_mem_set(const char *path, const char *value) {
    store().values[path] = value;
    notify(LIBS_CAP_BE_CHANGED);
}

void libs_cap_mem_set_int32(const char *path, int32_t value) {
    libs_cap_mem_set(path, std::to_string(value).c_str());
}

void libs_cap_mem_set_bool(const char *path, bool value) {
    libs_cap_mem_set(path, value ? "true" : "false");
}

void libs_cap_mem_remove(const char *path) {
    store().values.erase(path);
    notify(LIBS_CAP_BE_CHANGED);
}

void libs_cap_mem_fire_event(uint32_t event) {
    if (event == LIBS_CAP_EVT_GLOBAL_READY)
        notify(LIBS_CAP_BE_READY);
    else if (event == LIBS_CAP_EVT_FE_L3VPN_READY)
        notify(LIBS_CAP_BE_FE_READY);
}

void libs_cap_mem_fail_reads(bool fail) { store().fail_reads = fail; }
void libs_cap_mem_fail_start(bool fail) { store().fail_start = fail; }
uint32_t libs_cap_mem_reads(void) { return store().reads; }
