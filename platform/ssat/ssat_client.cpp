// Debug-command service, client side: one request line out, the output back.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "platform/ssat/ssat_int.h"

namespace {

using ssat_clock = std::chrono::steady_clock;

struct ssat_fd_t {
    int fd = -1;
    ~ssat_fd_t() {
        int saved = errno;  // callers report the errno of the failed step
        if (fd >= 0) close(fd);
        errno = saved;
    }
};

// Milliseconds left before the deadline for poll(): -1 waits without end.
int ssat_left_ms(ssat_clock::time_point deadline, bool unlimited) {
    if (unlimited) return -1;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - ssat_clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// 0 when ready, -1 on timeout (errno ETIMEDOUT) or error.
int ssat_wait(int fd, short events, int ms) {
    pollfd p{fd, events, 0};
    for (;;) {
        int n = poll(&p, 1, ms);
        if (n > 0) return 0;
        if (n == 0) {
            errno = ETIMEDOUT;
            return -1;
        }
        if (errno != EINTR) return -1;
    }
}

// A blocking connect bounded by the send timeout (that is how a Unix socket
// waits for room in a full backlog), then non-blocking I/O under poll.
int ssat_connect(const std::string &path, int timeout_ms) {
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof sa.sun_path) {
        errno = path.empty() ? EINVAL : ENAMETOOLONG;
        return -1;
    }
    memcpy(sa.sun_path, path.c_str(), path.size() + 1);
    ssat_fd_t s;
    s.fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s.fd < 0) return -1;
    if (timeout_ms > 0) {
        timeval tv{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
        setsockopt(s.fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    }
    if (connect(s.fd, reinterpret_cast<const sockaddr *>(&sa), sizeof sa) != 0) return -1;
    if (fcntl(s.fd, F_SETFL, fcntl(s.fd, F_GETFL) | O_NONBLOCK) != 0) return -1;
    int fd = s.fd;
    s.fd = -1;
    return fd;
}

// A server that already answered (a request it found too long) may close
// before the whole line is sent; the reply is still read then.
void ssat_send_line(int fd, const std::string &req, ssat_clock::time_point deadline, bool unlimited) {
    size_t sent = 0;
    while (sent < req.size()) {
        ssize_t n = send(fd, req.data() + sent, req.size() - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (ssat_wait(fd, POLLOUT, ssat_left_ms(deadline, unlimited)) != 0) return;
        } else {
            return;
        }
    }
}

// 0 at the end of the reply, -2 on timeout or a read error.
int ssat_read_reply(int fd, std::string &out, ssat_clock::time_point deadline, bool unlimited) {
    char buf[8192];
    for (;;) {
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n > 0) {
            out.append(buf, static_cast<size_t>(n));
        } else if (n == 0 || errno == ECONNRESET) {
            return 0;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (ssat_wait(fd, POLLIN, ssat_left_ms(deadline, unlimited)) != 0) return -2;
        } else if (errno != EINTR) {
            return -2;
        }
    }
}

}  // namespace

int ssat_client_request(const char *module, const std::string &line, std::string &output,
                        int timeout_ms) {
    output.clear();
    bool unlimited = timeout_ms <= 0;
    auto deadline = ssat_clock::now() + std::chrono::milliseconds(unlimited ? 0 : timeout_ms);
    ssat_fd_t s;
    s.fd = ssat_connect(ssat_sock_path(module), timeout_ms);
    if (s.fd < 0) return -1;
    ssat_send_line(s.fd, line + "\n", deadline, unlimited);
    shutdown(s.fd, SHUT_WR);
    return ssat_read_reply(s.fd, output, deadline, unlimited);
}
