// qelfront: the simulated exchange front as a program. It listens until
// interrupted (SIGINT or SIGTERM), then stops cleanly and saves its state.
#include <csignal>
#include <cstdio>

#include <unistd.h>

#include "front/server.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;

void on_signal(int) { g_stop = 1; }

}  // namespace

int main(int argc, char** argv) {
    static Front::Config config;
    char error[512] = {};
    int parsed = config.parse_args(argc, argv, error, sizeof(error));
    if (parsed == 1) {
        fputs(Front::Config::usage(), stdout);
        return 0;
    }
    if (parsed < 0) {
        fprintf(stderr, "qelfront: %s\n%s", error, Front::Config::usage());
        return 2;
    }
    Front::Server front(config);
    if (!front.start()) {
        fprintf(stderr, "qelfront: %s\n", front.get_error());
        return 1;
    }
    printf("qelfront: listening on %s:%d, trading day %s\n", config.host, front.get_port(),
           config.trading_day[0] ? config.trading_day : "today");
    fflush(stdout);
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    while (!g_stop) usleep(100000);
    front.stop();
    printf("qelfront: stopped\n");
    return 0;
}
