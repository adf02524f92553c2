#include "tests/tunnel/TunnelRun.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <csignal>
#include <utility>

#include "lab/wire/Signing.h"
#include "tests/support/LogCapture.h"

namespace support {

using namespace nox::tunnel_client;
using namespace std::chrono_literals;

// As in the agent.
const auto pipeSignal = std::signal(SIGPIPE, SIG_IGN);

TunnelConfig QuickConfig(unsigned short port) {
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

Delays QuickDelays() {
    Delays delays;
    delays.verificationLimit = 1s;  // a run lasts as long; a busy machine may stand still for a while
    delays.tunnelClose = 100ms;
    delays.sessionClose = 100ms;
    delays.sessionRemoval = 50ms;
    delays.second = 10ms;
    return delays;
}

std::vector<std::string> RunTunnel(std::vector<support::Conversation> conversations, std::int32_t level,
                                   const Delays& delays) {
    LogCapture log(level);
    support::ScriptedServer server(std::move(conversations));
    {
        TunnelClient client(QuickConfig(server.Port()), delays);
        client.Run();
    }
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

void Accept(support::Connection& agent) {
    support::ReadControl(agent);
    Say(agent, R"({"method":"message","message":"welcome"})");
}

void HangUp(support::Connection& agent) {
    agent.ShutdownSend();
    agent.ReadToEnd();
}

std::string Bytes(const support::Frame& frame) {
    const auto header = lab::EncodeHeader(frame.type, frame.payload.size(), frame.session);
    return std::string(header.begin(), header.end()) + frame.payload;
}

std::string Control(const std::string& json) {
    return Bytes({lab::controlFrame, "", lab::Sign(password, json)});
}

void Say(support::Connection& agent, const std::string& json) { agent.Write(Control(json)); }

std::string NewSessionText(unsigned short port, const std::string& id) {
    return R"({"method":"new_session","session":")" + id + R"(","localHost":"127.0.0.1","localPort":)" +
           std::to_string(port) + "}";
}

void NewSession(support::Connection& agent, unsigned short port, const std::string& id) {
    Say(agent, NewSessionText(port, id));
}

Heard Listen(support::Connection& agent, int ends) {
    Heard heard;
    while (ends > 0) {
        const support::Frame frame = support::ReadFrame(agent);
        if (frame.type == 0) heard.data[frame.session] += frame.payload;
        if (frame.type != 3) continue;
        heard.control.push_back(frame.payload.substr(0, frame.payload.find(",\"timestamp\"")));
        if (frame.payload.find("disconnect-session") != std::string::npos) --ends;
    }
    return heard;
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

std::string Megabytes(std::size_t count) { return std::string(count * 1000000, 'x'); }

}  // namespace support
