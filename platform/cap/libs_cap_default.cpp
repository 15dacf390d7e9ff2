#include "platform/cap/libs_cap.h"

// The store libs_cap_init falls back on when the process installed none.
// The Redis store plugs in here; until it does, the service needs an explicit
// libs_cap_set_backend() and libs_cap_init fails without one.
const libs_cap_backend_t *libs_cap_default_backend(void) { return nullptr; }
