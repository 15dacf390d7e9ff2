// Process manager stand-in: records the exit action and answers 0; restarts are
// the supervisor's job.
#pragma once
#include <sys/types.h>

int reg_process_exit_action(pid_t pid, int action);
// The last registration, for the tests and the debug output.
int ham_registered_action(pid_t *pid);
