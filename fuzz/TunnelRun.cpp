#include "fuzz/TunnelRun.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <system_error>

#include "fuzz/SealedWorld.h"
#include "tunnel/MessageSigning.h"
#include "tunnel/TunnelClient.h"
#include "tunnel/TunnelMessage.h"

namespace fuzz {

using namespace nox::tunnel_client;

namespace {

constexpr std::uint16_t tunnelPort = 4443;
const std::string password = "secret";

TunnelConfig Configuration() {
    TunnelConfig config;
    config.username = "user";
    config.password = password;
    config.serverHost = "127.0.0.1";
    config.serverPort = tunnelPort;
    config.deviceId = "device";
    config.tunnelHeartbeatSeconds = 30;
    return config;
}

std::optional<Peer> Service(std::uint16_t port, std::size_t pieceBytes) {
    switch (port) {
        case 6: return Peer{"", Peer::GoesDeaf};
        case 7:
            return Peer{std::string(30 * std::min<std::size_t>(16384, pieceBytes), 'x'), Peer::StaysSilent};
        case 9: return Peer{"", Peer::StaysSilent};
        case 13: return Peer{"hello"};
        default: return std::nullopt;
    }
}

// What a run may end with is what the numbers and addresses of a new session throw, and nothing of the JSON
// library's, whose complaints cost one message only.
void Run() {
    try {
        TunnelClient(Configuration()).Run();
    } catch (const json::parsing_error&) {
        Require(false, "a message that does not parse is dropped");
    } catch (const std::logic_error& error) {
        Require(error.what() == std::string("stoi"), "only a port that is no number ends the run");
    } catch (const std::system_error&) {
    }
}

// Session ids are quoted with an escaped solidus, which our own reader refuses.
void CheckControl(const std::string& payload, const char* expectedMethod) {
    if (payload.find("\\/") != std::string::npos) return;
    const auto message = json::jobject::parse(payload);
    Require(message["sign"].as_string() == ComputeSign(password, message), "what is sent is signed");
    Require(expectedMethod == nullptr || message["method"].as_string() == expectedMethod,
            "verify comes first");
}

void CheckFrames(const std::string& sent) {
    for (std::size_t at = 0; sent.size() - at >= headerBytes;) {
        HeaderBytes header;
        std::copy_n(&sent[at], header.size(), header.begin());
        const FrameHeader frame = DecodeHeader(header);
        Require(frame.type <= controlFrame && frame.length <= maxPayloadBytes, "frames are of known types");
        if (sent.size() - at - headerBytes < frame.length) return;  // cut off by the end of the connection
        const std::string payload = sent.substr(at + headerBytes, frame.length);
        if (frame.type == controlFrame) CheckControl(payload, at == 0 ? "verify" : nullptr);
        at += headerBytes + frame.length;
    }
}

}  // namespace

std::string ControlFrame(const std::string& text) {
    std::string payload = text;
    try {
        json::jobject message = json::jobject::parse(text);
        if (!message.has_key("sign")) {
            if (!message.has_key("timestamp")) message["timestamp"] = "1700000000000";
            message["sign"] = ComputeSign(password, message);
        }
        payload = message.as_string();
    } catch (const std::exception&) {  // not an object: nothing to sign
    }
    const TunnelMessage frame(controlFrame, "", payload);
    const HeaderBytes header = EncodeHeader(frame);
    return std::string(header.begin(), header.end()) + payload;
}

void RunTunnel(const std::string& stream, std::size_t pieceBytes, int connections) {
    const auto answer = [&](std::uint16_t port) {
        if (port != tunnelPort) return Service(port, pieceBytes);
        return connections-- > 0 ? std::optional(Peer{stream}) : std::nullopt;
    };
    SealedWorld world(answer, pieceBytes);
    Run();
    CheckFrames(world.Heard());
}

}  // namespace fuzz
