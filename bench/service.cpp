// The local service that all measurements end at: answers the requests of bench/Request.h.
// Usage: bench-service, which prints its port and serves until it is killed.

#include <algorithm>
#include <asio.hpp>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "bench/Request.h"

namespace {

using asio::ip::tcp;
using bench::requestBytes;

constexpr std::size_t chunkBytes = 262144;

/// One client, which its operations keep alive.  Ask -> OnRequest -> Reply / Send / Receive / Echo -> Ask ...
/// It hangs up when it is asked to leave, or has held on for as long as it was asked to.
class Client : public std::enable_shared_from_this<Client> {
    // A handler that hangs up after an error. The last handler to be destroyed destroys the client.
    template <typename Next>
    auto Then(Next next) {
        return [self = shared_from_this(), next](std::error_code error, std::size_t size) {
            if (!error) next(size);
        };
    }

public:
    explicit Client(tcp::socket client) : socket(std::move(client)) {
        socket.set_option(tcp::no_delay(true));
    }

    void Ask() {
        const auto missing = [this](std::error_code error, std::size_t size) {
            return error || (size > 0 && request[0] == bench::touch) ? 0 : requestBytes - size;
        };
        asio::async_read(socket, asio::buffer(request), missing, Then([this](auto) { OnRequest(); }));
    }

private:
    void OnRequest() {
        left = bench::BytesOf(request);
        switch (request[0]) {
            case bench::touch: return Reply(0, 1);
            case bench::replyWhole: return Reply(0, requestBytes);
            case bench::replyTwice: return Reply(0, requestBytes / 2);
            case bench::upload: return Send();
            case bench::download: return Receive();
            case bench::echo: return Echo();
            case bench::bothWays: return GiveAndTake();
            case bench::hold: return Hold();
            default: return;  // leave
        }
    }

    void Reply(std::size_t from, std::size_t size) {
        const auto next = [this, end = from + size](auto) {
            const bool hasMore = request[0] == bench::replyTwice && end < requestBytes;
            hasMore ? Reply(end, requestBytes - end) : Ask();
        };
        asio::async_write(socket, asio::buffer(&request[from], size), Then(next));
    }

    void Send() {
        if (left == 0) return Ask();
        const auto size = std::min<std::uint64_t>(left, chunkBytes);
        socket.async_write_some(asio::buffer(unused.data(), size), Then([this](auto sent) {
                                    left -= sent;
                                    Send();
                                }));
    }

    void Receive() {
        if (left == 0) return Reply(0, 1);
        socket.async_read_some(asio::buffer(unused), Then([this](auto size) {
                                   left -= size;
                                   Receive();
                               }));
    }

    void GiveAndTake() {
        Give();
        Take();
    }

    void Give() {
        socket.async_write_some(asio::buffer(unused), Then([this](auto) { Give(); }));
    }

    void Take() {
        socket.async_read_some(asio::buffer(unused), Then([this](auto) { Take(); }));
    }

    void Hold() {
        pause.expires_after(std::chrono::milliseconds(left));
        pause.async_wait([self = shared_from_this()](auto) {});
    }

    void Echo() {
        if (left == 0) return Ask();
        own.resize(chunkBytes);
        socket.async_read_some(asio::buffer(own), Then([this](auto size) {
                                   left -= size;
                                   asio::async_write(socket, asio::buffer(own, size),
                                                     Then([this](auto) { Echo(); }));
                               }));
    }

    static std::string unused;  // received bytes, never read; one for all clients

    tcp::socket socket;
    asio::steady_timer pause{socket.get_executor()};
    bench::Request request{};
    std::uint64_t left = 0;
    std::string own;
};

std::string Client::unused(chunkBytes, '.');

void Accept(tcp::acceptor& acceptor) {
    acceptor.async_accept([&acceptor](std::error_code error, tcp::socket client) {
        if (!error) std::make_shared<Client>(std::move(client))->Ask();
        Accept(acceptor);
    });
}

}  // namespace

int main() {
    asio::io_context io(1);
    tcp::acceptor acceptor(io, {asio::ip::address_v4::loopback(), 0});
    std::printf("port %d\n", acceptor.local_endpoint().port());
    std::fflush(stdout);
    Accept(acceptor);
    io.run();
}
