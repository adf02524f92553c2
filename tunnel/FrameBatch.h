#pragma once

#include <array>
#include <asio/buffer.hpp>
#include <cstddef>
#include <deque>
#include <memory_resource>

#include "tunnel/TunnelMessage.h"

namespace nox::tunnel_client {

using SendQueue = std::pmr::deque<TunnelMessage>;

/// The frames at the front of the queue as one gather list. The payloads stay in the queue, which must not change
/// meanwhile.
class FrameBatch {
public:
    static constexpr std::size_t maxFrames = 16;
    using Buffers =
        std::array<asio::const_buffer, 2 * maxFrames>;  ///< header, payload, header, ...; the rest empty

    /// @param queue not empty
    /// @param sentBytes of its first frame, header included: these have left already
    FrameBatch(const SendQueue& queue, std::size_t sentBytes);
    FrameBatch(const FrameBatch&) = delete;
    FrameBatch& operator=(const FrameBatch&) = delete;

    const Buffers& Pieces() const { return pieces; }
    std::size_t Size() const { return asio::buffer_size(pieces); }

private:
    std::array<HeaderBytes, maxFrames> headers;
    Buffers pieces;
};

}  // namespace nox::tunnel_client
