#include "tunnel/PayloadPipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <asio/error.hpp>
#include <cerrno>
#include <utility>

namespace nox::tunnel_client {

namespace {

// The largest payload if each of its packets, of 1448 bytes or so, takes one of the pipe's pages, as on a network.
constexpr int capacity = 128 * 4096;

std::error_code LastError() { return {errno, asio::error::get_system_category()}; }

// No pipe, no leave to splice, or no socket any more: that is not the connection's, and an ordinary call finds out.
bool IsOurs(const std::error_code& error) {
    constexpr std::array reasons{EBADF, EINVAL, ENOSYS, EPERM};
    return std::find(reasons.begin(), reasons.end(), error.value()) != reasons.end();
}

std::size_t Splice(int from, int to, std::size_t most, std::error_code& error) {
    const ssize_t size = splice(from, nullptr, to, nullptr, most, SPLICE_F_NONBLOCK);
    if (size > 0) return static_cast<std::size_t>(size);
    error = size == 0 ? std::error_code(asio::error::eof) : LastError();
    if (IsOurs(error)) error = asio::error::would_block;
    return 0;
}

}  // namespace

PayloadPipe::~PayloadPipe() {
    if (readEnd < 0) return;
    close(readEnd);
    close(writeEnd);
}

PayloadPipe::PayloadPipe(PayloadPipe&& other) noexcept { *this = std::move(other); }

PayloadPipe& PayloadPipe::operator=(PayloadPipe&& other) noexcept {
    std::swap(readEnd, other.readEnd);
    std::swap(writeEnd, other.writeEnd);
    std::swap(held, other.held);
    return *this;
}

void PayloadPipe::Open() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) return;
    readEnd = ends[0];
    writeEnd = ends[1];
    fcntl(writeEnd, F_SETPIPE_SZ, capacity);  // if that is too much to ask, it is full earlier
}

void PayloadPipe::TakeFrom(int socket, std::size_t most, std::error_code& error) {
    if (readEnd < 0) Open();
    held += Splice(socket, writeEnd, most, error);
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
