#pragma once

#include <asio.hpp>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "soak/storm/Ledger.h"
#include "soak/storm/Tunnel.h"

namespace storm {

/// The whole storm. A TunnelClient runs again and again on a thread of its own, against one tunnel after the
/// other.
///
///   Run -> StartRun -> OnAccepted ... -> OnRunOver -> StartRun, until enough bytes have come
///       -> Settle: the last tunnels end
///   Watch: prints progress, and looks for a client or a tunnel that hangs
///
/// A client that hangs cannot be stopped: then the process ends at once.
class Storm {
public:
    /// @param target bytes of sessions to be received, both directions together
    Storm(std::uint64_t target, std::uint64_t seed);
    Storm(const Storm&) = delete;
    Storm& operator=(const Storm&) = delete;
    ~Storm();
    /// Writes the report to standard output. @return whether there was no fault
    bool Run();

private:
    void Accept();
    void OnAccepted(std::error_code error, asio::ip::tcp::socket accepted);
    void StartRun();
    void OnRunOver(const std::string& exception);
    void EndTunnel();
    void Settle();
    void Watch(std::error_code error);
    void WatchTunnel(Clock::time_point now);
    void PrintProgress();
    void Fault(const std::string& text);
    [[noreturn]] void GiveUp(const std::string& text);
    [[noreturn]] void GiveUp(const std::string& text, const Tunnel& stuck);
    void PrintReport();
    bool IsEnough() const { return Received() >= target; }
    std::uint64_t Received() const;

    asio::io_context io{1};
    asio::steady_timer timer{io};
    std::uint64_t target;
    Surroundings surroundings;
    Random random;
    std::optional<asio::ip::tcp::acceptor> acceptor;
    unsigned short port;
    std::thread client;
    bool isRunning = false;
    std::shared_ptr<Tunnel> tunnel;               // the agent's, if it has one
    std::list<std::shared_ptr<Tunnel>> settling;  // those before
    Ledger ledger;
    std::uint64_t settledBytes = 0, tunnels = 0, runs = 0, exceptions = 0, faults = 0;
    Clock::time_point start = Clock::now(), nextProgress = start, lastChange = start;
};

}  // namespace storm
