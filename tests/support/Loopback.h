#pragma once

#include <asio.hpp>
#include <chrono>

#include "tests/support/Eventually.h"

namespace support {

/// Runs the loop until `done()` holds.
/// @return false when it still does not hold after `patience`
template <typename Condition>
bool RunUntil(asio::io_context& io, Condition done) {
    const auto end = std::chrono::steady_clock::now() + patience;
    for (io.restart(); !done(); io.restart()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        io.run_one_for(std::chrono::milliseconds(20));
    }
    return true;
}

/// Runs the loop to its end. @return false when work is still left after `patience`
inline bool RunToTheEnd(asio::io_context& io) {
    io.restart();
    io.run_for(patience);
    return io.stopped();
}

/// Two connected TCP sockets of one thread, so neither must block.
struct SocketPair {
    /// @param bufferBytes of the kernel from `near` to `far`; 0: the kernel's default
    explicit SocketPair(asio::io_context& io, int bufferBytes = 0) : near(io), far(io) {
        using asio::ip::tcp;
        tcp::acceptor acceptor(io, tcp::v4());
        if (bufferBytes > 0) acceptor.set_option(tcp::socket::receive_buffer_size(bufferBytes));
        acceptor.bind({asio::ip::address_v4::loopback(), 0});
        acceptor.listen();
        near.connect(acceptor.local_endpoint());
        acceptor.accept(far);
        if (bufferBytes > 0) near.set_option(tcp::socket::send_buffer_size(bufferBytes));
        near.non_blocking(true);
        far.non_blocking(true);
        near.set_option(tcp::no_delay(true));
        far.set_option(tcp::no_delay(true));
    }

    asio::ip::tcp::socket near, far;
};

}  // namespace support
