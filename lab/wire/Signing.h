#pragma once

#include <string>
#include <vector>

#include "lab/wire/Members.h"

/// Signatures of control messages: MD5 over the password, every member but "sign" in the byte order of the
/// names (name, then value), and the password again; nothing stands between the pieces. A string counts
/// decoded, any other value as its JSON text without white space, exactly as the sender wrote it.
namespace lab {

std::string Md5HexUpper(const std::string& text);

/// @return 32 characters, upper-case hexadecimal
/// @throws std::invalid_argument when a name comes twice
std::string Signature(const std::string& password, const std::vector<Member>& members);

/// What makes two signatures of one message differ.
struct Stamp {
    std::string timestamp;  ///< milliseconds since 1970, decimal
    std::string nonce;      ///< 16 letters and digits
    static Stamp Now();
};
/// The object with "timestamp", "noncestr" and "sign" appended; those that it has already stay as they are.
/// @throws std::invalid_argument unless `object` is the text of one JSON object
std::string Sign(const std::string& password, const std::string& object, const Stamp& stamp = Stamp::Now());
/// The same of members that need not be taken out of a text.
/// @param members their names need no escapes
/// @throws std::invalid_argument when a name comes twice
std::string Sign(const std::string& password, const std::vector<Member>& members,
                 const Stamp& stamp = Stamp::Now());

}  // namespace lab
