// Debug-command service, server side: one listening Unix socket per module on
// the context's event loop. A connection sends one line, gets the command's
// output back and is closed. The output is streamed from its capture file;
// what clients that do not read may hold is bounded (ssat_int.h).
#include <event2/event.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>

#include "platform/runtime/tq_global.h"
#include "platform/runtime/tq_path.h"
#include "platform/ssat/ssat_int.h"

namespace {

constexpr size_t SSAT_LINE_MAX = 4096;
constexpr timeval SSAT_READ_IDLE = {5, 0};  // a client that sends nothing is dropped
constexpr int64_t SSAT_WRITE_IDLE_MS = 30000;  // and so is one that stops reading
constexpr timeval SSAT_WRITE_TICK = {0, 500000};  // how often a waiting client is looked at
constexpr size_t SSAT_SEND_PIECE = 64 * 1024;  // read from the capture file per send
constexpr off_t SSAT_GIVE_BACK_STEP = 1 << 20;  // the sent part of a capture is freed by this
constexpr int SSAT_DROP_LOG_BURST = 10;  // drop lines a window, the rest counted
constexpr int SSAT_DROP_LOG_WINDOW_MS = 1000;

// Lines for the operator, all in one place.
constexpr const char *SSAT_LOG_ERRNO = "ssat: %s: %s: %s\n";
constexpr const char *SSAT_LOG_DROP = "ssat: %s: client dropped: %lld bytes unread\n";
constexpr const char *SSAT_LOG_DROP_MORE =
    "ssat: %s: %d more clients dropped, not logged in the last %d ms\n";
constexpr const char *SSAT_LOG_PAUSE = "ssat: %s: accept: %s, pausing %d ms (then up to %d ms at a time)\n";
constexpr const char *SSAT_LOG_RESUME = "ssat: %s: accept: serving again\n";
constexpr const char *SSAT_LOG_IN_USE = "ssat: %s: %s is in use by another process\n";
constexpr const char *SSAT_LOG_GROUP = "ssat: %s: debug group %s: %s; the socket stays 0600\n";
constexpr const char *SSAT_LOG_BAD_MOD = "ssat: %s: no event loop or bad module name\n";
constexpr const char *SSAT_LOG_LONG_PATH = "ssat: %s: socket path %s does not fit in %zu bytes\n";

// The reply stays in its capture file and is sent from there as the socket
// takes it, so a connection holds the same few bytes whatever the reply's size.
struct ssat_conn_t {
    ssat_mod_t *mod;
    int fd;
    struct event *ev;
    std::string in;  // the request line while it comes
    ssat_reply_t reply;
    off_t sent = 0;
    off_t freed = 0;  // the capture's first bytes, already sent and given back
    int64_t took_ms = 0;  // when the client last took a byte of its reply
};

using ssat_conn_list_t = std::vector<std::unique_ptr<ssat_conn_t>>;

struct ssat_srv_t {
    ssat_conn_list_t conns;
    int64_t spooled = 0;  // reply bytes left in capture files, all connections
    int64_t served = 0;
    int64_t dropped = 0;
};

ssat_srv_t &ssat_srv() {
    static auto *srv = new ssat_srv_t;
    return *srv;
}

int64_t ssat_now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

void ssat_log(const char *module, const char *what) {
    fprintf(stderr, SSAT_LOG_ERRNO, module, what, strerror(errno));
}

off_t ssat_unread(const ssat_conn_t &c) { return c.reply.size - c.sent; }

// What the connection keeps in a capture file (a fixed text is no file).
off_t ssat_spool(const ssat_conn_t &c) { return c.reply.fd >= 0 ? ssat_unread(c) : 0; }

// Whatever the client still sends is read and dropped first: closing a Unix
// socket with unread input makes the peer's read fail instead of ending.
void ssat_conn_close(ssat_conn_t *c) {
    char sink[512];
    for (int i = 0; i < 16 && recv(c->fd, sink, sizeof sink, MSG_DONTWAIT) > 0; ++i) {
    }
    if (c->ev != nullptr) event_free(c->ev);
    close(c->fd);
    ssat_srv().spooled -= ssat_spool(*c);
    if (c->reply.fd >= 0) close(c->reply.fd);
    auto &conns = ssat_srv().conns;
    auto it = std::find_if(conns.begin(), conns.end(), [c](const auto &p) { return p.get() == c; });
    if (it != conns.end()) conns.erase(it);
}

void ssat_drop_window_cb(evutil_socket_t, short, void *arg) {
    auto *mod = static_cast<ssat_mod_t *>(arg);
    if (mod->drop_quiet > 0)
        fprintf(stderr, SSAT_LOG_DROP_MORE, mod->name.c_str(), mod->drop_quiet, SSAT_DROP_LOG_WINDOW_MS);
    mod->drop_lines = 0;
    mod->drop_quiet = 0;
}

// One line a drop, but a flood of drops is told in SSAT_DROP_LOG_BURST lines
// and one more when the window ends.
void ssat_drop_log(ssat_mod_t *mod, off_t unread) {
    if (mod->drop_lines < SSAT_DROP_LOG_BURST || mod->drop_ev == nullptr)
        fprintf(stderr, SSAT_LOG_DROP, mod->name.c_str(), static_cast<long long>(unread));
    else
        ++mod->drop_quiet;
    timeval window{SSAT_DROP_LOG_WINDOW_MS / 1000, SSAT_DROP_LOG_WINDOW_MS % 1000 * 1000};
    if (mod->drop_lines++ == 0 && mod->drop_ev != nullptr) evtimer_add(mod->drop_ev, &window);
}

// A client that does not take its reply: its socket is closed; what it was
// sent before stays readable for it, then the stream ends.
void ssat_conn_drop(ssat_conn_t *c) {
    ssat_drop_log(c->mod, ssat_unread(*c));
    ++ssat_srv().dropped;
    ssat_conn_close(c);
}

// The client took bytes: the sent part of the capture file is given back in
// steps, so the file holds about what is still to be sent.
void ssat_conn_took(ssat_conn_t *c, off_t before) {
    c->took_ms = ssat_now_ms();
    if (c->reply.fd < 0) return;
    ssat_srv().spooled -= c->sent - before;
    off_t upto = c->sent / SSAT_GIVE_BACK_STEP * SSAT_GIVE_BACK_STEP;
    if (upto <= c->freed) return;
    fallocate(c->reply.fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, c->freed, upto - c->freed);
    c->freed = upto;  // a file that cannot free a range keeps it until closed
}

// The next piece of the reply: read from the capture file into buf, or the
// fixed text itself. Empty when the file cannot be read.
std::string_view ssat_next_piece(const ssat_conn_t &c, char (&buf)[SSAT_SEND_PIECE]) {
    size_t len = static_cast<size_t>(std::min<off_t>(ssat_unread(c), SSAT_SEND_PIECE));
    if (c.reply.fd < 0) return c.reply.fixed.substr(static_cast<size_t>(c.sent), len);
    for (;;) {
        ssize_t n = pread(c.reply.fd, buf, len, c.sent);
        if (n < 0 && errno == EINTR) continue;
        return n > 0 ? std::string_view(buf, static_cast<size_t>(n)) : std::string_view();
    }
}

// Sends what the socket takes, piece by piece (send, not sendfile: with
// MSG_NOSIGNAL a vanished client is an error rather than a signal). 1 when the
// reply is all sent, 0 when the socket is full, -1 when the client is gone or
// the file cannot be read.
int ssat_conn_send(ssat_conn_t *c) {
    char buf[SSAT_SEND_PIECE];
    off_t before = c->sent;
    int st = 1;
    while (st == 1 && c->sent < c->reply.size) {
        std::string_view piece = ssat_next_piece(*c, buf);
        ssize_t n = piece.empty() ? -1 : send(c->fd, piece.data(), piece.size(), MSG_NOSIGNAL);
        if (n > 0)
            c->sent += n;
        else if (piece.empty() || errno != EINTR)
            st = !piece.empty() && (errno == EAGAIN || errno == EWOULDBLOCK) ? 0 : -1;
    }
    if (c->sent != before) ssat_conn_took(c, before);
    return st;
}

bool ssat_stalled(const ssat_conn_t &c, int64_t now) { return now - c.took_ms >= SSAT_STALL_MS; }

// A reply is made only while the replies left are under SSAT_SPOOL_MAX, so the
// capture files hold at most that plus one reply. Room is made by dropping the
// client idle longest, once idle for SSAT_IDLE_MIN_MS (one that reads takes
// bytes far more often); it is offered the socket first, in case it read while
// the loop was busy. False when no client is idle enough.
bool ssat_make_room(int64_t now) {
    ssat_srv_t &srv = ssat_srv();
    while (srv.spooled >= SSAT_SPOOL_MAX) {
        ssat_conn_t *oldest = nullptr;
        for (const auto &p : srv.conns)
            if (ssat_spool(*p) > 0 && now - p->took_ms >= SSAT_IDLE_MIN_MS &&
                (oldest == nullptr || p->took_ms < oldest->took_ms))
                oldest = p.get();
        if (oldest == nullptr) return false;
        int64_t took = oldest->took_ms;
        int st = ssat_conn_send(oldest);
        if (st != 0)
            ssat_conn_close(oldest);
        else if (oldest->took_ms == took)
            ssat_conn_drop(oldest);
    }
    return true;
}

// Called when the socket has room and every SSAT_WRITE_TICK it has none.
void ssat_conn_write_cb(evutil_socket_t, short, void *arg) {
    auto *c = static_cast<ssat_conn_t *>(arg);
    if (ssat_conn_send(c) != 0) {
        ssat_conn_close(c);
        return;
    }
    int64_t now = ssat_now_ms();
    if (now - c->took_ms >= SSAT_WRITE_IDLE_MS ||
        (ssat_stalled(*c, now) && ssat_unread(*c) > SSAT_UNREAD_MAX))
        ssat_conn_drop(c);
}

void ssat_conn_answer(ssat_conn_t *c, bool too_long);

void ssat_conn_room_cb(evutil_socket_t, short, void *arg) {
    ssat_conn_answer(static_cast<ssat_conn_t *>(arg), false);
}

// Runs the request on the loop once its reply has room, then sends the reply,
// waiting for room in the socket when the client reads slowly.
void ssat_conn_answer(ssat_conn_t *c, bool too_long) {
    event_base *base = event_get_base(c->ev);
    event_free(c->ev);
    c->ev = nullptr;
    if (!too_long && !ssat_make_room(ssat_now_ms())) {
        timeval again{0, SSAT_IDLE_MIN_MS * 1000};
        c->ev = evtimer_new(base, ssat_conn_room_cb, c);
        if (c->ev == nullptr || evtimer_add(c->ev, &again) != 0) ssat_conn_close(c);
        return;
    }
    if (too_long)
        c->reply = ssat_reply_t{-1, static_cast<off_t>(SSAT_TEXT_TOO_LONG.size()), SSAT_TEXT_TOO_LONG};
    else
        ssat_serve_line(*c->mod, c->in, c->reply);
    std::string().swap(c->in);
    ssat_srv().spooled += ssat_spool(*c);
    ++ssat_srv().served;
    c->took_ms = ssat_now_ms();
    int st = ssat_conn_send(c);
    if (st == 0) {
        c->ev = event_new(base, c->fd, EV_WRITE | EV_PERSIST, ssat_conn_write_cb, c);
        if (c->ev != nullptr && event_add(c->ev, &SSAT_WRITE_TICK) == 0) return;
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
    auto c = std::make_unique<ssat_conn_t>(ssat_conn_t{mod, fd, nullptr, {}, {}});
    c->ev = event_new(base, fd, EV_READ | EV_PERSIST, ssat_conn_read_cb, c.get());
    if (c->ev == nullptr || event_add(c->ev, &SSAT_READ_IDLE) != 0) {
        if (c->ev != nullptr) event_free(c->ev);
        close(fd);
        return;
    }
    ssat_srv().conns.push_back(std::move(c));
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
        fprintf(stderr, SSAT_LOG_PAUSE, mod->name.c_str(), strerror(errno), SSAT_PAUSE_FIRST_MS,
                SSAT_PAUSE_MAX_MS);
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
            fprintf(stderr, SSAT_LOG_RESUME, mod->name.c_str());
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

// With L3VPN_DEBUG_GROUP naming a group (the daemon's own, under its unit),
// the members of that group may connect too: the socket gets the group and
// mode 0660. Anything wrong with the group leaves the socket 0600.
void ssat_share_with_group(const ssat_mod_t &mod) {
    const char *group = getenv("L3VPN_DEBUG_GROUP");
    if (group == nullptr || *group == '\0') return;
    const struct group *gr = getgrnam(group);
    const char *why = gr == nullptr ? "no such group" : nullptr;
    if (why == nullptr && (chown(mod.path.c_str(), static_cast<uid_t>(-1), gr->gr_gid) != 0 ||
                           chmod(mod.path.c_str(), 0660) != 0))
        why = strerror(errno);
    if (why != nullptr) fprintf(stderr, SSAT_LOG_GROUP, mod.name.c_str(), group, why);
}

// Listening socket at mod->path, mode 0600 (or 0660 for the debug group)
// before it accepts anyone; -1 on failure.
int ssat_listen(const ssat_mod_t &mod, const sockaddr_un &sa) {
    const char *name = mod.name.c_str();
    if (tq_path_mkparents(mod.path.c_str()) != 0) {
        ssat_log(name, "mkdir");
        return -1;
    }
    if (ssat_sock_in_use(sa)) {
        fprintf(stderr, SSAT_LOG_IN_USE, name, mod.path.c_str());
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
    if (step == nullptr) {
        ssat_share_with_group(mod);
        return fd;
    }
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
        fprintf(stderr, SSAT_LOG_BAD_MOD, name);
        return -1;
    }
    if (!ssat_addr(path, sa)) {
        fprintf(stderr, SSAT_LOG_LONG_PATH, name, path.c_str(), sizeof sa.sun_path - 1);
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
    mod->drop_ev = evtimer_new(ctx->master, ssat_drop_window_cb, mod);
    if (mod->listen_ev == nullptr || mod->retry_ev == nullptr || mod->drop_ev == nullptr ||
        event_add(mod->listen_ev, nullptr) != 0) {
        ssat_log(module, "event");
        ssat_srv_close_mod(*mod);
        return -1;
    }
    return 0;
}

void ssat_srv_close_conns(void) {
    auto &conns = ssat_srv().conns;
    while (!conns.empty()) ssat_conn_close(conns.back().get());
}

ssat_srv_stats_t ssat_srv_stats(void) {
    const ssat_srv_t &srv = ssat_srv();
    return ssat_srv_stats_t{static_cast<int>(srv.conns.size()), srv.spooled, srv.served, srv.dropped};
}

void ssat_srv_close_mod(ssat_mod_t &mod) {
    if (mod.listen_ev != nullptr) event_free(mod.listen_ev);
    mod.listen_ev = nullptr;
    if (mod.retry_ev != nullptr) event_free(mod.retry_ev);
    mod.retry_ev = nullptr;
    if (mod.drop_ev != nullptr) event_free(mod.drop_ev);
    mod.drop_ev = nullptr;
    mod.drop_lines = mod.drop_quiet = 0;
    mod.pause_ms = 0;
    if (mod.listen_fd < 0) return;
    close(mod.listen_fd);
    mod.listen_fd = -1;
    unlink(mod.path.c_str());
}
