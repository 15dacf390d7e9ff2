#include "platform/ham/ham.h"

namespace {
pid_t g_pid = 0;
int g_action = 0;
}  // namespace

int reg_process_exit_action(pid_t pid, int action) {
    g_pid = pid;
    g_action = action;
    return 0;
}

int ham_registered_action(pid_t *pid) {
    if (pid != nullptr) *pid = g_pid;
    return g_action;
}
