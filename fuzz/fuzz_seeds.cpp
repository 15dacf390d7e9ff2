// Writes the seed corpora of the fuzz targets: valid and boundary records of
// every parsed table, key texts of every key message, real request lines and
// the daemon's own log formats. Usage: fuzz_seeds <corpus dir>.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "p_intf.pb-c.h"
#include "p_libpub.pb-c.h"
#include "p_mpls.pb-c.h"
#include "platform/mom/tq_mom_name.h"
#include "s_mpls.pb-c.h"
#include "s_route.pb-c.h"
#include "u_mpls.pb-c.h"

namespace {

std::string g_root;

bool write_seed(const std::string &target, const std::string &name, const std::string &bytes) {
    std::string dir = g_root + "/" + target;
    mkdir(g_root.c_str(), 0755);
    mkdir(dir.c_str(), 0755);
    FILE *f = fopen((dir + "/" + name).c_str(), "wb");
    if (f == nullptr) return false;
    bool ok = fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return fclose(f) == 0 && ok;
}

std::string packed(const ProtobufCMessage *m) {
    std::string out;
    tq_mom_pack(m, out);
    return out;
}

// ---- addresses ---------------------------------------------------------------------

struct seed_ip_t {
    PLibpub__Ip ip = P_LIBPUB__IP__INIT;
    PLibpub__Ipv4 v4 = P_LIBPUB__IPV4__INIT;
    PLibpub__Ipv6 v6 = P_LIBPUB__IPV6__INIT;
    PLibpub__Ipv4b v4b = P_LIBPUB__IPV4B__INIT;
    uint8_t bytes[16] = {};

    PLibpub__Ip *set_v4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
        uint8_t m[4] = {a, b, c, d};
        std::memcpy(&v4.data, m, sizeof m);
        ip.addr_case = P_LIBPUB__IP__ADDR_V4;
        ip.v4 = &v4;
        return &ip;
    }
    // Network-order bytes of an IPv6 text; v4b when asked.
    PLibpub__Ip *set_16(const uint8_t (&a)[16], bool as_v4b = false, size_t len = 16) {
        std::memcpy(bytes, a, sizeof bytes);
        if (as_v4b) {
            v4b.data = {len, bytes};
            ip.addr_case = P_LIBPUB__IP__ADDR_V4B;
            ip.v4b = &v4b;
        } else {
            v6.data = {len, bytes};
            ip.addr_case = P_LIBPUB__IP__ADDR_V6;
            ip.v6 = &v6;
        }
        return &ip;
    }
};

const uint8_t kV6Pfx[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 1};
const uint8_t kV6Nh[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
const uint8_t kV6Mapped[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 10, 0, 0, 1};

// ---- parse: [kind][is_add][packed record] --------------------------------------------

enum { K_FTN, K_VC_FTN, K_ILM, K_IN_ADJ, K_STATUS_CNT };

bool parse_seed(const char *name, int kind, int is_add, const ProtobufCMessage *m) {
    std::string bytes{static_cast<char>(kind), static_cast<char>(is_add)};
    return write_seed("fuzz_parse", name, bytes + packed(m));
}

bool ftn_seeds() {
    seed_ip_t pfx, nh;
    PMpls__FtnIndex idx = P_MPLS__FTN_INDEX__INIT;
    PMpls__MomMsgFtn ftn = P_MPLS__MOM_MSG_FTN__INIT;
    ftn.index = &idx;
    idx.vrf_id = 1;
    idx.prefix = pfx.set_v4(10, 0, 0, 0);
    idx.prefix_len = 24;
    idx.out_ifx = 100;
    idx.con_nh = nh.set_v4(192, 168, 1, 1);
    idx.lb_cnt = 2;
    idx.lb_st_0 = 16;
    idx.lb_st_1 = 17;
    idx.opcode = P_MPLS__OPCODE_T__PUSH;
    bool ok = parse_seed("ftn_v4_add", K_FTN, 1, &ftn.base);
    ok &= parse_seed("ftn_v4_del", K_FTN, 0, &ftn.base);
    idx.lb_st_0 = 3;  // implicit null on top
    idx.lb_cnt = 8;
    ok &= parse_seed("ftn_depth8_null", K_FTN, 1, &ftn.base);
    idx.lb_cnt = 2;
    idx.bsid = 5;
    ok &= parse_seed("ftn_bsid", K_FTN, 1, &ftn.base);
    idx.bsid = 0;
    idx.prefix = pfx.set_16(kV6Pfx);
    idx.prefix_len = 48;
    idx.con_nh = nh.set_16(kV6Nh);
    idx.opcode = P_MPLS__OPCODE_T__DLVR_TO_IP;
    idx.lb_cnt = 0;
    ok &= parse_seed("ftn_v6_add", K_FTN, 1, &ftn.base);
    idx.prefix = pfx.set_16(kV6Pfx, true, 15);
    ok &= parse_seed("ftn_v4b_short", K_FTN, 1, &ftn.base);
    return ok;
}

bool vc_ftn_seeds() {
    seed_ip_t nh;
    UMpls__UdpVcFtnKey key = U_MPLS__UDP_VC_FTN_KEY__INIT;
    UMpls__UdpVcFtn vc = U_MPLS__UDP_VC_FTN__INIT;
    uint32_t labels[12] = {100, 200, 300, 400, 500, 600, 700, 800, 900, 1000, 1100, 1200};
    vc.index = &key;
    key.vc_ifx = 200;
    key.co_nhop = nh.set_v4(10, 1, 1, 2);
    key.out_ifx = 5;
    vc.opcode = P_MPLS__OPCODE_T__PUSH;
    vc.n_label_stack = 2;
    vc.label_stack = labels;
    vc.vc_mode = 1;
    vc.sd_vid = 10;
    vc.cw = 1;
    bool ok = parse_seed("vc_ftn_add", K_VC_FTN, 1, &vc.base);
    vc.n_label_stack = 12;
    ok &= parse_seed("vc_ftn_del_deep", K_VC_FTN, 0, &vc.base);
    vc.n_label_stack = 1;
    key.co_nhop = nh.set_16(kV6Mapped);
    ok &= parse_seed("vc_ftn_mapped", K_VC_FTN, 1, &vc.base);
    return ok;
}

bool ilm_seeds() {
    seed_ip_t nh;
    PMpls__IlmIndex idx = P_MPLS__ILM_INDEX__INIT;
    PMpls__MomMsgIlm ilm = P_MPLS__MOM_MSG_ILM__INIT;
    ilm.index = &idx;
    idx.in_label = 1000;
    idx.co_nhop = nh.set_v4(10, 2, 2, 2);
    idx.out_ifx = 7;
    idx.opcode = P_MPLS__OPCODE_T__SWAP;
    idx.lb_cnt = 1;
    idx.lb_st_0 = 2000;
    ilm.vrfid = 3;
    bool ok = parse_seed("ilm_swap", K_ILM, 1, &ilm.base);
    idx.in_label = 1;
    ok &= parse_seed("ilm_label1", K_ILM, 1, &ilm.base);
    idx.in_label = 0x100000;
    ok &= parse_seed("ilm_label_big", K_ILM, 1, &ilm.base);
    idx.in_label = 2001;
    idx.opcode = P_MPLS__OPCODE_T__POP_L2DSTPORT;
    idx.lb_cnt = 0;
    idx.co_nhop = nh.set_16(kV6Nh);
    ilm.vc_ifx = 9;
    ok &= parse_seed("ilm_l2dstport_v6", K_ILM, 1, &ilm.base);
    return ok;
}

bool in_adj_seeds() {
    SRoute__InSubAdjKey key = S_ROUTE__IN_SUB_ADJ_KEY__INIT;
    SRoute__InSubAdj adj = S_ROUTE__IN_SUB_ADJ__INIT;
    uint32_t labels[2] = {16, 17};
    adj.index = &key;
    key.ifx = 200;
    key.mplsid = 0x100000002ULL;
    adj.n_labels = 2;
    adj.labels = labels;
    adj.opcode = P_MPLS__OPCODE_T__PUSH;
    adj.vc_mode = 1;
    adj.vrf = 4;
    bool ok = true;
    const struct {
        const char *name;
        uint32_t owner;
    } owners[] = {{"in_adj_ftn", 1}, {"in_adj_vc_ftn", 8}, {"in_adj_ilm", 7}, {"in_adj_bad", 3}};
    for (const auto &o : owners) {
        key.t_rt_owner = o.owner;
        ok &= parse_seed(o.name, K_IN_ADJ, 0, &adj.base);
    }
    return ok;
}

bool status_cnt_seeds() {
    SMpls__SrteCountIndex idx = S_MPLS__SRTE_COUNT_INDEX__INIT;
    SMpls__SrteStatusCnt cnt = S_MPLS__SRTE_STATUS_CNT__INIT;
    cnt.index = &idx;
    idx.tunnel_id = 12;
    cnt.bytes = 1500;
    cnt.pkts = 3;
    cnt.timestamp = 99;
    return parse_seed("status_cnt", K_STATUS_CNT, 0, &cnt.base);
}

// ---- keytext: [key kind][key text] --------------------------------------------------

// Kinds in the fuzz target's order.
enum {
    KT_LAB_SW_INDEX, KT_FTN_INDEX, KT_VC_FTN_KEY, KT_ILM_INDEX, KT_SRTE_COUNT_INDEX,
    KT_INTFINDEX, KT_TE_TUN_INDEX, KT_UDP_LAB_SW_INDEX, KT_COMM_RT_KEY, KT_VIR_RT_KEY,
    KT_UDP_ILM_KEY, KT_IN_SUB_ADJ_KEY, KT_UDP_SRTE_CNT_INDEX,
};

bool key_seed(const char *name, int kind, const ProtobufCMessage *key) {
    std::string text;
    if (tq_mom_key_to_text(key, text) != 0) return false;
    return write_seed("fuzz_keytext", name, std::string(1, static_cast<char>(kind)) + text);
}

bool text_seed(const char *name, int kind, const char *text) {
    return write_seed("fuzz_keytext", name, std::string(1, static_cast<char>(kind)) + text);
}

bool keytext_seeds() {
    seed_ip_t a, b, c;
    PMpls__FtnIndex ftn = P_MPLS__FTN_INDEX__INIT;
    ftn.vrf_id = 1;
    ftn.prefix = a.set_v4(10, 0, 0, 1);
    ftn.prefix_len = 24;
    ftn.out_ifx = 100;
    ftn.con_nh = b.set_16(kV6Mapped);
    ftn.lb_cnt = 1;
    ftn.lb_st_0 = 16;
    ftn.opcode = 1;
    bool ok = key_seed("ftn_index", KT_FTN_INDEX, &ftn.base);
    ftn.prefix = a.set_16(kV6Pfx, true);
    ok &= key_seed("ftn_index_v4b", KT_FTN_INDEX, &ftn.base);

    SRoute__CommRtKey rt = S_ROUTE__COMM_RT_KEY__INIT;
    rt.t_rt_owner = 1;
    rt.ip = a.set_16(kV6Pfx);
    rt.mask_len = 48;
    rt.nh_ifx = 5;
    rt.nh_ip = b.set_16(kV6Nh);
    rt.mpls_id = 0x100000001ULL;
    ok &= key_seed("comm_rt_key", KT_COMM_RT_KEY, &rt.base);

    SRoute__VirRtKey vir = S_ROUTE__VIR_RT_KEY__INIT;
    vir.t_rt_owner = 7;
    vir.ip = a.set_v4(0, 0, 3, 232);
    vir.nh_ip = c.set_v4(10, 2, 2, 2);
    vir.mpls_id = 7;
    ok &= key_seed("vir_rt_key", KT_VIR_RT_KEY, &vir.base);

    SRoute__InSubAdjKey adj = S_ROUTE__IN_SUB_ADJ_KEY__INIT;
    adj.t_rt_owner = 8;
    adj.ifx = 200;
    adj.mplsid = 18446744073709551615ULL;
    ok &= key_seed("in_sub_adj_key", KT_IN_SUB_ADJ_KEY, &adj.base);

    ok &= text_seed("label_switch_index", KT_LAB_SW_INDEX, "5|-1");
    ok &= text_seed("vc_ftn_key", KT_VC_FTN_KEY, "200|v4:10.1.1.2|5");
    ok &= text_seed("ilm_index", KT_ILM_INDEX,
                    "1000|0|v6:fe80::1|7||1|2000|0|0|0|0|0|0|3");
    ok &= text_seed("srte_count_index", KT_SRTE_COUNT_INDEX, "12|1");
    ok &= text_seed("intfindex", KT_INTFINDEX, "4294967295");
    ok &= text_seed("te_tun_index", KT_TE_TUN_INDEX, "9");
    ok &= text_seed("udp_lab_sw_index", KT_UDP_LAB_SW_INDEX, "5");
    ok &= text_seed("udp_ilm_key", KT_UDP_ILM_KEY, "1048575");
    ok &= text_seed("udp_srte_cnt_index", KT_UDP_SRTE_CNT_INDEX, "0");

    // A hash record: [kind][field index][length][field bytes]...
    PMpls__IlmIndex ii = P_MPLS__ILM_INDEX__INIT;
    PMpls__MomMsgIlm ilm = P_MPLS__MOM_MSG_ILM__INIT;
    ilm.index = &ii;
    ii.in_label = 1000;
    ii.co_nhop = a.set_v4(10, 2, 2, 2);
    ilm.vc_ifx = 9;
    ilm.vc_peer = b.set_16(kV6Nh);
    std::vector<std::pair<std::string, std::string>> fields;
    tq_mom_hash_fields(&ilm.base, fields);
    std::string hash(1, static_cast<char>(KT_ILM_INDEX));
    for (const auto &[name, value] : fields) {
        const ProtobufCFieldDescriptor *f = protobuf_c_message_descriptor_get_field_by_name(
            &p_mpls__mom_msg_ilm__descriptor, name.c_str());
        hash += static_cast<char>(f - p_mpls__mom_msg_ilm__descriptor.fields);
        hash += static_cast<char>(value.size());
        hash += value;
    }
    ok &= write_seed("fuzz_keytext", "ilm_hash", hash);
    return ok;
}

// ---- ssat: request arguments ---------------------------------------------------------

bool ssat_seeds() {
    const char *const lines[][2] = {
        {"add_ilm", "inlabel:100 co_nh:10.0.0.1 ifx:5 opcode:3 vrf:0 VcIfx:0 LabelNum:1 lab1:200 "
                    "lab2:0 lab3:0"},
        {"add_ilm_n", "inlabel:100 co_nh:10.0.0.1 ifx:5 opcode:3 LabelNum:1 lab1:200 lab2:0 "
                      "lab3:0 fec_pre:192.168.0.0 count:10"},
        {"op_ftn_v6", "is_add:1 vrf:0 prefix:2001:db8:: pre_len:32 co_nh:fe80::1 ifx:3 "
                      "LabelNum:2 lab1:16 lab2:17 lab3:0"},
        {"debug", "level:5"},
        {"show_info", "is_clean:0 is_detail:1"},
        {"void", ""},
        {"get_ftnv4", "vrf:1 ipv4:10.0.0.0 mask:24"},
        {"get_ftnv6", "vrf:1\tipv6:::ffff:10.0.0.1 mask:-1"},
        {"in_adj_by_id", "high:0 low:5"},
        {"status_cnt", "is_add:1 tunnel:12 proto:0 timestamp:0 pkts:-9223372036854775808 "
                       "bytes:9223372036854775807"},
        {"tbl_debug", "dbg_level:7 log_cnt:-1"},
        {"tbl_skip", "tbl_idx:2 is_skip:1 "},
    };
    bool ok = true;
    for (const auto &l : lines) ok &= write_seed("fuzz_ssat", l[0], l[1]);
    return ok;
}

// ---- format: a printf format as the format target's recipe --------------------------

// Mirrors the target's reader: pieces [0 literal][2 %%][3 unknown][4 cut off][5 conversion].
struct recipe_t {
    std::string out;
    void byte(unsigned v) { out += static_cast<char>(v); }
    void u16(unsigned v) {
        byte(v >> 8 & 0xff);
        byte(v & 0xff);
    }
    void u64(uint64_t v) {
        for (int k = 7; k >= 0; --k) byte(static_cast<unsigned>(v >> (8 * k)) & 0xff);
    }
};

void recipe_literal(recipe_t &r, const std::string &text) {
    for (size_t pos = 0; pos < text.size(); pos += 8) {
        std::string chunk = text.substr(pos, 8);
        r.byte(0);
        r.byte(static_cast<unsigned>(chunk.size()));
        r.out += chunk;
    }
}

const uint8_t kAddrSeed[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0x5e, 0xfe, 10, 0, 0, 1};

// One conversion: "%[flags][width|*][.prec|.*][len]conv" with a fixed value.
const char *recipe_conversion(recipe_t &r, const char *p) {
    static const char kConvs[] = "diuxXocspav";
    static const char *const kLens[] = {"", "hh", "h", "l", "ll", "z", "j", "t"};
    unsigned flags = 0;
    for (const char *f; *p != '\0' && (f = std::strchr("-+ #0", *p)) != nullptr; ++p)
        flags |= 1u << (f - "-+ #0");
    unsigned width = 0;
    bool wstar = *p == '*';
    if (wstar) ++p;
    while (*p >= '0' && *p <= '9') width = width * 10 + static_cast<unsigned>(*p++ - '0');
    int psel = 0;
    unsigned prec = 0;
    if (*p == '.') {
        ++p;
        psel = 2;
        if (*p == '*') {
            psel = 3;
            ++p;
        }
        while (*p >= '0' && *p <= '9') {
            prec = prec * 10 + static_cast<unsigned>(*p++ - '0');
            psel = 1;
        }
    }
    unsigned len = 0;
    if (p[0] == 'h') len = p[1] == 'h' ? 1 : 2;
    if (p[0] == 'l') len = p[1] == 'l' ? 4 : 3;
    if (const char *z = p[0] != '\0' ? std::strchr("zjt", p[0]) : nullptr) len = 5 + (z - "zjt");
    p += std::strlen(kLens[len]);
    char conv = *p++;
    r.byte(5);
    r.byte(static_cast<unsigned>(std::strchr(kConvs, conv) - kConvs));
    r.byte(flags);
    r.byte(wstar ? 2 : width != 0 ? 1 : 0);
    if (wstar) r.u16(12);
    else if (width != 0) r.u16(width - 1);
    r.byte(static_cast<unsigned>(psel));
    if (psel == 1) r.u16(prec);
    if (psel == 3) r.byte(2);
    if (std::strchr("diuxXoav", conv) != nullptr) r.byte(len);
    switch (conv) {
    case 's':
        r.byte(1);
        r.byte(6);
        r.out += "ftn->x";
        break;
    case 'v':
        r.byte(1);
        r.out.append(reinterpret_cast<const char *>(kAddrSeed), sizeof kAddrSeed);
        break;
    case 'p': r.byte(1); r.u64(0x7ffd1234abcdULL); break;
    case 'c': r.u64('Z'); break;
    default: r.u64(0xfffffffffffff0f1ULL); break;
    }
    return p;
}

std::string recipe_of(const char *fmt) {
    recipe_t r;
    std::string lit;
    for (const char *p = fmt; *p != '\0';) {
        if (*p != '%') {
            lit += *p++;
            continue;
        }
        recipe_literal(r, lit);
        lit.clear();
        if (p[1] == '%') {
            r.byte(2);
            p += 2;
            continue;
        }
        p = recipe_conversion(r, p + 1);
    }
    recipe_literal(r, lit);
    return r.out;
}

bool format_seeds() {
    const char *const formats[][2] = {
        {"fail_code", "fail:%s code:%d in_labels:%u"},
        {"rv", "Fail, rv %d, nhop parse"},
        {"key_v4", "\t key==>pro:%u, vrf:%u, mask_len:%u, ip:%a"},
        {"key_v6", "\t key==>pro:%u, vrf:%u, mask_len:%u, ip:%v"},
        {"table", "[%s]%s:%4d|"},
        {"widths", "%-8.3s|%08x|%+5hhd|%#o"},
        {"stars", "%-*.*s|%d"},
        {"lengths", "%lld %zu %jx %tX"},
        {"pointer", "%p %c %%"},
        {"addr_layout", "%20.7v|%-16la"},
    };
    bool ok = true;
    for (const auto &f : formats) ok &= write_seed("fuzz_format", f[0], recipe_of(f[1]));
    // "%-5.2lf" (not known: copied as written), then "%+" cut off by the end.
    const unsigned char unknown[] = {3, 0x01, 1, 0, 4, 1, 0, 2, 3, 0, 4, 0x02, 0, 0, 0};
    ok &= write_seed("fuzz_format", "unknown",
                     std::string(reinterpret_cast<const char *>(unknown), sizeof unknown));
    return ok;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s <corpus dir>\n", argv[0]);
        return 2;
    }
    g_root = argv[1];
    bool ok = ftn_seeds() && vc_ftn_seeds() && ilm_seeds() && in_adj_seeds() &&
              status_cnt_seeds() && keytext_seeds() && ssat_seeds() && format_seeds();
    if (!ok) fprintf(stderr, "fuzz_seeds: could not write every seed under %s\n", argv[1]);
    return ok ? 0 : 1;
}
