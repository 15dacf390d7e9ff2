// The readable form of MOM records: protobuf-c messages to and from JSON, and
// to the cells of an aligned table. Generic over the message descriptors; the
// only names it knows are the address message (p_libpub.ip, written as text),
// the `opcode` fields (p_mpls.opcode_t names) and the MPLS ids ({high, low}).
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>
#include <protobuf-c/protobuf-c.h>

// Objects keep the order they were built in: "table" first, then the fields
// in field-number order.
using ctl_json = nlohmann::ordered_json;

// Memory of the messages built from JSON; all of it goes with the arena.
struct ctl_arena_t {
    std::vector<std::unique_ptr<std::byte[]>> blocks;

    void *alloc(size_t size);  // zero-filled
    ProtobufCMessage *new_msg(const ProtobufCMessageDescriptor *desc);
};

// Builds a message of desc from a JSON object of fields by name. Members named
// in skip are not fields (the "table" of a record line). null stands for an
// absent value. 0, or -1 with err set ("field 'index.nhop': bad address ...").
int ctl_json_to_msg(const ProtobufCMessageDescriptor *desc, const ctl_json &obj,
                    const std::vector<std::string_view> &skip, ctl_arena_t &arena,
                    ProtobufCMessage **out, std::string &err);

// Every field of msg, as ctl_json_to_msg reads it back.
ctl_json ctl_msg_to_json(const ProtobufCMessage *msg);

// Table view: one column per field, sub-messages flattened with dotted names,
// an address one column.
std::vector<std::string> ctl_msg_columns(const ProtobufCMessageDescriptor *desc);
// The cells of msg in the order of ctl_msg_columns ("-" for what is absent).
std::vector<std::string> ctl_msg_cells(const ProtobufCMessage *msg);

// Address text of a p_libpub.ip: "10.0.0.1", "2001:db8::1", "v4b:<hex>", or
// "" when no member is set.
std::string ctl_ip_text(const ProtobufCMessage *ip);

std::string ctl_hex(const uint8_t *data, size_t len);
