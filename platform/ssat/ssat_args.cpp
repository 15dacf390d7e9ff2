// Argument formats and request words of the debug-command service.
//
// A format is a run of words such as "inlabel:%d", "co_nh:%a", "is_add:%d," or
// "log_cnt:%d[-1:unlimited]": the word's conversion is its first %d, %a or %v
// and its name is the text before the first ':'. Words without a conversion
// are text. A format whose first word is "void" takes no arguments.
#include "platform/ssat/ssat_int.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string>

namespace {

bool ssat_is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

int ssat_conv_type(char c) {
    switch (c) {
    case 'd': return SSAT_ARG_INT;
    case 'a': return SSAT_ARG_V4;
    case 'v': return SSAT_ARG_V6;
    default: return 0;
    }
}

// Reads one format word; false when the word carries no conversion.
bool ssat_fmt_word(std::string_view w, ssat_fmt_arg_t &out) {
    for (size_t p = w.find('%'); p != std::string_view::npos && p + 1 < w.size();
         p = w.find('%', p + 1)) {
        int type = ssat_conv_type(w[p + 1]);
        if (type == 0) continue;
        out.name = w.substr(0, std::min(w.find(':'), p));
        out.type = type;
        return true;
    }
    return false;
}

bool ssat_parse_int(std::string_view v, int64_t &out) {
    if (v.empty() || v[0] == '+') return false;
    auto [end, ec] = std::from_chars(v.data(), v.data() + v.size(), out, 10);
    return ec == std::errc() && end == v.data() + v.size();
}

// inet_pton wants a terminated string; an embedded NUL would cut the value short.
bool ssat_parse_addr(int family, std::string_view v, void *dst) {
    if (v.empty() || v.size() > 64 || v.find('\0') != std::string_view::npos) return false;
    std::string text(v);
    return inet_pton(family, text.c_str(), dst) == 1;
}

bool ssat_parse_value(const ssat_fmt_arg_t &f, std::string_view v, ssat_arg_t &out) {
    out.type = f.type;
    switch (f.type) {
    case SSAT_ARG_INT: return ssat_parse_int(v, out.i);
    case SSAT_ARG_V4: return ssat_parse_addr(AF_INET, v, &out.v4);
    case SSAT_ARG_V6: return ssat_parse_addr(AF_INET6, v, out.v6);
    default: return false;
    }
}

}  // namespace

std::string_view ssat_next_word(std::string_view &s) {
    size_t b = 0;
    while (b < s.size() && ssat_is_blank(s[b])) ++b;
    size_t e = b;
    while (e < s.size() && !ssat_is_blank(s[e])) ++e;
    std::string_view word = s.substr(b, e - b);
    s.remove_prefix(e);
    return word;
}

int ssat_fmt_parse(std::string_view fmt, ssat_fmt_arg_t (&args)[SSAT_MAX_ARGS]) {
    std::string_view rest = fmt;
    if (ssat_next_word(rest) == "void") return 0;
    rest = fmt;
    int n = 0;
    for (std::string_view w = ssat_next_word(rest); !w.empty(); w = ssat_next_word(rest)) {
        ssat_fmt_arg_t a;
        if (!ssat_fmt_word(w, a)) continue;
        if (n == SSAT_MAX_ARGS) return -4;
        args[n++] = a;
    }
    return n;
}

// The request words must follow the format one for one: same names, same
// order, nothing missing and nothing left over.
int ssat_parse_args(const char *arg_fmt, const char *request_args, ssat_args_t *out) {
    if (arg_fmt == nullptr || out == nullptr) return -4;
    ssat_fmt_arg_t fmt[SSAT_MAX_ARGS];
    int n = ssat_fmt_parse(arg_fmt, fmt);
    ssat_args_t args{};
    std::string_view rest = request_args != nullptr ? request_args : "";
    bool ok = n >= 0;
    for (int k = 0; ok && k < n; ++k) {
        std::string_view w = ssat_next_word(rest);
        size_t colon = w.find(':');
        ok = colon != std::string_view::npos && w.substr(0, colon) == fmt[k].name &&
             ssat_parse_value(fmt[k], w.substr(colon + 1), args.argv[k]);
    }
    if (!ok || !ssat_next_word(rest).empty()) {
        *out = ssat_args_t{};
        return -4;
    }
    args.argc = n;
    *out = args;
    return 0;
}
