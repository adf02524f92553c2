#pragma once

#include <asio.hpp>
#include <cstddef>
#include <memory>
#include <string>

#include "lab/Directory.h"
#include "lab/Registration.h"
#include "lab/RegistrationApi.h"
#include "lab/Report.h"
#include "lab/RouteTable.h"
#include "lab/Settings.h"
#include "lab/SsoService.h"
#include "lab/TunnelServer.h"
#include "lab/wire/Frame.h"

namespace lab {

/// The whole cloud: the services that a device needs to register and to be reached, and the local ports that
/// lead to its own services.
class Lab {
public:
    struct Identity {
        std::string certificateId = "lab-device-1";  ///< for devices without an id of their own
        std::string apiVersion = "2.1.0";
    };

    /// Listens at once and serves while `loop` runs.
    /// @param frameBytes the largest payload of the frames that it sends
    /// @throws std::system_error naming the port that cannot be opened
    Lab(asio::io_context& loop, Ports wantedPorts, Timings delays, const Identity& identity,
        Report::Sink sink, std::size_t frameBytes = maxPayloadBytes);

    /// Closes everything, so that `loop` runs out of work.
    void Stop();

    Report& Events() { return report; }
    unsigned short SsoPort() const { return sso->Port(); }
    unsigned short ApiPort() const { return api.Port(); }
    unsigned short TunnelPort() const { return tunnel.Port(); }

private:
    Ports ports;
    Timings timings;
    Report report;
    Directory directory;
    TunnelServer tunnel;
    RouteTable routes;
    Registration registration;
    RegistrationApi api;
    std::unique_ptr<SsoService> sso;
};

}  // namespace lab
