#include "app/proc/ce_l3vpn_err.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "format/at_snprintf.h"
#include "platform/runtime/tq_path.h"
#include "platform/zlog/tq_zlog.h"
#include "route_table/ss_rt_tbl.h"

int32_t ce_l3vpn_dbg_level = CE_L3VPN_ERROR;
uint64_t ce_l3vpn_zlog_handle = 0;
uint32_t ce_l3vpn_mem_cnt = 0;
uint32_t ce_l3vpn_err_last_fail = 0;

namespace {
constexpr ce_l3vpn_err_row_t row(const char *name, uint32_t level) {
    return ce_l3vpn_err_row_t{name, level, 0, 0, 0, 0, 0};
}
constexpr const char *kSep = "----------------";
}  // namespace

// Indexed by ce_l3vpn_err_code_t; rows without a name are never printed.
ce_l3vpn_err_row_t ce_l3vpn_err_tbl[CE_ERR_ROWS] = {
    /*   0 */ row("--- MSG --------", 0),
    /*   1 */ row("MPLS_ENABLE", 1),
    /*   2 */ row("MPLS_DISABLE", 1),
    /*   3 */ row("TTL_COPY_ENABLE", 1),
    /*   4 */ row("TTL_COPY_DISABLE", 1),
    /*   5 */ row("LAB_SW_ENABLE", 1),
    /*   6 */ row("LAB_SW_DISABLE", 1),
    /*   7 */ row("FTN_ADD", 1),
    /*   8 */ row("FTN_DEL", 1),
    /*   9 */ row("VC_FTN_ADD", 1),
    /*  10 */ row("VC_FTN_DEL", 1),
    /*  11 */ row("ILM_ADD", 1),
    /*  12 */ row("ILM_DEL", 1),
    /*  13 */ row("IN_ADJ_CB", 1),
    /*  14 */ row("TTL_COPY_CB", 1),
    /*  15 */ {},
    /*  16 */ {},
    /*  17 */ {},
    /*  18 */ {},
    /*  19 */ {},
    /*  20 */ {},
    /*  21 */ row(kSep, 0),
    /*  22 */ row("--- PARAM ------", 0),
    /*  23 */ row("LABEL_DEPTH", 3),
    /*  24 */ row("LABEL_INVALID", 3),
    /*  25 */ {},
    /*  26 */ row("OPCODE", 3),
    /*  27 */ row("NHOP_EMPTY", 3),
    /*  28 */ row("OWNER", 3),
    /*  29 */ row("VC_IFX_ZERO", 3),
    /*  30 */ row(kSep, 0),
    /*  31 */ row("--- APP --------", 0),
    /*  32 */ row("ZLOG_INIT", 4),
    /*  33 */ row("CAP_INIT", 4),
    /*  34 */ row("REG_HAM", 4),
    /*  35 */ row("CONN_DB", 4),
    /*  36 */ row("APP_PARSE", 4),
    /*  37 */ row("APP_GET_RV", 4),
    /*  38 */ row("ZLOG_INIT", 4),
    /*  39 */ {},
    /*  40 */ row("APP_NODE_NOT_FOUND", 3),
    /*  41 */ row("NHOP_NODE_NOT_FOUND", 3),
    /*  42 */ row("APP_DB_CREATE_DB", 4),
    /*  43 */ row("APP_DB_MALLOC", 4),
    /*  44 */ row("NHOP_NODE_ADD", 4),
    /*  45 */ row("APP_NODE_ADD", 4),
    /*  46 */ row("IN_ADJ_NODE_ADD", 4),
    /*  47 */ row("NHOP_BIND_APP", 4),
    /*  48 */ row("NHOP_BIND_IN_ADJ", 4),
    /*  49 */ row("INTERBAL_NHOP_NUM", 4),
    /*  50 */ row("INTERBAL_NHOP_LIST", 4),
    /*  51 */ row(kSep, 0),
    /*  52 */ row("---  CAP  ------", 0),
    /*  53 */ row("FTN_V4_FULL", 3),
    /*  54 */ row("FTN_V6_FULL", 3),
    /*  55 */ row("VC_FTN_FULL", 3),
    /*  56 */ row("ILM_FULL", 3),
    /*  57 */ row(kSep, 0),
    /*  58 */ row("--- PROTO -------", 0),
    /*  59 */ row("MPLS_ENABLE", 1),
    /*  60 */ row("MPLS_DISABLE", 1),
    /*  61 */ row("ERR_MPLS_OP_HW", 4),
    /*  62 */ row("TTL_COPY_ENABLE", 1),
    /*  63 */ row("TTL_COPY_DISABLE", 1),
    /*  64 */ row("ERR_TTL_COPY_HW", 4),
    /*  65 */ row("LAB_SW_ENABLE", 1),
    /*  66 */ row("LAB_SW_DISABLE", 1),
    /*  67 */ row("ERR_LAB_SW_HW", 4),
    /*  68 */ row("FTN_RT_ADD", 1),
    /*  69 */ row("FTN_RT_DEL", 1),
    /*  70 */ row("ERR_FTN_RT_HW", 4),
    /*  71 */ row("VC_FTN_VIR_RT_ADD", 1),
    /*  72 */ row("VC_FTN_VIR_RT_DEL", 1),
    /*  73 */ row("ERR_VC_FTN_VIR_RT_HW", 4),
    /*  74 */ row("ILM_VIR_RT_ADD", 1),
    /*  75 */ row("ILM_VIR_RT_DEL", 1),
    /*  76 */ row("ERR_ILM_VIR_RT_HW", 4),
    /*  77 */ row("FTN_IN_ADJ_ADD", 1),
    /*  78 */ row("FTN_IN_ADJ_DEL", 1),
    /*  79 */ row("ERR_FTN_IN_ADJ_HW", 4),
    /*  80 */ row("VC_FTN_IN_ADJ_ADD", 1),
    /*  81 */ row("VC_FTN_IN_ADJ_DEL", 1),
    /*  82 */ row("ERR_VC_FTN_IN_ADJ_HW", 4),
    /*  83 */ row("ILM_IN_ADJ_ADD", 1),
    /*  84 */ row("ILM_IN_ADJ_DEL", 1),
    /*  85 */ row("ERR_ILM_IN_ADJ_HW", 4),
    /*  86 */ row("ILM_ADD", 1),
    /*  87 */ row("ILM_DEL", 1),
    /*  88 */ row("ERR_ILM_HW", 4),
    /*  89 */ row("NOTIFY_ABILITY", 1),
    // Kept at level 1 on purpose: a refused ability record is not an alarm.
    /*  90 */ row("ERR_NOTIFY_ABILITY_HW", 1),
    // Outputs changed by another client, each repaired by a data sync.
    /*  91 */ row("OUTPUT_DRIFT", 3),
    // Next hops whose input went while nobody listened, removed by a data sync.
    /*  92 */ row("DS_INPUT_GONE", 3),
    /*  93 */ {},
    /*  94 */ {},
    /*  95 */ {},
    /*  96 */ {},
    /*  97 */ {},
    /*  98 */ {},
    /*  99 */ {},
    /* 100 */ {},
    /* 101 */ {},
    /* 102 */ {},
    /* 103 */ {},
    /* 104 */ row(kSep, 0),
};

const char *ce_l3vpn_dbg_level_name(int32_t level) {
    static const char *const names[] = {"FATAL", "ERROR", "WARN", "NOTICE", "INFO", "DEBUG"};
    return level >= 0 && level <= 5 ? names[level] : "NO DEFINE";
}

const char *ce_l3vpn_err_level_name(uint32_t level) {
    static const char *const names[] = {"NULL", "INFO", "NOTICE", "WARNING", "ERROR", "CRITICAL"};
    return level <= 5 ? names[level] : "NO DEFINE";
}

int ce_l3vpn_log_prio(int level) {
    switch (level) {
    case CE_L3VPN_FATAL:
    case CE_L3VPN_ERROR: return TQ_ZLOG_ERROR;
    case CE_L3VPN_WARN: return TQ_ZLOG_WARN;
    case CE_L3VPN_NOTICE: return TQ_ZLOG_NOTICE;
    case CE_L3VPN_INFO: return TQ_ZLOG_INFO;
    default: return TQ_ZLOG_DEBUG;
    }
}

void ce_l3vpn_set_dbg_level(int32_t level) {
    ce_l3vpn_dbg_level = level < 0 ? 0 : (level > 5 ? 5 : level);
}

void ce_l3vpn_log_emit(int level, const char *file, size_t filelen, const char *func, long line,
                       const char *fmt, ...) {
    char buf[CE_L3VPN_LOG_BUF];
    memset(buf, 0, sizeof buf);
    va_list ap;
    va_start(ap, fmt);
    at_vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (ce_l3vpn_zlog_handle == 0) return;
    // A fixed "%s" so that a '%' in the text is never interpreted twice.
    tqdf_zlog(ce_l3vpn_zlog_handle, file, filelen, func, strlen(func), line,
              ce_l3vpn_log_prio(level), "%s", buf);
}

namespace {
// Reads one decimal number from a level file: 1 read, 0 no number, -1 no file.
int read_level_file(const char *path, int *value) {
    std::string full = tq_path(path);
    FILE *f = fopen(full.c_str(), "r");
    if (f == nullptr) return -1;
    int got = fscanf(f, "%d", value);
    fclose(f);
    return got == 1 ? 1 : 0;
}
}  // namespace

int ce_l3vpn_zlog_init(const char *name, const char *path) {
    if (name == nullptr) return 4;
    ce_l3vpn_zlog_handle = tq_zlog_init(name, path);
    if (ce_l3vpn_zlog_handle == 0) return 17;
    if (path == nullptr) return 0;
    int value = 0;
    // A missing file or one without a number silences the log.
    if (read_level_file(path, &value) != 1) value = 0;
    ce_l3vpn_set_dbg_level(value);
    return 0;
}

void ce_l3vpn_tbl_dbg_init(const char *path) {
    int value = 0;
    int got = read_level_file(path, &value);
    if (got < 0) return;
    if (got == 0) value = 7;
    if (value != 0) ss_rt_tbl_set_debug(value, -1);
}
