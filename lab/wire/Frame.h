#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

/// Tunnel frames, the same in both directions: 1 byte type, 4 bytes payload length (big-endian, header not
/// counted), 16 bytes session id, then the payload.
namespace lab {

constexpr std::size_t sessionIdBytes = 16;
constexpr std::size_t frameHeaderBytes = 21;
constexpr std::size_t maxPayloadBytes = 131072;  ///< a longer frame ends the connection, on either side

constexpr std::uint8_t dataFrame = 0;
constexpr std::uint8_t heartbeatFrame = 1;
constexpr std::uint8_t reservedFrame = 2;  ///< neither side sends it, both ignore it
constexpr std::uint8_t controlFrame = 3;

/// The id in the header of every frame that belongs to no session.
constexpr std::string_view noSession = "0000000000000000";

using FrameHeader = std::array<char, frameHeaderBytes>;

/// @param session a longer id is cut to 16 characters, a shorter one filled up with '0'
FrameHeader EncodeHeader(std::uint8_t type, std::size_t payloadBytes, std::string_view session);

/// A header taken apart. Any 21 bytes make one; the caller checks whether type and length are acceptable.
struct DecodedHeader {
    std::uint8_t type;
    std::uint32_t payloadBytes;
    std::string_view session;  ///< points into the bytes that were decoded
};
/// @param header points to frameHeaderBytes bytes, which must outlive the result
DecodedHeader DecodeHeader(const char* header);

/// A length as frames and SSO messages carry it: 4 bytes, big-endian.
std::string EncodeLength(std::size_t length);
std::uint32_t DecodeLength(const char* bytes);

}  // namespace lab
