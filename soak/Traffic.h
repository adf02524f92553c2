#pragma once

#include <asio.hpp>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "soak/Account.h"
#include "soak/Endpoint.h"
#include "soak/Programs.h"

namespace soak {

/// All the sessions, with their clients, their services, and the account of each.
///
///   Open -> OnConnected and OnServerLine, in any order; only then the next one is opened, so that it is
///           certain which of them a line of the server means
///   OnService -> OnNumber: the first bytes tell which session the service's caller belongs to
///
/// All on the event loop's one thread.
class Traffic {
public:
    /// Opens the services' ports. @param freePort yields one for the clients of each route
    /// @param faultHandler called with the text of each fault
    Traffic(asio::io_context& loop, std::uint64_t streamSeed, const std::function<unsigned short()>& freePort,
            std::function<void(const std::string&)> faultHandler);
    Traffic(const Traffic&) = delete;
    Traffic& operator=(const Traffic&) = delete;

    const std::vector<Door>& Doors() const { return doors; }

    /// Opens the next session, unless one is just being opened.
    void Open(Plan (*drawPlan)(Random&));
    void OnServerLine(const ServerLine& line);
    void OnAgentLine(const AgentLine& line);
    void Strike();        ///< the tunnel dies: whatever lives now may lose bytes
    void OnServerGone();  ///< the server is dead, and all of its lines have been handled
    void Tick();          ///< to be called a few times a second

    std::size_t Opened() const { return entries.size(); }
    std::size_t Living() const { return clients.size() + services.size(); }
    std::string NamesOfLiving() const;
    /// Every session's, complete when none lives any more.
    std::vector<Account> Accounts() const;

private:
    using Key = std::pair<std::uint64_t, std::string>;  // number of the tunnel, id of the session in it
    struct Entry {
        Account account;
        Key key;
        Clock::time_point openedAt;
    };
    struct Listener {
        std::unique_ptr<asio::ip::tcp::acceptor> acceptor;
        std::unique_ptr<asio::ip::tcp::socket> refusing;  // bound, but not listening
    };
    struct Caller;  // a connection to a service whose session is not known yet

    void AddService(unsigned short clientPort);
    void AddRefusal(unsigned short clientPort);
    void Accept(std::size_t route);
    void OnService(std::size_t route, asio::ip::tcp::socket socket);
    void OnNumber(std::error_code error, std::size_t size, Caller& caller);
    void OnConnected(std::error_code error, const std::shared_ptr<asio::ip::tcp::socket>& socket,
                     Entry& entry);
    void OnNoServer(const Entry& entry);
    void OnServiceOver(Entry& entry);
    bool IsOver(const Entry& entry) const;
    bool SomebodyStalls() const;
    void WatchAgent();
    KeyedStream Stream(const Entry& entry, Direction direction) const;

    asio::io_context& io;
    std::uint64_t seed;
    std::function<void(const std::string&)> onFault;
    Random random;
    std::vector<Listener> listeners;
    std::vector<Door> doors;    // the last one's service refuses everybody
    std::deque<Entry> entries;  // the number of an account is its place here, from 1
    std::map<std::uint64_t, std::shared_ptr<Endpoint>> clients, services;
    std::map<Key, Entry*> atServer;
    std::map<Key, AgentWords> agentWords;
    std::uint64_t serverConnections = 0, agentConnections = 0;
    Entry* opening = nullptr;  // no line of the server has named it yet
    bool isConnecting = false;
    Clock::time_point lastStall, lastAgentLine, agentPausedUntil;
};

}  // namespace soak
