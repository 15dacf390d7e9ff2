// Naming and encoding of MOM records. Everything works from the protobuf-c
// descriptors, so a new key message needs no code here.
#include "platform/mom/tq_mom_name.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <memory>
#include <utility>

#include "platform/mom/tq_mom.h"

namespace {

constexpr const char *IP_MSG_NAME = "p_libpub.ip";

// Scratch memory for messages built from text. They are packed and unpacked
// again, so what the caller gets comes from protobuf-c's own allocator.
struct name_arena_t {
    std::vector<std::unique_ptr<std::byte[]>> blocks;

    void *alloc(size_t size) {
        blocks.push_back(std::make_unique<std::byte[]>(size == 0 ? 1 : size));
        return blocks.back().get();
    }
    ProtobufCMessage *new_msg(const ProtobufCMessageDescriptor *desc) {
        void *p = alloc(desc->sizeof_message);
        protobuf_c_message_init(desc, p);
        return static_cast<ProtobufCMessage *>(p);
    }
};

template <class T>
const T &field_at(const ProtobufCMessage *msg, const ProtobufCFieldDescriptor *f) {
    return *reinterpret_cast<const T *>(reinterpret_cast<const char *>(msg) + f->offset);
}

template <class T>
T &field_at(ProtobufCMessage *msg, const ProtobufCFieldDescriptor *f) {
    return *reinterpret_cast<T *>(reinterpret_cast<char *>(msg) + f->offset);
}

uint32_t &quantifier_at(ProtobufCMessage *msg, const ProtobufCFieldDescriptor *f) {
    return *reinterpret_cast<uint32_t *>(reinterpret_cast<char *>(msg) + f->quantifier_offset);
}

uint32_t quantifier_at(const ProtobufCMessage *msg, const ProtobufCFieldDescriptor *f) {
    return *reinterpret_cast<const uint32_t *>(reinterpret_cast<const char *>(msg) +
                                               f->quantifier_offset);
}

bool is_ip_desc(const ProtobufCMessageDescriptor *d) {
    return d != nullptr && std::strcmp(d->name, IP_MSG_NAME) == 0;
}

std::string pack_msg(const ProtobufCMessage *msg) {
    std::string out(protobuf_c_message_get_packed_size(msg), '\0');
    protobuf_c_message_pack(msg, reinterpret_cast<uint8_t *>(out.data()));
    return out;
}

ProtobufCMessage *repack(const ProtobufCMessage *msg) {
    std::string bytes = pack_msg(msg);
    return tq_mom_unpack(msg->descriptor, bytes);
}

// ---- addresses --------------------------------------------------------------

// The data field of a member of p_libpub.ip (ipv4 / ipv6 / ipv4b all have one).
const ProtobufCFieldDescriptor *member_data_field(const ProtobufCFieldDescriptor *member) {
    auto *sub = static_cast<const ProtobufCMessageDescriptor *>(member->descriptor);
    return sub == nullptr || sub->n_fields != 1 ? nullptr : &sub->fields[0];
}

std::string hex_of(const ProtobufCBinaryData &b) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < b.len; ++i) {
        out += digits[b.data[i] >> 4];
        out += digits[b.data[i] & 0xf];
    }
    return out;
}

int ip_to_text(const ProtobufCMessage *ip, std::string &out) {
    if (ip == nullptr) return 0;
    const ProtobufCMessageDescriptor *desc = ip->descriptor;
    const ProtobufCFieldDescriptor *member = nullptr;
    for (unsigned i = 0; i < desc->n_fields; ++i) {
        const ProtobufCFieldDescriptor *f = &desc->fields[i];
        if ((f->flags & PROTOBUF_C_FIELD_FLAG_ONEOF) && quantifier_at(ip, f) == f->id) member = f;
    }
    if (member == nullptr) return 0;
    const auto *sub = field_at<const ProtobufCMessage *>(ip, member);
    const ProtobufCFieldDescriptor *data = member_data_field(member);
    if (sub == nullptr) return 0;
    if (data == nullptr) return TQ_MOM_ERR_PARAM;
    std::string_view name = member->name;
    char buf[INET6_ADDRSTRLEN];
    if (name == "v4" && data->type == PROTOBUF_C_TYPE_UINT32) {
        uint32_t v = field_at<uint32_t>(sub, data);
        unsigned char bytes[4];
        std::memcpy(bytes, &v, sizeof bytes);
        // Dotted decimal by hand: every record write builds a key, and
        // inet_ntop's formatting cost most of it.
        char *p = buf;
        for (int i = 0; i < 4; ++i) {
            if (i > 0) *p++ = '.';
            p = std::to_chars(p, buf + sizeof buf, bytes[i]).ptr;
        }
        out += "v4:";
        out.append(buf, p);
        return 0;
    }
    if (data->type != PROTOBUF_C_TYPE_BYTES) return TQ_MOM_ERR_PARAM;
    const auto &b = field_at<ProtobufCBinaryData>(sub, data);
    if (name == "v6") {
        if (b.len != 16) return TQ_MOM_ERR_PARAM;
        inet_ntop(AF_INET6, b.data, buf, sizeof buf);
        out += "v6:";
        out += buf;
        return 0;
    }
    if (name == "v4b") {
        out += "v4b:" + hex_of(b);
        return 0;
    }
    return TQ_MOM_ERR_PARAM;
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool bytes_from_hex(std::string_view hex, name_arena_t &arena, ProtobufCBinaryData &out) {
    if (hex.size() % 2 != 0) return false;
    auto *data = static_cast<uint8_t *>(arena.alloc(hex.size() / 2));
    for (size_t i = 0; i < hex.size(); i += 2) {
        int hi = hex_digit(hex[i]), lo = hex_digit(hex[i + 1]);
        if (hi < 0 || lo < 0) return false;
        data[i / 2] = static_cast<uint8_t>(hi << 4 | lo);
    }
    out.len = hex.size() / 2;
    out.data = data;
    return true;
}

// Sets the member `name` of a new p_libpub.ip and returns its data field.
ProtobufCMessage *ip_member(ProtobufCMessage *ip, const char *name, name_arena_t &arena,
                            const ProtobufCFieldDescriptor **data) {
    const ProtobufCFieldDescriptor *member =
        protobuf_c_message_descriptor_get_field_by_name(ip->descriptor, name);
    if (member == nullptr || member->type != PROTOBUF_C_TYPE_MESSAGE) return nullptr;
    *data = member_data_field(member);
    if (*data == nullptr) return nullptr;
    ProtobufCMessage *sub =
        arena.new_msg(static_cast<const ProtobufCMessageDescriptor *>(member->descriptor));
    quantifier_at(ip, member) = member->id;
    field_at<ProtobufCMessage *>(ip, member) = sub;
    return sub;
}

bool text_to_ip(const ProtobufCMessageDescriptor *desc, std::string_view text,
                name_arena_t &arena, ProtobufCMessage **out) {
    *out = nullptr;
    if (text.empty()) return true;
    size_t colon = text.find(':');
    if (colon == std::string_view::npos) return false;
    std::string kind(text.substr(0, colon));
    std::string addr(text.substr(colon + 1));
    ProtobufCMessage *ip = arena.new_msg(desc);
    const ProtobufCFieldDescriptor *data = nullptr;
    ProtobufCMessage *sub = ip_member(ip, kind.c_str(), arena, &data);
    if (sub == nullptr) return false;
    if (kind == "v4") {
        unsigned char bytes[4];
        if (data->type != PROTOBUF_C_TYPE_UINT32 || inet_pton(AF_INET, addr.c_str(), bytes) != 1)
            return false;
        std::memcpy(&field_at<uint32_t>(sub, data), bytes, sizeof bytes);
    } else if (data->type != PROTOBUF_C_TYPE_BYTES) {
        return false;
    } else if (kind == "v6") {
        auto *bytes = static_cast<uint8_t *>(arena.alloc(16));
        if (inet_pton(AF_INET6, addr.c_str(), bytes) != 1) return false;
        field_at<ProtobufCBinaryData>(sub, data) = {16, bytes};
    } else if (kind == "v4b") {
        if (!bytes_from_hex(addr, arena, field_at<ProtobufCBinaryData>(sub, data))) return false;
    } else {
        return false;
    }
    *out = ip;
    return true;
}

// ---- key fields -------------------------------------------------------------

template <class T>
void append_int(std::string &out, T v) {
    char buf[24];
    out.append(buf, std::to_chars(buf, buf + sizeof buf, v).ptr);
}

int field_to_text(const ProtobufCMessage *key, const ProtobufCFieldDescriptor *f,
                  std::string &out) {
    if (f->label == PROTOBUF_C_LABEL_REPEATED || (f->flags & PROTOBUF_C_FIELD_FLAG_ONEOF))
        return TQ_MOM_ERR_PARAM;
    switch (f->type) {
    case PROTOBUF_C_TYPE_INT32:
    case PROTOBUF_C_TYPE_SINT32:
    case PROTOBUF_C_TYPE_SFIXED32:
    case PROTOBUF_C_TYPE_ENUM:
        append_int(out, field_at<int32_t>(key, f));
        return 0;
    case PROTOBUF_C_TYPE_UINT32:
    case PROTOBUF_C_TYPE_FIXED32:
        append_int(out, field_at<uint32_t>(key, f));
        return 0;
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
        append_int(out, field_at<int64_t>(key, f));
        return 0;
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
        append_int(out, field_at<uint64_t>(key, f));
        return 0;
    case PROTOBUF_C_TYPE_BOOL:
        out += field_at<protobuf_c_boolean>(key, f) ? '1' : '0';
        return 0;
    case PROTOBUF_C_TYPE_MESSAGE:
        if (!is_ip_desc(static_cast<const ProtobufCMessageDescriptor *>(f->descriptor)))
            return TQ_MOM_ERR_PARAM;
        return ip_to_text(field_at<const ProtobufCMessage *>(key, f), out);
    default:
        return TQ_MOM_ERR_PARAM;
    }
}

template <class T>
bool parse_int(std::string_view text, T &out) {
    if (text.empty()) return false;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc() && end == text.data() + text.size();
}

template <class Wide, class T>
bool parse_into(std::string_view text, ProtobufCMessage *key, const ProtobufCFieldDescriptor *f) {
    Wide v{};
    if (!parse_int(text, v) || !std::in_range<T>(v)) return false;
    field_at<T>(key, f) = static_cast<T>(v);
    return true;
}

bool field_from_text(ProtobufCMessage *key, const ProtobufCFieldDescriptor *f,
                     std::string_view text, name_arena_t &arena) {
    if (f->label == PROTOBUF_C_LABEL_REPEATED || (f->flags & PROTOBUF_C_FIELD_FLAG_ONEOF))
        return false;
    bool ok = false;
    switch (f->type) {
    case PROTOBUF_C_TYPE_INT32:
    case PROTOBUF_C_TYPE_SINT32:
    case PROTOBUF_C_TYPE_SFIXED32:
    case PROTOBUF_C_TYPE_ENUM:
        ok = parse_into<int64_t, int32_t>(text, key, f);
        break;
    case PROTOBUF_C_TYPE_UINT32:
    case PROTOBUF_C_TYPE_FIXED32:
        ok = parse_into<uint64_t, uint32_t>(text, key, f);
        break;
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
        ok = parse_into<int64_t, int64_t>(text, key, f);
        break;
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
        ok = parse_into<uint64_t, uint64_t>(text, key, f);
        break;
    case PROTOBUF_C_TYPE_BOOL:
        ok = text == "0" || text == "1";
        if (ok) field_at<protobuf_c_boolean>(key, f) = text == "1";
        break;
    case PROTOBUF_C_TYPE_MESSAGE: {
        auto *desc = static_cast<const ProtobufCMessageDescriptor *>(f->descriptor);
        if (!is_ip_desc(desc)) return false;
        return text_to_ip(desc, text, arena, &field_at<ProtobufCMessage *>(key, f));
    }
    default:
        return false;
    }
    // proto2-style optional scalars carry a has_ flag.
    if (ok && f->label == PROTOBUF_C_LABEL_OPTIONAL)
        *reinterpret_cast<protobuf_c_boolean *>(reinterpret_cast<char *>(key) +
                                                f->quantifier_offset) = 1;
    return ok;
}

std::vector<std::string_view> split_fields(std::string_view text) {
    std::vector<std::string_view> parts;
    size_t start = 0;
    for (;;) {
        size_t bar = text.find('|', start);
        parts.push_back(text.substr(start, bar == std::string_view::npos ? bar : bar - start));
        if (bar == std::string_view::npos) return parts;
        start = bar + 1;
    }
}

// Builds a key message in scratch memory; null when the text does not parse.
ProtobufCMessage *build_key(const ProtobufCMessageDescriptor *key_desc, std::string_view text,
                            name_arena_t &arena) {
    std::vector<std::string_view> parts = split_fields(text);
    if (parts.size() != key_desc->n_fields) return nullptr;
    ProtobufCMessage *key = arena.new_msg(key_desc);
    for (unsigned i = 0; i < key_desc->n_fields; ++i)
        if (!field_from_text(key, &key_desc->fields[i], parts[i], arena)) return nullptr;
    return key;
}

// ---- wire walking -----------------------------------------------------------

bool read_varint(const uint8_t *p, size_t len, size_t &pos, uint64_t &v) {
    v = 0;
    for (unsigned shift = 0; pos < len && shift < 64; shift += 7) {
        uint8_t b = p[pos++];
        v |= uint64_t(b & 0x7f) << shift;
        if ((b & 0x80) == 0) return true;
    }
    return false;
}

// One element of a packed message: its field number and its [begin, end) bytes.
struct wire_elem_t {
    uint32_t id;
    size_t begin, end;
};

bool next_elem(std::string_view bytes, size_t &pos, wire_elem_t &e) {
    const auto *p = reinterpret_cast<const uint8_t *>(bytes.data());
    size_t len = bytes.size();
    uint64_t tag = 0, n = 0;
    e.begin = pos;
    if (!read_varint(p, len, pos, tag) || (tag >> 3) == 0 || (tag >> 3) > UINT32_MAX) return false;
    e.id = static_cast<uint32_t>(tag >> 3);
    switch (tag & 7) {
    case 0:
        if (!read_varint(p, len, pos, n)) return false;
        break;
    case 1:
        pos += 8;
        break;
    case 2:
        if (!read_varint(p, len, pos, n) || n > len - pos) return false;
        pos += n;
        break;
    case 5:
        pos += 4;
        break;
    default:
        return false;
    }
    e.end = pos;
    return pos <= len;
}

// Splits packed bytes into runs of one field number each, in wire order.
bool split_runs(std::string_view bytes, std::vector<wire_elem_t> &runs) {
    size_t pos = 0;
    wire_elem_t e{};
    while (pos < bytes.size()) {
        if (!next_elem(bytes, pos, e)) return false;
        if (!runs.empty() && runs.back().id == e.id && runs.back().end == e.begin)
            runs.back().end = e.end;
        else
            runs.push_back(e);
    }
    return true;
}

}  // namespace

const char *tq_mom_table_name(const ProtobufCMessageDescriptor *item_desc) {
    return item_desc == nullptr ? "" : item_desc->name;
}

const ProtobufCMessageDescriptor *tq_mom_key_desc(const ProtobufCMessageDescriptor *item_desc) {
    if (item_desc == nullptr || item_desc->n_fields == 0) return nullptr;
    const ProtobufCFieldDescriptor *f = &item_desc->fields[0];
    if (f->type != PROTOBUF_C_TYPE_MESSAGE || std::strcmp(f->name, "index") != 0) return nullptr;
    return static_cast<const ProtobufCMessageDescriptor *>(f->descriptor);
}

const ProtobufCMessage *tq_mom_item_key(const ProtobufCMessage *item) {
    if (item == nullptr || tq_mom_key_desc(item->descriptor) == nullptr) return nullptr;
    return field_at<const ProtobufCMessage *>(item, &item->descriptor->fields[0]);
}

int tq_mom_key_to_text(const ProtobufCMessage *key, std::string &out) {
    out.clear();
    if (key == nullptr) return TQ_MOM_ERR_PARAM;
    const ProtobufCMessageDescriptor *desc = key->descriptor;
    for (unsigned i = 0; i < desc->n_fields; ++i) {
        if (i > 0) out += '|';
        int rv = field_to_text(key, &desc->fields[i], out);
        if (rv != 0) {
            out.clear();
            return rv;
        }
    }
    return 0;
}

int tq_mom_key_from_text(const ProtobufCMessageDescriptor *key_desc, std::string_view text,
                         ProtobufCMessage **out) {
    if (out == nullptr) return TQ_MOM_ERR_PARAM;
    *out = nullptr;
    if (key_desc == nullptr) return TQ_MOM_ERR_PARAM;
    name_arena_t arena;
    ProtobufCMessage *key = build_key(key_desc, text, arena);
    if (key == nullptr) return TQ_MOM_ERR_PARAM;
    *out = repack(key);
    return *out == nullptr ? TQ_MOM_ERR_NOMEM : 0;
}

int tq_mom_record_key(const ProtobufCMessage *item, std::string &out) {
    out.clear();
    if (item == nullptr) return TQ_MOM_ERR_PARAM;
    if (tq_mom_key_desc(item->descriptor) == nullptr) {
        out = item->descriptor->name;
        return 0;
    }
    std::string text;
    int rv = tq_mom_key_to_text(tq_mom_item_key(item), text);
    if (rv != 0) return rv;
    out.reserve(strlen(item->descriptor->name) + 1 + text.size());
    out += item->descriptor->name;
    out += '|';
    out += text;
    return 0;
}

std::string tq_mom_table_prefix(const ProtobufCMessage *item, bool owner_slice) {
    if (item == nullptr) return "";
    std::string prefix = std::string(item->descriptor->name) + "|";
    const ProtobufCMessageDescriptor *key_desc = tq_mom_key_desc(item->descriptor);
    if (!owner_slice || key_desc == nullptr || key_desc->n_fields == 0) return prefix;
    name_arena_t arena;
    const ProtobufCMessage *key = tq_mom_item_key(item);
    if (key == nullptr) key = arena.new_msg(key_desc);
    std::string first;
    if (field_to_text(key, &key_desc->fields[0], first) != 0) return prefix;
    return prefix + first + "|";
}

std::string tq_mom_channel(uint32_t db, const ProtobufCMessageDescriptor *item_desc) {
    return "pub@" + std::to_string(db) + ":" + tq_mom_table_name(item_desc);
}

int tq_mom_pack(const ProtobufCMessage *item, std::string &out) {
    out.clear();
    if (item == nullptr) return TQ_MOM_ERR_PARAM;
    out = pack_msg(item);
    return 0;
}

namespace {
// Field number 0 is not a field: the unpacker keeps it as an unknown field, but
// the record would not survive being packed again, so it is refused.
bool has_field_zero(const ProtobufCMessage *m) {
    for (unsigned i = 0; i < m->n_unknown_fields; ++i)
        if (m->unknown_fields[i].tag == 0) return true;
    const ProtobufCMessageDescriptor *d = m->descriptor;
    for (unsigned i = 0; i < d->n_fields; ++i) {
        const ProtobufCFieldDescriptor &f = d->fields[i];
        if (f.type != PROTOBUF_C_TYPE_MESSAGE) continue;
        const char *at = reinterpret_cast<const char *>(m) + f.offset;
        if (f.label == PROTOBUF_C_LABEL_REPEATED) {
            size_t n = *reinterpret_cast<const size_t *>(reinterpret_cast<const char *>(m) +
                                                         f.quantifier_offset);
            auto *subs = *reinterpret_cast<ProtobufCMessage *const *const *>(at);
            for (size_t k = 0; k < n; ++k)
                if (has_field_zero(subs[k])) return true;
        } else if (auto *sub = *reinterpret_cast<ProtobufCMessage *const *>(at)) {
            if (has_field_zero(sub)) return true;
        }
    }
    return false;
}

ProtobufCMessage *checked_unpack(const ProtobufCMessageDescriptor *desc, std::string_view bytes) {
    ProtobufCMessage *m = protobuf_c_message_unpack(
        desc, nullptr, bytes.size(), reinterpret_cast<const uint8_t *>(bytes.data()));
    if (m != nullptr && has_field_zero(m)) {
        protobuf_c_message_free_unpacked(m, nullptr);
        return nullptr;
    }
    return m;
}
}  // namespace

ProtobufCMessage *tq_mom_unpack(const ProtobufCMessageDescriptor *desc, std::string_view bytes) {
    if (desc == nullptr) return nullptr;
    return checked_unpack(desc, bytes);
}

int tq_mom_hash_fields(const ProtobufCMessage *item,
                       std::vector<std::pair<std::string, std::string>> &out) {
    out.clear();
    if (item == nullptr) return TQ_MOM_ERR_PARAM;
    std::string bytes = pack_msg(item);
    std::vector<wire_elem_t> runs;
    if (!split_runs(bytes, runs)) return TQ_MOM_ERR_PARAM;
    for (const wire_elem_t &r : runs) {
        const ProtobufCFieldDescriptor *f =
            protobuf_c_message_descriptor_get_field(item->descriptor, r.id);
        if (f == nullptr) continue;  // unknown fields carried along stay out of the hash
        out.emplace_back(f->name, bytes.substr(r.begin, r.end - r.begin));
    }
    return 0;
}

namespace {
// Whether a hash write leaves field f as the record holds it ("not given").
bool left_as_is(const ProtobufCMessage *item, const ProtobufCFieldDescriptor *f) {
    if (f->label == PROTOBUF_C_LABEL_REPEATED) return false;
    if (f->flags & PROTOBUF_C_FIELD_FLAG_ONEOF) return quantifier_at(item, f) == 0;
    if (f->type == PROTOBUF_C_TYPE_MESSAGE) return field_at<const void *>(item, f) == nullptr;
    if (f->label != PROTOBUF_C_LABEL_OPTIONAL) return false;
    if (f->type == PROTOBUF_C_TYPE_STRING) return field_at<const char *>(item, f) == nullptr;
    return f->quantifier_offset != 0 &&
           *reinterpret_cast<const protobuf_c_boolean *>(reinterpret_cast<const char *>(item) +
                                                         f->quantifier_offset) == 0;
}
}  // namespace

int tq_mom_hash_write(const ProtobufCMessage *item,
                      std::vector<std::pair<std::string, std::string>> &out) {
    std::vector<std::pair<std::string, std::string>> present;
    int rv = tq_mom_hash_fields(item, present);
    out.clear();
    if (rv != 0) return rv;
    const ProtobufCMessageDescriptor *d = item->descriptor;
    out.reserve(d->n_fields);
    // Both lists run in field-number order.
    size_t at = 0;
    for (unsigned i = 0; i < d->n_fields; ++i) {
        const ProtobufCFieldDescriptor *f = &d->fields[i];
        if (at < present.size() && present[at].first == f->name)
            out.push_back(std::move(present[at++]));
        else if (!left_as_is(item, f))
            out.emplace_back(f->name, std::string());
    }
    return 0;
}

ProtobufCMessage *tq_mom_hash_unpack(const ProtobufCMessageDescriptor *desc,
                                     const std::vector<std::pair<std::string, std::string>> &fields) {
    if (desc == nullptr) return nullptr;
    std::vector<std::pair<uint32_t, const std::string *>> ordered;
    for (const auto &[name, value] : fields) {
        const ProtobufCFieldDescriptor *f =
            protobuf_c_message_descriptor_get_field_by_name(desc, name.c_str());
        if (f == nullptr) return nullptr;
        // A value must hold only its own field, or it would land on another one.
        std::vector<wire_elem_t> runs;
        if (!split_runs(value, runs) || runs.size() > 1 || (runs.size() == 1 && runs[0].id != f->id))
            return nullptr;
        ordered.emplace_back(f->id, &value);
    }
    std::stable_sort(ordered.begin(), ordered.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    std::string bytes;
    for (const auto &o : ordered) bytes += *o.second;
    return tq_mom_unpack(desc, bytes);
}

ProtobufCMessage *tq_mom_item_from_key(const ProtobufCMessageDescriptor *item_desc,
                                       std::string_view redis_key) {
    if (item_desc == nullptr) return nullptr;
    std::string_view table = item_desc->name;
    const ProtobufCMessageDescriptor *key_desc = tq_mom_key_desc(item_desc);
    if (key_desc == nullptr) return redis_key == table ? tq_mom_unpack(item_desc, {}) : nullptr;
    if (redis_key.size() <= table.size() || redis_key.substr(0, table.size()) != table ||
        redis_key[table.size()] != '|')
        return nullptr;
    name_arena_t arena;
    ProtobufCMessage *key = build_key(key_desc, redis_key.substr(table.size() + 1), arena);
    if (key == nullptr) return nullptr;
    ProtobufCMessage *item = arena.new_msg(item_desc);
    field_at<ProtobufCMessage *>(item, &item_desc->fields[0]) = key;
    return repack(item);
}
