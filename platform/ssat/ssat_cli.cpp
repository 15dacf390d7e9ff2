// ssat-cmd MODULE COMMAND [ARGS...]: runs one debug command of a running
// process over its socket and prints the output.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/ssat/ssat.h"
#include "platform/ssat/ssat_int.h"

namespace {
constexpr int SSAT_CLI_TIMEOUT_MS = 30000;  // a full database dump can take a while
}

int main(int argc, char **argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: ssat-cmd MODULE COMMAND [ARGS...]\n");
        return 2;
    }
    std::string line = argv[2];
    for (int i = 3; i < argc; ++i) line.append(" ").append(argv[i]);
    std::string out;
    int rc = ssat_client_request(argv[1], line, out, SSAT_CLI_TIMEOUT_MS);
    fwrite(out.data(), 1, out.size(), stdout);
    fflush(stdout);
    if (rc == -1) {
        std::string path = ssat_sock_path(argv[1]);
        fprintf(stderr, "ssat-cmd: cannot reach %s: %s\n", path.empty() ? argv[1] : path.c_str(),
                strerror(errno));
        return 1;
    }
    if (rc != 0) {
        fprintf(stderr, "ssat-cmd: no complete reply from %s within %d ms\n", argv[1],
                SSAT_CLI_TIMEOUT_MS);
        return 1;
    }
    return 0;
}
