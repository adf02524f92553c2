#pragma once

#include <string>

#include "lab/Directory.h"
#include "lab/Report.h"
#include "lab/RouteTable.h"

namespace lab {

/// A request to the registration API, without its HTTP.
struct ApiRequest {
    std::string method, path, token, body;
    std::string reachedAt;  ///< numeric address that the device has connected to
};
struct ApiReply {
    int status = 200;
    std::string body;  ///< one JSON object, whatever the status
};

/// Answers the requests to the registration API. It is strict, so that a device's fault is found here and not
/// in the field: a 400 names the member that is missing, has the wrong type or does not belong there. On the
/// event loop only.
class Registration {
public:
    struct Cloud {
        std::string apiVersion;
        unsigned short tunnelPort = 0;
    };
    Registration(Cloud describedCloud, Directory& knownDevices, RouteTable& routeTable, Report& reportOfLab)
        : cloud(std::move(describedCloud)),
          directory(knownDevices),
          routes(routeTable),
          report(reportOfLab) {}

    ApiReply Handle(const ApiRequest& request);

private:
    ApiReply Dispatch(const ApiRequest& request);
    ApiReply RemoveDevice(const std::string& deviceId);
    ApiReply AddDevice(const ApiRequest& request);
    ApiReply AddRoute(const ApiRequest& request);

    Cloud cloud;
    Directory& directory;
    RouteTable& routes;
    Report& report;
};

}  // namespace lab
