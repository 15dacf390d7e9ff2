// The route-table client's own diagnostics: log lines on standard output with
// a level and a line budget, the history table, the display names, the show
// routines and the tbl- debug commands.
#include <cstdarg>
#include <cstdint>
#include <cstdio>

#include "format/at_snprintf.h"
#include "platform/cgst/libcgstctrl.h"
#include "route_table/ss_rt_tbl_int.h"

ss_rt_tbl_hist_t ss_rt_tbl_hist[RT_HIST_ROWS] = {
    {"--- tbl begin ---", 0, 0, 0, 0, 0, 0},
    {"param", 3, 0, 0, 0, 0, 0},
    {"malloc", 3, 0, 0, 0, 0, 0},
    {"assert", 3, 0, 0, 0, 0, 0},
    {"key null", 4, 0, 0, 0, 0, 0},
    {"descripror", 4, 0, 0, 0, 0, 0},
    {"magic", 4, 0, 0, 0, 0, 0},
    {"cgst", 4, 0, 0, 0, 0, 0},
    {"conn", 3, 0, 0, 0, 0, 0},
    {"conn repeat", 3, 0, 0, 0, 0, 0},
    {"conn cb", 1, 0, 0, 0, 0, 0},
    {"sub cb", 1, 0, 0, 0, 0, 0},
    {"subscribe", 4, 0, 0, 0, 0, 0},
    {"init at", 3, 0, 0, 0, 0, 0},
    {"init", 4, 0, 0, 0, 0, 0},
    {"--- tbl end   ---", 0, 0, 0, 0, 0, 0},
};

namespace {

constexpr size_t kLogBuf = 1000;
constexpr const char *kLevelNames[] = {"CLOSE", "ERROR",   "BRIEF",     "EVENT",
                                       "WARNING", "INFO", "HIGH FREQ", "ALL"};
constexpr const char *kStNames[] = {"NULL", "IGNORE", "OK"};
constexpr const char *kHistLevelNames[] = {"NULL", "INFO", "NOTICE", "WARNING", "ERROR", "CRITICAL"};
constexpr const char *kFlagNames[] = {"unknown",
                                      "SCAN_OVER",
                                      "PEXPIRE_OVER(DS BEGIN)",
                                      "PEXPIREDEL_OVER(DS END)",
                                      "PEXPIREFIELD_OVER(DS END)",
                                      "DEL_OVER"};

struct tbl_db_name_t {
    uint32_t db;
    const char *name;
};
constexpr tbl_db_name_t kDbNames[] = {{0, "ASIC"},      {4, "APP"},       {6, "APP_FWD"},
                                      {8, "UDP"},       {10, "UDP_FWD"},  {16, "ASIC_FWD"},
                                      {18, "APP_EXT"}};

// The arguments of a command; absent ones read as 0.
int64_t tbl_arg(const ssat_args_t *args, int i) {
    return args != nullptr && i < args->argc ? args->argv[i].i : 0;
}

void *tbl_ptr(uintptr_t v) { return reinterpret_cast<void *>(v); }
template <typename F>
void *tbl_fptr(F f) {
    return reinterpret_cast<void *>(f);
}

void tbl_show_block(const ss_rt_tbl_t *t) {
    printf("%s\n", ss_rt_tbl_name(t));
    printf("%5d %4d %4d %4d %8s %4d %8s %8s %8s %10d %8d %8d %8d %8d %8s\n", t->valid, t->is_skip,
           t->cgst, t->idx, ss_rt_tbl_db_name(t->db), static_cast<int>(t->db),
           ss_rt_tbl_type_name(t->data_type), ss_rt_tbl_st_name(t->conn_st),
           ss_rt_tbl_st_name(t->sub_st), static_cast<int>(t->cnt.add_op),
           static_cast<int>(t->cnt.del_op), static_cast<int>(t->cnt.get_op),
           static_cast<int>(t->cnt.add_msg), static_cast<int>(t->cnt.del_msg),
           t->set_opt == 0 ? "true" : "false");
    printf("%8s: %-10p", "item", static_cast<void *>(t->item));
    printf("%8s: %-10p", "item_key", static_cast<void *>(t->item_key));
    printf("%8s: %-10p", "add_func", tbl_fptr(t->add_func));
    printf("%8s: %-10p\n", "del_func", tbl_fptr(t->del_func));
}

void tbl_show_ctl() {
    const ss_rt_tbl_ctl_t &c = ss_rt_tbl_ctl;
    printf("\ndbg level       :%s", ss_rt_tbl_level_name(c.dbg_level));
    printf("\ndbg log cnt     :%d", c.log_cnt);
    printf("\ntable max num   :%d", static_cast<int>(c.tbl_max_num));
    printf("\ntable cur num   :%d", static_cast<int>(c.tbl_cur_num));
    printf("\nconn func       :%p", tbl_fptr(c.conn_func));
    printf("\nreconn func     :%p", tbl_fptr(c.reconn_func));
    printf("\nreconn exit     :%p", tbl_ptr(c.reconn_exit));
    printf("\nglobal          :%p", c.global);
    printf("\nmodule          :%s", c.module);
}

// This module's congestion registrations: each topic (a database's bare init
// is not one) and each event handler. The texts live only here.
void tbl_show_cgst() {
    const char *module = ss_rt_tbl_ctl.module;
    for (const cgst_reg_t &r : libcgstctrl_registrations())
        if (r.module == module && !r.topic.empty())
            printf("\ncgst topic      :%s(%d) %s", ss_rt_tbl_db_name(r.db), static_cast<int>(r.db),
                   r.topic.c_str());
    for (const cgst_event_reg_t &e : libcgstctrl_event_registrations())
        if (e.module == module) printf("\ncgst event      :%p", tbl_fptr(e.cb));
}

void tbl_show_tables() {
    const ss_rt_tbl_ctl_t &c = ss_rt_tbl_ctl;
    if (c.tbl_cur_num > c.tbl_max_num) printf("\nERROR table num");
    if (c.tbl_cur_num == 0) printf("\nNO TABLE");
    ss_rt_tbl_show_table(nullptr, 1);
    uint32_t dumped = 0;
    for (uint32_t i = 0; c.tables != nullptr && i < c.tbl_max_num; ++i) {
        const ss_rt_tbl_t &t = c.tables[i];
        if (!t.valid) {
            printf("\nidx:%d not valid", static_cast<int>(i));
            continue;
        }
        tbl_show_block(&t);
        ++dumped;
    }
    printf("\ntable dump cnt  :%d", static_cast<int>(dumped));
    if (dumped != c.tbl_cur_num) printf("\nerror table cnt\n");
}

void tbl_show_hist_row(const ss_rt_tbl_hist_t &h) {
    bool hit = h.count != 0 || h.history != 0;
    if (!hit && h.level != 0) return;
    const char *fmt = hit && h.level > 3
                          ? "\033[1;31m\n[ERROR]\n%20s %8d %8d %8d %8d %8d %8s\n\033[0m"
                          : "%-20s %8d %8d %8d %8d %8d %8s\n";
    printf(fmt, h.name, static_cast<int>(h.count), static_cast<int>(h.history), h.data1, h.data2,
           h.line, ss_rt_tbl_hist_level_name(h.level));
}

void tbl_show_hist(int32_t is_clean) {
    printf("\n%20s %8s %8s %8s %8s %8s %8s\n", "name", "count", "history", "data1", "data2", "line",
           "level");
    for (const ss_rt_tbl_hist_t &h : ss_rt_tbl_hist) tbl_show_hist_row(h);
    if (!is_clean) return;
    for (ss_rt_tbl_hist_t &h : ss_rt_tbl_hist) {
        h.history += h.count;
        h.count = 0;
    }
}

// Sets is_skip or the set option of one table; the bound check is the same.
int tbl_set_flag(const ssat_args_t *args, const char *fmt, void (*apply)(ss_rt_tbl_t &, bool)) {
    int64_t idx = tbl_arg(args, 0), flag = tbl_arg(args, 1);
    printf(fmt, static_cast<int>(idx), static_cast<int>(flag));
    if (idx < 0 || idx >= ss_rt_tbl_ctl.tbl_cur_num) {
        printf("tbl_idx >= tbl_cur_num:%d", static_cast<int>(ss_rt_tbl_ctl.tbl_cur_num));
        return -4;
    }
    ss_rt_tbl_t &t = ss_rt_tbl_ctl.tables[idx];
    apply(t, flag != 0);
    ss_rt_tbl_show_table(&t, 1);
    return 0;
}

}  // namespace

// ---- log and history ---------------------------------------------------------

bool tbl_log_on(int32_t lvl) {
    return ss_rt_tbl_ctl.dbg_level >= lvl && ss_rt_tbl_ctl.log_cnt != 0;
}

void tbl_log_line(const char *word, const char *func, int line, const char *fmt, ...) {
    char buf[kLogBuf] = {0};
    int n = at_snprintf(buf, sizeof buf, "[%s]%s:%4d|", word, func, line);
    if (n >= 0 && static_cast<size_t>(n) < sizeof buf) {
        va_list ap;
        va_start(ap, fmt);
        at_vsnprintf(buf + n, sizeof buf - n, fmt, ap);
        va_end(ap);
    }
    printf("%s\n", buf);
    fflush(stdout);
    if (ss_rt_tbl_ctl.log_cnt > 0) --ss_rt_tbl_ctl.log_cnt;
}

void tbl_hist_add(uint32_t row, int32_t data1, int32_t data2, int line) {
    if (row >= RT_HIST_ROWS) return;
    ss_rt_tbl_hist_t &h = ss_rt_tbl_hist[row];
    ++h.count;
    h.data1 = data1;
    h.data2 = data2;
    h.line = line;
}

// ---- names -------------------------------------------------------------------

const char *ss_rt_tbl_level_name(int32_t level) {
    return level >= 0 && level <= RT_DBG_ALL ? kLevelNames[level] : "NO DEFINE";
}

const char *ss_rt_tbl_st_name(uint32_t st) { return st <= RT_ST_OK ? kStNames[st] : "unknown"; }

const char *ss_rt_tbl_type_name(uint32_t data_type) {
    if (data_type == RT_MOM_DATA_STRING) return "STRING";
    if (data_type == RT_MOM_DATA_HASH) return "HASH";
    return "unknown";
}

const char *ss_rt_tbl_hist_level_name(uint32_t level) {
    return level <= 5 ? kHistLevelNames[level] : "NO DEFINE";
}

const char *ss_rt_tbl_flag_name(uint32_t flag) {
    return flag >= 1 && flag <= 5 ? kFlagNames[flag] : kFlagNames[0];
}

const char *ss_rt_tbl_db_name(uint32_t db) {
    for (const tbl_db_name_t &d : kDbNames)
        if (d.db == db) return d.name;
    return "unknown";
}

// The name is looked up each time it is needed, so a broken template counts
// in the history every time.
const char *ss_rt_tbl_name(const ss_rt_tbl_t *table) {
    int32_t idx = table != nullptr ? table->idx : 0;
    if (table == nullptr || table->item == nullptr) {
        TBL_HIST(RT_HIST_KEY_NULL, idx, 0);
        return "unknown";
    }
    const ProtobufCMessageDescriptor *d = table->item->descriptor;
    if (d == nullptr) {
        TBL_HIST(RT_HIST_DESCRIPTOR, idx, 0);
        return "descriptor null";
    }
    if (d->magic != PROTOBUF_C__MESSAGE_DESCRIPTOR_MAGIC) {
        TBL_HIST(RT_HIST_MAGIC, idx, d->magic);
        return "magic fail";
    }
    return d->name;
}

// ---- show ---------------------------------------------------------------------

int ss_rt_tbl_show_table(const ss_rt_tbl_t *table, int is_head) {
    if (is_head)
        printf("\n%5s %4s %4s %4s %8s %4s %8s %8s %8s %10s %8s %8s %8s %8s %8s\n", "valid",
               "is_skip", "cgst", "idx", "db_name", "(db)", "type", "conn_st", "sub_st",
               "cnt:add_op", "del_op", "get_op", "add_msg", "del_msg", "is_batch");
    // Log lines name even a refused handle this way; only a live entry is read.
    if (tbl_is_valid(table)) tbl_show_block(table);
    return 0;
}

int ss_rt_tbl_show_info(int32_t is_clean, int32_t is_detail) {
    tbl_show_ctl();
    if (is_detail == 1) tbl_show_cgst();
    tbl_show_tables();
    tbl_show_hist(is_clean);
    return 0;
}

int ss_rt_tbl_set_debug(int32_t level, int32_t log_cnt) {
    printf("\n%10s %20s\n", "dbg level", "name");
    for (int32_t l = RT_DBG_CLOSE; l <= RT_DBG_ALL; ++l) printf("%10d %20s\n", l, kLevelNames[l]);
    if (level < RT_DBG_CLOSE) level = RT_DBG_CLOSE;
    if (level > RT_DBG_ALL) level = RT_DBG_ALL;
    ss_rt_tbl_ctl.dbg_level = level;
    ss_rt_tbl_ctl.log_cnt = log_cnt;
    printf("\ndbg level       :%s", kLevelNames[level]);
    printf("\ndbg log cnt     :%d\n", log_cnt);
    return 0;
}

// ---- commands -------------------------------------------------------------------

int tbl_cmd_debug(const ssat_args_t *args) {
    int64_t level = tbl_arg(args, 0), cnt = tbl_arg(args, 1);
    if (level > RT_DBG_ALL) level = RT_DBG_ALL;
    if (level < RT_DBG_CLOSE) level = RT_DBG_CLOSE;
    return ss_rt_tbl_set_debug(static_cast<int32_t>(level), static_cast<int32_t>(cnt));
}

int tbl_cmd_show_info(const ssat_args_t *args) {
    return ss_rt_tbl_show_info(static_cast<int32_t>(tbl_arg(args, 0)),
                               static_cast<int32_t>(tbl_arg(args, 1)));
}

int tbl_cmd_set_skip(const ssat_args_t *args) {
    return tbl_set_flag(args, "\ntbl_idx:%d is_skip:%d\n",
                        [](ss_rt_tbl_t &t, bool on) { t.is_skip = on ? 1 : 0; });
}

int tbl_cmd_set_batch(const ssat_args_t *args) {
    return tbl_set_flag(args, "\ntbl_idx:%d is_batch:%d\n",
                        [](ss_rt_tbl_t &t, bool on) { t.set_opt = on ? 0 : 1; });
}

int tbl_cmd_set_reconn_exit(const ssat_args_t *args) {
    int64_t flag = tbl_arg(args, 0);
    printf("is_exit:%d", static_cast<int>(flag));
    ss_rt_tbl_ctl.reconn_exit = flag != 0 ? 1 : 0;
    return 0;
}

namespace {
struct tbl_cmd_t {
    const char *name;
    const char *fmt;
    ssat_cmd_func_t func;
};
constexpr tbl_cmd_t kCmds[] = {
    {"tbl-debug", "dbg_level:%d log_cnt:%d[-1:unlimited]", tbl_cmd_debug},
    {"tbl-show-info", "is_clean:%d is_detail:%d", tbl_cmd_show_info},
    {"tbl-set-skip", "tbl_idx:%d is_skip:%d", tbl_cmd_set_skip},
    {"tbl-set-batch", "tbl_idx:%d is_batch:%d", tbl_cmd_set_batch},
    {"tbl-set-reconn-exit", "is_exit:%d", tbl_cmd_set_reconn_exit},
};
}  // namespace

int ss_rt_tbl_ut_init(const char *module) {
    TBL_BRIEF("tbl at init");
    if (module == nullptr) {
        TBL_ERROR("module is NULL");
        TBL_HIST(RT_HIST_INIT_AT, -1, 0);
        return -1;
    }
    int rv = 0;
    for (const tbl_cmd_t &c : kCmds) {
        int r = ssat_reg_mod_cmd(module, c.name, 0, c.fmt, c.func);
        if (r != 0 && rv == 0) rv = r;
    }
    if (rv != 0) TBL_HIST(RT_HIST_INIT_AT, rv, 0);
    return rv;
}
