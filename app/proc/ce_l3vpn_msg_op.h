// Message entry: subscriptions, the data-sync callback, dispatch by owner and
// event, and the FTN, VC-FTN and ILM handlers with their attribute checks.
#pragma once
#include "app/proc/ce_l3vpn_msg.h"

int ce_l3vpn_fun_subscribe(void);
int ce_l3_data_check(void);
int ce_l3_comm_msg_op(ce_msg_comm_t *msg);

int ce_l3_ftn_msg_attr_check(const ce_msg_comm_t *msg);
int ce_l3_vc_ftn_msg_attr_check(const ce_msg_comm_t *msg);
int ce_l3_ilm_msg_attr_check(const ce_msg_comm_t *msg);

int ce_l3_ftn_add(void *value, void *arg);
int ce_l3_ftn_del(void *value, void *arg);
int ce_l3_vc_ftn_add(void *value, void *arg);
int ce_l3_vc_ftn_del(void *value, void *arg);
int ce_l3_ilm_add(void *value, void *arg);
int ce_l3_ilm_del(void *value, void *arg);
