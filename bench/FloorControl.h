#pragma once

#include <map>
#include <string>

/// The control messages of the floor (bench/floor.cpp): flat JSON objects whose texts hold no escapes, as
/// the lab sends them, signed as in docs/protocol.md.
namespace floor_agent {

using Members = std::map<std::string, std::string>;  ///< texts without their quotes, numbers as they are

Members Parse(const std::string& object);
bool IsSigned(const Members& message, const std::string& password);

/// The text of the message, with time stamp, nonce and signature added.
std::string Sign(Members message, const std::string& password);

}  // namespace floor_agent
