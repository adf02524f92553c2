#include "lab/ControlMessage.h"

#include <nlohmann/json.hpp>

#include "lab/Settings.h"
#include "lab/Signing.h"

namespace lab {

using nlohmann::ordered_json;

ControlMessage::ControlMessage(const std::string& json) {
    if (json.size() > maxControlBytes)
        throw std::invalid_argument("a control message of " + std::to_string(json.size()) + " bytes");
    members = Members(json);
}

bool ControlMessage::IsSignedWith(const std::string& password) const {
    return Text("sign") == Signature(password, members);
}

std::string Welcome(const std::string& text) {
    return ordered_json{{"method", "message"}, {"message", text}}.dump();
}

std::string NewSession(const std::string& id, unsigned short remotePort) {
    return ordered_json{
        {"method", "new_session"}, {"session", id}, {"localHost", "127.0.0.1"}, {"localPort", remotePort}}
        .dump();
}

std::string EndSession(const std::string& id) {
    return ordered_json{{"method", "end_session"}, {"session", id}}.dump();
}

std::string Conflict() { return ordered_json{{"method", "conflict"}}.dump(); }

}  // namespace lab
