// The log macro, the check macros, the error statistics table, the start-up
// of the levels from their level files, and the label-stack printer.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "foundation/zlog_capture.h"
#include "l3vpn/ss_mpls_dbg.h"
#include "platform/zlog/tq_zlog.h"
#include "route_table/ss_rt_tbl.h"

namespace fs = std::filesystem;

namespace {
struct row_want_t {
    int code;
    const char *name;
    uint32_t level;
};
constexpr const char *kSep = "----------------";

// Every named row; all others must be empty.
const row_want_t kRows[] = {
    {0, "--- MSG --------", 0}, {1, "MPLS_ENABLE", 1}, {2, "MPLS_DISABLE", 1}, {3, "TTL_COPY_ENABLE", 1},
    {4, "TTL_COPY_DISABLE", 1}, {5, "LAB_SW_ENABLE", 1}, {6, "LAB_SW_DISABLE", 1}, {7, "FTN_ADD", 1},
    {8, "FTN_DEL", 1}, {9, "VC_FTN_ADD", 1}, {10, "VC_FTN_DEL", 1}, {11, "ILM_ADD", 1}, {12, "ILM_DEL", 1},
    {13, "IN_ADJ_CB", 1}, {14, "TTL_COPY_CB", 1}, {21, kSep, 0}, {22, "--- PARAM ------", 0},
    {23, "LABEL_DEPTH", 3}, {24, "LABEL_INVALID", 3}, {26, "OPCODE", 3}, {27, "NHOP_EMPTY", 3},
    {28, "OWNER", 3}, {29, "VC_IFX_ZERO", 3}, {30, kSep, 0}, {31, "--- APP --------", 0},
    {32, "ZLOG_INIT", 4}, {33, "CAP_INIT", 4}, {34, "REG_HAM", 4}, {35, "CONN_DB", 4}, {36, "APP_PARSE", 4},
    {37, "APP_GET_RV", 4}, {38, "ZLOG_INIT", 4}, {40, "APP_NODE_NOT_FOUND", 3},
    {41, "NHOP_NODE_NOT_FOUND", 3}, {42, "APP_DB_CREATE_DB", 4}, {43, "APP_DB_MALLOC", 4},
    {44, "NHOP_NODE_ADD", 4}, {45, "APP_NODE_ADD", 4}, {46, "IN_ADJ_NODE_ADD", 4}, {47, "NHOP_BIND_APP", 4},
    {48, "NHOP_BIND_IN_ADJ", 4}, {49, "INTERBAL_NHOP_NUM", 4}, {50, "INTERBAL_NHOP_LIST", 4}, {51, kSep, 0},
    {52, "---  CAP  ------", 0}, {53, "FTN_V4_FULL", 3}, {54, "FTN_V6_FULL", 3}, {55, "VC_FTN_FULL", 3},
    {56, "ILM_FULL", 3}, {57, kSep, 0}, {58, "--- PROTO -------", 0}, {59, "MPLS_ENABLE", 1},
    {60, "MPLS_DISABLE", 1}, {61, "ERR_MPLS_OP_HW", 4}, {62, "TTL_COPY_ENABLE", 1},
    {63, "TTL_COPY_DISABLE", 1}, {64, "ERR_TTL_COPY_HW", 4}, {65, "LAB_SW_ENABLE", 1},
    {66, "LAB_SW_DISABLE", 1}, {67, "ERR_LAB_SW_HW", 4}, {68, "FTN_RT_ADD", 1}, {69, "FTN_RT_DEL", 1},
    {70, "ERR_FTN_RT_HW", 4}, {71, "VC_FTN_VIR_RT_ADD", 1}, {72, "VC_FTN_VIR_RT_DEL", 1},
    {73, "ERR_VC_FTN_VIR_RT_HW", 4}, {74, "ILM_VIR_RT_ADD", 1}, {75, "ILM_VIR_RT_DEL", 1},
    {76, "ERR_ILM_VIR_RT_HW", 4}, {77, "FTN_IN_ADJ_ADD", 1}, {78, "FTN_IN_ADJ_DEL", 1},
    {79, "ERR_FTN_IN_ADJ_HW", 4}, {80, "VC_FTN_IN_ADJ_ADD", 1}, {81, "VC_FTN_IN_ADJ_DEL", 1},
    {82, "ERR_VC_FTN_IN_ADJ_HW", 4}, {83, "ILM_IN_ADJ_ADD", 1}, {84, "ILM_IN_ADJ_DEL", 1},
    {85, "ERR_ILM_IN_ADJ_HW", 4}, {86, "ILM_ADD", 1}, {87, "ILM_DEL", 1}, {88, "ERR_ILM_HW", 4},
    {89, "NOTIFY_ABILITY", 1}, {90, "ERR_NOTIFY_ABILITY_HW", 1},
    {91, "OUTPUT_DRIFT", 3}, {92, "DS_INPUT_GONE", 3}, {104, kSep, 0},
};

TEST(ErrTable, EveryRowNameAndLevel) {
    ASSERT_EQ(std::size(kRows), 86u);  // and 19 empty rows
    const row_want_t *want[CE_ERR_ROWS] = {};
    for (const auto &r : kRows) want[r.code] = &r;
    for (int code = 0; code < CE_ERR_ROWS; ++code) {
        const ce_l3vpn_err_row_t &row = ce_l3vpn_err_tbl[code];
        EXPECT_STREQ(row.name, want[code] ? want[code]->name : nullptr) << code;
        EXPECT_EQ(row.level, want[code] ? want[code]->level : row.level) << code;
    }
}

// What zlog wrote to standard error while f ran at the given level.
template <typename F>
std::string zlog_at(int level, F f) {
    static const uint64_t handle = tq_zlog_init("found", nullptr);
    ce_l3vpn_zlog_handle = handle;
    ce_l3vpn_set_dbg_level(level);
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

int g_formatted = 0;
int formatted() { return ++g_formatted; }

TEST(Log, ThresholdsAndPriorities) {
    struct {
        int level, threshold, prio;
        const char *word;
    } cases[] = {{CE_L3VPN_ERROR, 1, 100, "ERROR"}, {CE_L3VPN_WARN, 2, 80, "WARN"},
                 {CE_L3VPN_INFO, 4, 40, "INFO"}, {CE_L3VPN_DEBUG, 5, 20, "DEBUG"}};
    for (const auto &c : cases) {
        EXPECT_EQ(ce_l3vpn_log_prio(c.level), c.prio) << c.word;
        g_formatted = 0;
        EXPECT_EQ(zlog_at(c.threshold - 1, [&] { CE_L3VPN_LOG(c.level, "n:%d", formatted()); }), "");
        EXPECT_EQ(g_formatted, 0);  // not even evaluated below the threshold

        int line = 0;
        std::string out =
            zlog_at(c.threshold, [&] { line = __LINE__; CE_L3VPN_LOG(c.level, "n:%d", formatted()); });
        EXPECT_EQ(g_formatted, 1);
        EXPECT_TRUE(has(out, std::string(" ") + c.word + " "));
        // Source path without its extension, line, function, text.
        EXPECT_TRUE(has(out, "tests/foundation/test_found_log:" + std::to_string(line) + " "));
        EXPECT_TRUE(has(out, ": n:1\n"));
    }
    // Without a handle the text is still formatted, but nothing is sent.
    g_formatted = 0;
    EXPECT_EQ(zlog_at(5, [] {
                  ce_l3vpn_zlog_handle = 0;
                  CE_L3VPN_LOG(CE_L3VPN_ERROR, "n:%d", formatted());
              }),
              "");
    EXPECT_EQ(g_formatted, 1);
}

TEST(Log, LongMessageIsCutAndTerminated) {
    std::string big(3000, 'x');
    std::string out = zlog_at(1, [&] { CE_L3VPN_LOG(CE_L3VPN_ERROR, "%s", big.c_str()); });
    EXPECT_TRUE(has(out, ": " + std::string(1023, 'x') + "\n"));
    EXPECT_EQ(out.find(std::string(1024, 'x')), std::string::npos);
}

// The printer logs at DEBUG only, under its own source path.
TEST(Log, LabelStackTexts) {
    const uint32_t labels[9] = {16, 17, 18, 1048575, 3, 21, 22, 23, 24};
    struct {
        uint8_t n;
        const uint32_t *labels;
        const char *text;
    } cases[] = {
        {0, labels, "label stack: nil \n"},
        {3, nullptr, "label stack: nil \n"},
        {9, labels, "label stack: Error n_label:9\n"},
        {255, labels, "label stack: Error n_label:255\n"},
        {3, labels, " label stack: lab0:16 lab1:17 lab2:18 lab3:0 lab4:0 lab5:0 lab6:0 lab7:0\n"},
        {8, labels, " label stack: lab0:16 lab1:17 lab2:18 lab3:1048575 lab4:3 lab5:21 lab6:22 lab7:23\n"},
    };
    for (const auto &c : cases) {
        auto print = [&] { mpls_zlog_print_label_stack(c.n, c.labels); };
        std::string out = zlog_at(5, print);
        EXPECT_TRUE(has(out, " app/proc/../../l3vpn/ss_mpls_dbg:"));
        EXPECT_TRUE(out.ends_with(std::string(": ") + c.text)) << out;
        EXPECT_EQ(zlog_at(4, print), "") << unsigned(c.n);
    }
}

int g_line = 0;
int guarded(const char *pmsg) {
    g_line = __LINE__; CE_L3VPN_CHK_NULL(pmsg);
    return 0;
}
int failed() {
    g_line = __LINE__; CE_L3VPN_FAIL("rv == SS_E_NONE", CE_ERR_LABEL_DEPTH, "n_label:%u", 9u);
    return 0;
}

// Both count their row and its line first; the line is logged only at ERROR.
TEST(Log, FailAndNullCheckCountEvenWhenSilent) {
    const struct {
        int (*run)();
        int rv;
        ce_l3vpn_err_code_t row;
        const char *text;
    } cases[] = {
        {failed, 0, CE_ERR_LABEL_DEPTH, ": fail:rv == SS_E_NONE code:23 n_label:9\n"},
        {[] { return guarded(nullptr); }, 4, CE_ERR_APP_PARSE, ": Fail, pmsg NULL, \n"},
    };
    for (int level : {1, 0})
        for (const auto &c : cases) {
            uint32_t before = ce_l3vpn_err_tbl[c.row].count;
            int rv = -1;
            std::string out = zlog_at(level, [&] { rv = c.run(); });
            EXPECT_EQ(rv, c.rv);
            EXPECT_EQ(ce_l3vpn_err_tbl[c.row].count, before + 1);
            EXPECT_EQ(ce_l3vpn_err_tbl[c.row].line, uint32_t(g_line));
            EXPECT_TRUE(level ? has(out, " ERROR ") && has(out, c.text) : out.empty()) << out;
        }
    uint32_t before = ce_l3vpn_err_tbl[CE_ERR_APP_PARSE].count;
    EXPECT_EQ(guarded("x"), 0);
    EXPECT_EQ(ce_l3vpn_err_tbl[CE_ERR_APP_PARSE].count, before);
}

// Level files are read under L3VPN_ROOT. The log's: a missing file or one without a
// number silences it, and the level is clamped. The table's: a missing file keeps its
// level, one without a number means 7, and 0 changes nothing.
TEST(Log, LevelFiles) {
    char root[] = "/tmp/found-level-XXXXXX";
    ASSERT_NE(mkdtemp(root), nullptr);
    fs::create_directories(std::string(root) + "/data/sw_mpls");
    setenv("L3VPN_ROOT", root, 1);
    const char *const zlog_dbg = "/data/sw_mpls/ce_l3vpn_zlog.dbg";
    const char *const tbl_dbg = "/data/sw_mpls/ce_l3vpn_tbl.dbg";
    struct {
        bool tbl;
        const char *text;  // null: no file
        int32_t level;
    } cases[] = {{false, "9", 5}, {false, "-3", 0}, {false, "abc", 0}, {false, nullptr, 0},
                 {false, "", 0},  {false, "4\n", 4}, {false, "2 7", 2}, {true, nullptr, 3},
                 {true, "abc", 7}, {true, "0", 3},    {true, "", 7},      {true, "5", 5}};
    for (const auto &c : cases) {
        const std::string path = std::string(root) + (c.tbl ? tbl_dbg : zlog_dbg);
        fs::remove(path);
        if (c.text != nullptr) std::ofstream(path) << c.text;
        ce_l3vpn_dbg_level = ss_rt_tbl_ctl.dbg_level = 3;
        ce_l3vpn_zlog_handle = 0;
        stdout_of([&] {  // the table library prints its level list
            if (c.tbl) {
                ce_l3vpn_tbl_dbg_init(tbl_dbg);
            } else {
                EXPECT_EQ(ce_l3vpn_zlog_init("ce_mpls_l3vpn_zlog", zlog_dbg), 0);
                EXPECT_NE(ce_l3vpn_zlog_handle, 0u);
            }
        });
        EXPECT_EQ(c.tbl ? ss_rt_tbl_ctl.dbg_level : ce_l3vpn_dbg_level, c.level)
            << (c.tbl ? "table " : "log ") << (c.text ? c.text : "(missing)");
    }
    ce_l3vpn_zlog_handle = 0;
    EXPECT_EQ(ce_l3vpn_zlog_init(nullptr, zlog_dbg), 4);
    EXPECT_EQ(ce_l3vpn_zlog_handle, 0u);
    EXPECT_EQ(ce_l3vpn_zlog_init("ce_mpls_l3vpn_zlog", nullptr), 0);  // no file: level kept
    EXPECT_EQ(ce_l3vpn_dbg_level, 3);
    unsetenv("L3VPN_ROOT");
    fs::remove_all(root);
}
}  // namespace
