// Capabilities: what the switch can do, from the capability service, with
// defaults until the service is ready; the capacity check in front of new
// VC-FTN and ILM entries.
#pragma once
#include <cstdint>
#include <string>

#include "app/proc/ce_l3vpn_msg.h"
#include "app/proc/ce_l3vpn_proto_op.h"
#include "platform/cap/libs_cap.h"

enum { CE_CAP_KIND_BOOL = 0, CE_CAP_KIND_INT32 = 1 };

enum ce_l3vpn_cap_idx_t {
    CE_CAP_SUPPORT_MPLS = 0,
    CE_CAP_ILM_MULTI_ACTION = 1,
    CE_CAP_SCHED_PER_PACKET = 2,
    CE_CAP_ECMP_MAX_PATH = 3,
    CE_CAP_ENCAP_LABEL_DPTH = 4,
    CE_CAP_FTNV4 = 5,
    CE_CAP_FTNV6 = 6,
    CE_CAP_VC_FTN = 7,
    CE_CAP_ILM = 8,
    CE_CAP_ECMP_SIZE = 9,
    CE_CAP_NUM = 10,
};

struct ce_l3vpn_cap_t {
    const char *name;  // short name
    const char *path;  // capability path; change messages are matched on it
    uint32_t kind;     // CE_CAP_KIND_INT32 or CE_CAP_KIND_BOOL
    int32_t cur_int32;
    int32_t def_int32;
    uint8_t cur_bool;
    uint8_t def_bool;
};

extern ce_l3vpn_cap_t ce_l3vpn_cap_tbl[CE_CAP_NUM];
extern void *ce_l3vpn_cap_handle;     // the global handle given at init
extern bool ce_l3vpn_cap_subscribed;  // set by the first ready event

// The daemon's configuration-table subscriptions, started by the first ready event.
int ce_l3vpn_fun_subscribe(void);

// 0; 4 null argument; -11 event callback not registered; -17 service not started.
int ce_l3vpn_cap_init(void *global, const char *mod_name);
void ce_l3_cap_set_def(void);
// Event callback of the service: 0 global ready, 1 forwarding engine ready.
int ce_l3_cap_reg_callback(uint32_t event);
int ce_l3vpn_cap_int32_chg_callback(void *handle, libs_cap_msg_t *pmsg);
int ce_l3vpn_cap_bool_chg_callback(void *handle, libs_cap_msg_t *pmsg);
// 0 room for one more entry of the owner; 6 full; 1 bad owner.
int ce_l3vpn_cap_app_check(uint32_t owner);

// Quiet forms for the records kept aside: room for one more entry of the
// owner; room for one more next hop in the entry of msg (ECMP path limit).
bool ce_l3vpn_cap_app_room(uint32_t owner);
// How many more entries of the owner fit (VC-FTN, ILM); UINT32_MAX for FTN.
uint32_t ce_l3vpn_cap_app_room_left(uint32_t owner);
bool ce_l3vpn_cap_nhop_room(const ce_msg_comm_t *msg);
// The texts of the capacity refusals: "ilm full, cur:4000, cap:4000",
// "ecmp full, paths:8, cap:8".
std::string ce_l3vpn_cap_full_text(uint32_t owner);
std::string ce_l3vpn_cap_ecmp_text(uint32_t paths);
// An add whose label stack is deeper than "encap_label_dpth" (when that is
// set): row LABEL_DEPTH, 4. A limit of 0 means the switch did not tell one.
int ce_l3vpn_cap_label_check(const ce_msg_comm_t *msg);
// Whether a value is in range for a capability: int32 rows take 0 and up,
// the label depth at most the labels a record carries.
bool ce_l3vpn_cap_value_ok(const ce_l3vpn_cap_t &c, int32_t value);

// The ability record of the current values, as notified to PI.
void ce_l3vpn_cap_build_ability(ce_l3vpn_ability_t *ability);

// Accessors by short name ("ilm", "encap_label_dpth", ...). An unknown name,
// or a name of the other kind, gives -1 / false.
int32_t ce_l3vpn_cap_get_int32(const char *short_name);
bool ce_l3vpn_cap_get_bool(const char *short_name);
bool ce_l3vpn_cap_ilm_multi_action(void);

// Prints the table (name, path, kind, current, default); is_form 1 adds a
// header and a rule. Returns 0.
int ce_l3vpn_cap_dump(int is_form);

// Sends the ability record, as it stands now, to PI.
int ce_l3vpn_cap_notify_pi(void);
