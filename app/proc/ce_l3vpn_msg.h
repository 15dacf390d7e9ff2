// The internal records: one ce_msg_comm_t per forwarding entry next hop (FTN,
// VC-FTN, ILM, or an inner adjacency read back), and the tunnel counter entry.
// Plain values, cleared before they are filled; keys are compared byte by
// byte, so every padding byte is an explicit, zeroed member.
#pragma once
#include <cstdint>

enum { CE_MSG_EVENT_ADD = 1, CE_MSG_EVENT_DEL = 2 };
enum { CE_OWNER_FTN = 1, CE_OWNER_VC_FTN = 2, CE_OWNER_ILM = 3 };
enum { CE_PRO_IPV4 = 0, CE_PRO_IPV6 = 1 };

// Route owners written to the lower layers (t_rt_owner).
enum { CE_RT_OWNER_FTN = 1, CE_RT_OWNER_ILM = 7, CE_RT_OWNER_VC_FTN = 8 };

enum ce_opcode_t {
    CE_OP_INVALID = 0,
    CE_OP_PUSH = 1,
    CE_OP_POP = 2,
    CE_OP_SWAP = 3,
    CE_OP_SWAP_PUSH = 4,
    CE_OP_POP_L3SWITCH = 5,
    CE_OP_POP_L3NEXTHOP = 6,
    CE_OP_POP_L2DSTPORT = 7,
    CE_OP_POP_L2SWITCH = 8,
    CE_OP_DLVR_TO_IP = 9,
    CE_OP_POP_DLVR_LOCAL = 10,
    CE_OP_DROP = 11,
    CE_OP_MAX = 12,
};

enum { CE_MPLS_MAX_LABELS = 8 };
constexpr uint32_t CE_MPLS_LABEL_MAX = 0xFFFFF;
// One above the largest label: an absent label, or an implicit null kept on top.
constexpr uint32_t CE_MPLS_LABEL_NONE = 0x100000;
constexpr uint32_t CE_MPLS_IMPLICIT_NULL = 3;

#define SS_MPLS_CHECK_LABEL_DEPTH_VALID(n) ((n) <= CE_MPLS_MAX_LABELS)
#define SS_MPLS_CHECK_LABEL_VALID(l) ((l) <= CE_MPLS_LABEL_MAX)
#define SS_MPLS_CHECK_OPCODE_VALID(op) ((op) >= CE_OP_PUSH && (op) <= CE_OP_DROP)

struct ce_ftn_key_t {
    uint8_t pro;
    uint8_t mask_len;
    uint8_t rsv[2];
    uint32_t vrf;
    uint8_t ip[16];
};
struct ce_vc_ftn_key_t {
    uint32_t vc_ifx;
    uint8_t rsv[20];
};
struct ce_ilm_key_t {
    uint32_t inlabel;
    uint8_t rsv[20];
};
union ce_msg_key_t {
    ce_ftn_key_t ftn;
    ce_vc_ftn_key_t vc_ftn;
    ce_ilm_key_t ilm;
    uint8_t raw[24];
};
static_assert(sizeof(ce_msg_key_t) == 24);

// The next-hop identity.
struct ce_nhop_t {
    uint8_t pro;
    uint8_t ip[16];
    uint8_t rsv[3];
    uint32_t ifx;
};
static_assert(sizeof(ce_nhop_t) == 24);

struct ce_nhop_attr_t {
    uint32_t vrf;
    uint16_t ifx_type;
    uint8_t weight;
    uint8_t seq;
};

// The label operation of a next hop; the key of an inner adjacency.
struct ce_msg_data_t {
    uint8_t opcode;
    uint8_t n_labels;
    uint8_t rsv[2];
    uint32_t labels[CE_MPLS_MAX_LABELS];  // outermost first
    union {
        uint32_t vc_mode;  // VC-FTN: low 8 bits
        uint32_t vrf;      // ILM
    };
    union {
        uint32_t sd_vid;      // VC-FTN
        uint32_t ilm_vc_ifx;  // ILM (read-back ILM adjacency: the key's ifx)
    };
    uint32_t cw;      // VC-FTN control word
    uint32_t vc_ifx;  // VC-FTN interface, 0 for the other owners
};
static_assert(sizeof(ce_msg_data_t) == 52);

struct ce_msg_comm_t {
    uint8_t msg_event;
    uint8_t rsv[3];
    uint32_t owner;
    ce_msg_key_t key;
    ce_nhop_t nhop;
    ce_nhop_attr_t nhop_attr;
    ce_msg_data_t data;
};

struct ce_msg_status_cnt_t {
    uint32_t index;  // the tunnel's interface index
    uint64_t timestamp;
    uint64_t bytes;
    uint64_t pkts;
    uint64_t v6_timestamp;
    uint64_t v6_bytes;
    uint64_t v6_pkts;
    uint8_t enable;
    uint8_t changed;
};

const char *ce_owner_name(uint32_t owner);       // "ftn", "vc_ftn", "ilm", "unknown"
const char *ce_opcode_name(uint32_t opcode);     // "INVALID".."MAX", "ERROR" above
const char *ce_msg_event_name(uint32_t event);   // "add", "del", "unknown"

// Copies the first lb_cnt wire labels and normalises implicit nulls: a 3 on top
// becomes CE_MPLS_LABEL_NONE, a 3 further down is dropped.
void ce_msg_label_normalise(ce_msg_data_t *data, const uint32_t *wire, uint32_t lb_cnt);

// An address is zero when its first 32 bits (IPv4) or all 16 bytes (IPv6) are.
bool mpls_is_ip_zero(const uint8_t ip[16], uint8_t pro);
// First 32 bits of an address as stored (memory order), for %a.
uint32_t ce_ip_v4_word(const uint8_t ip[16]);
