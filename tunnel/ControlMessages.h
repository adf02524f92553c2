#pragma once

#include <optional>
#include <string>

#include "json/json.h"
#include "tunnel/ServiceConnection.h"
#include "tunnel/TunnelConfig.h"

/// The control messages of the tunnel, as signed JSON texts (docs/protocol.md). Nothing here knows a socket.
namespace nox::tunnel_client {

/// The first message of a connection.
std::string BuildVerifyMessage(const TunnelConfig& config);
/// Sent before the service has been tried.
std::string BuildConnectedSessionMessage(const std::string& password, const std::string& sessionId);
/// The service could not be reached, or has ended.
std::string BuildDisconnectSessionMessage(const std::string& password, const std::string& sessionId);

/// A control message from the server. Its faults are logged where they are found.
///
/// Reading it throws json::parsing_error or json::invalid_key, in any call: values are parsed when they are
/// needed.
class ServerMessage {
public:
    explicit ServerMessage(const std::string& payload)
        : text(payload), message(json::jobject::parse(payload)) {}

    /// Whether it has a method and a signature at all.
    bool IsSigned() const;
    /// Whether the signature is the one that `password` makes. @param password the tunnel's
    bool IsGenuine(const std::string& password) const;
    /// The request, such as "new_session"; a method that is not known has no effect.
    std::string Method() const { return message["method"].as_string(); }

    /// For "message": writes the server's text to the log.
    void LogText() const;
    /// For "new_session". @return nothing when it is incomplete
    /// @throws std::invalid_argument, std::out_of_range as std::stoi for a port that is no number
    std::optional<SessionParams> NewSession() const;
    /// For "end_session": the session's id. @return nothing when it is incomplete
    std::optional<std::string> EndedSession() const;

private:
    bool HasString(const char* name) const { return message.has_key(name) && message[name].is_string(); }

    const std::string& text;
    json::jobject message;
};

}  // namespace nox::tunnel_client
