#include "app/proc/ce_l3vpn_metrics.h"

#include <arpa/inet.h>
#include <event2/buffer.h>
#include <event2/http.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/proc/ce_l3vpn_stats.h"
#include "platform/runtime/tq_global.h"

namespace {
constexpr const char *kEnv = "L3VPN_METRICS";
constexpr const char *kPath = "/metrics";
constexpr const char *kContentType = "application/openmetrics-text; version=1.0.0; charset=utf-8";
constexpr int kTimeoutS = 10;          // an idle client is dropped
constexpr size_t kMaxHeaders = 8192;   // a scrape sends a few short headers

// What the operator reads on standard error.
constexpr const char *kSayRefused =
    "l3vpn metrics: %s=%s is not a loopback address and port (127.0.0.0/8 as A.B.C.D:PORT, or "
    "[::1]:PORT); metrics off\n";
constexpr const char *kSayBindFail = "l3vpn metrics: cannot listen on %s: %s; metrics off\n";
constexpr const char *kSayServing = "l3vpn metrics: serving http://%s%s\n";

struct evhttp *metrics_http = nullptr;

struct listen_addr_t {
    std::string host;  // numeric, without brackets
    uint16_t port;
};

// "A.B.C.D:PORT" in 127.0.0.0/8, or "[::1]:PORT"; false for anything else.
bool parse_loopback(const std::string &text, listen_addr_t &out) {
    size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon + 1 >= text.size()) return false;
    std::string host = text.substr(0, colon), port = text.substr(colon + 1);
    if (port.find_first_not_of("0123456789") != std::string::npos || port.size() > 5) return false;
    long p = strtol(port.c_str(), nullptr, 10);
    if (p < 1 || p > 65535) return false;
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
        in6_addr a6{};
        if (inet_pton(AF_INET6, host.c_str(), &a6) != 1 || !IN6_IS_ADDR_LOOPBACK(&a6)) return false;
    } else {
        in_addr a4{};
        if (inet_pton(AF_INET, host.c_str(), &a4) != 1 || (ntohl(a4.s_addr) >> 24) != 127) return false;
    }
    out = {host, static_cast<uint16_t>(p)};
    return true;
}

void reply_metrics(struct evhttp_request *req) {
    const std::string text = ce_l3vpn_stats_openmetrics(ce_l3vpn_stats_snapshot());
    evhttp_add_header(evhttp_request_get_output_headers(req), "Content-Type", kContentType);
    struct evbuffer *body = evbuffer_new();
    if (body == nullptr) {
        evhttp_send_error(req, HTTP_INTERNAL, nullptr);
        return;
    }
    evbuffer_add(body, text.data(), text.size());
    evhttp_send_reply(req, HTTP_OK, "OK", body);
    evbuffer_free(body);
}

// Every request lands here: /metrics (a query string is ignored), else 404.
void on_request(struct evhttp_request *req, void *) {
    const struct evhttp_uri *uri = evhttp_request_get_evhttp_uri(req);
    const char *path = uri != nullptr ? evhttp_uri_get_path(uri) : nullptr;
    if (path == nullptr || strcmp(path, kPath) != 0) {
        evhttp_send_error(req, HTTP_NOTFOUND, nullptr);
        return;
    }
    reply_metrics(req);
}
}  // namespace

int ce_l3vpn_metrics_start(void *global) {
    const char *text = getenv(kEnv);
    if (text == nullptr || *text == '\0' || metrics_http != nullptr) return 0;
    listen_addr_t addr;
    if (!parse_loopback(text, addr)) {
        fprintf(stderr, kSayRefused, kEnv, text);
        return -1;
    }
    metrics_http = evhttp_new(tq_global_master(global));
    if (metrics_http == nullptr ||
        evhttp_bind_socket_with_handle(metrics_http, addr.host.c_str(), addr.port) == nullptr) {
        fprintf(stderr, kSayBindFail, text, strerror(errno));
        ce_l3vpn_metrics_stop();
        return -1;
    }
    evhttp_set_allowed_methods(metrics_http, EVHTTP_REQ_GET | EVHTTP_REQ_HEAD);
    evhttp_set_timeout(metrics_http, kTimeoutS);
    evhttp_set_max_headers_size(metrics_http, kMaxHeaders);
    evhttp_set_gencb(metrics_http, on_request, nullptr);
    fprintf(stderr, kSayServing, text, kPath);
    return 0;
}

void ce_l3vpn_metrics_stop(void) {
    if (metrics_http != nullptr) evhttp_free(metrics_http);
    metrics_http = nullptr;
}
