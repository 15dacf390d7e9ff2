// Input: [key kind][rest]. The rest is taken three ways: as key text of the
// kind's key message, as the text of a Redis key of its table, and as a list
// of hash fields of its item ([field][length][bytes]...). Whatever parses
// must print back to text that parses to the same record.
#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz/fuzz_checks.h"
#include "p_intf.pb-c.h"
#include "p_mpls.pb-c.h"
#include "platform/mom/tq_mom.h"
#include "platform/mom/tq_mom_name.h"
#include "s_mpls.pb-c.h"
#include "s_route.pb-c.h"
#include "u_mpls.pb-c.h"

namespace {

// Every key message of the system, with an item message of its table.
struct fz_key_kind_t {
    const ProtobufCMessageDescriptor *key;
    const ProtobufCMessageDescriptor *item;
};

const fz_key_kind_t kKinds[] = {
    {&p_mpls__label_switch_index__descriptor, &p_mpls__mom_conf_label_switch__descriptor},
    {&p_mpls__ftn_index__descriptor, &p_mpls__mom_msg_ftn__descriptor},
    {&u_mpls__udp_vc_ftn_key__descriptor, &u_mpls__udp_vc_ftn__descriptor},
    {&p_mpls__ilm_index__descriptor, &p_mpls__mom_msg_ilm__descriptor},
    {&s_mpls__srte_count_index__descriptor, &s_mpls__srte_status_cnt__descriptor},
    {&p_intf__intfindex__descriptor, &p_intf__data_intf__descriptor},
    {&p_mpls__te_tun_index__descriptor, &p_mpls__mom_conf_te_tun_service_class__descriptor},
    {&u_mpls__udp_lab_sw_index__descriptor, &u_mpls__udp_lab_sw__descriptor},
    {&s_route__comm_rt_key__descriptor, &s_route__comm_rt__descriptor},
    {&s_route__vir_rt_key__descriptor, &s_route__vir_rt__descriptor},
    {&u_mpls__udp_ilm_key__descriptor, &u_mpls__udp_ilm__descriptor},
    {&s_route__in_sub_adj_key__descriptor, &s_route__in_sub_adj__descriptor},
    {&u_mpls__udp_srte_cnt_index__descriptor, &u_mpls__udp_srte_status_cnt__descriptor},
};
constexpr size_t kNumKinds = sizeof kKinds / sizeof kKinds[0];

struct fz_msg_ptr {
    ProtobufCMessage *m = nullptr;
    fz_msg_ptr() = default;
    explicit fz_msg_ptr(ProtobufCMessage *p) : m(p) {}
    fz_msg_ptr(const fz_msg_ptr &) = delete;
    fz_msg_ptr &operator=(const fz_msg_ptr &) = delete;
    ~fz_msg_ptr() { tq_mom_free(m); }
};

std::string packed(const ProtobufCMessage *m) {
    std::string out;
    tq_mom_pack(m, out);
    return out;
}

// text -> key -> text is the identity once the text has been printed once.
const char *check_key_text(const ProtobufCMessageDescriptor *desc, std::string_view text) {
    fz_msg_ptr k1;
    if (tq_mom_key_from_text(desc, text, &k1.m) != 0) {
        if (k1.m != nullptr) return "failed key parse left a record";
        return nullptr;
    }
    if (k1.m == nullptr) return "key parse gave no record";
    std::string t1, t2;
    if (tq_mom_key_to_text(k1.m, t1) != 0) return "parsed key does not print";
    fz_msg_ptr k2;
    if (tq_mom_key_from_text(desc, t1, &k2.m) != 0) return "printed key does not parse";
    if (tq_mom_key_to_text(k2.m, t2) != 0) return "reparsed key does not print";
    if (t1 != t2) return "key text not a fixed point";
    if (packed(k1.m) != packed(k2.m)) return "key text loses a field";
    return nullptr;
}

// A key-only item from "T|text" carries the same key as the text alone.
const char *check_item_key(const fz_key_kind_t &kind, std::string_view text,
                           std::string_view raw) {
    fz_msg_ptr junk(tq_mom_item_from_key(kind.item, raw));
    std::string table = tq_mom_table_name(kind.item);
    std::string redis_key = table + "|" + std::string(text);
    fz_msg_ptr item(tq_mom_item_from_key(kind.item, redis_key));
    fz_msg_ptr key;
    bool key_ok = tq_mom_key_from_text(kind.key, text, &key.m) == 0;
    if ((item.m != nullptr) != key_ok) return "item key and key text disagree";
    if (item.m == nullptr) return nullptr;
    std::string rk1, rk2, kt;
    if (tq_mom_record_key(item.m, rk1) != 0) return "item from key has no record key";
    if (tq_mom_key_to_text(key.m, kt) != 0 || rk1 != table + "|" + kt)
        return "record key differs from key text";
    fz_msg_ptr again(tq_mom_item_from_key(kind.item, rk1));
    if (again.m == nullptr || tq_mom_record_key(again.m, rk2) != 0 || rk1 != rk2)
        return "record key not a fixed point";
    if (packed(item.m) != packed(again.m)) return "item from key loses a field";
    return nullptr;
}

using fz_fields = std::vector<std::pair<std::string, std::string>>;

// [field index][length][bytes]...; an index past the last field names no field.
fz_fields hash_fields_of(const ProtobufCMessageDescriptor *item, std::string_view raw) {
    fz_fields out;
    size_t pos = 0;
    while (pos + 2 <= raw.size()) {
        unsigned sel = static_cast<uint8_t>(raw[pos]) % (item->n_fields + 1);
        size_t len = static_cast<uint8_t>(raw[pos + 1]);
        pos += 2;
        len = std::min(len, raw.size() - pos);
        std::string name = sel < item->n_fields ? item->fields[sel].name : "no_such_field";
        out.emplace_back(std::move(name), std::string(raw.substr(pos, len)));
        pos += len;
    }
    return out;
}

// A record rebuilt from hash fields splits back into fields that rebuild it.
const char *check_hash(const ProtobufCMessageDescriptor *item, std::string_view raw) {
    fz_msg_ptr x1(tq_mom_hash_unpack(item, hash_fields_of(item, raw)));
    if (x1.m == nullptr) return nullptr;
    fz_fields f1, f2;
    if (tq_mom_hash_fields(x1.m, f1) != 0) return "hash record does not split";
    fz_msg_ptr x2(tq_mom_hash_unpack(item, f1));
    if (x2.m == nullptr) return "split hash record does not rebuild";
    if (tq_mom_hash_fields(x2.m, f2) != 0) return "rebuilt hash record does not split";
    if (f1 != f2) return "hash fields not a fixed point";
    if (packed(x1.m) != packed(x2.m)) return "hash record changes on the way";
    return nullptr;
}

}  // namespace

const char *fuzz_keytext_one(const uint8_t *data, size_t size) {
    if (size < 1) return nullptr;
    const fz_key_kind_t &kind = kKinds[data[0] % kNumKinds];
    std::string_view rest(reinterpret_cast<const char *>(data + 1), size - 1);
    if (const char *bad = check_key_text(kind.key, rest)) return bad;
    if (const char *bad = check_item_key(kind, rest, rest)) return bad;
    return check_hash(kind.item, rest);
}
