#pragma once

#include <asio.hpp>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "lab/Listener.h"
#include "lab/Settings.h"

namespace lab {

/// One exchange: reads a request, writes its answer and closes the connection.
///   Start -> OnLength -> OnRequest -> OnAnswered -> Stop; OnLate stops it too    (on `io`'s one thread)
class SsoExchange : public std::enable_shared_from_this<SsoExchange> {
public:
    /// Owns the exchange and answers its request.
    class Owner {
    public:
        virtual ~Owner() = default;
        /// @param reachedAt the address that the peer has connected to
        /// @throws std::invalid_argument when the text is no request; what() names the peer's fault
        virtual std::string Answer(const std::string& request, const asio::ip::address& reachedAt) = 0;
        /// @param fault empty when the exchange has succeeded
        virtual void Over(SsoExchange& exchange, const std::string& fault) = 0;
    };

    SsoExchange(asio::ip::tcp::socket client, Owner& exchangeOwner, std::chrono::milliseconds limit);
    void Start();

private:
    void OnLength(std::error_code error, std::size_t);
    void OnRequest(std::error_code error, std::size_t);
    void OnAnswered(std::error_code error, std::size_t);
    void OnLate(std::error_code error);
    void Stop(const std::string& fault);

    asio::ip::tcp::socket socket;
    asio::steady_timer timer;
    Owner& owner;
    // Holds first the length, then the request, then the answer.
    std::shared_ptr<std::string> bytes = std::make_shared<std::string>(4, '\0');
};

/// Issues tokens and tells devices where the rest of the cloud is.
class SsoService final : SsoExchange::Owner {
public:
    struct Replies {
        std::function<std::string()> issueToken;
        std::string certificateId;
        unsigned short apiPort = 0, tunnelPort = 0;
    };

    /// @throws std::system_error when the port cannot be opened
    SsoService(asio::io_context& io, const Ports& ports, const Timings& timings, Replies knownReplies,
               Report& report);

    unsigned short Port() const { return listener->Port(); }
    /// Answers a JSON text with a JSON text.
    /// @throws std::invalid_argument when there is no such request
    std::string Answer(const std::string& request, const asio::ip::address& reachedAt) override;

private:
    void OnClient(asio::ip::tcp::socket client);
    void Over(SsoExchange& exchange, const std::string& fault) override;

    Replies replies;
    std::chrono::milliseconds limit;
    Report& report;
    std::set<std::shared_ptr<SsoExchange>> exchanges;
    std::shared_ptr<Listener> listener;
};

}  // namespace lab
