#include "tunnel/FrameBatch.h"

#include <algorithm>

namespace nox::tunnel_client {

FrameBatch::FrameBatch(const SendQueue& queue, std::size_t sentBytes) {
    const std::size_t count = std::min(queue.size(), maxFrames);
    for (std::size_t i = 0; i < count; ++i) {
        headers[i] = EncodeHeader(queue[i]);
        pieces[2 * i] = asio::buffer(headers[i]);
        pieces[2 * i + 1] = asio::buffer(queue[i].data);
    }
    const std::size_t ofHeader = std::min(sentBytes, headerBytes);
    pieces[0] += ofHeader;
    pieces[1] += sentBytes - ofHeader;
}

}  // namespace nox::tunnel_client
