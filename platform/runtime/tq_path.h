// Every fixed absolute path of the daemon lives under an optional prefix taken
// from L3VPN_ROOT, so several daemons (tests, the demo) can run side by side.
#pragma once
#include <cstddef>
#include <string>

// Writes prefix + path into buf (size n, always terminated); returns buf, or
// nullptr when it does not fit: a cut path would name another file.
const char *tq_path(const char *path, char *buf, size_t n);
std::string tq_path(const char *path);

// Creates the parent folders of a prefixed path (mode 0755); 0 or -1.
int tq_path_mkparents(const char *full_path);
