// Logging and the error statistics table of the daemon.
//
// A message is formatted only when ce_l3vpn_dbg_level reaches its level; it is
// formatted with at_snprintf (so %a and %v work) into a cleared 1024-byte
// buffer and sent to zlog with the source file, function and line.
#pragma once
#include <cstddef>
#include <cstdint>

// Message levels (thresholds of ce_l3vpn_dbg_level).
enum {
    CE_L3VPN_FATAL = 0,
    CE_L3VPN_ERROR = 1,
    CE_L3VPN_WARN = 2,
    CE_L3VPN_NOTICE = 3,
    CE_L3VPN_INFO = 4,
    CE_L3VPN_DEBUG = 5,
};

enum { SS_E_NONE = 0 };
enum { CE_L3VPN_LOG_BUF = 1024 };

struct ce_l3vpn_err_row_t {
    const char *name;  // null: an empty row, never printed
    uint32_t level;
    uint32_t count;
    uint32_t history;
    int32_t data1;
    int32_t data2;
    uint32_t line;
};

// Row indexes: the "code" of every failure line.
enum ce_l3vpn_err_code_t {
    CE_ERR_MSG_BEGIN = 0,
    CE_ERR_MPLS_ENABLE = 1,
    CE_ERR_MPLS_DISABLE = 2,
    CE_ERR_TTL_COPY_ENABLE = 3,
    CE_ERR_TTL_COPY_DISABLE = 4,
    CE_ERR_LAB_SW_ENABLE = 5,
    CE_ERR_LAB_SW_DISABLE = 6,
    CE_ERR_FTN_ADD = 7,
    CE_ERR_FTN_DEL = 8,
    CE_ERR_VC_FTN_ADD = 9,
    CE_ERR_VC_FTN_DEL = 10,
    CE_ERR_ILM_ADD = 11,
    CE_ERR_ILM_DEL = 12,
    CE_ERR_IN_ADJ_CB = 13,
    CE_ERR_TTL_COPY_CB = 14,
    CE_ERR_STATUS_CNT = 15,      // unnamed row: counter messages
    CE_ERR_STATUS_CNT_CLR = 19,  // unnamed row: clear requests
    CE_ERR_STATUS_CNT_KEEP = 20, // unnamed row: "disable" clear requests
    CE_ERR_MSG_END = 21,
    CE_ERR_PARAM_BEGIN = 22,
    CE_ERR_LABEL_DEPTH = 23,
    CE_ERR_LABEL_INVALID = 24,
    CE_ERR_BSID = 25,            // unnamed row
    CE_ERR_OPCODE = 26,
    CE_ERR_NHOP_EMPTY = 27,
    CE_ERR_OWNER = 28,
    CE_ERR_VC_IFX_ZERO = 29,
    CE_ERR_PARAM_END = 30,
    CE_ERR_APP_BEGIN = 31,
    CE_ERR_ZLOG_INIT = 32,
    CE_ERR_CAP_INIT = 33,
    CE_ERR_REG_HAM = 34,
    CE_ERR_CONN_DB = 35,
    CE_ERR_APP_PARSE = 36,
    CE_ERR_APP_GET_RV = 37,
    CE_ERR_UNKNOWN_OWNER = 38,   // the second row named "ZLOG_INIT"
    CE_ERR_REG_CGST = 39,        // unnamed row
    CE_ERR_APP_NODE_NOT_FOUND = 40,
    CE_ERR_NHOP_NODE_NOT_FOUND = 41,
    CE_ERR_APP_DB_CREATE_DB = 42,
    CE_ERR_APP_DB_MALLOC = 43,
    CE_ERR_NHOP_NODE_ADD = 44,
    CE_ERR_APP_NODE_ADD = 45,
    CE_ERR_IN_ADJ_NODE_ADD = 46,
    CE_ERR_NHOP_BIND_APP = 47,
    CE_ERR_NHOP_BIND_IN_ADJ = 48,
    CE_ERR_INTERBAL_NHOP_NUM = 49,
    CE_ERR_INTERBAL_NHOP_LIST = 50,
    CE_ERR_APP_END = 51,
    CE_ERR_CAP_BEGIN = 52,
    CE_ERR_FTN_V4_FULL = 53,
    CE_ERR_FTN_V6_FULL = 54,
    CE_ERR_VC_FTN_FULL = 55,
    CE_ERR_ILM_FULL = 56,
    CE_ERR_CAP_END = 57,
    CE_ERR_PROTO_BEGIN = 58,
    CE_ERR_HW_MPLS_ENABLE = 59,
    CE_ERR_HW_MPLS_DISABLE = 60,
    CE_ERR_HW_MPLS_OP = 61,
    CE_ERR_HW_TTL_COPY_ENABLE = 62,
    CE_ERR_HW_TTL_COPY_DISABLE = 63,
    CE_ERR_HW_TTL_COPY = 64,
    CE_ERR_HW_LAB_SW_ENABLE = 65,
    CE_ERR_HW_LAB_SW_DISABLE = 66,
    CE_ERR_HW_LAB_SW = 67,
    CE_ERR_HW_FTN_RT_ADD = 68,
    CE_ERR_HW_FTN_RT_DEL = 69,
    CE_ERR_HW_FTN_RT = 70,
    CE_ERR_HW_VC_FTN_VIR_RT_ADD = 71,
    CE_ERR_HW_VC_FTN_VIR_RT_DEL = 72,
    CE_ERR_HW_VC_FTN_VIR_RT = 73,
    CE_ERR_HW_ILM_VIR_RT_ADD = 74,
    CE_ERR_HW_ILM_VIR_RT_DEL = 75,
    CE_ERR_HW_ILM_VIR_RT = 76,
    CE_ERR_HW_FTN_IN_ADJ_ADD = 77,
    CE_ERR_HW_FTN_IN_ADJ_DEL = 78,
    CE_ERR_HW_FTN_IN_ADJ = 79,
    CE_ERR_HW_VC_FTN_IN_ADJ_ADD = 80,
    CE_ERR_HW_VC_FTN_IN_ADJ_DEL = 81,
    CE_ERR_HW_VC_FTN_IN_ADJ = 82,
    CE_ERR_HW_ILM_IN_ADJ_ADD = 83,
    CE_ERR_HW_ILM_IN_ADJ_DEL = 84,
    CE_ERR_HW_ILM_IN_ADJ = 85,
    CE_ERR_HW_ILM_ADD = 86,
    CE_ERR_HW_ILM_DEL = 87,
    CE_ERR_HW_ILM = 88,
    CE_ERR_NOTIFY_ABILITY = 89,
    CE_ERR_HW_NOTIFY_ABILITY = 90,
    CE_ERR_OUTPUT_DRIFT = 91,
    CE_ERR_DS_INPUT_GONE = 92,
    CE_ERR_DATA_IF_CNT_PUB = 94,   // unnamed row: interface counters published
    CE_ERR_DATA_IF_CNT_FAIL = 96,  // unnamed row: interface counters not written
    CE_ERR_STATUS_CNT_PUB = 97,    // unnamed row: tunnel counters written
    CE_ERR_STATUS_CNT_FAIL = 98,   // unnamed row: tunnel counters not written
    CE_ERR_PROTO_END = 104,
    CE_ERR_ROWS = 105,
};

extern int32_t ce_l3vpn_dbg_level;
extern uint64_t ce_l3vpn_zlog_handle;
extern ce_l3vpn_err_row_t ce_l3vpn_err_tbl[CE_ERR_ROWS];
extern uint32_t ce_l3vpn_mem_cnt;
// The row of the last failed check (CE_L3VPN_FAIL), 0 for none: refusals name it.
extern uint32_t ce_l3vpn_err_last_fail;

// Words of the debug levels 0..5, and of the row levels (0..5, else "NO DEFINE").
const char *ce_l3vpn_dbg_level_name(int32_t level);
const char *ce_l3vpn_err_level_name(uint32_t level);
// zlog priority of a message level.
int ce_l3vpn_log_prio(int level);

// Clamps to 0..5 and stores the level.
void ce_l3vpn_set_dbg_level(int32_t level);
int ce_l3vpn_zlog_init(const char *name, const char *path);
void ce_l3vpn_tbl_dbg_init(const char *path);

// Formats and sends one message; use the macros below.
void ce_l3vpn_log_emit(int level, const char *file, size_t filelen, const char *func, long line,
                       const char *fmt, ...);

// Length of a source path without its extension ("app/proc/x.cpp" -> 12).
constexpr size_t ce_l3vpn_src_len(const char *path) {
    size_t n = 0, dot = 0;
    for (; path[n] != '\0'; ++n)
        if (path[n] == '.') dot = n;
        else if (path[n] == '/') dot = 0;
    return dot ? dot : n;
}

#define CE_L3VPN_LOG_FN(fn, lvl, fmt, ...)                                                    \
    do {                                                                                      \
        if (ce_l3vpn_dbg_level >= (lvl) && ce_l3vpn_dbg_level > 0)                           \
            ce_l3vpn_log_emit((lvl), __FILE__, ce_l3vpn_src_len(__FILE__), (fn), __LINE__,    \
                              fmt, ##__VA_ARGS__);                                            \
    } while (0)

#define CE_L3VPN_LOG(lvl, fmt, ...) CE_L3VPN_LOG_FN(__func__, lvl, fmt, ##__VA_ARGS__)

#define CE_L3VPN_ERR_REC(code)                          \
    do {                                                \
        ce_l3vpn_err_tbl[(code)].line = __LINE__;       \
        ce_l3vpn_err_tbl[(code)].count++;               \
    } while (0)

// A failed check: records the row, then logs "fail:<cond> code:<row> " + fmt.
#define CE_L3VPN_FAIL(cond_text, code, fmt, ...)                                              \
    do {                                                                                      \
        CE_L3VPN_ERR_REC(code);                                                               \
        ce_l3vpn_err_last_fail = (code);                                                      \
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "fail:%s code:%d " fmt, cond_text, (int)(code),         \
                     ##__VA_ARGS__);                                                          \
    } while (0)

#define CE_L3VPN_FAIL_FN(fn, cond_text, code, fmt, ...)                                       \
    do {                                                                                      \
        CE_L3VPN_ERR_REC(code);                                                               \
        CE_L3VPN_LOG_FN(fn, CE_L3VPN_ERROR, "fail:%s code:%d " fmt, cond_text, (int)(code),  \
                        ##__VA_ARGS__);                                                       \
    } while (0)

// Null argument: logs "Fail, <name> NULL, ", records APP_PARSE and returns 4.
#define CE_L3VPN_CHK_NULL_NAME(p, name)                                   \
    do {                                                                  \
        if ((p) == nullptr) {                                             \
            CE_L3VPN_LOG(CE_L3VPN_ERROR, "Fail, %s NULL, ", (name));      \
            CE_L3VPN_ERR_REC(CE_ERR_APP_PARSE);                           \
            return 4;                                                     \
        }                                                                 \
    } while (0)
#define CE_L3VPN_CHK_NULL(p) CE_L3VPN_CHK_NULL_NAME(p, #p)
