#include "lab/wire/Frame.h"

#include <algorithm>

namespace lab {

std::string EncodeLength(std::size_t length) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>((length >> shift) & 0xFF);
    return bytes;
}

std::uint32_t DecodeLength(const char* bytes) {
    std::uint32_t length = 0;
    for (int i = 0; i < 4; ++i) length = (length << 8) | static_cast<unsigned char>(bytes[i]);
    return length;
}

FrameHeader EncodeHeader(std::uint8_t type, std::size_t payloadBytes, std::string_view session) {
    FrameHeader header;
    header.fill('0');
    header[0] = static_cast<char>(type);
    const std::string length = EncodeLength(payloadBytes);
    std::copy(length.begin(), length.end(), header.begin() + 1);
    session = session.substr(0, sessionIdBytes);
    std::copy(session.begin(), session.end(), header.begin() + 5);
    return header;
}

DecodedHeader DecodeHeader(const char* header) {
    return {static_cast<std::uint8_t>(header[0]), DecodeLength(header + 1), {header + 5, sessionIdBytes}};
}

}  // namespace lab
