#include "lab/Listener.h"

#include <utility>

#include "lab/Weakly.h"

namespace lab {

using asio::ip::tcp;

std::string TextOf(const tcp::endpoint& endpoint) {
    return endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
}

tcp::acceptor Listen(asio::io_context& io, const tcp::endpoint& endpoint) {
    try {
        return {io, endpoint};
    } catch (const std::system_error& error) {
        throw std::system_error(error.code(), "cannot listen on " + TextOf(endpoint));
    }
}

namespace {

constexpr std::chrono::milliseconds pauseAfterFailure{100};

}  // namespace

Listener::Listener(asio::io_context& io, const tcp::endpoint& endpoint, Report& reportOfLab,
                   OnClient clientHandler)
    : acceptor(Listen(io, endpoint)), pause(io), report(reportOfLab), onClient(std::move(clientHandler)) {}

void Listener::Accept() {
    acceptor.async_accept([weak = weak_from_this()](std::error_code error, tcp::socket client) {
        if (auto self = weak.lock()) self->OnAccepted(error, client);
    });
}

void Listener::OnAccepted(std::error_code error, tcp::socket& client) {
    if (error) {
        report.Error("accepting on port " + std::to_string(Port()) + ": " + error.message());
        pause.expires_after(pauseAfterFailure);
        return pause.async_wait(Weakly(this, &Listener::OnPaused));
    }
    std::error_code ignored;  // the first read reports a client that is lost already
    client.set_option(tcp::no_delay(true), ignored);
    Accept();
    onClient(std::move(client));
}

void Listener::OnPaused(std::error_code) { Accept(); }

std::string PeerOf(const tcp::socket& socket) {
    std::error_code gone;
    const auto peer = socket.remote_endpoint(gone);
    return gone ? "a lost connection" : TextOf(peer);
}

}  // namespace lab
