#pragma once

#include <asio.hpp>

namespace support {

/// A TCP port of 127.0.0.1 that refuses connections for as long as this lives: it is taken,
/// but nobody listens.
class ClosedPort {
public:
    unsigned short Port() const { return holder.local_endpoint().port(); }

private:
    asio::io_context io;
    asio::ip::tcp::socket holder{io, {asio::ip::address_v4::loopback(), 0}};
};

}  // namespace support
