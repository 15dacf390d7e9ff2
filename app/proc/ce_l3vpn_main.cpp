#include "app/proc/ce_l3vpn_main.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_metrics.h"
#include "app/proc/ce_l3vpn_proto_op.h"
#include "app/proc/ce_l3vpn_refuse.h"
#include "app/proc/ce_l3vpn_tbl.h"
#include "app/proc/ce_l3vpn_wake.h"
#include "platform/ham/ham.h"
#include "platform/mom/tq_mom_redis.h"
#include "platform/runtime/tq_global.h"
#include "platform/runtime/tq_path.h"

void *ce_l3vpn_global = nullptr;

namespace {
constexpr const char *kPidName = "/sw.ce.mpls.l3vpn.pid";
constexpr const char *kHamMarker = "/var/sw_mpls/ham/ce_l3vpn";
constexpr const char *kZlogName = "ce_mpls_l3vpn_zlog";
constexpr const char *kZlogLevelFile = "/data/sw_mpls/ce_l3vpn_zlog.dbg";
constexpr const char *kTblLevelFile = "/data/sw_mpls/ce_l3vpn_tbl.dbg";
constexpr const char *kClientName = "udp-mpls-l3vpn";
constexpr int kHamExitAction = 2;
// The MOM did not take our credentials: a restart cannot help until they are
// fixed, so the status is not 77 ("lost the store, restart me").
constexpr int kExitMomAuth = 78;

[[noreturn]] void mom_auth_failed(const char *why) {
    fprintf(stderr, "ce_mpls_l3vpn: cannot log in to the MOM: %s\n", why);
    exit(kExitMomAuth);
}

int lock_pid_file(int fd) {
    struct flock fl;
    memset(&fl, 0, sizeof fl);
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = 0;
    return fcntl(fd, F_SETLK, &fl);
}

void write_pid(int fd) {
    char text[32];
    int len = snprintf(text, sizeof text, "%ld", (long)getpid());
    if (ftruncate(fd, 0) != 0) return;
    // The text and its terminating NUL byte, no newline.
    if (pwrite(fd, text, len + 1, 0) < 0) return;
}

void reg_ham(void) {
    int rv;
    int fd = open(tq_path(kHamMarker).c_str(), O_RDONLY);
    if (fd >= 0) {
        // The marker says this process must not register its exit action.
        close(fd);
        rv = -15;
    } else {
        rv = reg_process_exit_action(getpid(), kHamExitAction);
    }
    if (rv != 0) CE_L3VPN_LOG(CE_L3VPN_ERROR, "ce mpls l3vpn reg HAM fail, rv %d", rv);
}
}  // namespace

int ce_l3vpn_check_running(void) {
    char name[127];
    char path[127];
    snprintf(name, sizeof name, "/var/run%s", kPidName);
    int fd = -1;
    if (tq_path(name, path, sizeof path) == nullptr) {
        printf("ERROR: pid file path %s does not fit in %zu bytes\n", tq_path(name).c_str(), sizeof path - 1);
    } else {
        fd = open(path, O_RDWR | O_CREAT | O_TRUNC, 0644);
    }
    int rv;
    if (fd < 0) {
        rv = -11;
    } else if (lock_pid_file(fd) != 0) {
        if (errno == EAGAIN || errno == EACCES) {
            close(fd);
            rv = -6;
        } else {
            rv = -1;  // the descriptor stays open, as the lock call left it
        }
    } else {
        write_pid(fd);
        return fd;  // never closed: the lock lives as long as the process
    }
    printf("\n[%s] check running, rv:%d, another process is already running\n", kPidName, rv);
    fflush(stdout);
    return rv;
}

int ce_l3vpn_main(void) {
    // A write to a store that went away must end in the loss handling (exit 77
    // with a log line), never in a silent death by signal.
    signal(SIGPIPE, SIG_IGN);
    tq_redis_set_auth_fail_cb(mom_auth_failed);
    int fd = ce_l3vpn_check_running();
    if (fd < 0) return fd;

    int rv = ce_l3vpn_zlog_init(kZlogName, kZlogLevelFile);
    if (rv != 0) {
        printf("ERROR: ce mpls l3vpn zlog init fail, rv %d\n", rv);
        fflush(stdout);
    }
    reg_ham();
    ce_l3vpn_tbl_dbg_init(kTblLevelFile);

    ce_l3vpn_global = nullptr;
    ce_l3vpn_global = tq_global_init(kClientName, 0);
    if (ce_l3vpn_global == nullptr) {
        CE_L3VPN_LOG(CE_L3VPN_ERROR, "tq_global init fail");
        return 17;
    }
    // Records the MOM client cannot deliver are refusals of ours.
    tq_mom_redis_set_bad_cb(static_cast<tq_global_t *>(ce_l3vpn_global)->mom,
                            ce_l3vpn_refuse_mom_bad, nullptr);
    ce_l3_table_init(ce_l3vpn_global);
    ce_l3vpn_metrics_start(ce_l3vpn_global);  // off unless L3VPN_METRICS is set
    ce_l3vpn_proto_op_init();
    ce_l3vpn_rdnd_reg(ce_l3vpn_global);

    CE_L3VPN_LOG(CE_L3VPN_INFO, "mpls l3 init over, start running.\n");
    tq_global_run(ce_l3vpn_global);
    ce_l3vpn_metrics_stop();
    tq_global_finish(ce_l3vpn_global);
    return 0;
}
