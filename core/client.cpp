// The process: read the configuration, start the log, then register and tunnel for ever.
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>

#include "core/Cycle.h"
#include "core/LoadConfiguration.h"
#include "log/Log.h"

using namespace nox::tunnel_client;

int main(int argc, char* argv[]) {
    RegistrationConfig registration;
    TunnelConfig tunnel;
    LogConfig log;
    try {
        LoadConfiguration(argc, argv, registration, tunnel, log);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "Invalid configuration - exiting: %s\n", failure.what());
        return 1;
    }

    // A log that cannot be written must not end the agent, be it that whoever reads it through a pipe hung up or
    // that a limit on the size of files was reached. And a service that hangs up costs its session only, see
    // PayloadPipe.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    // Our delays are whole seconds. Those that end within the same moment, as of many sessions, cost one wake-up.
    prctl(PR_SET_TIMERSLACK, 20'000'000UL);  // nanoseconds
    LogStart(log.path.empty() ? nullptr : log.path.c_str(), log.level, 1);
    LogWrite("client", 196, logInfo, "Tunnel client version: %s", TUNNEL_CLIENT_VERSION);

    RegistrationClient client(registration);
    for (;;) {
        RunTurn(client, tunnel);
        // A negative pause is taken as the huge unsigned number that it is to sleep.
        sleep(static_cast<unsigned>(registration.registrationReconnectSeconds));
    }
}
