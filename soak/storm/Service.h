#pragma once

#include <array>
#include <asio.hpp>
#include <memory>
#include <optional>

#include "soak/storm/Opening.h"

namespace storm {

/// The service of one opening, at a port of its own, so that it is certain whom the agent means. It accepts
/// one connection, sends its stream, checks the other one, and ends as planned.
///
///   Listen -> OnAccepted (-> Begin) -> Send <-> OnWritable or OnSendPause ... then Finish
///                       (-> Begin) -> Receive <-> OnReadable or OnReadPause ... then Close
///             OnTimeToGo: closes or resets
///   Abandon: no connection is expected any more
///
/// Reads and writes are ordinary calls, between which it waits for the socket, so its figures are never
/// behind the kernel's. All on the event loop's one thread.
class Service : public std::enable_shared_from_this<Service> {
public:
    /// @param account outlives the service
    Service(asio::io_context& loop, Opening& account, std::uint64_t seed);
    /// Opens the port; the kernel answers from now on.
    unsigned short Listen();
    void Abandon();
    bool IsOver() const { return over; }

private:
    template <typename Method>
    auto Handler(Method method) {
        return [self = shared_from_this(), method](auto... results) { (self.get()->*method)(results...); };
    }

    void OnAccepted(std::error_code error);
    void Begin(std::error_code error);
    void Send();
    void OnWritable(std::error_code error);
    void OnSendPause(std::error_code error);
    void Finish();
    void Receive();
    bool ReadSome();
    void OnReadable(std::error_code error);
    void OnReadPause(std::error_code error);
    void OnTimeToGo(std::error_code error);
    void SawEnd();
    void Leave(bool resets);
    void Close();
    bool MustPause() const;

    asio::io_context& io;
    Opening& opening;
    const OpeningPlan& plan;
    Facts& facts;
    Random random;
    std::optional<asio::ip::tcp::acceptor> acceptor;
    std::optional<asio::ip::tcp::socket> refusing;  // bound, but not listening
    asio::ip::tcp::socket socket{io};
    asio::steady_timer acceptTimer{io}, sendTimer{io}, readTimer{io}, goTimer{io};
    std::uint64_t nextPause;
    std::optional<Clock::time_point> waitsSince;  // for something to read
    bool over = false;
};

}  // namespace storm
