// One input of each fuzz target. The libFuzzer entries and the regression
// suite run the same functions, so an input that once broke something is
// replayed in every build, with or without clang.
//
// Each returns null when every property held, else a short text naming the
// property that broke. Sanitizer findings abort on their own.
#pragma once
#include <cstddef>
#include <cstdint>

// Parsers and attribute checks on records unpacked from the input.
void fuzz_parse_init(void);
const char *fuzz_parse_one(const uint8_t *data, size_t size);

// Key text, key-only items and hash records of the keyed tables.
const char *fuzz_keytext_one(const uint8_t *data, size_t size);

// Debug-command arguments against every command's argument format.
const char *fuzz_ssat_one(const uint8_t *data, size_t size);

// The formatter against the C library and its own address references.
const char *fuzz_format_one(const uint8_t *data, size_t size);
