#pragma once

#include <asio.hpp>
#include <functional>
#include <memory>

#include "lab/Report.h"

namespace lab {

/// @throws std::system_error naming the endpoint when it cannot be opened
asio::ip::tcp::acceptor Listen(asio::io_context& io, const asio::ip::tcp::endpoint& endpoint);

/// Accepts on one port until it is destroyed.
///   Accept <-> OnAccepted, with a pause when the process has no descriptor left    (on `io`'s one thread)
class Listener : public std::enable_shared_from_this<Listener> {
public:
    using OnClient = std::function<void(asio::ip::tcp::socket)>;

    /// Listens at once. @param endpoint port 0: the kernel chooses
    /// @throws std::system_error when the port cannot be opened
    Listener(asio::io_context& io, const asio::ip::tcp::endpoint& endpoint, Report& report,
             OnClient onClient);
    void Accept();

    unsigned short Port() const { return acceptor.local_endpoint().port(); }

private:
    void OnAccepted(std::error_code error, asio::ip::tcp::socket& client);
    void OnPaused(std::error_code error);

    asio::ip::tcp::acceptor acceptor;
    asio::steady_timer pause;
    Report& report;
    OnClient onClient;
};

/// An endpoint as text, such as "192.0.2.1:80".
std::string TextOf(const asio::ip::tcp::endpoint& endpoint);
/// The socket's other end as text; "a lost connection" when there is no connection any more.
std::string PeerOf(const asio::ip::tcp::socket& socket);

}  // namespace lab
