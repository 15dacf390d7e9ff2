// Runs the l3vpn-ctl binary as a process and collects what it printed.
#pragma once
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

struct ctl_result_t {
    int status = -1;
    std::string out, err;
};

inline std::string ctl_slurp(const std::string &path) {
    std::stringstream ss;
    ss << std::ifstream(path).rdbuf();
    return ss.str();
}

// scratch: a folder for the captured output.
inline ctl_result_t ctl_run(const std::vector<std::string> &args, const std::string &scratch) {
    const std::string out = scratch + "/ctl.out", err = scratch + "/ctl.err";
    const char *dir = getenv("L3VPN_BUILD_DIR");
    std::string bin = std::string(dir != nullptr ? dir : "build") + "/tools/l3vpn-ctl";
    pid_t pid = fork();
    if (pid == 0) {
        dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
        dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
        std::vector<char *> argv{bin.data()};
        for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(bin.c_str(), argv.data());
        _exit(127);
    }
    ctl_result_t r;
    int st = 0;
    if (pid > 0 && waitpid(pid, &st, 0) == pid)
        r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    r.out = ctl_slurp(out);
    r.err = ctl_slurp(err);
    return r;
}

inline std::vector<std::string> ctl_lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    return lines;
}
