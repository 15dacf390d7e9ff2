// Debug-command service, server side: one listening Unix socket per module on
// the context's event loop. A connection sends one line, gets the command's
// output back and is closed.
#include <event2/event.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "platform/runtime/tq_global.h"
#include "platform/runtime/tq_path.h"
#include "platform/ssat/ssat_int.h"

namespace {

constexpr size_t SSAT_LINE_MAX = 4096;
constexpr timeval SSAT_READ_IDLE = {5, 0};    // a client that sends nothing is dropped
constexpr timeval SSAT_WRITE_IDLE = {30, 0};  // and so is one that stops reading

struct ssat_conn_t {
    ssat_mod_t *mod;
    int fd;
    struct event *ev;
    std::string in;
    std::string out;
    size_t sent;
};

using ssat_conn_list_t = std::vector<std::unique_ptr<ssat_conn_t>>;

ssat_conn_list_t &ssat_conns() {
    static auto *conns = new ssat_conn_list_t;
    return *conns;
}

void ssat_log(const char *module, const char *what) {
    fprintf(stderr, "ssat: %s: %s: %s\n", module, what, strerror(errno));
}

// Whatever the client still sends is read and dropped first: closing a Unix
// socket with unread input makes the peer's read fail instead of ending.
void ssat_conn_close(ssat_conn_t *c) {
    char sink[512];
    for (int i = 0; i < 16 && recv(c->fd, sink, sizeof sink, MSG_DONTWAIT) > 0; ++i) {
    }
    if (c->ev != nullptr) event_free(c->ev);
    close(c->fd);
    auto &conns = ssat_conns();
    auto it = std::find_if(conns.begin(), conns.end(), [c](const auto &p) { return p.get() == c; });
    if (it != conns.end()) conns.erase(it);
}

// 1 when everything is sent, 0 when the socket is full, -1 when the client is gone.
int ssat_conn_send(ssat_conn_t *c) {
    while (c->sent < c->out.size()) {
        ssize_t n = send(c->fd, c->out.data() + c->sent, c->out.size() - c->sent, MSG_NOSIGNAL);
        if (n > 0) {
            c->sent += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) ? 0 : -1;
        }
    }
    return 1;
}

void ssat_conn_write_cb(evutil_socket_t, short what, void *arg) {
    auto *c = static_cast<ssat_conn_t *>(arg);
    if ((what & EV_TIMEOUT) != 0 || ssat_conn_send(c) != 0) ssat_conn_close(c);
}

// Runs the request on the loop, then sends the output, waiting for room when
// the client reads slowly.
void ssat_conn_answer(ssat_conn_t *c, bool too_long) {
    event_base *base = event_get_base(c->ev);
    event_free(c->ev);
    c->ev = nullptr;
    if (too_long)
        c->out = "request too long\n";
    else
        ssat_serve_line(*c->mod, c->in, c->out);
    int st = ssat_conn_send(c);
    if (st == 0) {
        c->ev = event_new(base, c->fd, EV_WRITE | EV_PERSIST, ssat_conn_write_cb, c);
        if (c->ev != nullptr && event_add(c->ev, &SSAT_WRITE_IDLE) == 0) return;
    }
    ssat_conn_close(c);
}

void ssat_conn_read_cb(evutil_socket_t fd, short what, void *arg) {
    auto *c = static_cast<ssat_conn_t *>(arg);
    if ((what & EV_TIMEOUT) != 0) {
        ssat_conn_close(c);
        return;
    }
    char buf[SSAT_LINE_MAX];
    for (;;) {
        ssize_t n = recv(fd, buf, SSAT_LINE_MAX - c->in.size(), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        if (n < 0 || (n == 0 && c->in.empty())) {
            ssat_conn_close(c);
            return;
        }
        c->in.append(buf, static_cast<size_t>(n));
        bool line_done = n == 0 || c->in.find('\n') != std::string::npos;
        if (line_done || c->in.size() >= SSAT_LINE_MAX) {
            ssat_conn_answer(c, !line_done);
            return;
        }
    }
}

void ssat_conn_open(ssat_mod_t *mod, event_base *base, int fd) {
    auto c = std::make_unique<ssat_conn_t>(ssat_conn_t{mod, fd, nullptr, {}, {}, 0});
    c->ev = event_new(base, fd, EV_READ | EV_PERSIST, ssat_conn_read_cb, c.get());
    if (c->ev == nullptr || event_add(c->ev, &SSAT_READ_IDLE) != 0) {
        if (c->ev != nullptr) event_free(c->ev);
        close(fd);
        return;
    }
    ssat_conns().push_back(std::move(c));
}

// A failed accept leaves the connection queued, so the socket stays readable:
// watching it while descriptors or memory are short only spins. It is left
// alone for a while instead, and one line tells of the whole shortage.
constexpr int SSAT_PAUSE_FIRST_MS = 100;
constexpr int SSAT_PAUSE_MAX_MS = 1000;
constexpr int SSAT_ACCEPT_BURST = 64;  // then other events get their turn

void ssat_accept_pause(ssat_mod_t *mod) {
    if (mod->pause_ms == 0) {
        mod->pause_ms = SSAT_PAUSE_FIRST_MS;
        fprintf(stderr, "ssat: %s: accept: %s, pausing %d ms (then up to %d ms at a time)\n",
                mod->name.c_str(), strerror(errno), SSAT_PAUSE_FIRST_MS, SSAT_PAUSE_MAX_MS);
    } else {
        mod->pause_ms = std::min(mod->pause_ms * 2, SSAT_PAUSE_MAX_MS);
    }
    event_del(mod->listen_ev);
    timeval tv{mod->pause_ms / 1000, (mod->pause_ms % 1000) * 1000};
    event_add(mod->retry_ev, &tv);
}

void ssat_accept_retry_cb(evutil_socket_t, short, void *arg) {
    auto *mod = static_cast<ssat_mod_t *>(arg);
    if (event_add(mod->listen_ev, nullptr) != 0) ssat_accept_pause(mod);
}

void ssat_accept_cb(evutil_socket_t lfd, short, void *arg) {
    auto *mod = static_cast<ssat_mod_t *>(arg);
    for (int i = 0; i < SSAT_ACCEPT_BURST; ++i) {
        int fd = accept4(lfd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0 && (errno == EINTR || errno == ECONNABORTED || errno == EPROTO)) continue;
        if (fd < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        if (fd < 0) {
            // any other failure would repeat at once just the same
            ssat_accept_pause(mod);
            return;
        }
        if (mod->pause_ms != 0) {
            mod->pause_ms = 0;
            fprintf(stderr, "ssat: %s: accept: serving again\n", mod->name.c_str());
        }
        ssat_conn_open(mod, event_get_base(mod->listen_ev), fd);
    }
}

bool ssat_addr(const std::string &path, sockaddr_un &sa) {
    sa = sockaddr_un{};
    sa.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof sa.sun_path) return false;
    memcpy(sa.sun_path, path.c_str(), path.size() + 1);
    return true;
}

// A socket file that still answers belongs to a live process: leave it alone.
bool ssat_sock_in_use(const sockaddr_un &sa) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    bool live = connect(fd, reinterpret_cast<const sockaddr *>(&sa), sizeof sa) == 0 ||
                errno == EAGAIN;
    close(fd);
    return live;
}

// Listening socket at mod->path, mode 0600 before it accepts anyone; -1 on failure.
int ssat_listen(const ssat_mod_t &mod, const sockaddr_un &sa) {
    const char *name = mod.name.c_str();
    if (tq_path_mkparents(mod.path.c_str()) != 0) {
        ssat_log(name, "mkdir");
        return -1;
    }
    if (ssat_sock_in_use(sa)) {
        fprintf(stderr, "ssat: %s: %s is in use by another process\n", name, mod.path.c_str());
        return -1;
    }
    unlink(mod.path.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        ssat_log(name, "socket");
        return -1;
    }
    const char *step = nullptr;
    if (bind(fd, reinterpret_cast<const sockaddr *>(&sa), sizeof sa) != 0)
        step = "bind";
    else if (chmod(mod.path.c_str(), 0600) != 0)
        step = "chmod";
    else if (listen(fd, 16) != 0)
        step = "listen";
    if (step == nullptr) return fd;
    ssat_log(name, step);
    close(fd);
    if (strcmp(step, "bind") != 0) unlink(mod.path.c_str());
    return -1;
}

}  // namespace

std::string ssat_sock_path(const char *module) {
    if (module == nullptr || *module == '\0' || strchr(module, '/') != nullptr) return {};
    if (strcmp(module, ".") == 0 || strcmp(module, "..") == 0) return {};
    return tq_path((std::string("/var/run/ssat/") + module + ".sock").c_str());
}

int ssat_lib_init(void *global, const char *module) {
    auto *ctx = static_cast<tq_global_t *>(global);
    std::string path = ssat_sock_path(module);
    sockaddr_un sa;
    const char *name = module != nullptr ? module : "";
    if (ctx == nullptr || ctx->master == nullptr || path.empty()) {
        fprintf(stderr, "ssat: %s: no event loop or bad module name\n", name);
        return -1;
    }
    if (!ssat_addr(path, sa)) {
        fprintf(stderr, "ssat: %s: socket path %s does not fit in %zu bytes\n", name, path.c_str(),
                sizeof sa.sun_path - 1);
        return -1;
    }
    ssat_mod_t *mod = ssat_mod_get(module);
    if (mod->listen_fd >= 0) return 0;
    mod->path = path;
    int fd = ssat_listen(*mod, sa);
    if (fd < 0) return -1;
    mod->listen_fd = fd;
    mod->listen_ev = event_new(ctx->master, fd, EV_READ | EV_PERSIST, ssat_accept_cb, mod);
    mod->retry_ev = evtimer_new(ctx->master, ssat_accept_retry_cb, mod);
    if (mod->listen_ev == nullptr || mod->retry_ev == nullptr || event_add(mod->listen_ev, nullptr) != 0) {
        ssat_log(module, "event");
        ssat_srv_close_mod(*mod);
        return -1;
    }
    return 0;
}

void ssat_srv_close_conns(void) {
    while (!ssat_conns().empty()) ssat_conn_close(ssat_conns().back().get());
}

void ssat_srv_close_mod(ssat_mod_t &mod) {
    if (mod.listen_ev != nullptr) event_free(mod.listen_ev);
    mod.listen_ev = nullptr;
    if (mod.retry_ev != nullptr) event_free(mod.retry_ev);
    mod.retry_ev = nullptr;
    mod.pause_ms = 0;
    if (mod.listen_fd < 0) return;
    close(mod.listen_fd);
    mod.listen_fd = -1;
    unlink(mod.path.c_str());
}
