#include "tests/support/ScriptedServer.h"

#include <optional>
#include <utility>

namespace support {

using asio::ip::tcp;

namespace {

/// How soon a wait notices that its server is being destroyed.
constexpr std::chrono::milliseconds glance{10};
/// Longer than the patience of a conversation, shorter than the test runner's time limit.
constexpr std::chrono::seconds finishPatience = 3 * patience;

void Throw(const std::error_code& error) {
    if (error) throw std::system_error(error);
}

}  // namespace

Connection Connection::To(unsigned short port) {
    Connection connection;
    auto& socket = connection.Socket();
    connection.Await([&](const Handler& done) {
        socket.async_connect({asio::ip::address_v4::loopback(), port},
                             [done](std::error_code error) { done(error, 0); });
    });
    socket.set_option(tcp::no_delay(true));
    return connection;
}

std::error_code Connection::Outcome(const std::function<void(Handler)>& start) {
    std::optional<std::error_code> outcome;
    line->io.restart();
    start([&](std::error_code error, std::size_t) { outcome = error; });
    const auto deadline = std::chrono::steady_clock::now() + patience;
    const auto waiting = [&] { return !outcome && std::chrono::steady_clock::now() < deadline; };
    while (waiting() && !(abandoned && *abandoned)) line->io.run_one_for(glance);
    if (outcome) return *outcome;
    // The operation completes, and then nothing refers to this frame any more. It may have several steps:
    // when one was completed just before it could be cancelled, the next one is begun.
    while (!outcome) {
        line->socket.cancel();
        line->io.run_one_for(glance);
    }
    return abandoned && *abandoned ? std::error_code(asio::error::operation_aborted)
                                   : std::error_code(asio::error::timed_out);
}

void Connection::Await(const std::function<void(Handler)>& start) { Throw(Outcome(start)); }

std::string Connection::Read(std::size_t bytes) {
    auto& received = line->received;
    if (received.size() < bytes) {
        Await([&](const Handler& done) {
            asio::async_read(line->socket, asio::dynamic_buffer(received),
                             asio::transfer_exactly(bytes - received.size()), done);
        });
    }
    std::string result = received.substr(0, bytes);
    received.erase(0, bytes);
    return result;
}

std::string Connection::ReadUntil(const std::string& marker) {
    auto& received = line->received;
    Await([&](const Handler& done) {
        asio::async_read_until(line->socket, asio::dynamic_buffer(received), marker, done);
    });
    return Read(received.find(marker) + marker.size());
}

std::string Connection::ReadToEnd() {
    const auto outcome = Outcome([&](const Handler& done) {
        asio::async_read(line->socket, asio::dynamic_buffer(line->received), asio::transfer_all(), done);
    });
    if (outcome == asio::error::timed_out || outcome == asio::error::operation_aborted) Throw(outcome);
    return std::exchange(line->received, {});
}

void Connection::Write(const std::string& bytes) {
    Await([&](const Handler& done) { asio::async_write(line->socket, asio::buffer(bytes), done); });
}

void Connection::ShutdownSend() { line->socket.shutdown(tcp::socket::shutdown_send); }

void Connection::Close() {
    std::error_code ignored;
    line->socket.shutdown(tcp::socket::shutdown_send, ignored);
    // Closing with bytes unread would reset the connection, and the peer could lose the last bytes that we
    // sent.
    while (line->socket.is_open() && line->socket.available(ignored) > 0) {
        std::array<char, 65536> unread;
        line->socket.read_some(asio::buffer(unread), ignored);
    }
    line->socket.close(ignored);
}

void Connection::Reset() {
    line->socket.set_option(asio::socket_base::linger(true, 0));
    line->socket.close();
}

ScriptedServer::ScriptedServer(std::vector<Conversation> conversations, unsigned short wantedPort)
    : acceptor(io, {asio::ip::address_v4::loopback(), wantedPort}), port(acceptor.local_endpoint().port()) {
    if (conversations.empty()) acceptor.close();
    thread = std::thread([this, scripts = std::move(conversations)] { Play(scripts); });
}

ScriptedServer::~ScriptedServer() {
    abandoned = true;
    thread.join();
}

void ScriptedServer::Finish() {
    if (outcome.wait_for(finishPatience) == std::future_status::timeout) Throw(asio::error::timed_out);
    outcome.get();
}

void ScriptedServer::Play(const std::vector<Conversation>& conversations) {
    std::exception_ptr failure;
    for (auto next = conversations.begin(); next != conversations.end(); ++next) {
        Connection connection;
        connection.abandoned = &abandoned;
        if (!Accept(connection)) break;
        if (next + 1 == conversations.end()) acceptor.close();
        try {
            (*next)(connection);
        } catch (...) {
            if (!failure) failure = std::current_exception();
        }
        connection.Close();
    }
    failure ? played.set_exception(failure) : played.set_value();
}

bool ScriptedServer::Accept(Connection& connection) {
    bool accepted = false;
    io.restart();
    acceptor.async_accept(connection.Socket(), [&](std::error_code error) { accepted = !error; });
    while (!accepted && !abandoned) io.run_one_for(glance);
    if (!accepted) {
        acceptor.close();
        io.run();
        return false;
    }
    connection.Socket().set_option(tcp::no_delay(true));
    return true;
}

}  // namespace support
