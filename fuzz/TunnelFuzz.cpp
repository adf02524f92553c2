// A byte that says how small the pieces are in which it arrives, and a tunnel server's stream, sent to two
// connections: whole control frames in it are signed, everything else stays as it is.
#include <algorithm>

#include "fuzz/TunnelRun.h"
#include "tunnel/TunnelMessage.h"

using namespace nox::tunnel_client;

namespace {

std::string SignControlFrames(std::string_view bytes) {
    std::string stream;
    while (bytes.size() >= headerBytes) {
        HeaderBytes header;
        std::copy_n(bytes.begin(), header.size(), header.begin());
        const FrameHeader frame = DecodeHeader(header);
        const std::string payload(bytes.substr(headerBytes, frame.length));
        const bool sign = frame.type == controlFrame && payload.size() == frame.length;
        stream += sign ? fuzz::ControlFrame(payload) : std::string(bytes.substr(0, headerBytes)) + payload;
        bytes.remove_prefix(headerBytes + payload.size());
    }
    return stream.append(bytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    if (size == 0) return 0;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    fuzz::RunTunnel(SignControlFrames(bytes), data[0] == 0 ? SIZE_MAX : data[0], 2);
    return 0;
}
