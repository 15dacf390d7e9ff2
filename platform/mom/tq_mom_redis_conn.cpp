// Connections to the store: the address, the credentials, blocking and
// loop-driven connections, keyspace notifications.
#include <fcntl.h>
#include <hiredis/adapters/libevent.h>
#include <hiredis/async.h>
#include <hiredis/hiredis.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "platform/mom/tq_mom_redis.h"

namespace {

constexpr const char *DEFAULT_HOST = "127.0.0.1";
constexpr int DEFAULT_PORT = 6379;
constexpr size_t AUTH_FILE_MAX = 4096;  // more is not one line "USER PASSWORD"

tq_redis_addr_t default_addr() { return {false, DEFAULT_HOST, DEFAULT_PORT}; }

struct timeval ms_to_tv(int ms) { return {ms / 1000, (ms % 1000) * 1000}; }

tq_redis_auth_fail_cb_t auth_fail_cb = nullptr;

// The credentials of MOM_REDIS_AUTH_FILE. The password never leaves here but
// in AUTH, and no message carries it.
struct auth_t {
    std::string file, user, pass;
};

// ---- what is said about credentials: one line each --------------------------

std::string auth_where(const std::string &file) {
    return std::string(TQ_REDIS_AUTH_ENV) + " " + file + ": ";
}
std::string auth_unreadable(const std::string &file, int err) {
    return auth_where(file) + "cannot read it: " + strerror(err);
}
std::string auth_not_file(const std::string &file) {
    return auth_where(file) + "not a regular file";
}
std::string auth_open_mode(const std::string &file, mode_t mode) {
    char octal[8];
    snprintf(octal, sizeof octal, "%04o", static_cast<unsigned>(mode & 07777));
    return auth_where(file) + "others have access to it (mode " + octal +
           "): allow its owner and group only";
}
std::string auth_bad_text(const std::string &file) {
    return auth_where(file) + "not one line \"USER PASSWORD\"";
}
std::string auth_refused(const auth_t &a, std::string_view answer) {
    return auth_where(a.file) + "AUTH as " + a.user + " refused: " + std::string(answer);
}
std::string auth_missing(std::string_view answer) {
    return std::string(TQ_REDIS_AUTH_ENV) + " is not set and the store wants credentials: " +
           std::string(answer);
}

void tell_auth_fail(const std::string &why, bool say) {
    if (auth_fail_cb != nullptr) auth_fail_cb(why.c_str());
    else if (say) fprintf(stderr, "tq_mom_redis: %s\n", why.c_str());
}

// ---- reading the credentials ------------------------------------------------

// "USER PASSWORD": two words of printable characters, one space between.
bool auth_parse(std::string_view text, auth_t &out) {
    if (text.ends_with('\n')) text.remove_suffix(1);
    if (text.ends_with('\r')) text.remove_suffix(1);
    size_t sp = text.find(' ');
    if (sp == 0 || sp == std::string_view::npos || sp + 1 == text.size()) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        auto ch = static_cast<unsigned char>(text[i]);
        if (i != sp && (ch <= ' ' || ch == 0x7f)) return false;
    }
    out.user = text.substr(0, sp);
    out.pass = text.substr(sp + 1);
    return true;
}

// 0: no file is named; 1: out holds the credentials; -1: the file cannot be
// used, with why.
int auth_load(auth_t &out, std::string &why) {
    const char *env = getenv(TQ_REDIS_AUTH_ENV);
    if (env == nullptr || *env == '\0') return 0;
    out.file = env;
    int fd = open(env, O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // a FIFO must not hang us
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0) {
        why = auth_unreadable(out.file, errno);
        if (fd >= 0) close(fd);
        return -1;
    }
    std::string text;
    char buf[AUTH_FILE_MAX + 1];
    ssize_t n = 0;
    while (text.size() <= AUTH_FILE_MAX && (n = read(fd, buf, sizeof buf)) > 0)
        text.append(buf, static_cast<size_t>(n));
    int read_errno = errno;
    close(fd);
    if (!S_ISREG(st.st_mode)) why = auth_not_file(out.file);
    else if ((st.st_mode & S_IRWXO) != 0) why = auth_open_mode(out.file, st.st_mode);
    else if (n < 0) why = auth_unreadable(out.file, read_errno);
    else if (text.size() > AUTH_FILE_MAX || !auth_parse(text, out)) why = auth_bad_text(out.file);
    else return 1;
    return -1;
}

// Logs a new blocking connection in: AUTH with the credentials, or a PING
// that tells whether the server wants some. 0, or TQ_REDIS_FAIL_* with why.
int log_in(redisContext *c, const auth_t &a, bool have, std::string &why) {
    const char *argv[] = {"AUTH", a.user.c_str(), a.pass.c_str()};
    size_t lens[] = {4, a.user.size(), a.pass.size()};
    auto *r = static_cast<redisReply *>(have ? redisCommandArgv(c, 3, argv, lens)
                                             : redisCommand(c, "PING"));
    if (r == nullptr) {
        why = c->errstr;
        return TQ_REDIS_FAIL_CONN;
    }
    std::string answer = r->type == REDIS_REPLY_ERROR ? std::string(r->str, r->len) : "";
    freeReplyObject(r);
    if (have && !answer.empty()) why = auth_refused(a, answer);
    else if (!have && answer.starts_with("NOAUTH")) why = auth_missing(answer);
    else return 0;
    return TQ_REDIS_FAIL_AUTH;
}

redisContext *connect_failed(redisContext *c, int kind, const std::string &why, std::string *err,
                             int *fail) {
    if (c != nullptr) redisFree(c);
    if (kind == TQ_REDIS_FAIL_AUTH) tell_auth_fail(why, err == nullptr);
    if (err != nullptr) *err = why;
    if (fail != nullptr) *fail = kind;
    return nullptr;
}

// The reply to the AUTH of a loop-driven connection; who holds no password.
void async_auth_reply(redisAsyncContext *ac, void *reply, void *who) {
    std::unique_ptr<auth_t> a(static_cast<auth_t *>(who));
    auto *r = static_cast<redisReply *>(reply);
    if (r == nullptr || r->type != REDIS_REPLY_ERROR) return;
    tell_auth_fail(auth_refused(*a, std::string_view(r->str, r->len)), true);
    redisAsyncFree(ac);  // its owner's disconnect callback comes next
}

}  // namespace

void tq_redis_set_auth_fail_cb(tq_redis_auth_fail_cb_t cb) { auth_fail_cb = cb; }

int tq_redis_addr_parse(const std::string &text, tq_redis_addr_t &out) {
    std::string_view t = text;
    if (t.starts_with("unix:")) {
        if (t.size() == 5) return -4;
        out = {true, std::string(t.substr(5)), 0};
        return 0;
    }
    size_t colon = t.rfind(':');
    if (colon == std::string_view::npos || colon == 0) return -4;
    std::string_view host = t.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')  // [v6]:port
        host = host.substr(1, host.size() - 2);
    int port = 0;
    std::string_view p = t.substr(colon + 1);
    auto [end, ec] = std::from_chars(p.data(), p.data() + p.size(), port);
    if (ec != std::errc() || end != p.data() + p.size() || port <= 0 || port > 65535) return -4;
    out = {false, std::string(host), port};
    return 0;
}

tq_redis_addr_t tq_redis_addr_from_env(void) {
    const char *env = getenv("MOM_REDIS");
    tq_redis_addr_t addr = default_addr();
    if (env != nullptr && *env != '\0' && tq_redis_addr_parse(env, addr) != 0)
        fprintf(stderr, "tq_mom_redis: MOM_REDIS '%s' is not unix:/path or host:port, using %s:%d\n",
                env, DEFAULT_HOST, DEFAULT_PORT);
    return addr;
}

redisContext *tq_redis_connect(const tq_redis_addr_t &addr, int timeout_ms, std::string *err,
                               int *fail) {
    auth_t a;
    std::string why;
    int have = auth_load(a, why);
    if (have < 0) return connect_failed(nullptr, TQ_REDIS_FAIL_AUTH, why, err, fail);
    struct timeval tv = ms_to_tv(timeout_ms);
    redisContext *c = addr.is_unix ? redisConnectUnixWithTimeout(addr.path.c_str(), tv)
                                   : redisConnectWithTimeout(addr.path.c_str(), addr.port, tv);
    if (c == nullptr || c->err != 0 || redisSetTimeout(c, tv) != REDIS_OK)
        return connect_failed(c, TQ_REDIS_FAIL_CONN,
                              c != nullptr && c->err != 0 ? c->errstr : "connection failed", err,
                              fail);
    int kind = log_in(c, a, have > 0, why);
    return kind == 0 ? c : connect_failed(c, kind, why, err, fail);
}

redisAsyncContext *tq_redis_connect_async(const tq_redis_addr_t &addr, struct event_base *master) {
    auth_t a;
    std::string why;
    int have = auth_load(a, why);
    if (have < 0) {
        tell_auth_fail(why, true);
        return nullptr;
    }
    redisAsyncContext *ac = addr.is_unix ? redisAsyncConnectUnix(addr.path.c_str())
                                         : redisAsyncConnect(addr.path.c_str(), addr.port);
    if (ac == nullptr) return nullptr;
    if (ac->err != 0 || redisLibeventAttach(ac, master) != REDIS_OK) {
        redisAsyncFree(ac);
        return nullptr;
    }
    if (have == 0) return ac;
    const char *argv[] = {"AUTH", a.user.c_str(), a.pass.c_str()};
    size_t lens[] = {4, a.user.size(), a.pass.size()};
    auto *who = new auth_t{a.file, a.user, ""};
    if (redisAsyncCommandArgv(ac, async_auth_reply, who, 3, argv, lens) != REDIS_OK) {
        delete who;
        redisAsyncFree(ac);
        return nullptr;
    }
    return ac;
}

int tq_redis_enable_notices(redisContext *c, const char *need) {
    if (c == nullptr || need == nullptr) return -4;
    auto *r = static_cast<redisReply *>(redisCommand(c, "CONFIG GET notify-keyspace-events"));
    if (r == nullptr) return -11;
    std::string have;
    if (r->type == REDIS_REPLY_ARRAY && r->elements == 2 &&
        r->element[1]->type == REDIS_REPLY_STRING)
        have.assign(r->element[1]->str, r->element[1]->len);
    if (r->type == REDIS_REPLY_ERROR)
        fprintf(stderr,
                "tq_mom_redis: cannot read notify-keyspace-events (%s): the server's "
                "configuration must have at least \"%s\"\n",
                r->str, need);
    bool refused = r->type == REDIS_REPLY_ERROR;
    freeReplyObject(r);
    if (refused) return -11;
    std::string missing;
    for (const char *p = need; *p != '\0'; ++p)
        if (have.find(*p) == std::string::npos && missing.find(*p) == std::string::npos)
            missing += *p;
    if (missing.empty()) return 0;
    std::string want = have + missing;
    r = static_cast<redisReply *>(
        redisCommand(c, "CONFIG SET notify-keyspace-events %b", want.data(), want.size()));
    if (r == nullptr) return -11;
    int rv = r->type == REDIS_REPLY_ERROR ? -11 : 0;
    if (rv != 0)
        fprintf(stderr,
                "tq_mom_redis: keyspace notifications lack \"%s\" (the server has \"%s\") and "
                "CONFIG SET was refused (%s): add them to notify-keyspace-events in the "
                "server's configuration\n",
                missing.c_str(), have.c_str(), r->str);
    freeReplyObject(r);
    return rv;
}

std::string tq_redis_glob_escape(const std::string &text) {
    std::string out;
    out.reserve(text.size());
    for (char ch : text) {
        if (ch == '*' || ch == '?' || ch == '[' || ch == ']' || ch == '\\') out += '\\';
        out += ch;
    }
    return out;
}
