#include "tunnel/PayloadPipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <asio/error.hpp>
#include <cerrno>

namespace nox::tunnel_client {

namespace {

// The largest payload if each of its packets, of 1448 bytes or so, takes one of the pipe's pages, as on a network.
constexpr int capacity = 128 * 4096;

std::error_code LastError() { return {errno, asio::error::get_system_category()}; }

std::size_t Splice(int from, int to, std::size_t most, std::error_code& error) {
    const ssize_t size = splice(from, nullptr, to, nullptr, most, SPLICE_F_NONBLOCK);
    if (size < 0) error = LastError();
    if (size == 0) error = asio::error::eof;
    return size > 0 ? static_cast<std::size_t>(size) : 0;
}

}  // namespace

PayloadPipe::PayloadPipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) return;
    readEnd = ends[0];
    writeEnd = ends[1];
    fcntl(writeEnd, F_SETPIPE_SZ, capacity);  // if that is too much to ask, it is full earlier
}

PayloadPipe::~PayloadPipe() {
    if (readEnd < 0) return;
    close(readEnd);
    close(writeEnd);
}

void PayloadPipe::TakeFrom(int socket, std::size_t most, std::error_code& error) {
    held += Splice(socket, writeEnd, most, error);
    // There is no pipe, or no splice for us: whoever reads the socket itself fares better.
    constexpr std::array reasons{EBADF, EINVAL, ENOSYS, EPERM};
    if (std::find(reasons.begin(), reasons.end(), error.value()) != reasons.end())
        error = asio::error::would_block;
}

std::size_t PayloadPipe::WriteTo(int socket, std::error_code& error) {
    const std::size_t before = held;
    while (held > 0 && !error) held -= Splice(readEnd, socket, held, error);
    return before - held;
}

void PayloadPipe::CopyTo(char* begin) {
    while (held > 0) {
        const ssize_t size = read(readEnd, begin, held);
        if (size <= 0) throw std::system_error(LastError(), "pipe");
        begin += size;
        held -= static_cast<std::size_t>(size);
    }
}

}  // namespace nox::tunnel_client
