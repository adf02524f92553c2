#include "fuzz/TunnelRun.h"

#include <algorithm>
#include <asio.hpp>
#include <cstdint>
#include <stdexcept>
#include <system_error>

#include "tunnel/MessageSigning.h"
#include "tunnel/TunnelConnection.h"
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

std::optional<Peer> PeerAt(std::uint16_t port, const Stream& stream, std::size_t pieceBytes) {
    constexpr std::size_t largestRead = 16384;
    constexpr std::chrono::seconds early{3}, late{4};
    switch (port) {
        case tunnelPort: return Peer(stream.Sayings());
        case 6: return Peer("", Peer::GoesDeaf);
        case 7: return Peer(std::string(30 * std::min(largestRead, pieceBytes), 'x'), Peer::StaysSilent);
        case 9: return Peer("", Peer::StaysSilent);
        case 13: return Peer("hello");
        case 14: return Peer(std::vector<Saying>{{early, "early"}, {late, "late"}});
        default: return std::nullopt;
    }
}

// Only the port and the address of a new session may end a run; an error of the JSON library costs one
// message.
void Run() {
    const TunnelConfig config = Configuration();
    const Delays delays;
    asio::io_context io(1);
    try {
        TunnelConnection connection(io, config, delays);
        connection.Connect();
        io.run();
    } catch (const json::parsing_error&) {
        Require(false, "a message that does not parse is dropped");
    } catch (const std::logic_error& error) {
        Require(error.what() == std::string("stoi"), "only a port that is no number ends the run");
    } catch (const std::system_error&) {
    }
}

// The agent writes session ids with an escaped solidus, which its own reader refuses; those messages are
// skipped.
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

void Stream::SendControl(const std::string& text) {
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
    const HeaderBytes header = EncodeHeader(TunnelMessage(controlFrame, "", payload));
    Send(std::string(header.begin(), header.end()) + payload);
}

void RunTunnel(const Stream& stream, std::size_t pieceBytes) {
    SealedWorld world([&](std::uint16_t port) { return PeerAt(port, stream, pieceBytes); }, pieceBytes);
    Run();
    CheckFrames(world.Heard());
}

}  // namespace fuzz
