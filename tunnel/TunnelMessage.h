#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace nox::tunnel_client {

/// A frame is a header of 21 bytes (type, payload length big-endian, session id) and its payload
/// (docs/protocol.md).
constexpr std::size_t sessionIdBytes = 16;
constexpr std::size_t headerBytes = 1 + 4 + sessionIdBytes;
constexpr std::uint32_t maxPayloadBytes = 131072;  ///< of a received frame; a longer one ends the connection

/// Type 2 has no use: never sent, ignored on receipt.
enum FrameType : std::uint8_t { dataFrame = 0, heartbeatFrame = 1, unusedFrame = 2, controlFrame = 3 };

using SessionField = std::array<char, sessionIdBytes>;  ///< as on the wire, no terminator
using HeaderBytes = std::array<char, headerBytes>;

/// The session field of every frame that is not data: sixteen '0'.
constexpr SessionField nullSession = {'0', '0', '0', '0', '0', '0', '0', '0',
                                      '0', '0', '0', '0', '0', '0', '0', '0'};

/// One frame in memory.
struct TunnelMessage {
    /// A shorter id is padded on the right with '0', a longer one cut: only ids of 16
    /// characters survive the wire.
    TunnelMessage(std::uint8_t frameType, std::string_view sessionId, std::string payload);
    explicit TunnelMessage(std::uint8_t frameType) : type(frameType) {}

    std::string_view SessionId() const { return {session.data(), session.size()}; }

    std::uint8_t type;
    SessionField session = nullSession;
    std::string data;  ///< payload
};

/// A received header. Any 21 bytes make a header; the caller checks the length.
struct FrameHeader {
    std::string_view SessionId() const { return {session.data(), session.size()}; }

    std::uint8_t type = 0;
    std::uint32_t length = 0;  ///< of the payload
    SessionField session = {};
};

inline std::size_t FrameBytes(const TunnelMessage& message) { return headerBytes + message.data.size(); }

HeaderBytes EncodeHeader(const TunnelMessage& message);
FrameHeader DecodeHeader(const HeaderBytes& bytes);

}  // namespace nox::tunnel_client
