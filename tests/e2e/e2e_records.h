// Input records in the JSON form l3vpn-ctl loads. The end-to-end tests write
// them through the tool; the daemon tests decode them in process.
#pragma once
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

using json = nlohmann::json;

// Addresses are text ("192.0.2.1", "2001:db8::1"). FTN and ILM keys carry
// their labels in the wire's six slots.
inline json e2e_slots(json index, const std::vector<uint32_t> &labels) {
    index["lb_cnt"] = labels.size();
    for (size_t i = 0; i < labels.size() && i < 6; ++i) index["lb_st_" + std::to_string(i)] = labels[i];
    return index;
}

inline json e2e_ftn(uint32_t vrf, const std::string &prefix, int len, uint32_t ifx, const std::string &nh,
                    const std::vector<uint32_t> &labels, int opcode = 1) {
    json index = {{"vrf_id", vrf},  {"prefix", prefix}, {"prefix_len", len},
                  {"out_ifx", ifx}, {"con_nh", nh},     {"opcode", opcode}};
    return {{"table", "p_mpls.mom_msg_ftn"}, {"index", e2e_slots(index, labels)}};
}

inline json e2e_ilm(uint32_t in_label, const std::string &nh, uint32_t ifx, const std::vector<uint32_t> &labels,
                    int opcode, uint32_t vrf = 0) {
    json index = {{"in_label", in_label}, {"co_nhop", nh}, {"out_ifx", ifx}, {"opcode", opcode}};
    return {{"table", "p_mpls.mom_msg_ilm"}, {"index", e2e_slots(index, labels)}, {"vrfid", vrf}};
}

inline json e2e_vc_ftn(uint32_t vc_ifx, const std::string &nh, uint32_t ifx, const std::vector<uint32_t> &labels,
                       uint32_t vc_mode = 0, uint32_t sd_vid = 0, uint32_t cw = 0) {
    json index = {{"vc_ifx", vc_ifx}, {"co_nhop", nh}, {"out_ifx", ifx}};
    return {{"table", "u_mpls.udp_vc_ftn"}, {"index", index},     {"opcode", 1}, {"label_stack", labels},
            {"vc_mode", vc_mode},           {"sd_vid", sd_vid}, {"cw", cw}};
}
