#include "tools/l3vpn_ctl_codec.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <limits>

#include "p_libpub.pb-c.h"
#include "p_mpls.pb-c.h"

namespace {

// Sub-messages nest only a few levels in these records; anything deeper is
// shown as one JSON cell rather than followed.
constexpr int CTL_MAX_DEPTH = 8;

// ---- field access -----------------------------------------------------------

void *ctl_at(void *msg, unsigned offset) { return static_cast<char *>(msg) + offset; }
const void *ctl_at(const void *msg, unsigned offset) {
    return static_cast<const char *>(msg) + offset;
}

const ProtobufCMessageDescriptor *ctl_sub_desc(const ProtobufCFieldDescriptor *f) {
    return static_cast<const ProtobufCMessageDescriptor *>(f->descriptor);
}

bool ctl_is_ip(const ProtobufCFieldDescriptor *f) {
    return f->type == PROTOBUF_C_TYPE_MESSAGE && ctl_sub_desc(f) == &p_libpub__ip__descriptor;
}

bool ctl_is_int32(ProtobufCType t) {
    return t == PROTOBUF_C_TYPE_INT32 || t == PROTOBUF_C_TYPE_SINT32 ||
           t == PROTOBUF_C_TYPE_SFIXED32;
}
bool ctl_is_uint32(ProtobufCType t) {
    return t == PROTOBUF_C_TYPE_UINT32 || t == PROTOBUF_C_TYPE_FIXED32;
}
bool ctl_is_uint64(ProtobufCType t) {
    return t == PROTOBUF_C_TYPE_UINT64 || t == PROTOBUF_C_TYPE_FIXED64;
}

// `opcode` fields are plain integers on the wire holding p_mpls.opcode_t values.
bool ctl_is_opcode(const ProtobufCFieldDescriptor *f) {
    return std::strcmp(f->name, "opcode") == 0 && (ctl_is_int32(f->type) || ctl_is_uint32(f->type));
}

bool ctl_is_mpls_id(const ProtobufCFieldDescriptor *f) {
    return (std::strcmp(f->name, "mplsid") == 0 || std::strcmp(f->name, "mpls_id") == 0) &&
           ctl_is_uint64(f->type);
}

bool ctl_is_oneof(const ProtobufCFieldDescriptor *f) {
    return (f->flags & PROTOBUF_C_FIELD_FLAG_ONEOF) != 0;
}

// A message field that the views follow into rather than show as one value.
bool ctl_is_nested(const ProtobufCFieldDescriptor *f) {
    return f->type == PROTOBUF_C_TYPE_MESSAGE && !ctl_is_ip(f) &&
           f->label != PROTOBUF_C_LABEL_REPEATED;
}

// False for an optional field without its has_ flag or an unselected one-of member.
bool ctl_is_present(const ProtobufCMessage *msg, const ProtobufCFieldDescriptor *f) {
    if (ctl_is_oneof(f))
        return *static_cast<const uint32_t *>(ctl_at(msg, f->quantifier_offset)) == f->id;
    if (f->label == PROTOBUF_C_LABEL_OPTIONAL && f->type != PROTOBUF_C_TYPE_MESSAGE &&
        f->type != PROTOBUF_C_TYPE_STRING)
        return *static_cast<const protobuf_c_boolean *>(ctl_at(msg, f->quantifier_offset)) != 0;
    return true;
}

size_t ctl_elem_size(ProtobufCType t) {
    switch (t) {
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
    case PROTOBUF_C_TYPE_DOUBLE:
        return 8;
    case PROTOBUF_C_TYPE_BOOL:
        return sizeof(protobuf_c_boolean);
    case PROTOBUF_C_TYPE_STRING:
        return sizeof(char *);
    case PROTOBUF_C_TYPE_BYTES:
        return sizeof(ProtobufCBinaryData);
    case PROTOBUF_C_TYPE_MESSAGE:
        return sizeof(ProtobufCMessage *);
    default:
        return 4;
    }
}

const char *ctl_type_name(ProtobufCType t) {
    static const char *const names[] = {"int32",  "sint32", "sfixed32", "int64",  "sint64",
                                        "sfixed64", "uint32", "fixed32", "uint64", "fixed64",
                                        "float",  "double", "bool",     "enum",   "string",
                                        "bytes",  "message"};
    auto k = static_cast<size_t>(t);
    return k < sizeof names / sizeof names[0] ? names[k] : "value";
}

// ---- text helpers -----------------------------------------------------------

int ctl_hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool ctl_unhex(std::string_view hex, ctl_arena_t &arena, ProtobufCBinaryData &out) {
    if (hex.size() % 2 != 0) return false;
    auto *data = static_cast<uint8_t *>(arena.alloc(hex.size() / 2));
    for (size_t i = 0; i < hex.size(); i += 2) {
        int hi = ctl_hex_digit(hex[i]), lo = ctl_hex_digit(hex[i + 1]);
        if (hi < 0 || lo < 0) return false;
        data[i / 2] = static_cast<uint8_t>(hi << 4 | lo);
    }
    out = {hex.size() / 2, hex.empty() ? nullptr : data};
    return true;
}

std::string ctl_enum_name(const ProtobufCEnumDescriptor *d, int value) {
    const ProtobufCEnumValue *v = protobuf_c_enum_descriptor_get_value(d, value);
    return v != nullptr ? v->name : std::to_string(value);
}

// ---- JSON to message --------------------------------------------------------

struct ctl_in_t {
    ctl_arena_t &arena;
    std::string &err;
    std::string path;  // dotted name of the field being read, for messages
    const char *tname = "";  // its wire type, for range messages

    int fail(const std::string &what) {
        err = "field '" + path + "': " + what;
        return -1;
    }
};

int ctl_msg_from_json(const ProtobufCMessageDescriptor *desc, const ctl_json &obj,
                      const std::vector<std::string_view> &skip, ctl_in_t &in,
                      ProtobufCMessage **out);

std::string ctl_range(const std::string &value, const ctl_in_t &in) {
    return value + " is out of range for " + in.tname;
}

// Decimal text of a 64-bit field into out; 0, or -1 with the message set.
template <class T>
int ctl_text_num(const ctl_json &v, T &out, ctl_in_t &in) {
    const std::string &s = v.get_ref<const std::string &>();
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), out);
    if (ec == std::errc::result_out_of_range) return in.fail(ctl_range(s, in));
    if (s.empty() || ec != std::errc() || end != s.data() + s.size())
        return in.fail("'" + s + "' is not a decimal " + in.tname);
    return 0;
}

// Signed integer within [lo, hi]; decimal text is taken where text_ok.
int ctl_get_signed(const ctl_json &v, bool text_ok, int64_t lo, int64_t hi, int64_t &out,
                   ctl_in_t &in) {
    if (v.is_number_unsigned()) {
        uint64_t u = v.get<uint64_t>();
        if (u > static_cast<uint64_t>(hi)) return in.fail(ctl_range(std::to_string(u), in));
        out = static_cast<int64_t>(u);
        return 0;
    }
    if (v.is_number_integer()) {
        out = v.get<int64_t>();
    } else if (v.is_string() && text_ok) {
        if (ctl_text_num(v, out, in) != 0) return -1;
    } else {
        return in.fail(std::string("expected an integer, got ") + v.type_name());
    }
    if (out < lo || out > hi) return in.fail(ctl_range(std::to_string(out), in));
    return 0;
}

int ctl_get_unsigned(const ctl_json &v, bool text_ok, uint64_t hi, uint64_t &out, ctl_in_t &in) {
    if (v.is_number_unsigned()) {
        out = v.get<uint64_t>();
    } else if (v.is_number_integer()) {
        return in.fail(ctl_range(std::to_string(v.get<int64_t>()), in));
    } else if (v.is_string() && text_ok) {
        if (ctl_text_num(v, out, in) != 0) return -1;
    } else {
        return in.fail(std::string("expected an unsigned integer, got ") + v.type_name());
    }
    if (out > hi) return in.fail(ctl_range(std::to_string(out), in));
    return 0;
}

// A name of an enumeration, or a number.
int ctl_get_enum(const ProtobufCEnumDescriptor *d, const ctl_json &v, int64_t lo, int64_t hi,
                 int64_t &out, ctl_in_t &in) {
    if (!v.is_string()) return ctl_get_signed(v, false, lo, hi, out, in);
    const std::string &name = v.get_ref<const std::string &>();
    const ProtobufCEnumValue *ev = protobuf_c_enum_descriptor_get_value_by_name(d, name.c_str());
    if (ev == nullptr) return in.fail("unknown " + std::string(d->name) + " value '" + name + "'");
    out = ev->value;
    if (out < lo || out > hi) return in.fail(ctl_range(name, in));
    return 0;
}

// The address text forms: "a.b.c.d", an IPv6 text, or an object with one
// member: {"v4": "a.b.c.d"}, {"v6": "<text or hex>"}, {"v4b": "<hex>"}.
int ctl_ip_from_json(const ctl_json &v, ctl_in_t &in, ProtobufCMessage **out) {
    ctl_arena_t &a = in.arena;
    auto *ip = reinterpret_cast<PLibpub__Ip *>(a.new_msg(&p_libpub__ip__descriptor));
    std::string kind, text;
    if (v.is_string()) {
        text = v.get<std::string>();
        kind = text.find(':') != std::string::npos ? "v6" : "v4";
    } else if (v.is_object() && v.size() == 1 && v.begin().value().is_string()) {
        kind = v.begin().key();
        text = v.begin().value().get<std::string>();
    } else {
        return in.fail("bad address " + v.dump());
    }
    const std::string bad = "bad address '" + text + "'";
    if (kind == "v4") {
        auto *m = reinterpret_cast<PLibpub__Ipv4 *>(a.new_msg(&p_libpub__ipv4__descriptor));
        unsigned char bytes[4];
        if (inet_pton(AF_INET, text.c_str(), bytes) != 1) return in.fail(bad);
        std::memcpy(&m->data, bytes, sizeof bytes);  // the address bytes in memory order
        ip->addr_case = P_LIBPUB__IP__ADDR_V4;
        ip->v4 = m;
    } else if (kind == "v6") {
        auto *m = reinterpret_cast<PLibpub__Ipv6 *>(a.new_msg(&p_libpub__ipv6__descriptor));
        auto *bytes = static_cast<uint8_t *>(a.alloc(16));
        if (text.find(':') != std::string::npos) {
            if (inet_pton(AF_INET6, text.c_str(), bytes) != 1) return in.fail(bad);
            m->data = {16, bytes};
        } else if (!ctl_unhex(text, a, m->data)) {
            return in.fail(bad);
        }
        ip->addr_case = P_LIBPUB__IP__ADDR_V6;
        ip->v6 = m;
    } else if (kind == "v4b") {
        auto *m = reinterpret_cast<PLibpub__Ipv4b *>(a.new_msg(&p_libpub__ipv4b__descriptor));
        if (!ctl_unhex(text, a, m->data)) return in.fail(bad);
        ip->addr_case = P_LIBPUB__IP__ADDR_V4B;
        ip->v4b = m;
    } else {
        return in.fail("bad address " + v.dump());
    }
    *out = &ip->base;
    return 0;
}

// One value of field f (a singular field, or one element of a repeated one) into p.
int ctl_value_from_json(const ProtobufCFieldDescriptor *f, const ctl_json &v, void *p,
                        ctl_in_t &in) {
    int64_t i = 0;
    uint64_t u = 0;
    constexpr auto I32 = std::numeric_limits<int32_t>::min(), I32X = std::numeric_limits<int32_t>::max();
    constexpr auto I64 = std::numeric_limits<int64_t>::min(), I64X = std::numeric_limits<int64_t>::max();
    const bool op = ctl_is_opcode(f);
    in.tname = ctl_type_name(f->type);
    const ProtobufCEnumDescriptor *opd = &p_mpls__opcode_t__descriptor;
    switch (f->type) {
    case PROTOBUF_C_TYPE_INT32:
    case PROTOBUF_C_TYPE_SINT32:
    case PROTOBUF_C_TYPE_SFIXED32:
        if ((op ? ctl_get_enum(opd, v, I32, I32X, i, in) : ctl_get_signed(v, false, I32, I32X, i, in)) != 0)
            return -1;
        *static_cast<int32_t *>(p) = static_cast<int32_t>(i);
        return 0;
    case PROTOBUF_C_TYPE_UINT32:
    case PROTOBUF_C_TYPE_FIXED32:
        if (op) {
            if (ctl_get_enum(opd, v, 0, UINT32_MAX, i, in) != 0) return -1;
            u = static_cast<uint64_t>(i);
        } else if (ctl_get_unsigned(v, false, UINT32_MAX, u, in) != 0) {
            return -1;
        }
        *static_cast<uint32_t *>(p) = static_cast<uint32_t>(u);
        return 0;
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
        if (ctl_get_signed(v, true, I64, I64X, i, in) != 0) return -1;
        *static_cast<int64_t *>(p) = i;
        return 0;
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
        if (ctl_get_unsigned(v, true, UINT64_MAX, u, in) != 0) return -1;
        *static_cast<uint64_t *>(p) = u;
        return 0;
    case PROTOBUF_C_TYPE_ENUM:
        if (ctl_get_enum(static_cast<const ProtobufCEnumDescriptor *>(f->descriptor), v, I32, I32X,
                         i, in) != 0)
            return -1;
        *static_cast<int *>(p) = static_cast<int>(i);
        return 0;
    case PROTOBUF_C_TYPE_BOOL:
        if (!v.is_boolean()) return in.fail(std::string("expected true or false, got ") + v.type_name());
        *static_cast<protobuf_c_boolean *>(p) = v.get<bool>();
        return 0;
    case PROTOBUF_C_TYPE_FLOAT:
    case PROTOBUF_C_TYPE_DOUBLE:
        if (!v.is_number()) return in.fail(std::string("expected a number, got ") + v.type_name());
        if (f->type == PROTOBUF_C_TYPE_FLOAT)
            *static_cast<float *>(p) = v.get<float>();
        else
            *static_cast<double *>(p) = v.get<double>();
        return 0;
    case PROTOBUF_C_TYPE_STRING: {
        if (!v.is_string()) return in.fail(std::string("expected a string, got ") + v.type_name());
        const std::string &s = v.get_ref<const std::string &>();
        auto *copy = static_cast<char *>(in.arena.alloc(s.size() + 1));
        std::memcpy(copy, s.c_str(), s.size() + 1);
        *static_cast<char **>(p) = copy;
        return 0;
    }
    case PROTOBUF_C_TYPE_BYTES:
        if (!v.is_string() || !ctl_unhex(v.get_ref<const std::string &>(), in.arena,
                                         *static_cast<ProtobufCBinaryData *>(p)))
            return in.fail("expected bytes as a hex string, got " + v.dump());
        return 0;
    case PROTOBUF_C_TYPE_MESSAGE:
        if (ctl_is_ip(f)) return ctl_ip_from_json(v, in, static_cast<ProtobufCMessage **>(p));
        if (!v.is_object()) return in.fail(std::string("expected an object, got ") + v.type_name());
        return ctl_msg_from_json(ctl_sub_desc(f), v, {}, in, static_cast<ProtobufCMessage **>(p));
    }
    return in.fail("field type not supported");
}

int ctl_repeated_from_json(ProtobufCMessage *msg, const ProtobufCFieldDescriptor *f,
                           const ctl_json &v, ctl_in_t &in) {
    if (!v.is_array()) return in.fail(std::string("expected an array, got ") + v.type_name());
    size_t n = v.size(), size = ctl_elem_size(f->type);
    char *arr = static_cast<char *>(in.arena.alloc(n * size));
    const std::string base = in.path;
    for (size_t k = 0; k < n; ++k) {
        in.path = base + "[" + std::to_string(k) + "]";
        if (f->type == PROTOBUF_C_TYPE_STRING)  // protobuf-c never sees a null string
            *reinterpret_cast<const char **>(arr + k * size) = "";
        if (ctl_value_from_json(f, v[k], arr + k * size, in) != 0) return -1;
    }
    in.path = base;
    *static_cast<size_t *>(ctl_at(msg, f->quantifier_offset)) = n;
    *static_cast<void **>(ctl_at(msg, f->offset)) = n == 0 ? nullptr : arr;
    return 0;
}

int ctl_field_from_json(ProtobufCMessage *msg, const ProtobufCFieldDescriptor *f,
                        const ctl_json &v, ctl_in_t &in) {
    if (v.is_null()) return 0;  // absent: the default stays
    if (f->label == PROTOBUF_C_LABEL_REPEATED) return ctl_repeated_from_json(msg, f, v, in);
    if (ctl_value_from_json(f, v, ctl_at(msg, f->offset), in) != 0) return -1;
    if (ctl_is_oneof(f))
        *static_cast<uint32_t *>(ctl_at(msg, f->quantifier_offset)) = f->id;
    else if (f->label == PROTOBUF_C_LABEL_OPTIONAL && f->type != PROTOBUF_C_TYPE_MESSAGE &&
             f->type != PROTOBUF_C_TYPE_STRING)
        *static_cast<protobuf_c_boolean *>(ctl_at(msg, f->quantifier_offset)) = 1;
    return 0;
}

int ctl_msg_from_json(const ProtobufCMessageDescriptor *desc, const ctl_json &obj,
                      const std::vector<std::string_view> &skip, ctl_in_t &in,
                      ProtobufCMessage **out) {
    if (!obj.is_object()) {
        in.err = std::string("expected a JSON object, got ") + obj.type_name();
        return -1;
    }
    ProtobufCMessage *msg = in.arena.new_msg(desc);
    const std::string base = in.path;
    for (auto it = obj.begin(); it != obj.end(); ++it) {
        const std::string &name = it.key();
        if (base.empty() && std::find(skip.begin(), skip.end(), name) != skip.end()) continue;
        in.path = base.empty() ? name : base + "." + name;
        const ProtobufCFieldDescriptor *f =
            protobuf_c_message_descriptor_get_field_by_name(desc, name.c_str());
        if (f == nullptr) {
            in.err = "unknown field '" + in.path + "' in " + desc->name;
            return -1;
        }
        if (ctl_field_from_json(msg, f, it.value(), in) != 0) return -1;
    }
    in.path = base;
    *out = msg;
    return 0;
}

// ---- message to JSON --------------------------------------------------------

ctl_json ctl_ip_to_json(const ProtobufCMessage *m) {
    const auto *ip = reinterpret_cast<const PLibpub__Ip *>(m);
    if (ip == nullptr || ip->addr_case == P_LIBPUB__IP__ADDR__NOT_SET || ip->v4 == nullptr)
        return nullptr;
    if (ip->addr_case == P_LIBPUB__IP__ADDR_V6 && ip->v6->data.len != 16)
        return {{"v6", ctl_hex(ip->v6->data.data, ip->v6->data.len)}};
    if (ip->addr_case == P_LIBPUB__IP__ADDR_V4B)
        return {{"v4b", ctl_hex(ip->v4b->data.data, ip->v4b->data.len)}};
    return ctl_ip_text(m);
}

ctl_json ctl_value_to_json(const ProtobufCFieldDescriptor *f, const void *p) {
    switch (f->type) {
    case PROTOBUF_C_TYPE_INT32:
    case PROTOBUF_C_TYPE_SINT32:
    case PROTOBUF_C_TYPE_SFIXED32:
        return *static_cast<const int32_t *>(p);
    case PROTOBUF_C_TYPE_UINT32:
    case PROTOBUF_C_TYPE_FIXED32:
        return *static_cast<const uint32_t *>(p);
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
        return *static_cast<const int64_t *>(p);
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
        return *static_cast<const uint64_t *>(p);
    case PROTOBUF_C_TYPE_ENUM: {
        int v = *static_cast<const int *>(p);
        auto *d = static_cast<const ProtobufCEnumDescriptor *>(f->descriptor);
        const ProtobufCEnumValue *ev = protobuf_c_enum_descriptor_get_value(d, v);
        return ev != nullptr ? ctl_json(ev->name) : ctl_json(v);
    }
    case PROTOBUF_C_TYPE_BOOL:
        return *static_cast<const protobuf_c_boolean *>(p) != 0;
    case PROTOBUF_C_TYPE_FLOAT:
        return *static_cast<const float *>(p);
    case PROTOBUF_C_TYPE_DOUBLE:
        return *static_cast<const double *>(p);
    case PROTOBUF_C_TYPE_STRING: {
        const char *s = *static_cast<char *const *>(p);
        return s != nullptr ? s : "";
    }
    case PROTOBUF_C_TYPE_BYTES: {
        const auto *b = static_cast<const ProtobufCBinaryData *>(p);
        return ctl_hex(b->data, b->len);
    }
    case PROTOBUF_C_TYPE_MESSAGE: {
        const auto *m = *static_cast<const ProtobufCMessage *const *>(p);
        if (ctl_is_ip(f)) return ctl_ip_to_json(m);
        return m != nullptr ? ctl_msg_to_json(m) : ctl_json(nullptr);
    }
    }
    return nullptr;
}

// ---- table cells --------------------------------------------------------------

std::string ctl_value_cell(const ProtobufCFieldDescriptor *f, const void *p) {
    if (ctl_is_opcode(f)) {
        int v = ctl_is_int32(f->type) ? *static_cast<const int32_t *>(p)
                                      : static_cast<int>(*static_cast<const uint32_t *>(p));
        return ctl_enum_name(&p_mpls__opcode_t__descriptor, v);
    }
    if (ctl_is_mpls_id(f)) {
        uint64_t id = *static_cast<const uint64_t *>(p);
        char buf[64];
        snprintf(buf, sizeof buf, "{%" PRIu32 ", %" PRIu32 "} %" PRIu64,
                 static_cast<uint32_t>(id >> 32), static_cast<uint32_t>(id), id);
        return buf;
    }
    if (ctl_is_ip(f)) {
        std::string text = ctl_ip_text(*static_cast<const ProtobufCMessage *const *>(p));
        return text.empty() ? "-" : text;
    }
    if (f->type == PROTOBUF_C_TYPE_DOUBLE || f->type == PROTOBUF_C_TYPE_FLOAT) {
        double d = f->type == PROTOBUF_C_TYPE_DOUBLE ? *static_cast<const double *>(p)
                                                     : *static_cast<const float *>(p);
        char buf[64];
        snprintf(buf, sizeof buf, "%g", d);
        return buf;
    }
    ctl_json j = ctl_value_to_json(f, p);
    if (j.is_string()) {
        std::string s = j.get<std::string>();
        return s.empty() ? "-" : s;
    }
    if (j.is_null()) return "-";
    return j.dump(-1, ' ', false, ctl_json::error_handler_t::replace);
}

void ctl_columns(const ProtobufCMessageDescriptor *d, const std::string &prefix, int depth,
                 std::vector<std::string> &out) {
    for (unsigned k = 0; k < d->n_fields; ++k) {
        const ProtobufCFieldDescriptor *f = &d->fields[k];
        if (ctl_is_nested(f) && depth < CTL_MAX_DEPTH)
            ctl_columns(ctl_sub_desc(f), prefix + f->name + ".", depth + 1, out);
        else
            out.push_back(prefix + f->name);
    }
}

void ctl_cells(const ProtobufCMessageDescriptor *d, const ProtobufCMessage *m, int depth,
               std::vector<std::string> &out) {
    for (unsigned k = 0; k < d->n_fields; ++k) {
        const ProtobufCFieldDescriptor *f = &d->fields[k];
        if (ctl_is_nested(f) && depth < CTL_MAX_DEPTH) {
            const ProtobufCMessage *sub =
                m == nullptr || !ctl_is_present(m, f)
                    ? nullptr
                    : *static_cast<const ProtobufCMessage *const *>(ctl_at(m, f->offset));
            ctl_cells(ctl_sub_desc(f), sub, depth + 1, out);
        } else if (m == nullptr || !ctl_is_present(m, f)) {
            out.emplace_back("-");
        } else if (f->type == PROTOBUF_C_TYPE_MESSAGE && f->label != PROTOBUF_C_LABEL_REPEATED &&
                   !ctl_is_ip(f)) {
            // nested deeper than the view follows
            out.push_back(ctl_value_to_json(f, ctl_at(m, f->offset))
                              .dump(-1, ' ', false, ctl_json::error_handler_t::replace));
        } else if (f->label == PROTOBUF_C_LABEL_REPEATED) {
            size_t n = *static_cast<const size_t *>(ctl_at(m, f->quantifier_offset));
            const char *arr = *static_cast<const char *const *>(ctl_at(m, f->offset));
            std::string cell = "[";
            for (size_t i = 0; i < n; ++i)
                cell += (i ? " " : "") + ctl_value_cell(f, arr + i * ctl_elem_size(f->type));
            out.push_back(cell + "]");
        } else {
            out.push_back(ctl_value_cell(f, ctl_at(m, f->offset)));
        }
    }
}

}  // namespace

void *ctl_arena_t::alloc(size_t size) {
    blocks.push_back(std::make_unique<std::byte[]>(size == 0 ? 1 : size));  // value-initialised
    return blocks.back().get();
}

ProtobufCMessage *ctl_arena_t::new_msg(const ProtobufCMessageDescriptor *desc) {
    void *p = alloc(desc->sizeof_message);
    protobuf_c_message_init(desc, p);
    return static_cast<ProtobufCMessage *>(p);
}

int ctl_json_to_msg(const ProtobufCMessageDescriptor *desc, const ctl_json &obj,
                    const std::vector<std::string_view> &skip, ctl_arena_t &arena,
                    ProtobufCMessage **out, std::string &err) {
    ctl_in_t in{arena, err, ""};
    *out = nullptr;
    return ctl_msg_from_json(desc, obj, skip, in, out);
}

ctl_json ctl_msg_to_json(const ProtobufCMessage *msg) {
    ctl_json obj = ctl_json::object();
    const ProtobufCMessageDescriptor *d = msg->descriptor;
    for (unsigned k = 0; k < d->n_fields; ++k) {
        const ProtobufCFieldDescriptor *f = &d->fields[k];
        if (!ctl_is_present(msg, f)) continue;
        if (f->label != PROTOBUF_C_LABEL_REPEATED) {
            obj[f->name] = ctl_value_to_json(f, ctl_at(msg, f->offset));
            continue;
        }
        size_t n = *static_cast<const size_t *>(ctl_at(msg, f->quantifier_offset));
        const char *arr = *static_cast<const char *const *>(ctl_at(msg, f->offset));
        ctl_json list = ctl_json::array();
        for (size_t i = 0; i < n; ++i)
            list.push_back(ctl_value_to_json(f, arr + i * ctl_elem_size(f->type)));
        obj[f->name] = std::move(list);
    }
    return obj;
}

std::vector<std::string> ctl_msg_columns(const ProtobufCMessageDescriptor *desc) {
    std::vector<std::string> cols;
    ctl_columns(desc, "", 0, cols);
    return cols;
}

std::vector<std::string> ctl_msg_cells(const ProtobufCMessage *msg) {
    std::vector<std::string> cells;
    ctl_cells(msg->descriptor, msg, 0, cells);
    return cells;
}

std::string ctl_ip_text(const ProtobufCMessage *m) {
    const auto *ip = reinterpret_cast<const PLibpub__Ip *>(m);
    if (ip == nullptr || ip->addr_case == P_LIBPUB__IP__ADDR__NOT_SET || ip->v4 == nullptr)
        return "";
    char buf[INET6_ADDRSTRLEN] = "";
    switch (ip->addr_case) {
    case P_LIBPUB__IP__ADDR_V4:
        inet_ntop(AF_INET, &ip->v4->data, buf, sizeof buf);
        return buf;
    case P_LIBPUB__IP__ADDR_V6:
        if (ip->v6->data.len != 16) return "v6:" + ctl_hex(ip->v6->data.data, ip->v6->data.len);
        inet_ntop(AF_INET6, ip->v6->data.data, buf, sizeof buf);
        return buf;
    case P_LIBPUB__IP__ADDR_V4B:
        return "v4b:" + ctl_hex(ip->v4b->data.data, ip->v4b->data.len);
    default:
        return "";
    }
}

std::string ctl_hex(const uint8_t *data, size_t len) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < len; ++i) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 0xf];
    }
    return out;
}
