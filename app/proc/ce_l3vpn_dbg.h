// The daemon's debug commands, on the module's debug-command socket.
#pragma once
#include <cstddef>

// Opens the command service and registers the table library's and the
// daemon's commands. 0, or the service's failure.
int ce_l3vpn_dbg_init(void *global, const char *mod_name);

// Prints one line the way every command handler prints: at_snprintf into a
// cleared 1000-byte buffer, then printf("%s").
void ce_l3vpn_dbg_print(const char *fmt, ...);
