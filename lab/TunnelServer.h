#pragma once

#include <asio.hpp>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "lab/DeviceConnection.h"
#include "lab/Directory.h"
#include "lab/Listener.h"

namespace lab {

/// Accepts the connections of devices and opens a session on the right one for each client. On the event loop
/// only.
class TunnelServer final : DeviceConnection::Owner {
public:
    /// @throws std::system_error when the port cannot be opened
    TunnelServer(asio::io_context& io, const Ports& ports, const Timings& labTimings,
                 std::size_t largestPayload, const Directory& knownDevices, Report& reportOfLab);
    TunnelServer(const TunnelServer&) = delete;
    TunnelServer& operator=(const TunnelServer&) = delete;

    unsigned short Port() const { return listener->Port(); }
    /// A client whose device is not connected is turned away.
    void OnClient(const Route& route, asio::ip::tcp::socket client);
    void Stop();

private:
    void OnDevice(asio::ip::tcp::socket device);
    const Credentials* Find(const std::string& deviceId) const override { return directory.Find(deviceId); }
    void OnVerified(DeviceConnection& connection) override;
    void OnLost(DeviceConnection& connection) override;
    void OnOver(DeviceConnection& connection) override;

    const Timings& timings;
    const std::size_t frameBytes;
    const Directory& directory;
    Report& report;
    std::set<std::shared_ptr<DeviceConnection>> connections;
    std::map<std::string, DeviceConnection*> serving;  // by device; each is in `connections` too
    std::uint64_t sessionCount = 0;
    std::shared_ptr<Listener> listener;
};

}  // namespace lab
