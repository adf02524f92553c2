#include "lab/TunnelServer.h"

#include <utility>

namespace lab {

using asio::ip::tcp;

namespace {

/// A session id has exactly 16 characters, because devices could not match data to one of another length. No
/// id is used twice, because a device may still know an old one long after its end.
std::string SessionId(std::uint64_t number) {
    const std::string digits = std::to_string(number);
    return std::string(sessionIdBytes - digits.size(), '0') + digits;
}

}  // namespace

TunnelServer::TunnelServer(asio::io_context& io, const Ports& ports, const Timings& labTimings,
                           std::size_t largestPayload, const Directory& knownDevices, Report& reportOfLab)
    : timings(labTimings),
      frameBytes(largestPayload),
      directory(knownDevices),
      report(reportOfLab),
      listener(std::make_shared<Listener>(io, tcp::endpoint(ports.address, ports.tunnel), report,
                                          [this](tcp::socket device) { OnDevice(std::move(device)); })) {
    listener->Accept();
}

void TunnelServer::OnDevice(tcp::socket device) {
    if (connections.size() == maxDeviceConnections) return report.Error("tunnel: too many connections");
    DeviceConnection::Owner& self = *this;
    const auto connection =
        std::make_shared<DeviceConnection>(std::move(device), self, timings, frameBytes, report);
    connections.insert(connection);
    connection->Start();
}

void TunnelServer::OnVerified(DeviceConnection& connection) {
    const auto older = serving.find(connection.DeviceId());
    if (older != serving.end()) older->second->Replace();
    serving[connection.DeviceId()] = &connection;
}

void TunnelServer::OnLost(DeviceConnection& connection) { serving.erase(connection.DeviceId()); }

void TunnelServer::OnOver(DeviceConnection& connection) { connections.erase(connection.shared_from_this()); }

void TunnelServer::OnClient(const Route& route, tcp::socket client) {
    const auto device = serving.find(route.deviceId);
    if (device == serving.end()) {
        report.Error("client of " + Word(route.deviceId) + " " + Word(route.service) +
                     " turned away: the device is not connected");
        return;
    }
    device->second->OpenSession(SessionId(++sessionCount), route, std::move(client));
}

void TunnelServer::Stop() {
    listener.reset();
    for (const auto& connection : std::set(connections)) {
        connection->StopSessions();
        connection->Stop("the lab stops");
    }
}

}  // namespace lab
