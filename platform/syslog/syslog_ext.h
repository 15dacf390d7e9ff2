// System log stand-in: syslog(3) with "%<module>-<severity>-<mnemonic>: <text>",
// and the same line on standard error.
#pragma once

int printk_syslog_ext(int severity, const char *module, const char *mnemonic, int count,
                      const char *fmt, ...) __attribute__((format(printf, 5, 6)));
