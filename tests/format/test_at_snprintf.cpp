#include "format/at_snprintf.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <sys/types.h>

namespace {

constexpr char kUntouched = '\x5a';

// Formats at several buffer sizes (none, 1, mid-text, exact, roomy) and checks
// the text, the returned full length, the NUL and that nothing past it is written.
template <typename... T>
void check(const std::string &want, const char *fmt, T... args)
{
    SCOPED_TRACE(fmt);
    const int n = static_cast<int>(want.size());
    EXPECT_EQ(at_snprintf(nullptr, 0, fmt, args...), n);
    for (size_t size : {size_t{0}, size_t{1}, size_t{2}, want.size() / 2, want.size(),
                        want.size() + 1, size_t{300}}) {
        char got[320];
        memset(got, kUntouched, sizeof got);
        ASSERT_EQ(at_snprintf(got, size, fmt, args...), n) << "size " << size;
        size_t kept = size ? std::min(size - 1, want.size()) : 0;
        EXPECT_EQ(std::string(got, kept), want.substr(0, kept)) << "size " << size;
        if (size) {
            EXPECT_EQ(got[kept], '\0') << "size " << size;
        }
        for (size_t i = size ? kept + 1 : 0; i < sizeof got; ++i) {
            if (got[i] != kUntouched) {
                ADD_FAILURE() << "byte " << i << " written, size " << size;
                break;
            }
        }
    }
}

template <typename... T>
void same_as_libc(const char *fmt, T... args)
{
    char want[300];
    int n = snprintf(want, sizeof want, fmt, args...);
    ASSERT_TRUE(n >= 0 && n < static_cast<int>(sizeof want)) << fmt;
    check(std::string(want, static_cast<size_t>(n)), fmt, args...);
}

// Every format of the table against every value.
template <typename V, size_t NF, size_t NV>
void cross(const char *const (&fmts)[NF], const V (&vals)[NV])
{
    for (const char *f : fmts)
        for (V v : vals) {
            SCOPED_TRACE(testing::Message() << "value " << v);
            same_as_libc(f, v);
        }
}

TEST(AtSnprintf, IntegersMatchLibc)
{
    const char *const fmts[] = {
        "%d", "%i", "%u", "%x", "%X", "%o", "%5d", "%-5d|", "%+d", "% d", "%+ d", "%05d",
        "%-05d|", "%+05d", "% 05d", "%.3d", "%.0d", "%8.3d", "%-+8.3d|", "%08.3d", "%.0u",
        "%#x", "%#X", "%#o", "%#.0o", "%#.0x", "%#08x", "%#8.3o", "%#-8x|", "%+u", "%hhd",
        "%hhu", "%hd", "%hu", "%hhx", "%c|", "%3c|", "%-3c|", "%05c", "[%%%d %%]", "a%db"};
    const int vals[] = {0, 1, -1, 7, 8, 42, -42, 255, 256, -128, 65535, 70000, INT_MAX, INT_MIN};
    cross(fmts, vals);
}

TEST(AtSnprintf, WideIntegersMatchLibc)
{
    const char *const lf[] = {"%ld", "%lu", "%lx", "%+ld", "%020ld", "%lo", "%-22li|"};
    const long lv[] = {0, -5, LONG_MIN, LONG_MAX};
    cross(lf, lv);
    const char *const llf[] = {"%lld", "%lli", "%llu", "%llx", "%#llX", "%#llo", "%+25lld",
                               "%-25lld|", "%.22lld", "% lld", "%025lld"};
    const long long llv[] = {0, -1, 1234567890123LL, LLONG_MIN, LLONG_MAX};
    cross(llf, llv);
    const char *const uf[] = {"%llu", "%llx", "%#llo", "%30llu", "%.0llu"};
    const unsigned long long uv[] = {0, 1ULL << 63, UINT64_MAX};
    cross(uf, uv);
    const char *const zf[] = {"%zu", "%zx", "%12zu"};
    const size_t zv[] = {0, 4096, SIZE_MAX};
    cross(zf, zv);
    const char *const sf[] = {"%zd", "%+zd"};
    const ssize_t sv[] = {-1, 5, SSIZE_MAX};
    cross(sf, sv);
    const char *const jf[] = {"%jd", "%jx", "%ju", "% jd"};
    const intmax_t jv[] = {0, INTMAX_MIN, INTMAX_MAX};
    cross(jf, jv);
    const char *const tf[] = {"%td", "%tx", "%-8td|"};
    const ptrdiff_t tv[] = {-3, 0, PTRDIFF_MAX, PTRDIFF_MIN};
    cross(tf, tv);
}

TEST(AtSnprintf, StringsAndPointersMatchLibc)
{
    const char *const sf[] = {"%s", "%10s|", "%-10s|", "%.2s", "%10.2s|", "%-6.3s|",
                              "%.0s", "%05s", "%.6s", "<%s>"};
    const char *const sv[] = {"", "a", "hello", "longer text here", nullptr};
    cross(sf, sv);
    int local = 0;
    const char *const pf[] = {"%p", "%20p|", "%-20p|", "%.20p", "%020p", "%+p", "% p", "%.2p"};
    void *const pv[] = {nullptr, reinterpret_cast<void *>(0x1234), &local,
                        reinterpret_cast<void *>(UINTPTR_MAX)};
    cross(pf, pv);
    const char unterminated[3] = {'a', 'b', 'c'}; // precision must stop the read
    check("ab", "%.2s", unterminated);
}

TEST(AtSnprintf, StarArgumentsMatchLibc)
{
    struct { const char *fmt; int a; int b; } two[] = {
        {"%*d|", 5, 42},  {"%*d|", -5, 42}, {"%*d|", 0, 42},  {"%-*d|", 6, -1},
        {"%.*d", 4, 42},  {"%.*d", -1, 42}, {"%.*d", 0, 0},   {"%0*d", 7, -3},
        {"%*x|", 12, 255}, {"%.*o", 0, 0},
    };
    for (auto &t : two)
        same_as_libc(t.fmt, t.a, t.b);
    struct { const char *fmt; int w; int p; int v; } three[] = {
        {"%*.*d|", 8, 3, 7}, {"%*.*d|", -8, 3, 7}, {"%-*.*x|", 6, 4, 255},
        {"%0*.*d|", 8, -1, 7}, {"%*.*d|", 3, 0, 0},
    };
    for (auto &t : three)
        same_as_libc(t.fmt, t.w, t.p, t.v);
    same_as_libc("%*.*s|", 8, 2, "hello");
    same_as_libc("%-*.*s|", 8, 3, "hello");
    same_as_libc("id=%d name=%s hex=%#x ptr=%p ch=%c %% end", 17, "vrf-a", 0xbeefu,
                 reinterpret_cast<void *>(0xdead), 'z');
}

TEST(AtSnprintf, UnknownConversionsAreCopiedAndTakeNoArgument)
{
    check("%y 5", "%y %d", 5);
    check("%-5y|7", "%-5y|%d", 7);
    check("%*y9", "%*y%d", 9);
    check("%f %n %q 3", "%f %n %q %d", 3);
    check("50%", "%d%%", 50);
    check("[%] 1", "[%5%] %d", 1); // width on %% is ignored, as glibc does
    check("tail %", "tail %", 0);
    check("tail %-3", "tail %-3", 0);
}

uint32_t ipv4_mem(unsigned char a, unsigned char b, unsigned char c, unsigned char d)
{
    const unsigned char bytes[4] = {a, b, c, d};
    uint32_t v;
    memcpy(&v, bytes, sizeof v);
    return v;
}

TEST(AtSnprintf, Ipv4KeepsLeadingZerosInMemoryOrder)
{
    check("010.000.000.001", "%a", htonl(0x0a000001));
    struct { const char *fmt; uint32_t v; const char *want; } rows[] = {
        {"%a", ipv4_mem(10, 0, 0, 1), "010.000.000.001"},
        {"%a", ipv4_mem(0, 0, 0, 0), "000.000.000.000"},
        {"%a", ipv4_mem(255, 255, 255, 255), "255.255.255.255"},
        {"%a", ipv4_mem(1, 20, 199, 9), "001.020.199.009"},
        {"%20a|", ipv4_mem(192, 168, 1, 20), "     192.168.001.020|"},
        {"%-20a|", ipv4_mem(192, 168, 1, 20), "192.168.001.020     |"},
        {"%.7a", ipv4_mem(192, 168, 1, 20), "192.168"},
        {"%10.3a|", ipv4_mem(192, 168, 1, 20), "       192|"},
        {"%5a", ipv4_mem(1, 2, 3, 4), "001.002.003.004"},
        {"%la %hha", ipv4_mem(1, 2, 3, 4), "001.002.003.004 001.002.003.004"},
    };
    for (auto &r : rows)
        check(r.want, r.fmt, r.v, r.v); // the second copy feeds formats with two
    check("[009.008.007.006] -5", "[%a] %d", ipv4_mem(9, 8, 7, 6), -5);
}

void same_as_ntop(const unsigned char *addr)
{
    char want[INET6_ADDRSTRLEN];
    ASSERT_NE(inet_ntop(AF_INET6, addr, want, sizeof want), nullptr);
    check(want, "%v", addr);
}

TEST(AtSnprintf, Ipv6MatchesInetNtop)
{
    const char *const texts[] = {
        "::", "::1", "1::", "::2", "2001:db8::1", "2001:db8:0:0:1:0:0:1", "1:0:0:1:0:0:0:1",
        "1:2:3:4:5:6:7:8", "1:0:2:3:4:5:6:7", "ffff::", "fe80::1:0:0:0", "2001:DB8::ABCD:0",
        "::ffff:1.2.3.4", "::ffff:0:0", "::ffff:0", "::ffff:0.0.0.1", "::1.2.3.4", "::0.1.0.0",
        "::1:0:0", "64:ff9b::1.2.3.4"};
    for (const char *t : texts) {
        unsigned char a[16];
        ASSERT_EQ(inet_pton(AF_INET6, t, a), 1) << t;
        SCOPED_TRACE(t);
        same_as_ntop(a);
    }
    // Every pattern of zero groups, with an ordinary and a ffff group 5.
    std::mt19937 rng(20240601);
    for (unsigned mask = 0; mask < 256; ++mask)
        for (int mapped = 0; mapped < 2; ++mapped) {
            unsigned char a[16];
            for (int g = 0; g < 8; ++g) {
                unsigned w = (mask >> g & 1) ? 0 : 1 + rng() % 0xffff;
                if (mapped && g == 5)
                    w = 0xffff;
                a[2 * g] = static_cast<unsigned char>(w >> 8);
                a[2 * g + 1] = static_cast<unsigned char>(w);
            }
            SCOPED_TRACE(testing::Message() << "mask " << mask << " mapped " << mapped);
            same_as_ntop(a);
        }
    for (int i = 0; i < 12; ++i) {
        unsigned char a[16];
        for (auto &b : a)
            b = static_cast<unsigned char>(rng());
        same_as_ntop(a);
    }
}

TEST(AtSnprintf, Ipv6TextAndLayout)
{
    unsigned char mapped[16] = {0}, isatap[16] = {0xfe, 0x80};
    mapped[10] = mapped[11] = 0xff;
    mapped[12] = 10, mapped[15] = 1;
    isatap[10] = 0x5e, isatap[11] = 0xfe, isatap[12] = 10, isatap[15] = 1;
    check("::ffff:10.0.0.1", "%v", mapped);
    // ISATAP keeps its IPv4 tail dotted, unlike inet_ntop.
    check("fe80::5efe:10.0.0.1", "%v", isatap);
    isatap[8] = 0x02;
    check("fe80::200:5efe:10.0.0.1", "%v", isatap);
    isatap[8] = 0;
    check("     ::ffff:10.0.0.1|", "%20v|", mapped);
    check("::ffff:10.0.0.1     |", "%-20v|", mapped);
    check("::ff|", "%.4v|", mapped);
    check("  ::ff|", "%6.4v|", mapped);
    check("fe80::5efe:10.0.0.1 7", "%lv %d", isatap, 7);
    check("(null)", "%v", static_cast<const unsigned char *>(nullptr));
    check("  (null)|", "%8v|", static_cast<const unsigned char *>(nullptr));
    check("at 010.000.000.001 via ::ffff:10.0.0.1 x", "at %a via %v %s", ipv4_mem(10, 0, 0, 1),
          mapped, "x");
}

} // namespace
