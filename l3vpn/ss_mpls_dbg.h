// Label-stack printing shared by the MPLS modules.
#pragma once
#include <cstdint>

// Writes up to eight labels, outermost first, to the daemon's log at DEBUG.
// Nothing is formatted below the DEBUG level; an empty stack prints "nil" and
// a count above eight prints the count alone.
void mpls_zlog_print_label_stack(uint8_t n_label, const uint32_t *labels);
