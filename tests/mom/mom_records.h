// Records the MOM tests write, and a recorder of the notices they get back.
#pragma once
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/mom/tq_mom.h"
#include "platform/mom/tq_mom_name.h"
#include "s_route.pb-c.h"
#include "u_mpls.pb-c.h"

// A notice as key and packed bytes, which outlive the notice itself.
struct seen_t {
    uint32_t cmd, flag;
    std::string key;    // Redis key of the record, "" without one
    std::string bytes;  // packed record
    bool operator==(const seen_t &) const = default;
    bool operator<(const seen_t &o) const { return key < o.key; }
};

inline void PrintTo(const seen_t &s, std::ostream *os) {
    *os << "{cmd " << s.cmd << " flag " << s.flag << " " << s.key << " (" << s.bytes.size() << " bytes)}";
}

inline seen_t seen_of(uint32_t cmd, uint32_t flag, const ProtobufCMessage *m) {
    seen_t s{cmd, flag, "", ""};
    if (m != nullptr) {
        tq_mom_record_key(m, s.key);
        tq_mom_pack(m, s.bytes);
    }
    return s;
}

// arg: a std::vector<seen_t>.
inline int record_cb(void *, tq_mom_msg_t *msg, void *arg) {
    bool hash = msg->cmd == TQ_MOM_CMD_HSET || msg->cmd == TQ_MOM_CMD_HSCAN;
    auto *res = static_cast<tq_mom_hash_res_t *>(msg->value);
    const auto *m = static_cast<const ProtobufCMessage *>(hash ? res->value : msg->value);
    static_cast<std::vector<seen_t> *>(arg)->push_back(seen_of(msg->cmd, msg->flag, m));
    return 0;
}

// A string-table record keyed by its in-label. With opcode 0 it is the bare
// record a delete notice carries.
struct ilm_t {
    UMpls__UdpIlmKey key = U_MPLS__UDP_ILM_KEY__INIT;
    UMpls__UdpIlm item = U_MPLS__UDP_ILM__INIT;
    ilm_t(uint32_t label, uint32_t opcode) { key.in_label = label, item.index = &key, item.opcode = opcode; }
    const ProtobufCMessage *msg() const { return &item.base; }
};

// An owner-sliced record keyed by owner and MPLS id.
struct adj_t {
    SRoute__InSubAdjKey key = S_ROUTE__IN_SUB_ADJ_KEY__INIT;
    SRoute__InSubAdj item = S_ROUTE__IN_SUB_ADJ__INIT;
    adj_t(uint32_t owner, uint64_t id, uint32_t ttl = 0) {
        key.t_rt_owner = owner, key.mplsid = id, item.index = &key, item.ttl = ttl;
    }
    const ProtobufCMessage *msg() const { return &item.base; }
};
