// Record naming: key texts, Redis keys, hash fields, channels and prefixes.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "p_intf.pb-c.h"
#include "p_libpub.pb-c.h"
#include "p_mpls.pb-c.h"
#include "platform/mom/tq_mom.h"
#include "platform/mom/tq_mom_name.h"
#include "s_mpls.pb-c.h"
#include "s_route.pb-c.h"
#include "u_mpls.pb-c.h"

namespace {

using msg_ptr = std::unique_ptr<ProtobufCMessage, decltype(&tq_mom_free)>;

msg_ptr own(ProtobufCMessage *m) { return msg_ptr(m, &tq_mom_free); }

std::string packed(const ProtobufCMessage *m) {
    std::string out;
    EXPECT_EQ(tq_mom_pack(m, out), 0);
    return out;
}

struct key_case_t {
    const ProtobufCMessageDescriptor *item;
    const ProtobufCMessageDescriptor *key;
    const char *text;
};

// Every keyed table of the system, with texts that must come back unchanged.
const key_case_t KEY_CASES[] = {
    {&p_mpls__mom_conf_label_switch__descriptor, &p_mpls__label_switch_index__descriptor,
     "4294967295|-2147483648"},
    {&p_mpls__mom_msg_ftn__descriptor, &p_mpls__ftn_index__descriptor,
     "7|v4:10.1.0.0|16|3|v6:2001:db8::1||0|1|2|3|4|5|6|16|-1"},
    {&u_mpls__udp_vc_ftn__descriptor, &u_mpls__udp_vc_ftn_key__descriptor,
     "12|v6:::ffff:192.0.2.7|4"},
    {&p_mpls__mom_msg_ilm__descriptor, &p_mpls__ilm_index__descriptor, "4660|0|v4b:c0000201|9|v6:::1|2|0|0|0|0|0|0|0|-3"},
    {&p_mpls__mom_msg_ilm__descriptor, &p_mpls__ilm_index__descriptor, "1|2|v4b:|3||0|0|0|0|0|0|0|0|0"},
    {&s_mpls__srte_status_cnt__descriptor, &s_mpls__srte_count_index__descriptor, "1|2"},
    {&p_intf__data_intf__descriptor, &p_intf__intfindex__descriptor, "4294967295"},
    {&p_mpls__mom_conf_te_tun_service_class__descriptor, &p_mpls__te_tun_index__descriptor, "0"},
    {&u_mpls__udp_lab_sw__descriptor, &u_mpls__udp_lab_sw_index__descriptor, "33"},
    {&s_route__comm_rt__descriptor, &s_route__comm_rt_key__descriptor,
     "1|0|v4:192.0.2.0|24|5|v4:192.0.2.1|0||18446744073709551615"},
    {&s_route__vir_rt__descriptor, &s_route__vir_rt_key__descriptor,
     "8|0|128|3|v6:::|1|v6:fe80::1|0|0||4294967297"},
    {&u_mpls__udp_ilm__descriptor, &u_mpls__udp_ilm_key__descriptor, "4660"},
    {&s_route__in_sub_adj__descriptor, &s_route__in_sub_adj_key__descriptor,
     "7|0|0|v4:192.0.2.1|4294967297"},
    {&u_mpls__udp_srte_status_cnt__descriptor, &u_mpls__udp_srte_cnt_index__descriptor, "0"},
};

void PrintTo(const key_case_t &c, std::ostream *os) { *os << c.key->name << " \"" << c.text << "\""; }

class KeyText : public ::testing::TestWithParam<key_case_t> {};

TEST_P(KeyText, RoundTripsThroughKeyAndRedisKey) {
    const key_case_t &c = GetParam();
    ASSERT_EQ(tq_mom_key_desc(c.item), c.key);

    ProtobufCMessage *raw = nullptr;
    ASSERT_EQ(tq_mom_key_from_text(c.key, c.text, &raw), 0);
    msg_ptr key = own(raw);
    std::string text;
    ASSERT_EQ(tq_mom_key_to_text(key.get(), text), 0);
    EXPECT_EQ(text, c.text);

    std::string redis_key = std::string(c.item->name) + "|" + c.text;
    msg_ptr item = own(tq_mom_item_from_key(c.item, redis_key));
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(packed(tq_mom_item_key(item.get())), packed(key.get()));
    std::string again;
    ASSERT_EQ(tq_mom_record_key(item.get(), again), 0);
    EXPECT_EQ(again, redis_key);
}

INSTANTIATE_TEST_SUITE_P(AllKeys, KeyText, ::testing::ValuesIn(KEY_CASES));

// What the round trips above cannot show: IPv4 is written in memory order, an
// address case without its member writes nothing, and no address reads back
// as none rather than an empty one.
TEST(KeyText, AddressFormsOfRecords) {
    const uint8_t v4_bytes[4] = {0xc0, 0x00, 0x02, 0x01};
    PLibpub__Ipv4 v4 = P_LIBPUB__IPV4__INIT;
    std::memcpy(&v4.data, v4_bytes, 4);
    PLibpub__Ipv6 v6_short = P_LIBPUB__IPV6__INIT;
    v6_short.data = {4, const_cast<uint8_t *>(v4_bytes)};
    PLibpub__Ip ip = P_LIBPUB__IP__INIT;
    SRoute__InSubAdjKey key = S_ROUTE__IN_SUB_ADJ_KEY__INIT;
    key.t_rt_owner = 7, key.ip = &ip, key.mplsid = 4294967297ULL;
    auto text_of = [&](PLibpub__Ip__AddrCase which) {
        ip.addr_case = which;
        std::string text;
        return std::to_string(tq_mom_key_to_text(&key.base, text)) + " " + text;
    };
    ip.v4 = &v4;
    EXPECT_EQ(text_of(P_LIBPUB__IP__ADDR_V4), "0 7|0|0|v4:192.0.2.1|4294967297");
    ip.v6 = &v6_short;  // 4 bytes where 16 belong
    EXPECT_EQ(text_of(P_LIBPUB__IP__ADDR_V6), std::to_string(TQ_MOM_ERR_PARAM) + " ");
    ip.v4 = nullptr;
    EXPECT_EQ(text_of(P_LIBPUB__IP__ADDR_V4), "0 7|0|0||4294967297");
    EXPECT_EQ(text_of(P_LIBPUB__IP__ADDR__NOT_SET), "0 7|0|0||4294967297");

    key.ip = nullptr;
    EXPECT_EQ(text_of(P_LIBPUB__IP__ADDR__NOT_SET), "0 7|0|0||4294967297");
    ProtobufCMessage *raw = nullptr;
    ASSERT_EQ(tq_mom_key_from_text(&s_route__in_sub_adj_key__descriptor, "7|0|0||1", &raw), 0);
    EXPECT_EQ(reinterpret_cast<SRoute__InSubAdjKey *>(own(raw).get())->ip, nullptr);
}

TEST(KeyText, RejectsMalformedText) {
    const auto *ls = &p_mpls__label_switch_index__descriptor, *adj = &s_route__in_sub_adj_key__descriptor;
    const std::pair<const ProtobufCMessageDescriptor *, const char *> bad[] = {
        {ls, "1"},
        {ls, "a|1"},
        {ls, "4294967296|0"},
        {ls, "-1|0"},
        {ls, "1|2147483648"},
        {ls, "1 |2"},
        {&u_mpls__udp_ilm_key__descriptor, ""},
        {adj, "7|0|0|v4:192.0.2.1|18446744073709551616"},
        {adj, "7|0|0|v4:300.0.2.1|1"},
        {adj, "7|0|0|192.0.2.1|1"},
        {adj, "7|0|0|v6:1:::2|1"},
        {adj, "7|0|0|v6:192.0.2.1|1"},
        {adj, "7|0|0|v4b:abc|1"},
    };
    for (const auto &[desc, text] : bad) {
        ProtobufCMessage *out = reinterpret_cast<ProtobufCMessage *>(1);
        EXPECT_EQ(tq_mom_key_from_text(desc, text, &out), TQ_MOM_ERR_PARAM) << text;
        EXPECT_EQ(out, nullptr) << text;
    }
    EXPECT_EQ(tq_mom_item_from_key(&u_mpls__udp_ilm__descriptor, "u_mpls.udp_ilm|x"), nullptr);
    EXPECT_EQ(tq_mom_item_from_key(&u_mpls__udp_ilm__descriptor, "u_mpls.udp_lab_sw|1"), nullptr);
}

TEST(RecordKey, UnkeyedTablesChannelsAndPrefixes) {
    PMpls__MomConfGlobalEnable global = P_MPLS__MOM_CONF_GLOBAL_ENABLE__INIT;
    std::string key;
    ASSERT_EQ(tq_mom_record_key(&global.base, key), 0);
    EXPECT_EQ(key, "p_mpls.mom_conf_global_enable");  // a table of one record
    EXPECT_NE(own(tq_mom_item_from_key(global.base.descriptor, key)), nullptr);

    EXPECT_EQ(tq_mom_channel(6, &p_mpls__mom_msg_ilm__descriptor), "pub@6:p_mpls.mom_msg_ilm");
    SRoute__InSubAdj adj = S_ROUTE__IN_SUB_ADJ__INIT;
    EXPECT_EQ(tq_mom_record_key(&adj.base, key), TQ_MOM_ERR_PARAM);    // keyed, but no key
    EXPECT_EQ(tq_mom_table_prefix(&adj.base, true), "s_route.in_sub_adj|0|");  // owner 0
    SRoute__InSubAdjKey adj_key = S_ROUTE__IN_SUB_ADJ_KEY__INIT;
    adj_key.t_rt_owner = 7;
    adj.index = &adj_key;
    EXPECT_EQ(tq_mom_table_prefix(&adj.base, true), "s_route.in_sub_adj|7|");
    EXPECT_EQ(tq_mom_table_prefix(&adj.base, false), "s_route.in_sub_adj|");
}

TEST(HashFields, SplitAndRejoinEqualPackedRecord) {
    SRoute__InSubAdjKey key = S_ROUTE__IN_SUB_ADJ_KEY__INIT;
    key.t_rt_owner = 7, key.mplsid = 1;
    uint32_t labels[] = {16, 17, 1048575};
    SRoute__InSubAdj adj = S_ROUTE__IN_SUB_ADJ__INIT;
    adj.index = &key, adj.ttl = 255, adj.ttl_map = 1, adj.labels = labels, adj.n_labels = 3, adj.stat_id = 9;

    std::vector<std::pair<std::string, std::string>> fields;
    ASSERT_EQ(tq_mom_hash_fields(&adj.base, fields), 0);
    std::vector<std::string> names;
    std::string joined;
    for (const auto &[name, bytes] : fields) {
        names.push_back(name);
        joined += bytes;
    }
    EXPECT_EQ(names, (std::vector<std::string>{"index", "ttl", "ttl_map", "labels", "stat_id"}));
    EXPECT_EQ(joined, packed(&adj.base));
    EXPECT_EQ(fields[1].second, std::string("\x30\xff\x01", 3));  // field 6, varint 255

    std::vector<std::pair<std::string, std::string>> reversed(fields.rbegin(), fields.rend());
    msg_ptr back = own(tq_mom_hash_unpack(&s_route__in_sub_adj__descriptor, reversed));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(packed(back.get()), packed(&adj.base));

    auto unknown = fields;
    unknown[1].first = "no_such_field";
    EXPECT_EQ(tq_mom_hash_unpack(&s_route__in_sub_adj__descriptor, unknown), nullptr);
    auto misplaced = fields;
    misplaced[1].second = fields[4].second;  // stat_id bytes under "ttl"
    EXPECT_EQ(tq_mom_hash_unpack(&s_route__in_sub_adj__descriptor, misplaced), nullptr);
}

// What a hash write stores: every field but a sub-message (or oneof) not
// given; "=" marks a zero written as an empty value.
TEST(HashFields, WritesCarryZerosAndLeaveOutWhatIsNotGiven) {
    PIntf__Intfindex idx = P_INTF__INTFINDEX__INIT;
    PIntf__DataIfCounters cnt = P_INTF__DATA_IF_COUNTERS__INIT;
    cnt.index = &idx;
    PLibpub__Ipv4 v4 = P_LIBPUB__IPV4__INIT;
    PLibpub__Ip ip = P_LIBPUB__IP__INIT, none = P_LIBPUB__IP__INIT;
    ip.addr_case = P_LIBPUB__IP__ADDR_V4, ip.v4 = &v4;
    UMpls__UdpLabSwIndex sw_key = U_MPLS__UDP_LAB_SW_INDEX__INIT;
    UMpls__UdpLabSw sw = U_MPLS__UDP_LAB_SW__INIT;
    sw.index = &sw_key, sw.enable = true;
    const struct {
        const ProtobufCMessage *msg;
        const char *want;
    } cases[] = {
        {&cnt.base, "index last_clear_time="},
        {&ip.base, "v4 v6= v4b="},  // the group's other members are cleared
        {&none.base, ""},
        {&sw.base, "index enable"},
    };
    for (const auto &c : cases) {
        std::vector<std::pair<std::string, std::string>> fields;
        ASSERT_EQ(tq_mom_hash_write(c.msg, fields), 0);
        std::string got, joined;
        for (const auto &[name, bytes] : fields) {
            got += (got.empty() ? "" : " ") + name + (bytes.empty() ? "=" : "");
            joined += bytes;
        }
        EXPECT_EQ(got, c.want) << c.msg->descriptor->name;
        EXPECT_EQ(joined, packed(c.msg)) << c.msg->descriptor->name;
    }
}

}  // namespace
