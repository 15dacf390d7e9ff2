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

namespace {

// Formats at several buffer sizes (none, 1, mid-text, exact, roomy) and checks
// the text, the returned full length, the NUL and that nothing past it is written.
template <typename... T>
void check(const std::string &want, const char *fmt, T... args)
{
    SCOPED_TRACE(fmt);
    const int n = static_cast<int>(want.size());
    EXPECT_EQ(at_snprintf(nullptr, 0, fmt, args...), n);
    for (size_t size : {size_t{0}, size_t{1}, want.size() / 2, want.size(), want.size() + 1, size_t{300}}) {
        char got[320];
        memset(got, 'Z', sizeof got);
        ASSERT_EQ(at_snprintf(got, size, fmt, args...), n) << "size " << size;
        size_t kept = size ? std::min(size - 1, want.size()) : 0;
        EXPECT_EQ(std::string(got, kept), want.substr(0, kept)) << "size " << size;
        EXPECT_TRUE(!size || got[kept] == '\0') << "size " << size;
        EXPECT_EQ(std::string(got + (size ? kept + 1 : 0), got + sizeof got).find_first_not_of('Z'),
                  std::string::npos) << "written past the end, size " << size;
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

TEST(AtSnprintf, StandardConversionsMatchLibc)
{
    for (const char *f : {"%d", "%u", "%x", "%X", "%o", "%5d", "%-5d|", "%+d", "% d", "%05d", "%-05d|", "%.3d",
                          "%.0d", "%-+8.3d|", "%08.3d", "%#x", "%#o", "%#.0o", "%#08x", "%#-8x|", "%hhd", "%hu",
                          "%c|", "%-3c|", "[%%%d %%]"})
        for (int v : {0, 1, -1, 42, 255, 256, -128, 70000, INT_MAX, INT_MIN}) same_as_libc(f, v);
    for (const char *f : {"%lld", "%llu", "%#llX", "%+25lld", "%-25lld|", "%.22lld", "%zd", "%jd", "%td"})
        for (long long v : {0LL, -1LL, LLONG_MIN, LLONG_MAX}) same_as_libc(f, v);
    for (const char *f : {"%s", "%10s|", "%-10s|", "%.2s", "%10.2s|", "%.0s", "<%s>"})
        for (const char *v : {"", "hello", "longer text here", static_cast<const char *>(nullptr)}) same_as_libc(f, v);
    for (const char *f : {"%p", "%20p|", "%-20p|", "%.20p", "%+p"})
        for (uintptr_t v : {uintptr_t{0}, uintptr_t{0x1234}, UINTPTR_MAX}) same_as_libc(f, reinterpret_cast<void *>(v));
    const char unterminated[3] = {'a', 'b', 'c'};  // precision must stop the read
    check("ab", "%.2s", unterminated);
    same_as_libc("%*d|%-*d|%.*d|%*.*s|", -5, 42, 6, -1, -1, 42, 8, 2, "hello");
}

TEST(AtSnprintf, UnknownConversionsAreCopiedAndTakeNoArgument)
{
    check("%y 5", "%y %d", 5);
    check("%*y9", "%*y%d", 9);
    check("%f %n %q 3", "%f %n %q %d", 3);
    check("[%] 1", "[%5%] %d", 1);  // width on %% is ignored, as glibc does
    check("tail %-3", "tail %-3", 0);
}

// %a reads the bytes in memory order: htonl puts 0xc0a80114 there as 192.168.1.20.
TEST(AtSnprintf, Ipv4KeepsLeadingZerosInMemoryOrder)
{
    struct { const char *fmt; uint32_t v; const char *want; } rows[] = {
        {"%a", htonl(0x0a000001), "010.000.000.001"},
        {"%a", 0, "000.000.000.000"},
        {"%a", 0xffffffff, "255.255.255.255"},
        {"%20a|", htonl(0xc0a80114), "     192.168.001.020|"},
        {"%-20a|", htonl(0xc0a80114), "192.168.001.020     |"},
        {"%.7a", htonl(0xc0a80114), "192.168"},
        {"%10.3a|", htonl(0xc0a80114), "       192|"},
        {"%la %hha", htonl(0x01020304), "001.002.003.004 001.002.003.004"},
    };
    for (auto &r : rows)
        check(r.want, r.fmt, r.v, r.v);  // the second copy feeds formats with two
    check("[009.008.007.006] -5", "[%a] %d", htonl(0x09080706), -5);
}

// inet_ntop's text, except that an IPv4-compatible address (first 12 bytes
// zero, group 6 not) stays hex, where inet_ntop writes it dotted.
void same_as_ntop(const unsigned char *addr)
{
    char want[INET6_ADDRSTRLEN];
    ASSERT_NE(inet_ntop(AF_INET6, addr, want, sizeof want), nullptr);
    static const unsigned char zero12[12] = {0};
    unsigned w6 = addr[12] << 8 | addr[13], w7 = addr[14] << 8 | addr[15];
    if (memcmp(addr, zero12, 12) == 0 && w6 != 0)
        snprintf(want, sizeof want, "::%x:%x", w6, w7);
    check(want, "%v", addr);
}

TEST(AtSnprintf, Ipv6MatchesInetNtop)
{
    // The well-known forms by name; the sweep below makes every other pattern.
    // Only the mapped form keeps a dotted tail here.
    struct { const char *in, *want; } rows[] = {
        {"::", "::"},
        {"::1", "::1"},
        {"::0.0.0.2", "::2"},
        {"::ffff:1.2.3.4", "::ffff:1.2.3.4"},
        {"::ffff:10.0.0.1", "::ffff:10.0.0.1"},
        {"::ffff:0.0.0.0", "::ffff:0.0.0.0"},
        {"::10.0.0.1", "::a00:1"},
        {"::1.2.3.4", "::102:304"},
        {"::1.0.0.0", "::100:0"},
        {"::0.1.0.0", "::1:0"},
        {"64:ff9b::1.2.3.4", "64:ff9b::102:304"},
    };
    for (auto &r : rows) {
        unsigned char a[16];
        ASSERT_EQ(inet_pton(AF_INET6, r.in, a), 1) << r.in;
        check(r.want, "%v", a);
        same_as_ntop(a);
    }
    // Every pattern of zero groups, with an ordinary and a ffff group 5.
    std::mt19937 rng(20240601);
    for (unsigned mask = 0; mask < 512; ++mask) {
        unsigned char a[16];
        for (int g = 0; g < 8; ++g) {
            unsigned w = (mask >> g & 1) ? 0 : 1 + rng() % 0xffff;
            if (mask >= 256 && g == 5) w = 0xffff;
            a[2 * g] = static_cast<unsigned char>(w >> 8);
            a[2 * g + 1] = static_cast<unsigned char>(w);
        }
        SCOPED_TRACE(testing::Message() << "mask " << mask);
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
    check("     ::ffff:10.0.0.1|", "%20v|", mapped);
    check("::ffff:10.0.0.1     |", "%-20v|", mapped);
    check("  ::ff|", "%6.4v|", mapped);
    check("  (null)|", "%8v|", static_cast<const unsigned char *>(nullptr));
    check("at 010.000.000.001 via ::ffff:10.0.0.1 x", "at %a via %v %s", htonl(0x0a000001), mapped, "x");
}

} // namespace
