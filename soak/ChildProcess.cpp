#include "soak/ChildProcess.h"

#include <fcntl.h>

#include <utility>

namespace soak {

ChildProcess::ChildProcess(asio::io_context& io, std::vector<std::string> arguments,
                           std::vector<std::string> environment, OnLine lineHandler)
    : output(io), onLine(std::move(lineHandler)) {
    asio::writable_pipe input(io);
    asio::connect_pipe(output, input);
    // So that the program rarely has to wait for this process; it works without.
    constexpr int pipeBytes = 1048576;
    fcntl(input.native_handle(), F_SETPIPE_SZ, pipeBytes);
    process.emplace(std::move(arguments), std::move(environment), input.native_handle());
    Read();
}

void ChildProcess::Read() {
    output.async_read_some(asio::buffer(chunk), [this](std::error_code error, std::size_t size) {
        if (error) return void(ended = true);
        text.append(chunk.data(), size);
        HandleLines();
        Read();
    });
}

void ChildProcess::HandleLines() {
    std::size_t start = 0;
    for (auto end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
        onLine(text.substr(start, end - start));
        start = end + 1;
    }
    text.erase(0, start);
}

}  // namespace soak
