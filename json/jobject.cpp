#include <algorithm>
#include <string_view>

#include "json/json.h"

namespace json {

namespace {

// Each of these moves `at` behind the token that it reads and the white space after it, or returns false.

bool read_value(const char*& at, ParseResult& result) {
    at = skip_whitespace(at);
    if (*at == '\0') return false;
    result = parse_value(at);
    at = skip_whitespace(result.remainder);
    return result.type != jtype::not_valid;
}

bool read_key(const char*& at, std::string& key) {
    ParseResult literal;
    if (!read_value(at, literal) || literal.type != jtype::jstring || *at != ':') return false;
    key = decode_string(literal.value.c_str());
    ++at;
    return true;
}

// A comma is accepted directly before the closing bracket. With white space between the two it is not: then
// the next member is expected, and found missing.
bool read_end(const char*& at, char closing) {
    if (*at == closing) return true;
    if (*at != ',') return false;
    ++at;
    return true;
}

// Returns the fault of a member with that key, or null. Does not look for an earlier member of the same key.
const char* fault_of_key(const std::string& key, bool array) {
    if (array) return key.empty() ? nullptr : "Array cannot have key";
    return key.empty() ? "Missing key" : nullptr;
}

}  // namespace

jobject::proxy jobject::operator[](const std::string& key) {
    if (array_flag) throw invalid_key(key);
    return {*this, key};
}

jobject::const_proxy jobject::operator[](const std::string& key) const {
    if (array_flag) throw invalid_key(key);
    return {*this, key};
}

jobject::const_value jobject::at(std::size_t index) const { return const_value(data.at(index).second); }

jobject jobject::parse(const char* text) {
    const char* at = skip_whitespace(text);
    if (*at != '[' && *at != '{') throw parsing_error("Input is not a valid object");
    jobject result(*at == '[');
    const char* fault = result.read_members(skip_whitespace(at + 1));
    // A key conflict comes before the member that stopped the reading, so the conflict is reported.
    if (result.has_key_conflict()) throw parsing_error("Key conflict");
    if (fault != nullptr) throw parsing_error(fault);
    return result;
}

/// Appends the members from `at` up to the closing bracket.
/// @return null, or the fault of the first member that cannot be appended
const char* jobject::read_members(const char* at) {
    const char closing = array_flag ? ']' : '}';
    while (*at != closing) {
        std::string key;
        ParseResult value;
        const bool complete =
            (array_flag || read_key(at, key)) && read_value(at, value) && read_end(at, closing);
        if (!complete) return "Input is not a valid object";
        if (const char* fault = fault_of_key(key, array_flag)) return fault;
        data.emplace_back(std::move(key), std::move(value.value));
    }
    return nullptr;
}

/// Sorts all keys at once, because a search for each key of a hostile object would take quadratic time.
/// Hashes are compared first only because that is fast; keys with equal hashes are still told apart by their
/// texts.
bool jobject::has_key_conflict() const {
    if (array_flag) return false;
    std::vector<std::pair<std::size_t, std::string_view>> keys;
    keys.reserve(data.size());
    for (const auto& [key, value] : data) keys.emplace_back(std::hash<std::string_view>()(key), key);
    std::sort(keys.begin(), keys.end());
    return std::adjacent_find(keys.begin(), keys.end()) != keys.end();
}

const std::string* jobject::find(const std::string& key) const {
    for (const auto& [name, value] : data)
        if (name == key) return &value;
    return nullptr;
}

bool jobject::has_key(const std::string& key) const { return !array_flag && find(key) != nullptr; }

void jobject::set(const std::string& key, const std::string& value) {
    if (array_flag) throw invalid_key(key);
    for (auto& [name, text] : data) {
        if (name != key) continue;
        text = value;
        return;
    }
    data.emplace_back(key, value);
}

void jobject::remove(const std::string& key) {
    const auto same = [&key](const member& candidate) { return candidate.first == key; };
    data.erase(std::remove_if(data.begin(), data.end(), same), data.end());
}

std::vector<std::string> jobject::list_keys() const {
    std::vector<std::string> keys;
    if (array_flag) return keys;
    keys.reserve(data.size());
    for (const auto& [key, value] : data) keys.push_back(key);
    return keys;
}

std::string jobject::as_string() const {
    std::string text = array_flag ? "[" : "{";
    for (const auto& [key, value] : data) {
        if (!array_flag) text += encode_string(key.c_str()) += ':';
        (text += value) += ',';
    }
    if (!data.empty()) text.pop_back();
    return text += array_flag ? ']' : '}';
}

}  // namespace json
