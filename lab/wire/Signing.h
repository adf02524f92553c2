#pragma once

#include <string>
#include <vector>

#include "lab/wire/Members.h"

/// Signatures of control messages: MD5 over the password, every member except "sign" in the byte order of the
/// names (name, then value), and the password again, with nothing between the pieces. A string is signed
/// decoded, any other value as its JSON text without white space, exactly as the sender wrote it.
namespace lab {

/// @return 32 characters, upper-case hexadecimal
/// @throws std::invalid_argument when a name comes twice
std::string Signature(const std::string& password, const std::vector<Member>& members);

/// The members that make two signatures of one message differ.
struct Stamp {
    std::string timestamp;  ///< milliseconds since 1970, decimal
    std::string nonce;      ///< 16 letters and digits
    static Stamp Now();
};
/// The object with "timestamp", "noncestr" and "sign" appended; members of these names that it already has
/// stay as they are.
/// @throws std::invalid_argument unless `object` is the text of one JSON object
std::string Sign(const std::string& password, const std::string& object, const Stamp& stamp = Stamp::Now());
/// The same for a list of members.
/// @param members their names must need no escapes
/// @throws std::invalid_argument when a name comes twice
std::string Sign(const std::string& password, const std::vector<Member>& members,
                 const Stamp& stamp = Stamp::Now());

}  // namespace lab
