// Input: a recipe for one format and its arguments. Pieces are literal text,
// "%%", conversions the formatter does not know (copied as written, no
// argument), known conversions with flags, widths and precisions (numbers or
// '*') and length modifiers, and a conversion cut off by the end of the
// format. At most
// four arguments are passed, each with the exact type its conversion reads.
//
// Checked: the same call through the C library, with every %a and %v
// replaced by a %s of the address text made independently and every unknown
// conversion escaped, gives the same text and length; bounded buffers of
// several sizes get a terminated prefix of it and the full length back; the
// va_list entry gives the same result twice.
#include <arpa/inet.h>

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "format/at_snprintf.h"
#include "fuzz/fuzz_checks.h"

namespace {

// The length modifiers z, j and t read these types on this platform.
static_assert(std::is_same_v<intmax_t, long> && std::is_same_v<ptrdiff_t, long>);
static_assert(std::is_same_v<uintmax_t, unsigned long> && std::is_same_v<size_t, unsigned long>);

enum fz_kind { K_INT, K_UINT, K_LONG, K_ULONG, K_LLONG, K_ULLONG, K_PTR };

struct fz_arg {
    fz_kind kind = K_INT;
    union {
        int i;
        unsigned u;
        long l;
        unsigned long ul;
        long long ll;
        unsigned long long ull;
        const void *p;
    };
    fz_arg() : ull(0) {}
};

enum { FZ_MAX_ARGS = 4, FZ_MAX_PIECES = 12, FZ_MAX_NUM = 1000 };

struct fz_call_t {
    std::string fmt_at, fmt_ref;  // the formatter's format, the C library's
    fz_arg at[FZ_MAX_ARGS], ref[FZ_MAX_ARGS];
    int nargs = 0;
    std::vector<std::unique_ptr<char[]>> pool;  // strings and address bytes

    void push(fz_arg a, fz_arg r) {
        at[nargs] = a;
        ref[nargs++] = r;
    }
    const char *keep(const void *bytes, size_t n, bool terminate) {
        pool.push_back(std::make_unique<char[]>(n + (terminate ? 1 : 0)));
        char *p = pool.back().get();
        std::memcpy(p, bytes, n);
        if (terminate) p[n] = '\0';
        return p;
    }
};

struct fz_in_t {
    const uint8_t *p;
    size_t n;
    bool empty() const { return n == 0; }
    uint8_t byte() {
        if (n == 0) return 0;
        --n;
        return *p++;
    }
    uint64_t u64() {
        uint64_t v = 0;
        for (int k = 0; k < 8; ++k) v = v << 8 | byte();
        return v;
    }
    uint32_t u32() { return static_cast<uint32_t>(u64()); }
    // Two reads in a row: the order of the operands of | is not fixed.
    uint16_t u16() {
        uint16_t hi = byte();
        return static_cast<uint16_t>(hi << 8 | byte());
    }
};

int fz_vcall(char *buf, size_t n, const char *fmt, ...) {
    va_list ap, ap2;
    va_start(ap, fmt);
    va_copy(ap2, ap);
    int r1 = at_vsnprintf(buf, n, fmt, ap);
    int r2 = at_vsnprintf(buf, n, fmt, ap2);
    va_end(ap2);
    va_end(ap);
    return r1 == r2 ? r1 : INT_MIN;
}

enum fz_mode { FZ_AT, FZ_AT_V, FZ_LIBC };

struct fz_sink {
    fz_mode mode;
    char *buf;
    size_t n;
    const char *fmt;
    template <class... T>
    int operator()(T... v) const {
        switch (mode) {
        case FZ_AT: return at_snprintf(buf, n, fmt, v...);
        case FZ_AT_V: return fz_vcall(buf, n, fmt, v...);
        default: return snprintf(buf, n, fmt, v...);
        }
    }
};

// Passes the four arguments, each as the type its kind names.
template <class... T>
int fz_apply(const fz_sink &s, const fz_arg *a, T... done) {
    if constexpr (sizeof...(T) == FZ_MAX_ARGS) {
        return s(done...);
    } else {
        const fz_arg &x = a[sizeof...(T)];
        switch (x.kind) {
        case K_INT: return fz_apply(s, a, done..., x.i);
        case K_UINT: return fz_apply(s, a, done..., x.u);
        case K_LONG: return fz_apply(s, a, done..., x.l);
        case K_ULONG: return fz_apply(s, a, done..., x.ul);
        case K_LLONG: return fz_apply(s, a, done..., x.ll);
        case K_ULLONG: return fz_apply(s, a, done..., x.ull);
        default: return fz_apply(s, a, done..., x.p);
        }
    }
}

int fz_run(fz_mode mode, const fz_call_t &c, char *buf, size_t n) {
    bool at = mode != FZ_LIBC;
    fz_sink s{mode, buf, n, at ? c.fmt_at.c_str() : c.fmt_ref.c_str()};
    return fz_apply(s, at ? c.at : c.ref);
}

// ---- references of the address conversions -------------------------------------

std::string ref_ipv4(uint32_t v) {
    unsigned char b[4];
    std::memcpy(b, &v, sizeof b);
    char text[16];
    snprintf(text, sizeof text, "%03u.%03u.%03u.%03u", b[0], b[1], b[2], b[3]);
    return text;
}

// The C library's text, except that an IPv4-compatible address (first 12
// bytes zero, group 6 not) stays hex, and an ISATAP interface id (0000:5efe
// or 0200:5efe) also gets the dotted tail: its first six groups are printed
// with the last two set to ones, which cannot join a zero run.
std::string ref_ipv6(const unsigned char a[16]) {
    char text[INET6_ADDRSTRLEN];
    static const unsigned char zero12[12] = {0};
    unsigned w4 = a[8] << 8 | a[9], w5 = a[10] << 8 | a[11];
    unsigned w6 = a[12] << 8 | a[13], w7 = a[14] << 8 | a[15];
    if (std::memcmp(a, zero12, 12) == 0 && w6 != 0) {
        snprintf(text, sizeof text, "::%x:%x", w6, w7);
        return text;
    }
    if (!((w4 == 0 || w4 == 0x0200) && w5 == 0x5efe)) {
        inet_ntop(AF_INET6, a, text, sizeof text);
        return text;
    }
    unsigned char head[16];
    std::memcpy(head, a, 12);
    std::memset(head + 12, 0xff, 4);
    inet_ntop(AF_INET6, head, text, sizeof text);
    std::string s(text);
    s.resize(s.size() - std::strlen(":ffff:ffff"));
    char tail[20];
    snprintf(tail, sizeof tail, ":%u.%u.%u.%u", a[12], a[13], a[14], a[15]);
    return s + tail;
}

// ---- building the call ---------------------------------------------------------

void add_literal(fz_call_t &c, fz_in_t &in) {
    for (int k = in.byte() % 9; k > 0; --k) {
        char ch = static_cast<char>(in.byte());
        if (ch == '\0') continue;
        const char *text = ch == '%' ? "%%" : nullptr;
        c.fmt_at += text ? text : std::string(1, ch);
        c.fmt_ref += text ? text : std::string(1, ch);
    }
}

void flags_of(uint8_t bits, std::string &out) {
    static const char kFlags[] = "-+ #0";
    for (int k = 0; k < 5; ++k)
        if (bits & (1u << k)) out += kFlags[k];
}

int small_num(fz_in_t &in) { return in.u16() % FZ_MAX_NUM; }

// Flags, width and precision; '*' fields go to *stars with their values.
struct fz_spec_t {
    std::string text;
    int stars = 0;
    int star_val[2] = {};
    int prec = -1;  // the precision the conversion ends up with, -1 none
};

fz_spec_t make_spec(fz_in_t &in) {
    fz_spec_t s;
    flags_of(in.byte(), s.text);
    switch (in.byte() % 4) {
    case 1: s.text += std::to_string(1 + small_num(in) % (FZ_MAX_NUM - 1)); break;
    case 2: {
        s.text += '*';
        int v = static_cast<int16_t>(in.u16()) % FZ_MAX_NUM;
        s.star_val[s.stars++] = v;
        break;
    }
    default: break;
    }
    switch (in.byte() % 5) {
    case 1: s.prec = small_num(in); s.text += "." + std::to_string(s.prec); break;
    case 2: s.prec = 0; s.text += "."; break;
    case 3: {
        s.text += ".*";
        uint8_t b = in.byte();
        int v = b == 0xff ? INT_MIN : static_cast<int8_t>(b) * 4;
        s.prec = v < 0 ? -1 : v;
        s.star_val[s.stars++] = v;
        break;
    }
    default: break;
    }
    return s;
}

const char *const kLens[] = {"", "hh", "h", "l", "ll", "z", "j", "t"};

// Unknown to the formatter, so copied as written; the C library sees it escaped.
void add_unknown(fz_call_t &c, fz_in_t &in, bool at_end) {
    static const char kUnknown[] = "fFeEgGAnmqkwyLbBCSZ!&_~";
    fz_spec_t s = make_spec(in);
    std::string text = "%" + s.text + kLens[in.byte() % 8];
    if (!at_end) text += kUnknown[in.byte() % (sizeof kUnknown - 1)];
    c.fmt_at += text;
    c.fmt_ref += "%" + text;
}

fz_arg int_arg(fz_kind k, uint64_t v) {
    fz_arg a;
    a.kind = k;
    switch (k) {
    case K_INT: a.i = static_cast<int>(v); break;
    case K_UINT: a.u = static_cast<unsigned>(v); break;
    case K_LONG: a.l = static_cast<long>(v); break;
    case K_ULONG: a.ul = static_cast<unsigned long>(v); break;
    case K_LLONG: a.ll = static_cast<long long>(v); break;
    default: a.ull = v; break;
    }
    return a;
}

fz_arg ptr_arg(const void *p) {
    fz_arg a;
    a.kind = K_PTR;
    a.p = p;
    return a;
}

// The value of a conversion as the formatter and as the C library take it.
void add_value(fz_call_t &c, fz_in_t &in, char conv, int len, const fz_spec_t &s) {
    bool is_signed = conv == 'd' || conv == 'i';
    switch (conv) {
    case 'c': {
        fz_arg a = int_arg(K_INT, in.u32());
        c.push(a, a);
        return;
    }
    case 's': {
        uint8_t sel = in.byte();
        if (sel % 16 == 0) return c.push(ptr_arg(nullptr), ptr_arg(nullptr));
        size_t n = in.byte() % 48;
        char bytes[48];
        for (size_t k = 0; k < n; ++k) bytes[k] = static_cast<char>(in.byte());
        // With a precision no longer than the bytes, the formatter gets them
        // unterminated. The C library gets a terminated copy: the sanitizer's
        // check of its arguments reads one byte past the precision.
        bool open = (sel & 0x10) && s.prec >= 0 && static_cast<size_t>(s.prec) <= n;
        const char *p = c.keep(bytes, n, !open);
        return c.push(ptr_arg(p), ptr_arg(open ? c.keep(bytes, n, true) : p));
    }
    case 'p': {
        uint64_t v = in.byte() % 8 == 0 ? 0 : in.u64();
        const void *p = reinterpret_cast<const void *>(static_cast<uintptr_t>(v));
        return c.push(ptr_arg(p), ptr_arg(p));
    }
    case 'a': {
        uint32_t v = in.u32();
        std::string text = ref_ipv4(v);
        return c.push(int_arg(K_UINT, v), ptr_arg(c.keep(text.data(), text.size(), true)));
    }
    case 'v': {
        if (in.byte() % 16 == 0) return c.push(ptr_arg(nullptr), ptr_arg(nullptr));
        unsigned char addr[16];
        for (unsigned char &b : addr) b = in.byte();
        std::string text = ref_ipv6(addr);
        return c.push(ptr_arg(c.keep(addr, sizeof addr, false)),
                      ptr_arg(c.keep(text.data(), text.size(), true)));
    }
    default: break;
    }
    // Integers: hh, h and none read an int; l, z, j and t a long; ll a long long.
    static const fz_kind kSigned[] = {K_INT, K_INT, K_INT, K_LONG, K_LLONG, K_LONG, K_LONG, K_LONG};
    static const fz_kind kUnsigned[] = {K_UINT,   K_UINT,  K_UINT,  K_ULONG,
                                        K_ULLONG, K_ULONG, K_ULONG, K_ULONG};
    fz_arg a = int_arg(is_signed ? kSigned[len] : kUnsigned[len], in.u64());
    c.push(a, a);
}

// False when the conversion's arguments would pass the limit (nothing added).
bool add_conversion(fz_call_t &c, fz_in_t &in) {
    static const char kConvs[] = "diuxXocspav";
    char conv = kConvs[in.byte() % (sizeof kConvs - 1)];
    fz_spec_t s = make_spec(in);
    bool is_int = std::strchr("diuxXo", conv) != nullptr;
    bool is_addr = conv == 'a' || conv == 'v';
    int len = is_int || is_addr ? in.byte() % 8 : 0;
    if (c.nargs + s.stars + 1 > FZ_MAX_ARGS) return false;
    c.fmt_at += "%" + s.text + kLens[len] + conv;
    // The addresses are laid out as a %s of their text.
    c.fmt_ref += "%" + s.text + (is_addr ? std::string("s") : kLens[len] + std::string(1, conv));
    for (int k = 0; k < s.stars; ++k) {
        fz_arg a = int_arg(K_INT, static_cast<uint32_t>(s.star_val[k]));
        c.push(a, a);
    }
    add_value(c, in, conv, len, s);
    return true;
}

void build(fz_call_t &c, fz_in_t &in) {
    for (int piece = 0; piece < FZ_MAX_PIECES && !in.empty(); ++piece) {
        switch (in.byte() % 10) {
        case 0:
        case 1: add_literal(c, in); break;
        case 2:
            c.fmt_at += "%%";
            c.fmt_ref += "%%";
            break;
        case 3: add_unknown(c, in, false); break;
        case 4: add_unknown(c, in, true); return;  // cut off: ends the format
        default:
            if (!add_conversion(c, in)) return;
            break;
        }
    }
}

// ---- checks ----------------------------------------------------------------------

enum { FZ_BIG = 16384 };

const char *check_bounded(const fz_call_t &c, const char *big, int len) {
    const size_t sizes[] = {0, 1, 7, 64, 1024, static_cast<size_t>(len),
                            static_cast<size_t>(len) + 1};
    for (size_t n : sizes) {
        fz_mode mode = n % 2 ? FZ_AT_V : FZ_AT;
        if (n == 0) {
            char sentinel = 'S';
            if (fz_run(mode, c, nullptr, 0) != len) return "length with no buffer";
            if (fz_run(mode, c, &sentinel, 0) != len || sentinel != 'S')
                return "size 0 wrote or changed the length";
            continue;
        }
        // Exactly n bytes, so a write past the end is caught.
        std::unique_ptr<char[]> buf(new char[n]);
        std::memset(buf.get(), 'S', n);
        if (fz_run(mode, c, buf.get(), n) != len) return "bounded call changed the length";
        size_t kept = std::min(static_cast<size_t>(len), n - 1);
        if (buf[kept] != '\0') return "bounded text not terminated";
        if (std::memcmp(buf.get(), big, kept) != 0) return "bounded text differs";
    }
    return nullptr;
}

}  // namespace

const char *fuzz_format_one(const uint8_t *data, size_t size) {
    fz_in_t in{data, size};
    fz_call_t c;
    build(c, in);

    std::vector<char> big(FZ_BIG), ref(FZ_BIG), viav(FZ_BIG);
    int len = fz_run(FZ_AT, c, big.data(), big.size());
    if (len < 0 || len >= FZ_BIG - 1) return "length out of range";
    if (big[len] != '\0') return "text not terminated";
    if (fz_run(FZ_AT_V, c, viav.data(), viav.size()) != len ||
        std::memcmp(viav.data(), big.data(), len) != 0)
        return "va_list entry differs";
    int ref_len = fz_run(FZ_LIBC, c, ref.data(), ref.size());
    if (ref_len != len) return "length differs from the C library";
    if (std::memcmp(ref.data(), big.data(), len) != 0) return "text differs from the C library";
    return check_bounded(c, big.data(), len);
}
