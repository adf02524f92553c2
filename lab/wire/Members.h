#pragma once

#include <string>
#include <utility>
#include <vector>

/// JSON objects taken apart, with their values left as text, because a signature depends on how a number was
/// written.
namespace lab {

/// The decoded name, and the value's JSON text without the white space between its tokens.
using Member = std::pair<std::string, std::string>;

/// The members in the order of the text. Nesting costs no stack.
/// @throws std::invalid_argument unless `object` is the text of one JSON object
std::vector<Member> Members(const std::string& object);

/// The text of a string value, decoded; of any other value its JSON text.
std::string TextOf(const std::string& value);

/// The JSON text of a string value.
std::string StringValue(const std::string& text);

/// The decoded text of the first member of that name; "" when there is no such member or it is no string.
std::string TextMember(const std::vector<Member>& members, const std::string& name);

}  // namespace lab
