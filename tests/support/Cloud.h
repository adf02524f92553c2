#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/support/TemporaryFolder.h"
#include "tests/support/TunnelVerbs.h"

namespace support {

/// SSO service, registration API and tunnel server, scripted, for a real agent. They answer alike as often as
/// they are asked.
class Cloud {
public:
    /// @param tunnel what the tunnel server does with each connection
    /// @param whenAsked called with each request to the SSO service and the API, before it is answered
    explicit Cloud(
        const Conversation& tunnel,
        const std::function<void(const std::string&)>& whenAsked = [](const std::string&) {});

    unsigned short TunnelPort() const { return tunnelServer.Port(); }
    unsigned short ApiPort() const { return api.Port(); }
    unsigned short SsoPort() const { return sso.Port(); }
    std::string ApiReply() const;  ///< to every request

    /// The agent's command line; it pauses for `pause` seconds between its turns.
    std::vector<std::string> Command(const std::string& level, int pause = 5,
                                     const std::string& logPath = "") const;
    /// Its environment. @param speed how fast its clock runs; 1: nothing is preloaded
    /// @param more variables, as "NAME=value"
    /// @param libraries files to be preloaded with the one for the clock
    std::vector<std::string> Environment(double speed, const std::vector<std::string>& more = {},
                                         std::vector<std::string> libraries = {}) const;

    TemporaryFolder folder;

private:
    ScriptedServer tunnelServer, api, sso;
};

constexpr std::size_t echoBytes = 40000;
/// A service that repeats `echoBytes` again and again.
void RepeatAll(Connection& agent);
/// Sends a payload through an open session to such a service and checks what comes back.
/// @throws std::runtime_error when the agent ends the session instead
void Echo(Connection& agent, const std::string& id = sessionId);

}  // namespace support
