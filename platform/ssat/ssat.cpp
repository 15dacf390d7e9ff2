// Debug-command service: the command registry, request dispatch and the
// capture of a handler's standard output.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "platform/ssat/ssat_int.h"

namespace {

using ssat_mod_map_t = std::map<std::string, ssat_mod_t, std::less<>>;

// Never destroyed: handlers and sockets may outlive static destruction.
ssat_mod_map_t &ssat_mods() {
    static auto *mods = new ssat_mod_map_t;
    return *mods;
}

const ssat_cmd_t *ssat_cmd_find(const ssat_mod_t &mod, std::string_view name) {
    for (const ssat_cmd_t &c : mod.cmds)
        if (c.name == name) return &c;
    return nullptr;
}

void ssat_cmd_list(const ssat_mod_t &mod, std::string &out) {
    for (const ssat_cmd_t &c : mod.cmds) out.append(c.name).append(" ").append(c.fmt).append("\n");
}

// A file in memory that takes the handler's output; -1 when none can be made.
int ssat_capture_fd() {
    int fd = memfd_create("ssat-out", MFD_CLOEXEC);
    if (fd >= 0) return fd;
    char tmpl[] = "/tmp/ssat-out-XXXXXX";
    fd = mkostemp(tmpl, O_CLOEXEC);
    if (fd >= 0) unlink(tmpl);
    return fd;
}

void ssat_read_back(int fd, std::string &out) {
    char buf[8192];
    off_t off = 0;
    for (;;) {
        ssize_t n = pread(fd, buf, sizeof buf, off);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        out.append(buf, static_cast<size_t>(n));
        off += n;
    }
}

// Runs the handler with descriptor 1 pointing at a capture file, so printf
// output (and anything else written to standard output) goes to the requester.
// A file rather than a pipe: the handler runs to its end before anything is
// read. False (handler not run) when standard output cannot be redirected.
bool ssat_run_captured(const ssat_cmd_t &cmd, const ssat_args_t &args, std::string &out, int &rc) {
    int cap = ssat_capture_fd();
    if (cap < 0) return false;
    fflush(stdout);
    int saved = dup(STDOUT_FILENO);
    bool had_stdout = saved >= 0;
    if ((!had_stdout && errno != EBADF) || dup2(cap, STDOUT_FILENO) < 0) {
        if (had_stdout) close(saved);
        close(cap);
        return false;
    }
    rc = cmd.func(&args);
    fflush(stdout);
    if (had_stdout) {
        dup2(saved, STDOUT_FILENO);
        close(saved);
    } else {
        close(STDOUT_FILENO);
    }
    ssat_read_back(cap, out);
    close(cap);
    return true;
}

}  // namespace

ssat_mod_t *ssat_mod_find(std::string_view name) {
    auto it = ssat_mods().find(name);
    return it != ssat_mods().end() ? &it->second : nullptr;
}

ssat_mod_t *ssat_mod_get(std::string_view name) {
    if (name.empty()) return nullptr;
    auto [it, added] = ssat_mods().try_emplace(std::string(name));
    if (added) it->second.name = name;
    return &it->second;
}

int ssat_serve_line(const ssat_mod_t &mod, std::string_view line, std::string &out) {
    out.clear();
    std::string_view rest = line.substr(0, line.find('\n'));
    std::string_view name = ssat_next_word(rest);
    const ssat_cmd_t *cmd = ssat_cmd_find(mod, name);
    if (cmd == nullptr) {
        bool help = name.empty() || name == "help";
        if (!help) out.append("unknown command: ").append(name).append("\n");
        ssat_cmd_list(mod, out);
        return help ? 0 : -2;
    }
    ssat_args_t args;
    std::string arg_text(rest);
    if (arg_text.find('\0') != std::string::npos ||
        ssat_parse_args(cmd->fmt.c_str(), arg_text.c_str(), &args) != 0) {
        out.append("usage: ").append(cmd->name).append(" ").append(cmd->fmt).append("\n");
        return -4;
    }
    int rc = 0;
    if (!ssat_run_captured(*cmd, args, out, rc)) {
        out = "output capture failed\n";
        return -1;
    }
    return rc;
}

int ssat_reg_mod_cmd(const char *module, const char *cmd, uint32_t /*flags*/, const char *arg_fmt,
                     ssat_cmd_func_t func) {
    if (module == nullptr || cmd == nullptr || arg_fmt == nullptr || func == nullptr) return -4;
    std::string_view rest = cmd;
    if (*module == '\0' || *cmd == '\0' || ssat_next_word(rest) != cmd) return -4;
    ssat_fmt_arg_t fmt[SSAT_MAX_ARGS];
    if (ssat_fmt_parse(arg_fmt, fmt) < 0) {
        fprintf(stderr, "ssat: %s: command %s: too many arguments in \"%s\"\n", module, cmd, arg_fmt);
        return -4;
    }
    ssat_mod_t *mod = ssat_mod_get(module);
    if (ssat_cmd_find(*mod, cmd) != nullptr) return -17;
    mod->cmds.push_back(ssat_cmd_t{cmd, arg_fmt, func});
    return 0;
}

int ssat_run_local(const char *module, const char *request_line, std::string &output) {
    output.clear();
    const ssat_mod_t *mod = module != nullptr ? ssat_mod_find(module) : nullptr;
    if (mod == nullptr) {
        output.append("unknown module: ").append(module != nullptr ? module : "").append("\n");
        return -1;
    }
    return ssat_serve_line(*mod, request_line != nullptr ? request_line : "", output);
}

void ssat_lib_reset(void) {
    ssat_srv_close_conns();
    for (auto &[name, mod] : ssat_mods()) ssat_srv_close_mod(mod);
    ssat_mods().clear();
}
