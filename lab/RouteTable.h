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

/// The local ports of the routes that devices have registered. A device that registers again finds its
/// clients at the same ports, as long as nobody else has taken them. On the event loop only.
class RouteTable {
public:
    using OnClient = std::function<void(const Route&, asio::ip::tcp::socket)>;
    RouteTable(asio::io_context& loop, const Ports& fixedPorts, Report& reportOfLab, OnClient clientHandler)
        : io(loop), ports(fixedPorts), report(reportOfLab), onClient(std::move(clientHandler)) {}

    /// Opens the route's port; one that is open already leads to the new remote port from now on.
    /// @return false when there are maxRoutes already
    bool Add(const Route& route);
    /// Closes the ports of a device. Sessions go on.
    void RemoveDevice(const std::string& deviceId);
    void Clear();

private:
    struct Entry {
        Route route;
        unsigned short localPort = 0;        // kept while closed
        std::shared_ptr<Listener> listener;  // none: closed
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
