// Input: the argument text of a debug-command request. It is parsed against
// the argument format of every command the daemon registers (its own and the
// table library's tbl- commands). Arguments that parse must print back to a
// request that parses to the same values; a refused request leaves nothing.
#include <arpa/inet.h>

#include <cstring>
#include <string>
#include <string_view>

#include "fuzz/fuzz_checks.h"
#include "platform/ssat/ssat.h"

namespace {

// The argument formats as the daemon and the table library register them.
const char *const kFormats[] = {
    "inlabel:%d co_nh:%a ifx:%d opcode:%d vrf:%d VcIfx:%d LabelNum:%d lab1:%d lab2:%d lab3:%d ",
    "inlabel:%d co_nh:%a ifx:%d opcode:%d LabelNum:%d lab1:%d lab2:%d lab3:%d ",
    "inlabel:%d co_nh:%a ifx:%d opcode:%d LabelNum:%d lab1:%d lab2:%d lab3:%d fec_pre:%a count:%d",
    "inlabel:%d co_nh:%a ifx:%d opcode:%d LabelNum:%d lab1:%d lab2:%d lab3:%d count:%d",
    "is_add:%d vrf:%d prefix:%v pre_len:%d co_nh:%v ifx:%d LabelNum:%d lab1:%d lab2:%d lab3:%d ",
    "level:%d",
    "is_clean:%d is_detail:%d",
    "void",
    "is_form:%d",
    "in_label:%d",
    "count:%d is_form:%d",
    "vc_ifx:%d",
    "vrf:%d ipv4:%a mask:%d",
    "vrf:%d ipv6:%v mask:%d",
    "void (current id)",
    "high:%d low:%d",
    "is_add:%d tunnel:%d proto:%d timestamp:%d pkts:%d bytes:%d",
    "is_add:%d index:%d static_flag:%d ",
    "is_add:%d tunnel_id:%d service_class:%d",
    "is_add:%d, index:%d",
    "dbg_level:%d log_cnt:%d[-1:unlimited]",
    "tbl_idx:%d is_skip:%d",
    "tbl_idx:%d is_batch:%d",
    "is_exit:%d",
};

// What a format asks for, read independently of the service: every word
// with a %d, %a or %v, named by its text before the first ':'.
struct fz_fmt_t {
    int n = 0;
    std::string names[SSAT_MAX_ARGS];
    int types[SSAT_MAX_ARGS] = {};
};

fz_fmt_t read_format(const char *fmt) {
    fz_fmt_t f;
    std::string_view s = fmt;
    if (s.substr(0, 4) == "void") return f;
    size_t pos = 0;
    while (pos < s.size()) {
        size_t end = s.find(' ', pos);
        if (end == std::string_view::npos) end = s.size();
        std::string_view w = s.substr(pos, end - pos);
        pos = end + 1;
        int type = 0;
        if (w.find("%d") != std::string_view::npos) type = SSAT_ARG_INT;
        if (w.find("%a") != std::string_view::npos) type = SSAT_ARG_V4;
        if (w.find("%v") != std::string_view::npos) type = SSAT_ARG_V6;
        if (type == 0) continue;
        f.names[f.n] = std::string(w.substr(0, w.find(':')));
        f.types[f.n++] = type;
    }
    return f;
}

std::string value_text(const ssat_arg_t &a) {
    char buf[INET6_ADDRSTRLEN];
    switch (a.type) {
    case SSAT_ARG_V4: inet_ntop(AF_INET, &a.v4, buf, sizeof buf); return buf;
    case SSAT_ARG_V6: inet_ntop(AF_INET6, a.v6, buf, sizeof buf); return buf;
    default: return std::to_string(a.i);
    }
}

bool same_arg(const ssat_arg_t &a, const ssat_arg_t &b) {
    if (a.type != b.type) return false;
    switch (a.type) {
    case SSAT_ARG_V4: return a.v4 == b.v4;
    case SSAT_ARG_V6: return std::memcmp(a.v6, b.v6, sizeof a.v6) == 0;
    default: return a.i == b.i;
    }
}

const char *check_format(const char *fmt, const char *request) {
    ssat_args_t out;
    std::memset(&out, 0x5A, sizeof out);
    int rv = ssat_parse_args(fmt, request, &out);
    if (rv != 0) {
        if (rv != -4) return "unexpected parse result";
        if (out.argc != 0) return "refused request left arguments";
        return nullptr;
    }
    fz_fmt_t f = read_format(fmt);
    if (out.argc != f.n) return "argument count differs from the format";
    std::string line;
    for (int k = 0; k < f.n; ++k) {
        if (out.argv[k].type != f.types[k]) return "argument type differs from the format";
        line += f.names[k] + ":" + value_text(out.argv[k]) + " ";
    }
    ssat_args_t again;
    if (ssat_parse_args(fmt, line.c_str(), &again) != 0) return "printed arguments do not parse";
    if (again.argc != out.argc) return "printed arguments change the count";
    for (int k = 0; k < f.n; ++k)
        if (!same_arg(out.argv[k], again.argv[k])) return "printed arguments change a value";
    return nullptr;
}

}  // namespace

const char *fuzz_ssat_one(const uint8_t *data, size_t size) {
    // The service hands the handler a terminated line; a NUL ends it early.
    std::string request(reinterpret_cast<const char *>(data), size);
    for (const char *fmt : kFormats)
        if (const char *bad = check_format(fmt, request.c_str())) return bad;
    ssat_args_t out;
    if (ssat_parse_args(nullptr, request.c_str(), &out) != -4) return "null format accepted";
    return nullptr;
}
