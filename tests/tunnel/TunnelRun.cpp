#include "tests/tunnel/TunnelRun.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <csignal>
#include <utility>

#include "tests/support/Eventually.h"

namespace support {

using namespace nox::tunnel_client;
using namespace std::chrono_literals;

namespace {

// As in the agent.
const auto pipeSignal = std::signal(SIGPIPE, SIG_IGN);

const LogCapture* running = nullptr;

// The log of a run, for as long as it lasts.
struct RunLog : LogCapture {
    explicit RunLog(std::int32_t level) : LogCapture(level) { running = this; }
    ~RunLog() { running = nullptr; }
};

}  // namespace

TunnelConfig ConfigFor(unsigned short port) {
    TunnelConfig config;
    config.username = "user";
    config.password = password;
    config.serverHost = "127.0.0.1";
    config.serverPort = port;
    config.deviceId = "device/1";
    config.tunnelReconnectSeconds = 0;
    config.tunnelHeartbeatSeconds = 30;
    return config;
}

Delays QuickDelays(int scale) {
    Delays delays;
    delays.verificationLimit = scale * 1s;
    delays.tunnelClose = scale * 100ms;
    delays.sessionClose = scale * 100ms;
    delays.sessionRemoval = scale * 50ms;
    delays.second = scale * 10ms;
    return delays;
}

Delays QuickBeats() {
    Delays delays;
    delays.second = 1ms;
    return delays;
}

std::vector<std::string> RunTunnel(std::vector<Conversation> conversations, std::int32_t level,
                                   const Delays& delays) {
    RunLog log(level);
    ScriptedServer server(std::move(conversations));
    TunnelClient(ConfigFor(server.Port()), delays).Run();
    server.Finish();
    auto lines = log.Lines();
    const auto refused = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.find("Failed to connect: (111)") != std::string::npos;
    });
    const auto last = std::find(std::make_reverse_iterator(refused), lines.rend(),
                                "[TunnelClient:50] Tunnel reconnecting...");
    if (refused != lines.end() && last != lines.rend()) lines.erase(last.base() - 1, lines.end());
    return lines;
}

std::vector<std::string> DuringTunnel(const Conversation& play, std::int32_t level, const Delays& delays) {
    RunLog log(level);
    ScriptedServer server({[&](Connection& agent) {
        Accept(agent);
        play(agent);
        EndTheRun(agent);
        agent.ReadToEnd();
    }});
    Delays unhurried = delays;
    unhurried.verificationLimit = Delays().verificationLimit;
    EXPECT_THROW(TunnelClient(ConfigFor(server.Port()), unhurried).Run(), std::system_error);
    server.Finish();
    return log.Lines();
}

std::vector<std::string> LogSoFar() { return running->Lines(); }

void AwaitLog(const std::string& text) {
    EXPECT_TRUE(Eventually([&] { return running->Count(text) > 0; })) << text;
}

void AwaitStandstill() {
    EXPECT_TRUE(Eventually([] {
        const auto lines = LogSoFar();
        return lines.size() > 3 && std::all_of(lines.end() - 3, lines.end(), [](const std::string& line) {
                   return line == "[TunnelClient:448] Sending heartbeat";
               });
    }));
}

int OptionOfSocketTo(unsigned short port, int level, int name) {
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) != 0) continue;
        int value = 0;
        size = sizeof value;
        if (peer.sin_port == htons(port) && getsockopt(descriptor, level, name, &value, &size) == 0)
            return value;
    }
    return 0;
}

}  // namespace support
