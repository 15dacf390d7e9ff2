// Debug-command service: the command registry, request dispatch and the
// capture of a handler's standard output.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
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
// Its pages count against the machine, not the heap, and the server bounds
// what such files hold for clients that do not read (ssat_srv.cpp).
int ssat_capture_fd() {
    int fd = memfd_create("ssat-out", MFD_CLOEXEC);
    if (fd >= 0) return fd;
    char tmpl[] = "/tmp/ssat-out-XXXXXX";
    fd = mkostemp(tmpl, O_CLOEXEC);
    if (fd >= 0) unlink(tmpl);
    return fd;
}

bool ssat_put(int fd, std::string_view text) {
    while (!text.empty()) {
        ssize_t n = write(fd, text.data(), text.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        text.remove_prefix(static_cast<size_t>(n));
    }
    return true;
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

// Runs the handler with descriptor 1 pointing at the capture file, so printf
// output (and anything else written to standard output) goes to the requester.
// A file rather than a pipe: the handler runs to its end before anything is
// read. False (handler not run) when standard output cannot be redirected.
bool ssat_run_captured(const ssat_cmd_t &cmd, const ssat_args_t &args, int cap, int &rc) {
    fflush(stdout);
    int saved = dup(STDOUT_FILENO);
    bool had_stdout = saved >= 0;
    if ((!had_stdout && errno != EBADF) || dup2(cap, STDOUT_FILENO) < 0) {
        if (had_stdout) close(saved);
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
    return true;
}

// Writes the answer to a request into cap: the handler's output, or the text
// of a request that runs nothing. False when it could not be written.
bool ssat_answer(const ssat_mod_t &mod, std::string_view line, int cap, int &rc) {
    std::string_view rest = line.substr(0, line.find('\n'));
    std::string_view name = ssat_next_word(rest);
    const ssat_cmd_t *cmd = ssat_cmd_find(mod, name);
    std::string text;
    if (cmd == nullptr) {
        bool help = name.empty() || name == "help";
        if (!help) text.append("unknown command: ").append(name).append("\n");
        ssat_cmd_list(mod, text);
        rc = help ? 0 : -2;
        return ssat_put(cap, text);
    }
    ssat_args_t args;
    std::string arg_text(rest);
    if (arg_text.find('\0') != std::string::npos ||
        ssat_parse_args(cmd->fmt.c_str(), arg_text.c_str(), &args) != 0) {
        text.append("usage: ").append(cmd->name).append(" ").append(cmd->fmt).append("\n");
        rc = -4;
        return ssat_put(cap, text);
    }
    return ssat_run_captured(*cmd, args, cap, rc);
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

int ssat_serve_line(const ssat_mod_t &mod, std::string_view line, ssat_reply_t &reply) {
    reply = ssat_reply_t{};
    int rc = 0;
    struct stat st{};
    reply.fd = ssat_capture_fd();
    if (reply.fd >= 0 && ssat_answer(mod, line, reply.fd, rc) && fstat(reply.fd, &st) == 0) {
        reply.size = st.st_size;
        return rc;
    }
    if (reply.fd >= 0) close(reply.fd);
    reply = ssat_reply_t{-1, static_cast<off_t>(SSAT_TEXT_NO_CAPTURE.size()), SSAT_TEXT_NO_CAPTURE};
    return -1;
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
    ssat_reply_t reply;
    int rc = ssat_serve_line(*mod, request_line != nullptr ? request_line : "", reply);
    if (reply.fd < 0) {
        output.assign(reply.fixed);
        return rc;
    }
    ssat_read_back(reply.fd, output);
    close(reply.fd);
    return rc;
}

void ssat_lib_reset(void) {
    ssat_srv_close_conns();
    for (auto &[name, mod] : ssat_mods()) ssat_srv_close_mod(mod);
    ssat_mods().clear();
}
