// Node allocation seam: every database node is allocated here, so tests can
// make any allocation fail and check the "no memory" paths.
#pragma once
#include <cstddef>

void *ce_l3vpn_calloc(size_t n, size_t size);
void ce_l3vpn_free(void *p);

// Test hook: the allocation `nth` calls from now (1 = the next one) fails;
// 0 switches failing off.
void ce_l3vpn_mem_fail_at(unsigned nth);
