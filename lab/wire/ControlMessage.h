#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "lab/wire/Members.h"

namespace lab {

/// A control message as it was received.
class ControlMessage {
public:
    /// @throws std::invalid_argument unless `json` is an object of at most maxControlBytes
    explicit ControlMessage(const std::string& json);

    /// The decoded text of a member; "" when the member is missing or no string.
    std::string Text(const std::string& name) const { return TextMember(members, name); }
    bool IsSignedWith(const std::string& password) const;

private:
    std::vector<Member> members;
};

/// The messages of the tunnel server, not signed yet. The ids and texts must hold no control characters,
/// because devices do not read the \u escapes that those need.
std::vector<Member> Welcome(const std::string& text);
std::vector<Member> NewSession(const std::string& id, unsigned short remotePort);
std::vector<Member> EndSession(const std::string& id);
std::vector<Member> Conflict();

}  // namespace lab
