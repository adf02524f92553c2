#pragma once

#include <asio.hpp>
#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Eventually.h"

namespace support {

/// One TCP connection, used blocking: a conversation written down from top to bottom. Every call waits for as
/// long as `patience` and throws std::system_error: timed_out then, otherwise what the socket reported
/// (asio::error::eof when the peer hung up too early), or operation_aborted once the server that plays this
/// conversation is being destroyed.
class Connection {
public:
    /// The other way round: a connection that we open, to 127.0.0.1 and `port`.
    static Connection To(unsigned short port);

    std::string Read(std::size_t bytes);               ///< exactly so many bytes
    std::string ReadUntil(const std::string& marker);  ///< up to the marker, and the marker
    std::string ReadToEnd();  ///< until the peer closes or resets; never throws for that
    void Write(const std::string& bytes);
    void ShutdownSend();  ///< our half ends in order (FIN); reading goes on
    void Close();         ///< ends in order (FIN)
    void Reset();         ///< ends with a reset (RST)

    asio::ip::tcp::socket& Socket() { return line->socket; }

private:
    friend class ScriptedServer;
    using Handler = std::function<void(std::error_code, std::size_t)>;
    std::error_code Outcome(const std::function<void(Handler)>& start);
    void Await(const std::function<void(Handler)>& start);

    struct Line {  // one object on the heap, so that a Connection can be moved
        asio::io_context io;
        asio::ip::tcp::socket socket{io};
        std::string received;  // read, not yet asked for
    };
    std::unique_ptr<Line> line = std::make_unique<Line>();
    const std::atomic<bool>* abandoned = nullptr;  // the server's: ends every wait
};

/// What the server does with one accepted connection; when it returns, the connection is closed in order.
using Conversation = std::function<void(Connection&)>;

/// A server on 127.0.0.1 that plays its conversations, one connection after the other, on a thread of its
/// own, and then stops listening: a later connect is refused.
class ScriptedServer {
public:
    /// @param port 0: the kernel picks a free one
    explicit ScriptedServer(std::vector<Conversation> conversations, unsigned short port = 0);
    /// Ends the waits of the conversation in progress (they throw) and drops those not yet begun.
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    unsigned short Port() const { return port; }
    /// Waits until every conversation has been played. @throws what the first failed conversation threw, or
    /// std::system_error timed_out after a while, as when nobody connects any more
    void Finish();

private:
    void Play(const std::vector<Conversation>& conversations);
    bool Accept(Connection& connection);

    asio::io_context io;
    asio::ip::tcp::acceptor acceptor;
    unsigned short port;
    std::atomic<bool> abandoned{false};
    std::promise<void> played;
    std::shared_future<void> outcome = played.get_future().share();
    std::thread thread;
};

}  // namespace support
