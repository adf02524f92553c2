#pragma once

#include <cstddef>
#include <system_error>

namespace nox::tunnel_client {

/// One payload on its way from socket to socket without a copy in our memory: the kernel hands its pages on through a
/// pipe, see splice(2). Whoever has the object has what it holds; it opens when it is first needed. Without a pipe, for
/// want of descriptors or of leave to use it, nothing goes through it and all has to be copied: that is no error.
/// Runs on the event loop's thread.
///
/// Writing to a socket that is closed raises SIGPIPE, which splice cannot be told not to do: the process ignores it.
class PayloadPipe {
public:
    static constexpr std::size_t minBytes = 4096;  ///< what is shorter costs less when it is copied

    PayloadPipe() = default;
    ~PayloadPipe();
    PayloadPipe(PayloadPipe&& other) noexcept;             ///< leaves the other closed
    PayloadPipe& operator=(PayloadPipe&& other) noexcept;  ///< leaves the other what this one had

    /// Bytes that it holds.
    std::size_t Size() const { return held; }

    /// Takes what the socket has, `most` bytes of it.
    /// @param socket does not block
    /// @param error as of a read: would_block if the socket had nothing, or the pipe no room
    void TakeFrom(int socket, std::size_t most, std::error_code& error);

    /// Gives the socket what it takes.
    /// @param socket does not block
    /// @param error as of a write: would_block if some is left
    /// @return bytes written
    std::size_t WriteTo(int socket, std::error_code& error);

    /// Copies what it still holds to `begin`, where there is room for it, and is empty then.
    /// @throws std::system_error when it cannot be read, which the kernel gives no reason for
    void CopyTo(char* begin);

private:
    void Open();

    int readEnd = -1;
    int writeEnd = -1;
    std::size_t held = 0;
};

}  // namespace nox::tunnel_client
