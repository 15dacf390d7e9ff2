// Inside the route-table client: the library's log macros, the history
// recorder and the tbl- command handlers (the tests call them directly).
#pragma once
#include <cstdint>

#include "platform/ssat/ssat.h"
#include "route_table/ss_rt_tbl.h"

// True when a line of level `lvl` would be printed (level and budget).
bool tbl_log_on(int32_t lvl);
// Prints "[word]func:line|" plus the formatted text and a newline to standard
// output and takes one line off a positive budget.
void tbl_log_line(const char *word, const char *func, int line, const char *fmt, ...);
// Adds one to the row's count and keeps the data words and the line.
void tbl_hist_add(uint32_t row, int32_t data1, int32_t data2, int line);

// The arguments are evaluated only when the line is printed: a "table:%d"
// argument prints the table's block first, and only then.
#define TBL_LOG(lvl, word, fmt, ...)                                                  \
    do {                                                                              \
        if (tbl_log_on(lvl)) tbl_log_line(word, __func__, __LINE__, fmt __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)
#define TBL_ERROR(fmt, ...) TBL_LOG(RT_DBG_ERROR, "ERROR", fmt __VA_OPT__(, ) __VA_ARGS__)
#define TBL_BRIEF(fmt, ...) TBL_LOG(RT_DBG_BRIEF, "BRIEF", fmt __VA_OPT__(, ) __VA_ARGS__)
#define TBL_EVENT(fmt, ...) TBL_LOG(RT_DBG_EVENT, "EVENT", fmt __VA_OPT__(, ) __VA_ARGS__)
#define TBL_WARN(fmt, ...) TBL_LOG(RT_DBG_WARNING, "WARN ", fmt __VA_OPT__(, ) __VA_ARGS__)
#define TBL_IN(fmt, ...) TBL_LOG(RT_DBG_INFO, "IN   ", fmt __VA_OPT__(, ) __VA_ARGS__)
#define TBL_OUT(fmt, ...) TBL_LOG(RT_DBG_INFO, "OUT  ", fmt __VA_OPT__(, ) __VA_ARGS__)

#define TBL_HIST(row, d1, d2) tbl_hist_add((row), (int32_t)(d1), (int32_t)(d2), __LINE__)

// A failed precondition: "fali" line, history row "assert" with the result.
#define TBL_CHECK(ok, text, rv)                       \
    do {                                              \
        if (!(ok)) {                                  \
            TBL_ERROR("fali:%s rv:%d", text, (rv));   \
            TBL_HIST(RT_HIST_ASSERT, (rv), 0);        \
            return (rv);                              \
        }                                             \
    } while (0)

// A failure counted in history row `row`, which is also the printed code.
#define TBL_FAIL(text, row, d1, d2)                                                      \
    do {                                                                                 \
        TBL_ERROR("fail:%s code:%d data1:%d data2:%d", text, (int)(row), (int)(d1), (int)(d2)); \
        TBL_HIST((row), (d1), (d2));                                                     \
    } while (0)

// The "table:%d" argument: header and block printed, always 0.
#define TBL_NO(table) ss_rt_tbl_show_table(static_cast<const ss_rt_tbl_t *>(table), 1)

const char *ss_rt_tbl_level_name(int32_t level);
const char *ss_rt_tbl_st_name(uint32_t st);
const char *ss_rt_tbl_type_name(uint32_t data_type);
const char *ss_rt_tbl_hist_level_name(uint32_t level);
const char *ss_rt_tbl_flag_name(uint32_t flag);

// The tbl- command handlers.
int tbl_cmd_debug(const ssat_args_t *args);
int tbl_cmd_show_info(const ssat_args_t *args);
int tbl_cmd_set_skip(const ssat_args_t *args);
int tbl_cmd_set_batch(const ssat_args_t *args);
int tbl_cmd_set_reconn_exit(const ssat_args_t *args);
