#pragma once

#include <asio.hpp>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "lab/Listener.h"
#include "lab/Settings.h"

namespace lab {

/// A TCP service that a device offers.
struct Route {
    std::string deviceId, service;
    unsigned short remotePort = 0;  ///< on the device
};

/// The local ports of the routes that devices have registered. The routes of a device that registers again
/// get the same ports, unless another program has taken them meanwhile. On the event loop only.
class RouteTable {
public:
    using OnClient = std::function<void(const Route&, asio::ip::tcp::socket)>;
    RouteTable(asio::io_context& loop, const Ports& fixedPorts, Report& reportOfLab, OnClient clientHandler)
        : io(loop), ports(fixedPorts), report(reportOfLab), onClient(std::move(clientHandler)) {}

    /// Opens the route's port. A port that is open already leads to the new remote port from now on.
    /// @return false when there are maxRoutes already
    bool Add(const Route& route);
    /// Closes the ports of a device. Its sessions go on.
    void RemoveDevice(const std::string& deviceId);
    void Clear();

private:
    struct Entry {
        Route route;
        unsigned short localPort = 0;        // kept while closed
        std::shared_ptr<Listener> listener;  // null while closed
    };
    void Open(Entry& entry);
    void Close(Entry& entry);
    std::shared_ptr<Listener> Listen(const Entry& entry, unsigned short localPort);

    asio::io_context& io;
    const Ports& ports;
    Report& report;
    OnClient onClient;
    std::map<std::pair<std::string, std::string>, Entry> entries;  // by device and service
};

}  // namespace lab
