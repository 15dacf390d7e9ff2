// The route-table client: the table registry, subscriptions, scans, data-sync
// cycles, the message callback and the counted writes.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/runtime/tq_path.h"
#include "route_table/ss_rt_tbl_int.h"

namespace {
constexpr ss_rt_tbl_ctl_t kCtlDefault = {
    .global = nullptr,
    .module = {},
    .tbl_max_num = 0,
    .tbl_cur_num = 0,
    .tables = nullptr,
    .conn_func = nullptr,
    .reconn_func = nullptr,
    .reconn_exit = 1,
    .ds_func = nullptr,
    .dbg_level = RT_DBG_ERROR,
    .log_cnt = 1000,
};
}  // namespace

ss_rt_tbl_ctl_t ss_rt_tbl_ctl = kCtlDefault;

// ---- registry -------------------------------------------------------------------

bool tbl_is_valid(const ss_rt_tbl_t *table) {
    const ss_rt_tbl_ctl_t &c = ss_rt_tbl_ctl;
    if (table == nullptr || c.tables == nullptr) return false;
    // Compare addresses before reading anything: a handle that points between
    // entries must not be read as one.
    uintptr_t base = reinterpret_cast<uintptr_t>(c.tables);
    uintptr_t at = reinterpret_cast<uintptr_t>(table);
    if (at < base || (at - base) % sizeof(ss_rt_tbl_t) != 0) return false;
    uintptr_t idx = (at - base) / sizeof(ss_rt_tbl_t);
    if (idx >= c.tbl_cur_num) return false;
    const ss_rt_tbl_t &e = c.tables[idx];
    return e.valid && e.idx == idx;
}

namespace {

// The start-up level from "/data/route/tbl_dbg/<module>": a number, or 7 when
// the file holds none; a missing file leaves the level alone.
void tbl_read_dbg_file(const char *module) {
    char path[127];
    snprintf(path, sizeof path, "/data/route/tbl_dbg/%s", module);
    std::string full = tq_path(path);
    FILE *f = fopen(full.c_str(), "r");
    if (f == nullptr) return;
    int level = 0;
    if (fscanf(f, "%d", &level) != 1) level = RT_DBG_ALL;
    fclose(f);
    if (level != 0) ss_rt_tbl_set_debug(level, -1);
}

bool tbl_db_held(uint32_t db, uint32_t before) {
    for (uint32_t i = 0; i < before; ++i) {
        const ss_rt_tbl_t &t = ss_rt_tbl_ctl.tables[i];
        if (t.valid && t.db == db) return true;
    }
    return false;
}

}  // namespace

int ss_rt_tbl_init(void *global, const char *module, uint32_t tbl_num) {
    ss_rt_tbl_ctl_t &c = ss_rt_tbl_ctl;
    TBL_CHECK(global != nullptr, "global != NULL", -4);
    TBL_CHECK(module != nullptr, "module != NULL", -4);
    if (tbl_num < 1 || tbl_num >= SS_RT_TBL_MAX) {
        TBL_ERROR("error tbl_num:%d max:%d", static_cast<int>(tbl_num), SS_RT_TBL_MAX);
        TBL_HIST(RT_HIST_PARAM, tbl_num, 0);
        return -4;
    }
    if (c.tbl_max_num != 0) {
        TBL_ERROR("already init");
        TBL_HIST(RT_HIST_INIT, tbl_num, c.tbl_max_num);
        return -11;
    }
    auto *tables = static_cast<ss_rt_tbl_t *>(calloc(tbl_num, sizeof(ss_rt_tbl_t)));
    if (tables == nullptr) {
        TBL_ERROR("no memory");
        TBL_HIST(RT_HIST_MALLOC, tbl_num, 0);
        return -2;
    }
    c.tables = tables;
    c.global = global;
    c.tbl_max_num = tbl_num;
    c.tbl_cur_num = 0;
    snprintf(c.module, sizeof c.module, "%.32s", module);
    tbl_read_dbg_file(c.module);
    return 0;
}

ss_rt_tbl_t *ss_rt_tbl_create_detail(uint32_t db, int32_t data_type, const void *item,
                                     int32_t item_size, int32_t key_offset, const void *key,
                                     int32_t key_size) {
    ss_rt_tbl_ctl_t &c = ss_rt_tbl_ctl;
    TBL_BRIEF("db:%d data_type:%d item_size:%d key_size:%d key_offset:%d", static_cast<int>(db),
              data_type, item_size, key_size, key_offset);
    if (data_type != RT_MOM_DATA_STRING && data_type != RT_MOM_DATA_HASH) {
        TBL_FAIL("(data_type == RT_MOM_DATA_STRING) || (data_type == RT_MOM_DATA_HASH)",
                 RT_HIST_PARAM, data_type, 0);
        return nullptr;
    }
    if (item == nullptr || item_size <= 0 || (key != nullptr && key_size < 1)) {
        TBL_FAIL("(item != NULL) && (item_size > 0) && ((key == NULL) || (key_size > 0))",
                 RT_HIST_PARAM, item_size, key_size);
        return nullptr;
    }
    if (key != nullptr && (key_offset < 0 || key_offset > item_size)) {
        TBL_FAIL("key_offset <= item_size", RT_HIST_PARAM, key_offset, item_size);
        return nullptr;
    }
    void *key_copy = nullptr;
    if (key != nullptr && (key_copy = calloc(1, key_size)) == nullptr) {
        TBL_FAIL("key_copy != NULL", RT_HIST_MALLOC, item_size, key_size);
        return nullptr;
    }
    // Room for the key pointer even when it sits right at the end of the item.
    void *item_copy = calloc(1, static_cast<size_t>(item_size) + sizeof(void *));
    if (item_copy == nullptr) {
        TBL_FAIL("item_copy != NULL", RT_HIST_MALLOC, item_size, key_size);
        free(key_copy);
        return nullptr;
    }
    int code = 0;
    if (c.tbl_max_num == 0) {
        TBL_ERROR("not init");
        code = -17;
    } else if (c.tbl_cur_num >= c.tbl_max_num) {
        TBL_ERROR("no item");
        code = -14;
    }
    if (code != 0) {
        TBL_FAIL("(tbl_max_num != 0) && (tbl_cur_num < tbl_max_num)", RT_HIST_INIT, code, 0);
        free(key_copy);
        free(item_copy);
        return nullptr;
    }
    uint32_t idx = c.tbl_cur_num++;
    ss_rt_tbl_t &t = c.tables[idx];
    t = ss_rt_tbl_t{};
    t.valid = 1;
    t.idx = static_cast<uint8_t>(idx);
    t.sub_st = RT_ST_IGNORE;
    t.db = db;
    t.data_type = static_cast<uint32_t>(data_type);
    t.conn_st = tbl_db_held(db, idx) ? RT_ST_IGNORE : RT_ST_NULL;
    memcpy(item_copy, item, static_cast<size_t>(item_size));
    if (key_copy != nullptr) {
        memcpy(key_copy, key, static_cast<size_t>(key_size));
        memcpy(static_cast<char *>(item_copy) + key_offset, &key_copy, sizeof key_copy);
    }
    t.item = static_cast<ProtobufCMessage *>(item_copy);
    t.item_key = static_cast<ProtobufCMessage *>(key_copy);
    return &t;
}

void ss_rt_tbl_reset_for_test(void) {
    ss_rt_tbl_ctl_t &c = ss_rt_tbl_ctl;
    for (uint32_t i = 0; c.tables != nullptr && i < c.tbl_max_num; ++i) {
        free(c.tables[i].item);
        free(c.tables[i].item_key);
    }
    free(c.tables);
    c = kCtlDefault;
    for (ss_rt_tbl_hist_t &h : ss_rt_tbl_hist) h.count = h.history = 0, h.data1 = h.data2 = h.line = 0;
}

// ---- subscription, scan and data sync ------------------------------------------

int ss_rt_tbl_subscribe_detail(ss_rt_tbl_t *table, ss_rt_tbl_func_t add_func,
                               ss_rt_tbl_func_t del_func, void *arg, uint32_t sub_flags) {
    TBL_BRIEF("table:%d add:%p del:%p", TBL_NO(table), reinterpret_cast<void *>(add_func),
              reinterpret_cast<void *>(del_func));
    TBL_CHECK(tbl_is_valid(table), "tbl_is_valid(table)", -4);
    if (add_func == nullptr && del_func == nullptr) {
        TBL_ERROR("func null");
        TBL_HIST(RT_HIST_PARAM, table->idx, 0);
        return -4;
    }
    table->add_func = add_func;
    table->del_func = del_func;
    table->arg = arg;
    table->sub_st = RT_ST_NULL;
    int rv = tq_mom_subscribe(ss_rt_tbl_ctl.global, table->db, table->item, sub_flags, tbl_msg_cb,
                              table);
    if (rv != 0) TBL_FAIL("(rv == 0)", RT_HIST_SUBSCRIBE, table->db, table->data_type);
    return rv;
}

int ss_rt_tbl_scan_detail(ss_rt_tbl_t *table, ss_rt_tbl_func_t add_func, uint32_t scan_flags) {
    TBL_BRIEF("table:%d", TBL_NO(table));
    TBL_CHECK(tbl_is_valid(table), "tbl_is_valid(table)", -4);
    if (add_func != nullptr) table->add_func = add_func;
    TBL_CHECK(table->add_func != nullptr, "table->add_func != NULL", -4);
    return tq_mom_scan_sync(ss_rt_tbl_ctl.global, table->db, table->item, scan_flags, tbl_msg_cb,
                            table);
}

int ss_rt_tbl_ds_begin_detail(ss_rt_tbl_t *table, int32_t expire, uint32_t mode) {
    TBL_BRIEF("table:%d", TBL_NO(table));
    TBL_CHECK(tbl_is_valid(table), "tbl_is_valid(table)", -4);
    return tq_mom_dsbegin_sync(ss_rt_tbl_ctl.global, table->db, table->item, mode, expire, 0);
}

int ss_rt_tbl_ds_end_detail(ss_rt_tbl_t *table, uint32_t mode) {
    TBL_BRIEF("table:%d", TBL_NO(table));
    TBL_CHECK(tbl_is_valid(table), "tbl_is_valid(table)", -4);
    return tq_mom_dsend(ss_rt_tbl_ctl.global, table->db, table->item, mode, tbl_ds_cb, table);
}

int ss_rt_tbl_reg_ds_func(ss_rt_tbl_void_func_t func) {
    ss_rt_tbl_ctl.ds_func = func;
    return 0;
}

int ss_rt_tbl_watch_detail(ss_rt_tbl_t *table, uint32_t mode, void (*func)(ss_rt_tbl_t *table)) {
    TBL_BRIEF("table:%d mode:%d", TBL_NO(table), static_cast<int>(mode));
    TBL_CHECK(tbl_is_valid(table), "tbl_is_valid(table)", -4);
    TBL_CHECK(func != nullptr, "func != NULL", -4);
    table->drift_func = func;
    int rv = tq_mom_watch(ss_rt_tbl_ctl.global, table->db, table->item, mode, tbl_watch_cb, table);
    if (rv != 0) TBL_FAIL("(rv == 0)", RT_HIST_SUBSCRIBE, table->db, rv);
    return rv;
}

int tbl_watch_cb(void * /*global*/, tq_mom_msg_t *msg, void *arg) {
    TBL_CHECK(msg != nullptr, "msg != NULL", -4);
    auto *table = static_cast<ss_rt_tbl_t *>(arg);
    TBL_CHECK(tbl_is_valid(table), "tbl_is_valid(table)", -4);
    TBL_EVENT("table:%d drift key:%s", TBL_NO(table),
              msg->value != nullptr ? static_cast<const char *>(msg->value) : "(all)");
    if (msg->cmd == TQ_MOM_CMD_DRIFT && table->drift_func != nullptr) table->drift_func(table);
    return 0;
}

// ---- notices ---------------------------------------------------------------------

namespace {

int tbl_on_set(ss_rt_tbl_t *table, tq_mom_msg_t *msg) {
    ++table->cnt.add_msg;
    TBL_CHECK(msg->value != nullptr, "msg->value != NULL", -11);
    TBL_CHECK(table->data_type == RT_MOM_DATA_STRING, "table->data_type == RT_MOM_DATA_STRING", -1);
    if (table->add_func != nullptr) table->add_func(msg->value, table->arg);
    return 0;
}

int tbl_on_del(ss_rt_tbl_t *table, tq_mom_msg_t *msg) {
    ++table->cnt.del_msg;
    TBL_CHECK(msg->value != nullptr, "msg->value != NULL", -11);
    if (table->del_func != nullptr) table->del_func(msg->value, table->arg);
    return 0;
}

int tbl_on_hset(ss_rt_tbl_t *table, tq_mom_msg_t *msg) {
    ++table->cnt.add_msg;
    auto *res = static_cast<tq_mom_hash_res_t *>(msg->value);
    TBL_CHECK(res != nullptr, "res != NULL", -11);
    TBL_CHECK(res->value != nullptr, "res->value != NULL", -11);
    TBL_CHECK(res->error_code == TQ_MOM_OK, "res->error_code == TQ_MOM_OK", -11);
    TBL_CHECK(table->data_type == RT_MOM_DATA_HASH, "table->data_type == RT_MOM_DATA_HASH", -1);
    if (table->add_func != nullptr) table->add_func(res->value, table->arg);
    return 0;
}

// End of a table's initial contents: once no subscribed table still waits,
// the data-sync function runs (again on every later marker).
int tbl_on_end(ss_rt_tbl_t *table) {
    table->sub_st = RT_ST_OK;
    if (!ss_rt_tbl_sub_all_ok()) {
        TBL_WARN("not all sub state ok");
        return 0;
    }
    TBL_BRIEF("all sub state ok");
    ss_rt_tbl_ctl_t &c = ss_rt_tbl_ctl;
    if (c.ds_func != nullptr) {
        c.ds_func();
        TBL_HIST(RT_HIST_SUB_CB, table->idx, table->db);
    }
    return 0;
}

}  // namespace

bool ss_rt_tbl_sub_all_ok(void) {
    const ss_rt_tbl_ctl_t &c = ss_rt_tbl_ctl;
    for (uint32_t i = 0; i < c.tbl_cur_num; ++i)
        if (c.tables[i].valid && c.tables[i].sub_st == RT_ST_NULL) return false;
    return true;
}

int tbl_msg_cb(void *global, tq_mom_msg_t *msg, void *arg) {
    TBL_CHECK(global != nullptr, "global != NULL", -4);
    TBL_CHECK(msg != nullptr, "msg != NULL", -4);
    TBL_CHECK(msg->error == TQ_MOM_OK, "msg->error == TQ_MOM_OK", -11);
    auto *table = static_cast<ss_rt_tbl_t *>(arg);
    TBL_IN("table:%d cmd:%d flag:%s(%d)", TBL_NO(table), static_cast<int>(msg->cmd),
           ss_rt_tbl_flag_name(msg->flag), static_cast<int>(msg->flag));
    TBL_CHECK(tbl_is_valid(table), "tbl_is_valid(table)", -4);
    switch (msg->cmd) {
    case TQ_MOM_CMD_SET:
    case TQ_MOM_CMD_SCAN: return tbl_on_set(table, msg);
    case TQ_MOM_CMD_DEL: return tbl_on_del(table, msg);
    case TQ_MOM_CMD_HSET:
    case TQ_MOM_CMD_HSCAN: return tbl_on_hset(table, msg);
    case TQ_MOM_CMD_END: return tbl_on_end(table);
    default: TBL_WARN("unknown cmd:%d", static_cast<int>(msg->cmd)); return 0;
    }
}

int tbl_ds_cb(void * /*global*/, tq_mom_msg_t *msg, void *arg) {
    TBL_CHECK(msg != nullptr, "msg != NULL", -4);
    TBL_CHECK(msg->error == TQ_MOM_OK, "msg->error == TQ_MOM_OK", -11);
    auto *table = static_cast<ss_rt_tbl_t *>(arg);
    TBL_CHECK(tbl_is_valid(table), "tbl_is_valid(table)", -4);
    TBL_BRIEF("table:%d cmd:%d flag:%s(%d)", TBL_NO(table), static_cast<int>(msg->cmd),
              ss_rt_tbl_flag_name(msg->flag), static_cast<int>(msg->flag));
    return 0;
}

// ---- writes ------------------------------------------------------------------------

int ss_rt_tbl_set_skip(ss_rt_tbl_t *table, uint8_t is_skip) {
    TBL_CHECK(tbl_is_valid(table), "tbl_is_valid(table)", -4);
    table->is_skip = is_skip;
    return 0;
}

int ss_rt_tbl_add_str(ss_rt_tbl_t *table, const ProtobufCMessage *value, uint32_t a, uint32_t b) {
    TBL_CHECK((table != nullptr) && table->valid, "((table != NULL) && table->valid)", -4);
    ++table->cnt.add_op;
    TBL_EVENT("tbl:%s op_cnt:%d is_skip:%d", ss_rt_tbl_name(table),
              static_cast<int>(table->cnt.add_op), table->is_skip);
    if (table->is_skip) {
        TBL_OUT("cnt_add_op:%d skip", static_cast<int>(table->cnt.add_op));
        return 0;
    }
    return tq_mom_set_ext(ss_rt_tbl_ctl.global, table->db, &table->set_opt, value, a, b);
}

int ss_rt_tbl_del_str(ss_rt_tbl_t *table, const ProtobufCMessage *value, uint32_t a, uint32_t b) {
    TBL_CHECK((table != nullptr) && table->valid, "((table != NULL) && table->valid)", -4);
    ++table->cnt.del_op;
    TBL_EVENT("tbl:%s op_cnt:%d is_skip:%d", ss_rt_tbl_name(table),
              static_cast<int>(table->cnt.del_op), table->is_skip);
    if (table->is_skip) {
        TBL_OUT("cnt_del_op:%d skip", static_cast<int>(table->cnt.del_op));
        return 0;
    }
    return tq_mom_del(ss_rt_tbl_ctl.global, table->db, value, a, b);
}

int ss_rt_tbl_publish(ss_rt_tbl_t *table, const ProtobufCMessage *a, uint32_t b, uint32_t c) {
    TBL_CHECK((table != nullptr) && table->valid, "((table != NULL) && table->valid)", -4);
    ++table->cnt.add_op;
    TBL_EVENT("tbl:%s op_cnt:%d is_skip:%d", ss_rt_tbl_name(table),
              static_cast<int>(table->cnt.add_op), table->is_skip);
    if (table->is_skip) {
        TBL_OUT("cnt_add_op:%d skip", static_cast<int>(table->cnt.add_op));
        return 0;
    }
    return tq_mom_publish(ss_rt_tbl_ctl.global, table->db, a, b, c);
}

// Reads are never skipped, and a refused handle reads as "nothing done".
int ss_rt_tbl_get_str(ss_rt_tbl_t *table, const ProtobufCMessage *key, uint32_t /*ignored*/,
                      ProtobufCMessage **out) {
    if (table == nullptr || !table->valid) {
        TBL_FAIL("((table != NULL) && table->valid)", RT_HIST_ASSERT, 0, 0);
        return 0;
    }
    ++table->cnt.get_op;
    TBL_EVENT("tbl:%s get_op_cnt:%d", ss_rt_tbl_name(table), static_cast<int>(table->cnt.get_op));
    return tq_mom_get_sync(ss_rt_tbl_ctl.global, table->db, key, out);
}
