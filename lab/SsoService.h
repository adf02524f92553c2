#pragma once

#include <asio.hpp>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "lab/Listener.h"
#include "lab/Settings.h"

namespace lab {

/// One exchange: a request comes, its answer goes, the connection closes.
///   Start -> OnLength -> OnRequest -> OnAnswered -> Stop; OnLate stops it too             (on `io`'s one thread)
class SsoExchange : public std::enable_shared_from_this<SsoExchange> {
public:
    /// Who owns it and knows the answers.
    class Owner {
    public:
        virtual ~Owner() = default;
        /// @param reachedAt the address at which the peer has found us
        /// @throws std::invalid_argument when the request is none; what() tells the peer's fault
        virtual std::string Answer(const std::string& request, const asio::ip::address& reachedAt) = 0;
        virtual void Over(SsoExchange& exchange,
                          const std::string& fault) = 0;  ///< `fault` empty: all went well
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
    std::shared_ptr<std::string> bytes =
        std::make_shared<std::string>(4, '\0');  // length, request, answer in turn
};

/// Issues tokens and tells devices where the rest of the cloud is.
class SsoService final : SsoExchange::Owner {
public:
    struct Replies {
        std::function<std::string()> issueToken;
        std::string certificateId;
        unsigned short apiPort = 0, tunnelPort = 0;
    };

    /// @throws std::system_error when the port cannot be had
    SsoService(asio::io_context& io, const Ports& ports, const Timings& timings, Replies knownReplies,
               Report& report);

    unsigned short Port() const { return listener->Port(); }
    /// @param request JSON text @return JSON text @throws std::invalid_argument when there is no such request
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
