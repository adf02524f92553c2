#include "tunnel/TunnelMessage.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace nox::tunnel_client {

namespace {
constexpr std::size_t lengthOffset = 1;
constexpr std::size_t sessionOffset = 5;
}  // namespace

TunnelMessage::TunnelMessage(std::uint8_t frameType, std::string_view sessionId, std::string payload)
    : type(frameType), data(std::move(payload)) {
    sessionId.copy(session.data(), session.size());
}

HeaderBytes EncodeHeader(const TunnelMessage& message) {
    HeaderBytes bytes;
    bytes[0] = static_cast<char>(message.type);
    const std::uint32_t length = htonl(static_cast<std::uint32_t>(message.data.size()));
    std::memcpy(&bytes[lengthOffset], &length, sizeof length);
    const SessionField& session = message.type == dataFrame ? message.session : nullSession;
    std::copy(session.begin(), session.end(), &bytes[sessionOffset]);
    return bytes;
}

FrameHeader DecodeHeader(const HeaderBytes& bytes) {
    FrameHeader header;
    header.type = static_cast<std::uint8_t>(bytes[0]);
    std::memcpy(&header.length, &bytes[lengthOffset], sizeof header.length);
    header.length = ntohl(header.length);
    std::copy_n(&bytes[sessionOffset], header.session.size(), header.session.begin());
    return header;
}

}  // namespace nox::tunnel_client
