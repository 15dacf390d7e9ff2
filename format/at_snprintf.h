// The daemon's own printf-family formatter.
//
// Follows the printf conventions for d i u x X o c s p and %%, with the flags
// "- + space # 0", width and precision (including '*') and the length
// modifiers hh h l ll z j t. Two conversions are added for log lines:
//
//   %a  an unsigned int whose four bytes, in memory order, print as a dotted
//       IPv4 address with every byte as three digits: "010.000.000.001".
//   %v  a pointer to 16 address bytes, printed in the compressed IPv6 text
//       form ("fe80::1", "::ffff:10.0.0.1").
//
// Both are laid out like a %s argument (width, precision, '-'); a length
// modifier on them is ignored. An unknown conversion is copied to the output
// as written and consumes no argument. Floating point and %n are not
// supported and count as unknown.
//
// The result is bounded by `size`, NUL-terminated whenever size > 0, and the
// return value is the length the whole text would have had (as snprintf).
// Nothing is allocated, so it is safe on any path, including out-of-memory
// logging.
//
// No printf format attribute: %a and %v would be misread by the compiler.
#pragma once

#include <cstdarg>
#include <cstddef>

int at_snprintf(char *buf, size_t size, const char *fmt, ...);
int at_vsnprintf(char *buf, size_t size, const char *fmt, va_list ap);
