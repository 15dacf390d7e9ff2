// Text dumps of the internal message records, for the log and the debug
// commands.
#pragma once
#include <cstddef>

#include "app/proc/ce_l3vpn_msg.h"

// Logs the record at DEBUG, one line per part, the label stack included.
// 0, or 4 for a null record.
int ce_l3vpn_dump_msg_comm(const ce_msg_comm_t *msg);
// Logs a tunnel counter entry at DEBUG. 0, or 4 for a null record.
int ce_l3vpn_dump_msg_status_cnt(const ce_msg_status_cnt_t *cnt);

// The record as an aligned, readable block of lines (as snprintf: bounded by n,
// terminated when n > 0, returns the length the whole text would have had).
int ce_l3vpn_msg_comm_to_text(const ce_msg_comm_t *msg, char *buf, size_t n);
