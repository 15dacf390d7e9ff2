// The capability store in Redis: database 4, hash "capability|global", one
// field per capability path, value a decimal number or true/false. Address
// from MOM_REDIS, like the MOM; its connections run on the process context's
// event loop.
#pragma once
#include "platform/cap/libs_cap.h"

// Install with libs_cap_set_backend() before libs_cap_init().
const libs_cap_backend_t *libs_cap_redis_backend(void);
