#pragma once

#include <cstddef>
#include <system_error>

#include "tunnel/TunnelMessage.h"

namespace nox::tunnel_client {

/// Completion condition for asio's composed reads and writes: until all is done, in as few calls as the socket allows.
/// asio's own condition offers the socket 64 KiB at a time, half of the largest payload.
inline std::size_t WholeFrame(const std::error_code& error, std::size_t) {
    return error ? 0 : std::size_t{headerBytes} + maxPayloadBytes;
}

}  // namespace nox::tunnel_client
