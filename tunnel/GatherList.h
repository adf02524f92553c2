#pragma once

#include <array>
#include <asio/buffer.hpp>
#include <cstddef>

namespace nox::tunnel_client {

/// Pieces of memory that are written in one call: a buffer sequence for asio. It does not own them.
/// @tparam maxPieces at most; writev(2) takes 1024, asio 64
template <std::size_t maxPieces>
class GatherList {
public:
    void Add(asio::const_buffer piece) {
        pieces.at(count++) = piece;
        bytes += piece.size();
    }

    bool IsFull() const { return count == maxPieces; }
    std::size_t Bytes() const { return bytes; }
    const asio::const_buffer* begin() const { return pieces.data(); }
    const asio::const_buffer* end() const { return pieces.data() + count; }

private:
    std::array<asio::const_buffer, maxPieces> pieces;
    std::size_t count = 0;
    std::size_t bytes = 0;
};

}  // namespace nox::tunnel_client
