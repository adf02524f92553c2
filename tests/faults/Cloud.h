#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/support/ScriptedPeers.h"
#include "tests/support/TemporaryFolder.h"

/// A cloud of scripted servers that answer as often as they are asked, for an agent that is being disturbed.
class Cloud {
public:
    static constexpr const char* password = "tunnel-password";

    /// @param tunnel what the tunnel server does with each connection
    /// @param whenAsked called with each request to the SSO service and the API, before it is answered
    explicit Cloud(
        const support::Conversation& tunnel,
        const std::function<void(const std::string&)>& whenAsked = [](const std::string&) {});

    /// The agent's command line; it pauses for `pause` seconds between its turns.
    std::vector<std::string> Command(const std::string& level, int pause = 5,
                                     const std::string& logPath = "") const;
    /// Its environment: `fault` is "FAIL_CALL=..." and the like, `speed` how fast its clock runs (1: nothing
    /// is preloaded).
    static std::vector<std::string> Environment(int speed, std::vector<std::string> fault = {});

    support::TemporaryFolder folder;

private:
    support::ScriptedServer tunnelServer, api, sso;
};

/// What both ends of a scripted tunnel say. The agent must have sent its "verify" before.
namespace says {
void Welcome(support::Connection& agent);  ///< reads "verify", answers with a good signature
void NewSession(support::Connection& agent, const std::string& id, unsigned short port);
/// A session to a host without an address: the described end of the agent's run, with all that is open.
void NoAddress(support::Connection& agent);
/// Sends a payload through an open session to a service that repeats what it hears, and checks
/// what comes back.
/// @throws std::runtime_error when the agent ends the session instead
void Echo(support::Connection& agent, const std::string& id);
}  // namespace says

constexpr std::size_t echoBytes = 40000;
/// A service that repeats `echoBytes` again and again.
void RepeatAll(support::Connection& agent);
/// A conversation for every connection of a long test.
std::vector<support::Conversation> Always(const support::Conversation& conversation);
