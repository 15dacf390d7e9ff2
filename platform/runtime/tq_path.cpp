#include "platform/runtime/tq_path.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace {
const char *root_prefix() {
    const char *root = getenv("L3VPN_ROOT");
    return root != nullptr ? root : "";
}
}  // namespace

const char *tq_path(const char *path, char *buf, size_t n) {
    if (buf == nullptr || n == 0) return nullptr;
    int len = snprintf(buf, n, "%s%s", root_prefix(), path != nullptr ? path : "");
    return len >= 0 && static_cast<size_t>(len) < n ? buf : nullptr;
}

std::string tq_path(const char *path) {
    return std::string(root_prefix()) + (path != nullptr ? path : "");
}

int tq_path_mkparents(const char *full_path) {
    std::string p(full_path != nullptr ? full_path : "");
    for (size_t pos = 1; (pos = p.find('/', pos)) != std::string::npos; ++pos) {
        std::string dir = p.substr(0, pos);
        if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return -1;
    }
    return 0;
}
