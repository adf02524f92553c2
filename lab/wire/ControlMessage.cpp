#include "lab/wire/ControlMessage.h"

#include "lab/Settings.h"
#include "lab/wire/Signing.h"

namespace lab {

ControlMessage::ControlMessage(const std::string& json) {
    if (json.size() > maxControlBytes)
        throw std::invalid_argument("a control message of " + std::to_string(json.size()) + " bytes");
    members = Members(json);
}

bool ControlMessage::IsSignedWith(const std::string& password) const {
    return Text("sign") == Signature(password, members);
}

std::vector<Member> Welcome(const std::string& text) {
    return {{"method", R"("message")"}, {"message", StringValue(text)}};
}

std::vector<Member> NewSession(const std::string& id, unsigned short remotePort) {
    return {{"method", R"("new_session")"},
            {"session", StringValue(id)},
            {"localHost", R"("127.0.0.1")"},
            {"localPort", std::to_string(remotePort)}};
}

std::vector<Member> EndSession(const std::string& id) {
    return {{"method", R"("end_session")"}, {"session", StringValue(id)}};
}

std::vector<Member> Conflict() { return {{"method", R"("conflict")"}}; }

}  // namespace lab
