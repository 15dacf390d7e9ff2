#include "app/proc/ce_l3vpn_mem.h"

#include <cstdlib>

namespace {
unsigned g_fail_at = 0;  // 0: never fail
}

void *ce_l3vpn_calloc(size_t n, size_t size) {
    if (g_fail_at != 0 && --g_fail_at == 0) return nullptr;
    return calloc(n, size);
}

void ce_l3vpn_free(void *p) { free(p); }

void ce_l3vpn_mem_fail_at(unsigned nth) { g_fail_at = nth; }
