#include "platform/cap/libs_cap.h"
#include "platform/cap/libs_cap_redis.h"

// The store libs_cap_init falls back on when the process installed none: the
// capability hash in the MOM's Redis.
const libs_cap_backend_t *libs_cap_default_backend(void) { return libs_cap_redis_backend(); }
