#include "app/proc/ce_l3vpn_logall.h"

#include <arpa/inet.h>
#include <cstdio>
#include <string>

#include "app/proc/ce_l3vpn_dbg.h"
#include "app/proc/ce_l3vpn_err.h"

namespace {
std::string addr_text(const uint8_t ip[16], uint32_t pro) {
    char buf[INET6_ADDRSTRLEN];
    inet_ntop(pro == CE_PRO_IPV4 ? AF_INET : AF_INET6, ip, buf, sizeof buf);
    return buf;
}

std::string key_text(const ce_app_node_t *app) {
    char buf[96];
    switch (app->owner) {
    case CE_OWNER_FTN:
        snprintf(buf, sizeof buf, "vrf %u %s/%u", app->key.ftn.vrf,
                 addr_text(app->key.ftn.ip, app->key.ftn.pro).c_str(), app->key.ftn.mask_len);
        break;
    case CE_OWNER_VC_FTN: snprintf(buf, sizeof buf, "vc_ifx %u", app->key.vc_ftn.vc_ifx); break;
    case CE_OWNER_ILM: snprintf(buf, sizeof buf, "in_label %u", app->key.ilm.inlabel); break;
    default: snprintf(buf, sizeof buf, "?"); break;
    }
    return buf;
}

std::string labels_text(const ce_msg_data_t &d) {
    if (d.n_labels == 0) return "-";
    std::string s;
    for (unsigned i = 0; i < d.n_labels && i < CE_MPLS_MAX_LABELS; ++i) {
        if (!s.empty()) s += ',';
        s += d.labels[i] == CE_MPLS_LABEL_NONE ? std::string("imp-null") : std::to_string(d.labels[i]);
    }
    return s;
}

std::string id_text(uint64_t id) {
    char buf[64];
    snprintf(buf, sizeof buf, "{%u, %u} %llu", ce_mpls_id_high(id), ce_mpls_id_low(id),
             (unsigned long long)id);
    return buf;
}

// Owner-specific words of a label operation, in words.
std::string vc_text(uint32_t owner, const ce_msg_data_t &d) {
    char buf[96];
    if (owner == CE_OWNER_VC_FTN)
        snprintf(buf, sizeof buf, "vc_mode %u sd_vid %u cw %u vc_ifx %u", d.vc_mode & 0xff,
                 d.sd_vid, d.cw, d.vc_ifx);
    else if (owner == CE_OWNER_ILM)
        snprintf(buf, sizeof buf, "vrf %u vc_ifx %u", d.vrf, d.ilm_vc_ifx);
    else
        buf[0] = '\0';
    return buf;
}

void print_nhop_row(const ce_nhop_node_t *n) {
    const ce_in_adj_node_t *adj = n->in_adj;
    ce_l3vpn_dbg_print("    %-39s %6u %6u %3u  %-14s %-24s %s\n", addr_text(n->nhop.ip, n->nhop.pro).c_str(),
                       n->nhop.ifx, n->nhop_attr.weight, n->set_to_ef,
                       adj != nullptr ? ce_opcode_name(adj->data.opcode) : "-",
                       adj != nullptr ? labels_text(adj->data).c_str() : "-",
                       adj != nullptr ? id_text(adj->mpls_id).c_str() : "-");
}

struct dump_walk_t {
    int limit;
    int printed;
    int is_form;
};

int app_walk(ce_app_node_t *app, void *arg) {
    auto *w = static_cast<dump_walk_t *>(arg);
    if (w->limit > 0 && w->printed >= w->limit) return 1;
    ce_l3vpn_dump_app_node(app, w->is_form);
    ++w->printed;
    return 0;
}

int in_adj_walk(ce_in_adj_node_t *node, void *arg) {
    auto *w = static_cast<dump_walk_t *>(arg);
    if (w->limit > 0 && w->printed >= w->limit) return 1;
    ce_l3vpn_dump_in_adj_node(node, w->is_form);
    ++w->printed;
    return 0;
}

int log_app(ce_app_node_t *app, void *) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, "%s %s first_opcode:%s nhop_num:%u", ce_owner_name(app->owner),
                 key_text(app).c_str(), ce_opcode_name(app->first_opcode), app->nhop_num);
    return 0;
}

int log_in_adj(ce_in_adj_node_t *node, void *) {
    CE_L3VPN_LOG(CE_L3VPN_INFO, "in_adj %s pro:%u opcode:%s labels:%s mpls_id:%s",
                 ce_owner_name(node->owner), node->pro, ce_opcode_name(node->data.opcode),
                 labels_text(node->data).c_str(), id_text(node->mpls_id).c_str());
    return 0;
}
}  // namespace

int ce_l3vpn_dump_app_node(const ce_app_node_t *app, int is_form) {
    if (app == nullptr) return 0;
    ce_l3vpn_dbg_print("%-6s %-40s first_opcode %-14s nhops %u\n", ce_owner_name(app->owner),
                       key_text(app).c_str(), ce_opcode_name(app->first_opcode), app->nhop_num);
    if (!is_form) return static_cast<int>(app->nhop_num);
    ce_l3vpn_dbg_print("    %-39s %6s %6s %3s  %-14s %-24s %s\n", "next hop", "ifx", "weight",
                       "ef", "opcode", "labels", "mpls_id");
    int n = 0;
    // Oldest first, the order in which the next hops were added.
    for (const ce_list_t *p = app->nhop_list.prev; p != &app->nhop_list; p = p->prev, ++n)
        print_nhop_row(CE_LIST_ENTRY(const_cast<ce_list_t *>(p), ce_nhop_node_t, app_link));
    return n;
}

int ce_l3vpn_dump_app_db(uint32_t owner, int count, int is_form) {
    dump_walk_t w{count, 0, is_form};
    ce_app_node_db_walkthrough(owner, app_walk, &w);
    return w.printed;
}

int ce_l3vpn_dump_in_adj_node(const ce_in_adj_node_t *node, int is_form) {
    if (node == nullptr) return 0;
    int nhops = 0;
    for (const ce_list_t *p = node->nhop_list.next; p != nullptr && p != &node->nhop_list;
         p = p->next)
        ++nhops;
    ce_l3vpn_dbg_print("in_adj %-6s %-4s %-14s labels %-24s mpls_id %-28s nhops %d\n",
                       ce_owner_name(node->owner), node->pro == CE_PRO_IPV4 ? "ipv4" : "ipv6",
                       ce_opcode_name(node->data.opcode), labels_text(node->data).c_str(),
                       id_text(node->mpls_id).c_str(), nhops);
    if (is_form) {
        std::string vc = vc_text(node->owner, node->data);
        if (!vc.empty()) ce_l3vpn_dbg_print("       %s\n", vc.c_str());
    }
    return nhops;
}

int ce_l3vpn_dump_in_adj_db(int count, int is_form) {
    dump_walk_t w{count, 0, is_form};
    ce_l3vpn_in_adj_db_walkthrough(in_adj_walk, &w);
    return w.printed;
}

int ce_l3vpn_logall(void) {
    for (uint32_t owner = CE_OWNER_FTN; owner <= CE_OWNER_ILM; ++owner)
        ce_app_node_db_walkthrough(owner, log_app, nullptr);
    ce_l3vpn_in_adj_db_walkthrough(log_in_adj, nullptr);
    return 0;
}
