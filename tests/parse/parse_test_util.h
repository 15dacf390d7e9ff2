// Wire-record builders, error-row deltas and log capture for the parser tests.
#pragma once
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <map>
#include <string>

#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_msg_parse.h"

// Rows of the error statistics table that moved, with how far.
using RowDelta = std::map<int, uint32_t>;

struct RowSnapshot {
    std::array<uint32_t, CE_ERR_ROWS> count{};
    RowSnapshot() {
        for (int i = 0; i < CE_ERR_ROWS; ++i) count[i] = ce_l3vpn_err_tbl[i].count;
    }
    RowDelta delta() const {
        RowDelta d;
        for (int i = 0; i < CE_ERR_ROWS; ++i)
            if (ce_l3vpn_err_tbl[i].count != count[i]) d[i] = ce_l3vpn_err_tbl[i].count - count[i];
        return d;
    }
};

// Everything the daemon logs while alive, at DEBUG, as the zlog lines on stderr.
struct LogCapture {
    LogCapture() {
        ce_l3vpn_zlog_handle = 1;
        ce_l3vpn_dbg_level = CE_L3VPN_DEBUG;
        testing::internal::CaptureStderr();
    }
    std::string text() { return testing::internal::GetCapturedStderr(); }
};

inline uint32_t v4_word(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
    const uint8_t bytes[4] = {a, b, c, d};
    uint32_t w;
    memcpy(&w, bytes, 4);
    return w;
}
inline void v6_bytes(uint8_t *ip, uint8_t seed) {
    for (int i = 0; i < 16; ++i) ip[i] = static_cast<uint8_t>(seed + i);
}

enum class A { Null, Unset, V4, V4Missing, V6, V6Missing, V4b };

// One p_libpub.ip with its members; not movable (the record points into itself).
struct Addr {
    PLibpub__Ip ip = P_LIBPUB__IP__INIT;
    PLibpub__Ipv4 v4 = P_LIBPUB__IPV4__INIT;
    PLibpub__Ipv6 v6 = P_LIBPUB__IPV6__INIT;
    PLibpub__Ipv4b v4b = P_LIBPUB__IPV4B__INIT;
    uint8_t bytes[17] = {};
    Addr() = default;
    Addr(const Addr &) = delete;

    // word: the IPv4 value, or the seed of the 16-byte pattern; len: bytes given.
    PLibpub__Ip *set(A kind, uint32_t word = 0, size_t len = 16) {
        PLibpub__Ip fresh = P_LIBPUB__IP__INIT;
        ip = fresh;
        v6_bytes(bytes, static_cast<uint8_t>(word));
        v4.data = word;
        v6.data = v4b.data = {len, len ? bytes : nullptr};
        switch (kind) {
        case A::Null: return nullptr;
        case A::Unset: break;
        case A::V4: ip.addr_case = P_LIBPUB__IP__ADDR_V4; ip.v4 = &v4; break;
        case A::V4Missing: ip.addr_case = P_LIBPUB__IP__ADDR_V4; ip.v4 = nullptr; break;
        case A::V6: ip.addr_case = P_LIBPUB__IP__ADDR_V6; ip.v6 = &v6; break;
        case A::V6Missing: ip.addr_case = P_LIBPUB__IP__ADDR_V6; ip.v6 = nullptr; break;
        case A::V4b: ip.addr_case = P_LIBPUB__IP__ADDR_V4B; ip.v4b = &v4b; break;
        }
        return &ip;
    }
};
