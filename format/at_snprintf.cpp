#include "format/at_snprintf.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace {

// Bounded sink: counts every byte, stores only what fits before the final NUL.
struct Out {
    char *buf;
    size_t size;
    size_t len = 0;

    void put(char c)
    {
        if (len + 1 < size)
            buf[len] = c;
        ++len;
    }
    void put(const char *s, size_t n)
    {
        for (size_t i = 0; i < n; ++i)
            put(s[i]);
    }
    void fill(char c, size_t n)
    {
        for (size_t i = 0; i < n; ++i)
            put(c);
    }
};

// The callee-side va_list is wrapped so helpers can take it by reference
// (va_list is an array type on some ABIs and does not pass cleanly).
struct Args {
    va_list ap;
};

enum class Len { none, hh, h, l, ll, z, j, t };

struct Conversion {
    bool minus = false, plus = false, space = false, hash = false, zero = false;
    size_t width = 0;
    int prec = -1; // -1: no precision given
    Len len = Len::none;
    char conv = 0;
};

using ssize_type = std::make_signed_t<size_t>;
using uptrdiff_type = std::make_unsigned_t<ptrdiff_t>;

int parse_num(const char *&p)
{
    long long v = 0;
    while (*p >= '0' && *p <= '9') {
        v = v * 10 + (*p++ - '0');
        if (v > INT_MAX)
            v = INT_MAX; // keep reading the digits, clamp the value
    }
    return static_cast<int>(v);
}

size_t pad_for(size_t width, size_t body)
{
    return width > body ? width - body : 0;
}

void emit_text(Out &out, const Conversion &cv, const char *s, size_t n)
{
    size_t pad = pad_for(cv.width, n);
    // '0' pads strings with spaces, as glibc does.
    if (!cv.minus)
        out.fill(' ', pad);
    out.put(s, n);
    if (cv.minus)
        out.fill(' ', pad);
}

// Length of s, reading at most `prec` bytes when a precision is given:
// the argument need not be NUL-terminated then.
size_t bounded_len(const char *s, int prec)
{
    if (prec < 0)
        return strlen(s);
    const void *end = memchr(s, '\0', static_cast<size_t>(prec));
    return end ? static_cast<size_t>(static_cast<const char *>(end) - s) : static_cast<size_t>(prec);
}

void emit_string(Out &out, const Conversion &cv, const char *s)
{
    if (!s) {
        // glibc prints "(null)" only when the precision lets it through whole.
        static const char null_text[] = "(null)";
        if (cv.prec < 0 || cv.prec >= static_cast<int>(sizeof null_text - 1))
            emit_text(out, cv, null_text, sizeof null_text - 1);
        else
            emit_text(out, cv, "", 0);
        return;
    }
    emit_text(out, cv, s, bounded_len(s, cv.prec));
}

// signed_conv: the '+' and ' ' flags apply (d, i, and p as glibc does it).
void emit_number(Out &out, const Conversion &cv, uintmax_t mag, bool neg, unsigned base, bool upper,
                 bool signed_conv, bool pointer)
{
    const char *digit_set = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    char digits[sizeof(uintmax_t) * CHAR_BIT / 3 + 2];
    char *end = digits + sizeof digits;
    char *d = end;
    if (!(mag == 0 && cv.prec == 0)) {
        do {
            *--d = digit_set[mag % base];
            mag /= base;
        } while (mag);
    }
    size_t ndigits = static_cast<size_t>(end - d);

    size_t prec = cv.prec < 0 ? 1 : static_cast<size_t>(cv.prec);
    // '#' with o: the first digit must be a zero, which may take one more digit.
    if (base == 8 && cv.hash && (ndigits == 0 || *d != '0') && prec <= ndigits)
        prec = ndigits + 1;

    char prefix[3];
    size_t nprefix = 0;
    if (signed_conv) {
        if (neg)
            prefix[nprefix++] = '-';
        else if (cv.plus)
            prefix[nprefix++] = '+';
        else if (cv.space)
            prefix[nprefix++] = ' ';
    }
    if (base == 16 && (pointer || (cv.hash && ndigits && *d != '0'))) {
        prefix[nprefix++] = '0';
        prefix[nprefix++] = upper ? 'X' : 'x';
    }

    size_t zeros = prec > ndigits ? prec - ndigits : 0;
    size_t body = nprefix + zeros + ndigits;
    size_t pad = pad_for(cv.width, body);
    // An explicit precision turns the '0' flag off for integers.
    if (cv.zero && !cv.minus && cv.prec < 0) {
        zeros += pad;
        pad = 0;
    }
    if (!cv.minus)
        out.fill(' ', pad);
    out.put(prefix, nprefix);
    out.fill('0', zeros);
    out.put(d, ndigits);
    if (cv.minus)
        out.fill(' ', pad);
}

intmax_t fetch_signed(Args &a, Len len)
{
    switch (len) {
    case Len::hh: return static_cast<signed char>(va_arg(a.ap, int));
    case Len::h:  return static_cast<short>(va_arg(a.ap, int));
    case Len::l:  return va_arg(a.ap, long);
    case Len::ll: return va_arg(a.ap, long long);
    case Len::z:  return va_arg(a.ap, ssize_type);
    case Len::j:  return va_arg(a.ap, intmax_t);
    case Len::t:  return va_arg(a.ap, ptrdiff_t);
    case Len::none: break;
    }
    return va_arg(a.ap, int);
}

uintmax_t fetch_unsigned(Args &a, Len len)
{
    switch (len) {
    case Len::hh: return static_cast<unsigned char>(va_arg(a.ap, unsigned));
    case Len::h:  return static_cast<unsigned short>(va_arg(a.ap, unsigned));
    case Len::l:  return va_arg(a.ap, unsigned long);
    case Len::ll: return va_arg(a.ap, unsigned long long);
    case Len::z:  return va_arg(a.ap, size_t);
    case Len::j:  return va_arg(a.ap, uintmax_t);
    case Len::t:  return va_arg(a.ap, uptrdiff_type);
    case Len::none: break;
    }
    return va_arg(a.ap, unsigned);
}

// Writes 0..255 as exactly three digits.
char *put_byte3(char *p, unsigned char b)
{
    *p++ = static_cast<char>('0' + b / 100);
    *p++ = static_cast<char>('0' + b / 10 % 10);
    *p++ = static_cast<char>('0' + b % 10);
    return p;
}

// Writes 0..255 in plain decimal.
char *put_byte(char *p, unsigned char b)
{
    if (b >= 100)
        *p++ = static_cast<char>('0' + b / 100);
    if (b >= 10)
        *p++ = static_cast<char>('0' + b / 10 % 10);
    *p++ = static_cast<char>('0' + b % 10);
    return p;
}

// %a: the bytes as they lie in memory, so a network-order address reads naturally.
size_t format_ipv4_padded(char *out, unsigned value)
{
    uint32_t v = value;
    unsigned char b[4];
    memcpy(b, &v, sizeof b);
    char *p = out;
    for (int i = 0; i < 4; ++i) {
        if (i)
            *p++ = '.';
        p = put_byte3(p, b[i]);
    }
    return static_cast<size_t>(p - out);
}

// Hex groups [0, n) of an address, the longest run (>= 2) of zero groups
// written as "::" (the first one wins a tie).
char *put_ipv6_groups(char *p, const unsigned w[8], int n)
{
    int best = -1, best_len = 0;
    for (int i = 0; i < n;) {
        if (w[i]) {
            ++i;
            continue;
        }
        int j = i;
        while (j < n && w[j] == 0)
            ++j;
        if (j - i > best_len) {
            best = i;
            best_len = j - i;
        }
        i = j;
    }
    if (best_len < 2)
        best = -1;

    static const char hex[] = "0123456789abcdef";
    for (int i = 0; i < n; ++i) {
        if (best >= 0 && i >= best && i < best + best_len) {
            if (i == best)
                *p++ = ':';
            continue;
        }
        if (i)
            *p++ = ':';
        bool started = false;
        for (int shift = 12; shift >= 0; shift -= 4) {
            unsigned nib = w[i] >> shift & 0xf;
            if (nib || started || shift == 0) {
                *p++ = hex[nib];
                started = true;
            }
        }
    }
    if (best >= 0 && best + best_len == n)
        *p++ = ':';
    return p;
}

// Only IPv4-mapped (::ffff:a.b.c.d) and ISATAP (interface id 0000:5efe or
// 0200:5efe) addresses carry an IPv4 address in their last 32 bits. The
// deprecated compatible form (::a.b.c.d) stays hex, so ::a00:1 is not read as
// an IPv4 peer.
bool ipv6_has_dotted_tail(const unsigned w[8])
{
    if (!w[0] && !w[1] && !w[2] && !w[3] && !w[4] && w[5] == 0xffff)
        return true;
    return (w[4] == 0 || w[4] == 0x0200) && w[5] == 0x5efe;
}

// %v: compressed IPv6 text, lower-case hex, the longest zero run as "::", and
// a dotted tail for mapped and ISATAP addresses. Needs 46 bytes of
// room; returns the length.
size_t format_ipv6(char *out, const unsigned char *a)
{
    unsigned w[8];
    for (int i = 0; i < 8; ++i)
        w[i] = static_cast<unsigned>(a[2 * i] << 8 | a[2 * i + 1]);
    if (!ipv6_has_dotted_tail(w))
        return static_cast<size_t>(put_ipv6_groups(out, w, 8) - out);

    char *p = put_ipv6_groups(out, w, 6);
    if (p[-1] != ':')
        *p++ = ':';
    for (int k = 12; k < 16; ++k) {
        if (k > 12)
            *p++ = '.';
        p = put_byte(p, a[k]);
    }
    return static_cast<size_t>(p - out);
}

// Reads one conversion starting just after '%'. Returns false for an unknown
// conversion; `*` arguments are only fetched once the conversion is known, so
// an unknown one leaves the argument list untouched.
bool parse_conversion(const char *&p, Conversion &cv, bool &width_star, bool &prec_star)
{
    for (;; ++p) {
        switch (*p) {
        case '-': cv.minus = true; continue;
        case '+': cv.plus = true; continue;
        case ' ': cv.space = true; continue;
        case '#': cv.hash = true; continue;
        case '0': cv.zero = true; continue;
        default: break;
        }
        break;
    }
    if (*p == '*') {
        width_star = true;
        ++p;
    } else {
        cv.width = static_cast<size_t>(parse_num(p));
    }
    if (*p == '.') {
        ++p;
        if (*p == '*') {
            prec_star = true;
            ++p;
        } else {
            cv.prec = parse_num(p);
        }
    }
    switch (*p) {
    case 'h':
        cv.len = Len::h;
        if (*++p == 'h') {
            cv.len = Len::hh;
            ++p;
        }
        break;
    case 'l':
        cv.len = Len::l;
        if (*++p == 'l') {
            cv.len = Len::ll;
            ++p;
        }
        break;
    case 'z': cv.len = Len::z; ++p; break;
    case 'j': cv.len = Len::j; ++p; break;
    case 't': cv.len = Len::t; ++p; break;
    default: break;
    }
    cv.conv = *p;
    return cv.conv != '\0' && strchr("diuxXocspav%", cv.conv) != nullptr;
}

void convert(Out &out, Conversion &cv, Args &args)
{
    switch (cv.conv) {
    case '%':
        out.put('%');
        return;
    case 'd':
    case 'i': {
        intmax_t v = fetch_signed(args, cv.len);
        uintmax_t mag = v < 0 ? 0 - static_cast<uintmax_t>(v) : static_cast<uintmax_t>(v);
        emit_number(out, cv, mag, v < 0, 10, false, true, false);
        return;
    }
    case 'u':
        emit_number(out, cv, fetch_unsigned(args, cv.len), false, 10, false, false, false);
        return;
    case 'o':
        emit_number(out, cv, fetch_unsigned(args, cv.len), false, 8, false, false, false);
        return;
    case 'x':
    case 'X':
        emit_number(out, cv, fetch_unsigned(args, cv.len), false, 16, cv.conv == 'X', false, false);
        return;
    case 'c': {
        char c = static_cast<char>(va_arg(args.ap, int));
        emit_text(out, cv, &c, 1);
        return;
    }
    case 's':
        emit_string(out, cv, va_arg(args.ap, const char *));
        return;
    case 'p': {
        const void *ptr = va_arg(args.ap, const void *);
        if (!ptr) {
            // Always whole, whatever the precision.
            emit_text(out, cv, "(nil)", 5);
            return;
        }
        emit_number(out, cv, reinterpret_cast<uintptr_t>(ptr), false, 16, false, true, true);
        return;
    }
    case 'a': {
        char text[16];
        size_t n = format_ipv4_padded(text, va_arg(args.ap, unsigned));
        text[n] = '\0';
        emit_string(out, cv, text);
        return;
    }
    case 'v': {
        const unsigned char *addr = va_arg(args.ap, const unsigned char *);
        if (!addr) {
            emit_string(out, cv, nullptr);
            return;
        }
        char text[48];
        text[format_ipv6(text, addr)] = '\0';
        emit_string(out, cv, text);
        return;
    }
    default:
        return;
    }
}

} // namespace

int at_vsnprintf(char *buf, size_t size, const char *fmt, va_list ap)
{
    Out out{buf, size};
    Args args;
    va_copy(args.ap, ap);

    const char *p = fmt;
    while (*p) {
        if (*p != '%') {
            out.put(*p++);
            continue;
        }
        const char *start = p++;
        Conversion cv;
        bool width_star = false, prec_star = false;
        if (!parse_conversion(p, cv, width_star, prec_star)) {
            // Copy the unknown conversion as written.
            if (*p)
                ++p;
            out.put(start, static_cast<size_t>(p - start));
            continue;
        }
        ++p;
        if (width_star) {
            int w = va_arg(args.ap, int);
            if (w < 0) {
                cv.minus = true;
                cv.width = static_cast<size_t>(-static_cast<long long>(w));
            } else {
                cv.width = static_cast<size_t>(w);
            }
        }
        if (prec_star) {
            int pr = va_arg(args.ap, int);
            cv.prec = pr < 0 ? -1 : pr; // a negative precision counts as none
        }
        convert(out, cv, args);
    }
    va_end(args.ap);

    if (size > 0)
        buf[out.len < size ? out.len : size - 1] = '\0';
    return out.len > static_cast<size_t>(INT_MAX) ? -1 : static_cast<int>(out.len);
}

int at_snprintf(char *buf, size_t size, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int n = at_vsnprintf(buf, size, fmt, ap);
    va_end(ap);
    return n;
}
