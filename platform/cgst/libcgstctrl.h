// Congestion-control stand-in: records registrations per database and topic,
// answers 0. The debug output lists them.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

typedef int (*cgst_event_cb_t)(void *arg);

int libcgstctrl_gen_init(void *global, uint32_t db, const char *module);
int libcgstctrl_gen_topic_reg(void *global, uint32_t db, const char *module, const void *item,
                              uint32_t param);
int libcgstctrl_gen_event_reg(const char *module, cgst_event_cb_t cb);

struct cgst_reg_t {
    uint32_t db;
    std::string module;
    std::string topic;  // table name, empty for the database's init
};
const std::vector<cgst_reg_t> &libcgstctrl_registrations();
struct cgst_event_reg_t {
    std::string module;
    cgst_event_cb_t cb;
};
const std::vector<cgst_event_reg_t> &libcgstctrl_event_registrations();
void libcgstctrl_reset();
