#include "bench/load/Streams.h"

#include <algorithm>
#include <stdexcept>

namespace load {

Streams::Streams(std::size_t count, const std::string& direction)
    : sockets(ConnectMany(count)), isUpload(direction == "up") {}

void Streams::Move(std::uint64_t bytesEach) {
    for (auto& socket : sockets) {
        Ask(socket, isUpload ? bench::upload : bench::download, bytesEach);
        socket.non_blocking(true);
        watched.push_back({socket.native_handle(), static_cast<short>(isUpload ? POLLIN : POLLOUT), 0});
    }
    left.assign(sockets.size(), bytesEach);
    for (std::size_t unfinished = sockets.size(); unfinished > 0;) unfinished -= MoveWhatIsReady();
    for (auto& socket : sockets) socket.non_blocking(false);
    if (!isUpload) std::for_each(sockets.begin(), sockets.end(), ReadByte);  // the service has it all
}

std::size_t Streams::MoveWhatIsReady() {
    const int milliseconds = 1000 * static_cast<int>(standstill.count());
    if (poll(watched.data(), watched.size(), milliseconds) <= 0)
        throw std::runtime_error("the streams stand still");
    std::size_t finished = 0;
    for (std::size_t i = 0; i < sockets.size(); ++i) {
        if (watched[i].revents == 0) continue;
        MoveSome(sockets[i], left[i]);
        if (left[i] > 0) continue;
        watched[i].fd = -1;
        ++finished;
    }
    return finished;
}

void Streams::MoveSome(tcp::socket& socket, std::uint64_t& bytes) {
    const auto chunk = asio::buffer(buffer.data(), std::min<std::uint64_t>(bytes, chunkBytes));
    std::error_code error;
    bytes -= isUpload ? socket.read_some(chunk, error) : socket.write_some(chunk, error);
    if (error && error != asio::error::would_block) throw std::system_error(error);
}

}  // namespace load
