// The daemon's 23 tables as the operator tool knows them: which message lives
// in which MOM database, stored as a string or a hash, read or written by the
// daemon. Everything else the tool knows comes from the message descriptors.
#pragma once
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include <protobuf-c/protobuf-c.h>

enum { CTL_TBL_STRING = 1, CTL_TBL_HASH = 2 };
enum { CTL_TBL_INPUT = 1, CTL_TBL_OUTPUT = 2 };

struct ctl_tbl_t {
    const ProtobufCMessageDescriptor *desc;  // item message; its full name names the table
    uint32_t db;
    int type;       // CTL_TBL_STRING / CTL_TBL_HASH
    int use;        // CTL_TBL_INPUT / CTL_TBL_OUTPUT
    uint32_t owner; // t_rt_owner of the daemon's slice, 0 when the table is not sliced
};

// The 23 tables in the daemon's creation order. A message shared by several
// owners (routes, inner adjacencies) appears once per owner.
std::span<const ctl_tbl_t> ctl_tbl_all();
// The first table of a message full name, or null.
const ctl_tbl_t *ctl_tbl_find(std::string_view name);
// One table per message, in creation order (the owner slices folded into one).
std::vector<const ctl_tbl_t *> ctl_tbl_distinct();
const char *ctl_tbl_type_name(int type);
