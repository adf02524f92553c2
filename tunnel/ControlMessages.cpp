#include "tunnel/ControlMessages.h"

#include "log/Log.h"
#include "tunnel/MessageSigning.h"

namespace nox::tunnel_client {

namespace {

std::string BuildSessionMessage(const char* method, const std::string& password,
                                const std::string& sessionId) {
    json::jobject message;
    message["method"] = method;
    message["session"] = sessionId;
    SignMessage(password, message);
    return message.as_string();
}

}  // namespace

std::string BuildVerifyMessage(const TunnelConfig& config) {
    json::jobject message;
    message["method"] = "verify";
    message["username"] = config.username;
    message["message"] = "";
    message["deviceId"] = config.deviceId;
    message["version"] = "1.0";
    SignMessage(config.password, message);
    return message.as_string();
}

std::string BuildConnectedSessionMessage(const std::string& password, const std::string& sessionId) {
    return BuildSessionMessage("connected-session", password, sessionId);
}

std::string BuildDisconnectSessionMessage(const std::string& password, const std::string& sessionId) {
    return BuildSessionMessage("disconnect-session", password, sessionId);
}

bool ServerMessage::IsSigned() const {
    if (!HasString("method")) {
        LogWrite("TunnelClient", 251, logError, "Missing method in server message");
        return false;
    }
    if (!HasString("sign")) {
        LogWrite("TunnelClient", 266, logError, "Missing sign: in server message");
        return false;
    }
    return true;
}

bool ServerMessage::IsGenuine(const std::string& password) const {
    const std::string received = message["sign"].as_string();
    const std::string expected = ComputeSign(password, message);
    if (received == expected) return true;
    LogWrite("TunnelClient", 259, logDebug, "Message signature mismatch: %s, %s", received.c_str(),
             expected.c_str());
    LogWrite("TunnelClient", 260, logError, "Failed to verify server message");
    return false;
}

void ServerMessage::LogText() const {
    if (!message.has_key("message")) {
        LogWrite("TunnelClient", 279, logWarning, "Missing \"message\" field");
    } else if (message["message"].is_string()) {
        LogWrite("TunnelClient", 283, logInfo, "Tunnel server message: %s",
                 message["message"].as_string().c_str());
    }
}

std::optional<SessionParams> ServerMessage::NewSession() const {
    const bool isComplete = HasString("session") && message.has_key("localPort") &&
                            (message["localPort"].is_number() || message["localPort"].is_string());
    if (!isComplete) {
        LogWrite("TunnelClient", 289, logError, "Incomplete new_session request: %s", text.c_str());
        return std::nullopt;
    }
    const std::int32_t port = std::stoi(message["localPort"].as_string());
    // Names are not looked up, so no session can be opened to the default: a server has to name the address
    // in numbers, and one that does not ends the run. Kept on purpose; do not put an address in its place.
    const std::string host = HasString("localHost") ? message["localHost"].as_string() : "localhost";
    return SessionParams{message["session"].as_string(), host, port};
}

std::optional<std::string> ServerMessage::EndedSession() const {
    if (HasString("session")) return message["session"].as_string();
    LogWrite("TunnelClient", 318, logError, "Incomplete end_session request: %s", text.c_str());
    return std::nullopt;
}

}  // namespace nox::tunnel_client
