#include "lab/RouteTable.h"

namespace lab {

using asio::ip::tcp;

bool RouteTable::Add(const Route& route) {
    const auto key = std::make_pair(route.deviceId, route.service);
    if (entries.size() >= maxRoutes && entries.count(key) == 0) return false;
    Entry& entry = entries[key];
    entry.route = route;
    if (!entry.listener) Open(entry);
    report.Event("route " + Word(route.deviceId) + " " + Word(route.service) + " " +
                 ports.address.to_string() + ":" + std::to_string(entry.localPort) +
                 " -> 127.0.0.1:" + std::to_string(route.remotePort));
    return true;
}

void RouteTable::Open(Entry& entry) {
    const auto fixed = ports.local.find(entry.route.service);
    const unsigned short wanted = fixed == ports.local.end() ? entry.localPort : fixed->second;
    try {
        entry.listener = Listen(entry, wanted);
    } catch (const std::system_error& taken) {
        report.Error("port " + std::to_string(wanted) + " for " + Word(entry.route.service) + " of " +
                     Word(entry.route.deviceId) + ": " + taken.code().message() + ", taking another");
        entry.listener = Listen(entry, 0);
    }
    entry.localPort = entry.listener->Port();
    entry.listener->Accept();
    ++report.counters.routes;
}

// The listener may keep the reference, because entries do not move in the map and a listener ends with its
// entry.
std::shared_ptr<Listener> RouteTable::Listen(const Entry& entry, unsigned short localPort) {
    return std::make_shared<Listener>(
        io, tcp::endpoint(ports.address, localPort), report,
        [this, &entry](tcp::socket client) { onClient(entry.route, std::move(client)); });
}

void RouteTable::RemoveDevice(const std::string& deviceId) {
    for (auto entry = entries.lower_bound({deviceId, ""}); entry != entries.end(); ++entry) {
        if (entry->first.first != deviceId) return;
        Close(entry->second);
    }
}

void RouteTable::Close(Entry& entry) {
    if (!entry.listener) return;
    entry.listener.reset();
    --report.counters.routes;
}

void RouteTable::Clear() {
    for (auto& [key, entry] : entries) Close(entry);
}

}  // namespace lab
