// A tunnel server's stream. Its first byte is the size of the pieces in which it arrives, 0 for one piece.
// Frames follow: whole control frames are signed, and a 'w' in the place of a frame's type, with the byte
// behind it, lets that many seconds pass. Everything else is sent as it is.
#include <algorithm>

#include "fuzz/TunnelRun.h"
#include "tunnel/TunnelMessage.h"

using namespace nox::tunnel_client;

namespace {

constexpr char wait = 'w';
constexpr std::size_t waitBytes = 2;

// @return how many of the bytes it has sent
std::size_t SendFrame(fuzz::Stream& stream, std::string_view bytes) {
    HeaderBytes header;
    std::copy_n(bytes.begin(), header.size(), header.begin());
    const FrameHeader frame = DecodeHeader(header);
    const std::string payload(bytes.substr(headerBytes, frame.length));
    if (frame.type == controlFrame && payload.size() == frame.length) {
        stream.SendControl(payload);
    } else {
        stream.Send(std::string(bytes.substr(0, headerBytes)) + payload);
    }
    return headerBytes + payload.size();
}

fuzz::Stream StreamOf(std::string_view bytes) {
    fuzz::Stream stream;
    for (;;) {
        if (bytes.size() >= waitBytes && bytes.front() == wait) {
            stream.WaitSeconds(static_cast<unsigned char>(bytes[1]));
            bytes.remove_prefix(waitBytes);
        } else if (bytes.size() >= headerBytes) {
            bytes.remove_prefix(SendFrame(stream, bytes));
        } else {
            stream.Send(std::string(bytes));
            return stream;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    if (size == 0) return 0;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    fuzz::RunTunnel(StreamOf(bytes), data[0] == 0 ? SIZE_MAX : data[0]);
    return 0;
}
