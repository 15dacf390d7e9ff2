#include "app/proc/ce_l3vpn_dump.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>

#include "app/proc/ce_l3vpn_err.h"
#include "format/at_snprintf.h"
#include "l3vpn/ss_mpls_dbg.h"

namespace {
// ---- log dump ------------------------------------------------------------------

// Every line of a record dump shows under the dump's own name, helpers included.
constexpr const char kDumpFn[] = "ce_l3vpn_dump_msg_comm";
#define DUMP_LOG(fmt, ...) CE_L3VPN_LOG_FN(kDumpFn, CE_L3VPN_DEBUG, fmt, ##__VA_ARGS__)

void log_ftn_key(const ce_msg_comm_t *m) {
    const ce_ftn_key_t &k = m->key.ftn;
    if (k.pro == CE_PRO_IPV4)
        DUMP_LOG("\t key==>pro:%u, vrf:%u, mask_len:%u, ip:%a", k.pro, k.vrf, k.mask_len,
                 ce_ip_v4_word(k.ip));
    else
        DUMP_LOG("\t key==>pro:%u, vrf:%u, mask_len:%u, ip:%v", k.pro, k.vrf, k.mask_len, k.ip);
}
void log_vc_ftn_key(const ce_msg_comm_t *m) {
    DUMP_LOG("\t key==>vc_ifx:%u", m->key.vc_ftn.vc_ifx);
}
void log_ilm_key(const ce_msg_comm_t *m) {
    DUMP_LOG("\t key==>inlabel:%u", m->key.ilm.inlabel);
}

void log_no_data(const ce_msg_comm_t *) {}
void log_vc_ftn_data(const ce_msg_comm_t *m) {
    const ce_msg_data_t &d = m->data;
    DUMP_LOG("\t vc_mode:%u, sd_vid:%u, cw:%u, vc_ifx:%u", d.vc_mode & 0xFF, d.sd_vid, d.cw,
             d.vc_ifx);
}
void log_ilm_data(const ce_msg_comm_t *m) {
    DUMP_LOG("\t vrf:%u, vc_ifx:%u", m->data.vrf, m->data.ilm_vc_ifx);
}

// How each owner's key and owner-specific words are logged.
struct ce_dump_owner_t {
    uint32_t owner;
    void (*log_key)(const ce_msg_comm_t *m);
    void (*log_data)(const ce_msg_comm_t *m);
};

constexpr ce_dump_owner_t kDumpOwners[] = {
    {CE_OWNER_FTN, log_ftn_key, log_no_data},
    {CE_OWNER_VC_FTN, log_vc_ftn_key, log_vc_ftn_data},
    {CE_OWNER_ILM, log_ilm_key, log_ilm_data},
};

const ce_dump_owner_t *dump_owner(uint32_t owner) {
    for (const auto &o : kDumpOwners)
        if (o.owner == owner) return &o;
    return nullptr;
}

void log_nhop(const ce_nhop_t &n) {
    if (n.pro == CE_PRO_IPV4)
        DUMP_LOG("\t nhop==>pro:%u, ip:%a, ifx:%u", n.pro, ce_ip_v4_word(n.ip), n.ifx);
    else
        DUMP_LOG("\t nhop==>pro:%u, ip:%v, ifx:%u", n.pro, n.ip, n.ifx);
}

// ---- text dump -----------------------------------------------------------------

// Appends formatted lines to a caller's buffer, counting what did not fit.
struct text_out_t {
    char *buf;
    size_t size;
    size_t len;  // length of the whole text so far
};

void text_put(text_out_t *t, const char *fmt, ...) {
    char line[256];
    va_list ap;
    va_start(ap, fmt);
    int w = at_vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    if (w <= 0) return;
    size_t len = strnlen(line, sizeof line);
    if (t->size > 0 && t->len + 1 < t->size) {
        size_t room = t->size - 1 - t->len;
        size_t n = len < room ? len : room;
        memcpy(t->buf + t->len, line, n);
        t->buf[t->len + n] = '\0';
    }
    t->len += len;
}

void text_addr(text_out_t *t, const char *label, uint8_t pro, const uint8_t ip[16]) {
    if (pro == CE_PRO_IPV4)
        text_put(t, "%s%a", label, ce_ip_v4_word(ip));
    else
        text_put(t, "%s%v", label, ip);
}

void text_key(text_out_t *t, const ce_msg_comm_t *m) {
    switch (m->owner) {
    case CE_OWNER_FTN:
        text_put(t, "key        : pro %u  vrf %u  mask_len %u  ", m->key.ftn.pro, m->key.ftn.vrf,
                 m->key.ftn.mask_len);
        text_addr(t, "ip ", m->key.ftn.pro, m->key.ftn.ip);
        text_put(t, "\n");
        break;
    case CE_OWNER_VC_FTN: text_put(t, "key        : vc_ifx %u\n", m->key.vc_ftn.vc_ifx); break;
    case CE_OWNER_ILM: text_put(t, "key        : inlabel %u\n", m->key.ilm.inlabel); break;
    default: text_put(t, "key        : -\n"); break;
    }
}

void text_labels(text_out_t *t, const ce_msg_data_t &d) {
    text_put(t, "labels     : %u [", d.n_labels);
    unsigned n = std::min<unsigned>(d.n_labels, CE_MPLS_MAX_LABELS);
    for (unsigned i = 0; i < n; ++i) {
        const char *sep = i == 0 ? "" : " ";
        if (d.labels[i] == CE_MPLS_LABEL_NONE)
            text_put(t, "%simp-null", sep);
        else
            text_put(t, "%s%u", sep, d.labels[i]);
    }
    text_put(t, "]\n");
}
}  // namespace

int ce_l3vpn_dump_msg_comm(const ce_msg_comm_t *msg) {
    CE_L3VPN_CHK_NULL(msg);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "\t onwer:%s, msg_event:%s,", ce_owner_name(msg->owner),
                 ce_msg_event_name(msg->msg_event));
    const ce_dump_owner_t *o = dump_owner(msg->owner);
    if (o != nullptr) o->log_key(msg);
    log_nhop(msg->nhop);
    const ce_nhop_attr_t &a = msg->nhop_attr;
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "\t nhop_attr==>vrf:%u, ifx_type:%u, weight:%u, seq:%u", a.vrf,
                 a.ifx_type, a.weight, a.seq);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "\t data==>opcode:%s, n_label:%u",
                 ce_opcode_name(msg->data.opcode), msg->data.n_labels);
    mpls_zlog_print_label_stack(msg->data.n_labels, msg->data.labels);
    if (o != nullptr) o->log_data(msg);
    return SS_E_NONE;
}

int ce_l3vpn_dump_msg_status_cnt(const ce_msg_status_cnt_t *cnt) {
    CE_L3VPN_CHK_NULL(cnt);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "\t index:%u, enable:%u, changed:%u", cnt->index, cnt->enable,
                 cnt->changed);
    CE_L3VPN_LOG(CE_L3VPN_DEBUG, "\t V4: status_cnt==>timestamp:%lu, bytes:%lu, pkts:%lu",
                 static_cast<unsigned long>(cnt->timestamp), static_cast<unsigned long>(cnt->bytes),
                 static_cast<unsigned long>(cnt->pkts));
    return SS_E_NONE;
}

int ce_l3vpn_msg_comm_to_text(const ce_msg_comm_t *msg, char *buf, size_t n) {
    text_out_t t{buf, buf != nullptr ? n : 0, 0};
    if (t.size > 0) buf[0] = '\0';
    if (msg == nullptr) return 0;
    text_put(&t, "owner      : %-7s    event : %s\n", ce_owner_name(msg->owner),
             ce_msg_event_name(msg->msg_event));
    text_key(&t, msg);
    text_addr(&t, "nhop       : ", msg->nhop.pro, msg->nhop.ip);
    text_put(&t, "  pro %u  ifx %u\n", msg->nhop.pro, msg->nhop.ifx);
    const ce_nhop_attr_t &a = msg->nhop_attr;
    text_put(&t, "nhop_attr  : vrf %u  ifx_type %u  weight %u  seq %u\n", a.vrf, a.ifx_type,
             a.weight, a.seq);
    const ce_msg_data_t &d = msg->data;
    text_put(&t, "opcode     : %s (%u)\n", ce_opcode_name(d.opcode), d.opcode);
    text_labels(&t, d);
    if (msg->owner == CE_OWNER_VC_FTN)
        text_put(&t, "vc         : vc_mode %u  sd_vid %u  cw %u  vc_ifx %u\n", d.vc_mode & 0xFF,
                 d.sd_vid, d.cw, d.vc_ifx);
    else if (msg->owner == CE_OWNER_ILM)
        text_put(&t, "ilm        : vrf %u  vc_ifx %u\n", d.vrf, d.ilm_vc_ifx);
    return static_cast<int>(t.len);
}
