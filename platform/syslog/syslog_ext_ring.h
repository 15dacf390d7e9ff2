// Test hook of the system log: the last lines emitted, oldest first.
#pragma once
#include <cstddef>
#include <string>
#include <vector>

enum { SYSLOG_EXT_RING = 32 };

// The last lines (at most SYSLOG_EXT_RING), oldest first, without newline.
std::vector<std::string> syslog_ext_recent(void);
// Lines emitted since the process started or the last clear.
size_t syslog_ext_count(void);
void syslog_ext_clear(void);
