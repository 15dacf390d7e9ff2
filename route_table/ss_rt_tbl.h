// The route-table client: typed tables over the MOM, their subscriptions,
// scans, data-sync cycles and counted writes, with the library's own log,
// history statistics and tbl- debug commands.
#pragma once
#include <cstdint>
#include <protobuf-c/protobuf-c.h>
#include "platform/mom/tq_mom.h"

enum { RT_MOM_DATA_STRING = 1, RT_MOM_DATA_HASH = 2 };
enum { SS_RT_TBL_MAX = 100 };

enum { RT_ST_NULL = 0, RT_ST_IGNORE = 1, RT_ST_OK = 2 };

// Library log levels.
enum {
    RT_DBG_CLOSE = 0,
    RT_DBG_ERROR = 1,
    RT_DBG_BRIEF = 2,
    RT_DBG_EVENT = 3,
    RT_DBG_WARNING = 4,
    RT_DBG_INFO = 5,
    RT_DBG_HIGH_FREQ = 6,
    RT_DBG_ALL = 7,
};

typedef int (*ss_rt_tbl_func_t)(void *value, void *arg);
typedef int (*ss_rt_tbl_void_func_t)(void);
typedef int (*ss_rt_tbl_reconn_func_t)(uint32_t db);

struct ss_rt_tbl_cnt_t {
    uint32_t add_op;
    uint32_t del_op;
    uint32_t get_op;
    uint32_t add_msg;
    uint32_t del_msg;
};

struct ss_rt_tbl_t {
    uint8_t valid;
    uint8_t is_skip;
    uint8_t cgst;
    uint8_t idx;
    uint8_t conn_st;
    uint8_t sub_st;
    uint32_t db;
    uint32_t data_type;
    uint32_t set_opt;
    ProtobufCMessage *item;
    ProtobufCMessage *item_key;
    ss_rt_tbl_func_t add_func;
    ss_rt_tbl_func_t del_func;
    void *arg;
    ss_rt_tbl_cnt_t cnt;
    void (*drift_func)(ss_rt_tbl_t *table);  // ss_rt_tbl_watch_detail
};

struct ss_rt_tbl_ctl_t {
    void *global;
    char module[33];
    uint32_t tbl_max_num;
    uint32_t tbl_cur_num;
    ss_rt_tbl_t *tables;
    ss_rt_tbl_void_func_t conn_func;
    ss_rt_tbl_reconn_func_t reconn_func;
    uint8_t reconn_exit;
    ss_rt_tbl_void_func_t ds_func;
    int32_t dbg_level;
    int32_t log_cnt;
};

struct ss_rt_tbl_hist_t {
    const char *name;
    uint32_t level;
    uint32_t count;
    uint32_t history;
    int32_t data1;
    int32_t data2;
    int32_t line;
};
enum {
    RT_HIST_BEGIN = 0,
    RT_HIST_PARAM = 1,
    RT_HIST_MALLOC = 2,
    RT_HIST_ASSERT = 3,
    RT_HIST_KEY_NULL = 4,
    RT_HIST_DESCRIPTOR = 5,
    RT_HIST_MAGIC = 6,
    RT_HIST_CGST = 7,
    RT_HIST_CONN = 8,
    RT_HIST_CONN_REPEAT = 9,
    RT_HIST_CONN_CB = 10,
    RT_HIST_SUB_CB = 11,
    RT_HIST_SUBSCRIBE = 12,
    RT_HIST_INIT_AT = 13,
    RT_HIST_INIT = 14,
    RT_HIST_END = 15,
    RT_HIST_ROWS = 16,
};

extern ss_rt_tbl_ctl_t ss_rt_tbl_ctl;
extern ss_rt_tbl_hist_t ss_rt_tbl_hist[RT_HIST_ROWS];

// Registry.
int ss_rt_tbl_init(void *global, const char *module, uint32_t tbl_num);
ss_rt_tbl_t *ss_rt_tbl_create_detail(uint32_t db, int32_t data_type, const void *item,
                                     int32_t item_size, int32_t key_offset, const void *key,
                                     int32_t key_size);
bool tbl_is_valid(const ss_rt_tbl_t *table);
const char *ss_rt_tbl_name(const ss_rt_tbl_t *table);
const char *ss_rt_tbl_db_name(uint32_t db);

// Traffic.
int ss_rt_tbl_subscribe_detail(ss_rt_tbl_t *table, ss_rt_tbl_func_t add_func,
                               ss_rt_tbl_func_t del_func, void *arg, uint32_t sub_flags);
int ss_rt_tbl_scan_detail(ss_rt_tbl_t *table, ss_rt_tbl_func_t add_func, uint32_t scan_flags);
int ss_rt_tbl_ds_begin_detail(ss_rt_tbl_t *table, int32_t expire, uint32_t mode);
int ss_rt_tbl_ds_end_detail(ss_rt_tbl_t *table, uint32_t mode);
int ss_rt_tbl_reg_ds_func(ss_rt_tbl_void_func_t func);
// Calls func when another client changes, deletes or flushes records of the
// table (mode 0) or of its owner slice (mode 1): outputs this process owns
// have drifted and want a data sync. Several changes may give one call.
// No subscribed table waits for its end marker (none after a lost link until
// it is back and subscribed again).
bool ss_rt_tbl_sub_all_ok(void);
int ss_rt_tbl_watch_detail(ss_rt_tbl_t *table, uint32_t mode, void (*func)(ss_rt_tbl_t *table));
int tbl_watch_cb(void *global, tq_mom_msg_t *msg, void *table);
int ss_rt_tbl_set_skip(ss_rt_tbl_t *table, uint8_t is_skip);
int ss_rt_tbl_add_str(ss_rt_tbl_t *table, const ProtobufCMessage *value, uint32_t a, uint32_t b);
int ss_rt_tbl_del_str(ss_rt_tbl_t *table, const ProtobufCMessage *value, uint32_t a, uint32_t b);
int ss_rt_tbl_publish(ss_rt_tbl_t *table, const ProtobufCMessage *a, uint32_t b, uint32_t c);
int ss_rt_tbl_get_str(ss_rt_tbl_t *table, const ProtobufCMessage *key, uint32_t ignored,
                      ProtobufCMessage **out);
int tbl_msg_cb(void *global, tq_mom_msg_t *msg, void *table);
int tbl_ds_cb(void *global, tq_mom_msg_t *msg, void *table);

// Connections and congestion control.
int ss_rt_tbl_connect_db(ss_rt_tbl_void_func_t conn_func);
int ss_rt_tbl_reg_reconnect(ss_rt_tbl_reconn_func_t reconn_func, uint8_t is_exit);
int ss_rt_tbl_reg_cgst_topic_detail(ss_rt_tbl_t *table, uint32_t param);
int ss_rt_tbl_reg_cgst_event(int (*event_func)(void *arg));
int tbl_conn_cb(void *global, void *table);
int tbl_reconn_cb(void *global, uint32_t db, uint32_t type, void *table);

// Statistics and debug.
int ss_rt_tbl_ut_init(const char *module);
// The "tbl-debug" setter: prints the level list, clamps the level to 0..7.
int ss_rt_tbl_set_debug(int32_t level, int32_t log_cnt);
int ss_rt_tbl_show_info(int32_t is_clean, int32_t is_detail);
// Prints a table's block (with the column header first when is_head); returns 0.
int ss_rt_tbl_show_table(const ss_rt_tbl_t *table, int is_head);

// Forgets every table and setting (tests only; the process never does this).
void ss_rt_tbl_reset_for_test(void);
