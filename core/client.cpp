// The process: reads the configuration, starts the log, then registers and tunnels for ever.
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>

#include "core/Cycle.h"
#include "core/LoadConfiguration.h"
#include "log/Log.h"

using namespace nox::tunnel_client;

namespace {

// A closed standard error must not change the exit status. A log that cannot be written, because its reader
// has closed the pipe or the file has reached a limit of size, must not end the agent. A local service that
// closes its connection ends only its own session, see ServiceConnection.
void IgnoreFailedWrites() {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

// A sleep of no length would still last as long as the timer slack. A negative number becomes the huge
// unsigned one that sleep takes.
void Pause(std::int32_t seconds) {
    if (seconds != 0) sleep(static_cast<unsigned>(seconds));
}

}  // namespace

int main(int argc, char* argv[]) {
    IgnoreFailedWrites();
    Configuration configuration;
    try {
        configuration = LoadConfiguration(argc, argv);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "Invalid configuration - exiting: %s\n", failure.what());
        return 1;
    }

    // Our delays are whole seconds. With this slack, delays that end within the same moment, such as those of
    // many sessions, wake the process once.
    prctl(PR_SET_TIMERSLACK, 20'000'000UL);  // nanoseconds
    const LogConfig& log = configuration.log;
    LogStart(log.path.empty() ? nullptr : log.path.c_str(), log.level, 1);
    LogWrite("client", 196, logInfo, "Tunnel client version: %s", TUNNEL_CLIENT_VERSION);

    RegistrationClient registration(configuration.registration);
    for (;;) {
        RunTurn(registration, configuration.tunnel);
        Pause(configuration.registration.registrationReconnectSeconds);
    }
}
