#include "lab/Lab.h"

#include <utility>

namespace lab {

Lab::Lab(asio::io_context& loop, Ports wantedPorts, Timings delays, const Identity& identity,
         Report::Sink sink, std::size_t frameBytes)
    : ports(std::move(wantedPorts)),
      timings(delays),
      report(std::move(sink)),
      tunnel(loop, ports, timings, frameBytes, directory, report),
      routes(loop, ports, report,
             [this](const Route& route, asio::ip::tcp::socket client) {
                 tunnel.OnClient(route, std::move(client));
             }),
      registration({identity.apiVersion, tunnel.Port()}, directory, routes, report),
      api(loop, ports, registration),
      sso(std::make_unique<SsoService>(loop, ports, timings,
                                       SsoService::Replies{[this] { return directory.IssueToken(); },
                                                           identity.certificateId, api.Port(), tunnel.Port()},
                                       report)) {}

void Lab::Stop() {
    sso.reset();
    routes.Clear();
    tunnel.Stop();
    api.Stop();
}

}  // namespace lab
