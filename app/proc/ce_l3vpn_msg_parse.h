// Wire record -> internal record. Every structural check the rest of the
// daemon relies on is made here: pointers present, address lengths, label
// stacks within bounds. Parsers only read the wire record, write the caller's
// output, log and count failures; they allocate nothing. A failed parse
// leaves the output partly written and unusable.
#pragma once
#include <cstddef>
#include <cstdint>

#include "app/proc/ce_l3vpn_msg.h"
#include "p_libpub.pb-c.h"
#include "p_mpls.pb-c.h"
#include "s_mpls.pb-c.h"
#include "s_route.pb-c.h"
#include "u_mpls.pb-c.h"

// Results of the address parse.
enum {
    CE_MSG_ADDR_NULL = -4,     // no address at all
    CE_MSG_ADDR_LEN = -6,      // 16-byte form of another length, or no bytes
    CE_MSG_ADDR_MEMBER = -11,  // the one-of names a member that is not there
};

// Results of the parsers (besides the address codes above).
enum {
    CE_MSG_PARSE_BAD_OWNER = 1,  // in-adjacency of an owner this daemon does not keep
    CE_MSG_PARSE_INVALID = 4,    // null record or key, or a bound exceeded
};

// An address into 16 bytes and its family (0 IPv4, 1 IPv6). v4 fills the
// first 32 bits as stored; v6 and v4b are both taken as 16 raw bytes.
// Silent: the caller logs with its own context.
int ce_msg_addr_parse(uint8_t ip[16], uint8_t *pro, const PLibpub__Ip *addr);

// A next hop: address and outgoing interface. Logs and counts APP_GET_RV on a
// bad address and returns the address code.
int ce_msg_nhop_parse(ce_nhop_t *nhop, const PLibpub__Ip *addr, uint32_t ifx);

// A VC label stack, copied as it is: depth at most eight, array present when
// the count is not zero. 0 or 4.
int ce_msg_label_stack_parse(ce_msg_data_t *data, size_t n_label_stack,
                             const uint32_t *label_stack);

int ce_l3vpn_msg_ftn_parse(ce_msg_comm_t *out, const PMpls__MomMsgFtn *ftn, uint8_t is_add);
int ce_l3vpn_msg_vc_ftn_parse(ce_msg_comm_t *out, const UMpls__UdpVcFtn *vc_ftn, uint8_t is_add);
int ce_l3vpn_msg_ilm_parse(ce_msg_comm_t *out, const PMpls__MomMsgIlm *ilm, uint8_t is_add);
// An inner adjacency read back from UC; its MPLS id goes to *mpls_id.
int ce_l3vpn_msg_in_adj_parse(ce_msg_comm_t *out, uint64_t *mpls_id,
                              const SRoute__InSubAdj *in_adj);
// A tunnel counter; stamped with the monotonic clock in ms, the wire stamp is ignored.
int ce_l3vpn_msg_status_cnt_parse(ce_msg_status_cnt_t *out,
                                  const SMpls__SrteStatusCnt *status_cnt);
