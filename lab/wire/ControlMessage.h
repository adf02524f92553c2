#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "lab/wire/Members.h"

namespace lab {

/// A control message as it came.
class ControlMessage {
public:
    /// @throws std::invalid_argument unless `json` is an object of at most maxControlBytes
    explicit ControlMessage(const std::string& json);

    /// The decoded text of a member; "" when it is missing or no string.
    std::string Text(const std::string& name) const { return TextMember(members, name); }
    bool IsSignedWith(const std::string& password) const;

private:
    std::vector<Member> members;
};

/// What the tunnel server says, not yet signed. None of it needs a \u escape or escapes a solidus, as long as
/// the ids and texts have no control characters: devices do not read those.
std::vector<Member> Welcome(const std::string& text);
std::vector<Member> NewSession(const std::string& id, unsigned short remotePort);
std::vector<Member> EndSession(const std::string& id);
std::vector<Member> Conflict();

}  // namespace lab
