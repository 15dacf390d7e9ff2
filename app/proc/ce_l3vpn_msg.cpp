#include "app/proc/ce_l3vpn_msg.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {
// Indexed by the wire opcode; a null slot would print "!ERROR!".
constexpr std::array<const char *, CE_OP_MAX + 1> kOpcodeNames = {
    "INVALID",      "PUSH",          "POP",           "SWAP",         "SWAP_PUSH",
    "POP_L3SWITCH", "POP_L3NEXTHOP", "POP_L2DSTPORT", "POP_L2SWITCH", "DLVR_TO_IP",
    "POP_DLVR_LOCAL", "DROP",        "MAX",
};
}  // namespace

const char *ce_owner_name(uint32_t owner) {
    switch (owner) {
    case CE_OWNER_FTN: return "ftn";
    case CE_OWNER_VC_FTN: return "vc_ftn";
    case CE_OWNER_ILM: return "ilm";
    default: return "unknown";
    }
}

const char *ce_opcode_name(uint32_t opcode) {
    if (opcode >= kOpcodeNames.size()) return "ERROR";
    const char *name = kOpcodeNames[opcode];
    return name != nullptr ? name : "!ERROR!";
}

const char *ce_msg_event_name(uint32_t event) {
    switch (event) {
    case CE_MSG_EVENT_ADD: return "add";
    case CE_MSG_EVENT_DEL: return "del";
    default: return "unknown";
    }
}

// Only the top of the stack may stay an implicit null (marked, since 3 itself
// would be pushed as a real label); further down it means nothing and goes.
void ce_msg_label_normalise(ce_msg_data_t *data, const uint32_t *wire, uint32_t lb_cnt) {
    uint32_t n = std::min<uint32_t>(lb_cnt, CE_MPLS_MAX_LABELS);
    std::copy_n(wire, n, data->labels);
    uint32_t scratch[CE_MPLS_MAX_LABELS];
    std::memcpy(scratch, data->labels, sizeof scratch);
    std::memset(data->labels, 0, sizeof data->labels);

    uint32_t out = 0;
    for (uint32_t i = 0; i < n; ++i) {
        if (scratch[i] != CE_MPLS_IMPLICIT_NULL)
            data->labels[out++] = scratch[i];
        else if (i == 0)
            data->labels[out++] = CE_MPLS_LABEL_NONE;
    }
    data->n_labels = static_cast<uint8_t>(out);
}

bool mpls_is_ip_zero(const uint8_t ip[16], uint8_t pro) {
    size_t len = pro == CE_PRO_IPV4 ? 4 : 16;
    return std::all_of(ip, ip + len, [](uint8_t b) { return b == 0; });
}

uint32_t ce_ip_v4_word(const uint8_t ip[16]) {
    uint32_t word;
    std::memcpy(&word, ip, sizeof word);
    return word;
}
