// In-memory capability store for tests: values set and removed by hand,
// change notices and events fired on demand, reads made to fail.
#pragma once
#include <cstdint>

#include "platform/cap/libs_cap.h"

const libs_cap_backend_t *libs_cap_mem_backend(void);
// Empties the store and installs it as the service's backend.
void libs_cap_mem_install(void);

// Stores a value; once the service watches, the front end re-reads and calls
// the change callback of the path (event 4) if the value differs from the last read.
void libs_cap_mem_set(const char *path, const char *value);
void libs_cap_mem_set_int32(const char *path, int32_t value);
void libs_cap_mem_set_bool(const char *path, bool value);
void libs_cap_mem_remove(const char *path);

// Fires an event to the registered event callbacks: 0 through the ready path
// (the front end reads the store first), 1 as the forwarding engine's ready.
void libs_cap_mem_fire_event(uint32_t event);
// While set, every read of the store fails.
void libs_cap_mem_fail_reads(bool fail);
// While set, starting the store fails (libs_cap_init returns -17).
void libs_cap_mem_fail_start(bool fail);
// Number of times the store has been read.
uint32_t libs_cap_mem_reads(void);
