// Naming and encoding of records in the MOM, shared by every process that
// reads or writes it (the daemon, the tools, other producers).
//
//   table            T = full name of the item message ("p_mpls.mom_msg_ilm")
//   unkeyed record   key "T"
//   keyed record     key "T|" + key text: the key message's fields in field-number
//                    order, each as text, joined by '|'. Integers in decimal,
//                    bools 0/1, p_libpub.ip as "v4:a.b.c.d", "v6:<compressed>",
//                    "v4b:<hex>", or "" when no member is set.
//   string record    the packed item message
//   hash record      one hash field per top-level field: field name -> that
//                    field's packed bytes (tag and value); a zero is stored as
//                    an empty value, which adds nothing when the values are
//                    joined in field-number order to give the packed record
//   publish channel  "pub@<db>:T"
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>
#include <protobuf-c/protobuf-c.h>

// Full name of the table of an item message or descriptor.
const char *tq_mom_table_name(const ProtobufCMessageDescriptor *item_desc);

// The key message descriptor of a keyed item (first field: message "index"),
// or null for an unkeyed table.
const ProtobufCMessageDescriptor *tq_mom_key_desc(const ProtobufCMessageDescriptor *item_desc);

// The key sub-message of an item, or null (unkeyed, or not set).
const ProtobufCMessage *tq_mom_item_key(const ProtobufCMessage *item);

// Key text of a key message (all fields, "" for an absent address). 0 or -4.
int tq_mom_key_to_text(const ProtobufCMessage *key, std::string &out);
// Parses key text into a new key message (release with tq_mom_free). 0, -4 bad text, -2.
int tq_mom_key_from_text(const ProtobufCMessageDescriptor *key_desc, std::string_view text,
                         ProtobufCMessage **out);

// Redis key of an item: "T" or "T|<key text>"; -4 for a keyed item without key.
int tq_mom_record_key(const ProtobufCMessage *item, std::string &out);
// Match pattern prefix of a table ("T" + "|") or of an owner slice
// ("T|<first key field of the template's key>|").
std::string tq_mom_table_prefix(const ProtobufCMessage *item, bool owner_slice);
// Publish channel of a table on a database.
std::string tq_mom_channel(uint32_t db, const ProtobufCMessageDescriptor *item_desc);

// String records.
int tq_mom_pack(const ProtobufCMessage *item, std::string &out);
// Unpacks a string record; null when the bytes do not unpack.
ProtobufCMessage *tq_mom_unpack(const ProtobufCMessageDescriptor *desc, std::string_view bytes);

// Hash records: (field name, packed field bytes) for each present top-level field.
int tq_mom_hash_fields(const ProtobufCMessage *item,
                       std::vector<std::pair<std::string, std::string>> &out);
// The fields a hash write stores, in field-number order. proto3 never packs a
// zero, so "present" cannot tell a zero from "not given": every scalar,
// string, bytes and repeated field is written, a zero (or empty list) as an
// empty value. What a writer can leave out is a sub-message (null pointer), an
// optional field without its has_ flag, and a oneof with no member set: those
// fields keep what the record holds, which is how a partial update is made.
// When a oneof member is set, the group's other members are written empty.
int tq_mom_hash_write(const ProtobufCMessage *item,
                      std::vector<std::pair<std::string, std::string>> &out);
// Rebuilds a record from hash fields (any order); null when it does not unpack
// or a field name is unknown.
ProtobufCMessage *tq_mom_hash_unpack(const ProtobufCMessageDescriptor *desc,
                                     const std::vector<std::pair<std::string, std::string>> &fields);

// Builds an item with only its key set from a Redis key of the table ("T|...");
// null when the key does not parse. Used for del/expired notices.
ProtobufCMessage *tq_mom_item_from_key(const ProtobufCMessageDescriptor *item_desc,
                                       std::string_view redis_key);
