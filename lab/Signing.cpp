#include "lab/Signing.h"

#define OPENSSL_SUPPRESS_DEPRECATED  // MD5() is what the protocol asks for; the library would rather not have
                                     // it
#include <openssl/md5.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>
#include <string_view>

namespace lab {

namespace {

/// Cuts a text that is known to be a JSON object into its members: one pass that only counts brackets.
class Splitter {
public:
    std::vector<Member> Split(const std::string& object) {
        for (const char c : object) inString ? InString(c) : Between(c);
        return std::move(members);
    }

private:
    void InString(char c) {
        token += c;
        if (!escaped && c == '"') inString = false;
        escaped = !escaped && c == '\\';
    }

    void Between(char c) {
        if (std::string_view(" \t\r\n").find(c) != std::string_view::npos) return;
        const bool opens = c == '{' || c == '[';
        const bool closes = c == '}' || c == ']';
        inString = c == '"';
        if (closes) --depth;
        if (depth == 1 && c == ':') {
            name = TextOf(std::exchange(token, {}));
        } else if ((depth == 1 && c == ',') || depth == 0) {
            if (!token.empty()) members.emplace_back(std::move(name), std::exchange(token, {}));
        } else {
            token += c;
        }
        if (opens) ++depth;
    }

    std::vector<Member> members;
    std::string name, token;
    int depth = 0;
    bool inString = false, escaped = false;
};

bool Has(const std::vector<Member>& members, const std::string& name) {
    return std::any_of(members.begin(), members.end(),
                       [&](const Member& member) { return member.first == name; });
}

/// A name may come twice in JSON text; then its value is anybody's guess, and so is what was signed.
void RefuseDuplicates(const std::vector<Member>& sorted) {
    const auto sameName = [](const Member& a, const Member& b) { return a.first == b.first; };
    if (std::adjacent_find(sorted.begin(), sorted.end(), sameName) != sorted.end())
        throw std::invalid_argument("a member comes twice");
}

}  // namespace

std::vector<Member> Members(const std::string& object) {
    const auto start = object.find_first_not_of(" \t\r\n");
    if (start == std::string::npos || object[start] != '{' || !nlohmann::json::accept(object))
        throw std::invalid_argument("not a JSON object");
    return Splitter().Split(object);
}

std::string TextOf(const std::string& value) {
    return value.front() == '"' ? nlohmann::json::parse(value).get<std::string>() : value;
}

std::string Md5HexUpper(const std::string& text) {
    std::array<unsigned char, MD5_DIGEST_LENGTH> digest{};
    MD5(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
    std::string hex;
    for (const unsigned char byte : digest) {
        hex += "0123456789ABCDEF"[byte >> 4];
        hex += "0123456789ABCDEF"[byte & 0xF];
    }
    return hex;
}

std::string Signature(const std::string& password, const std::string& object) {
    auto members = Members(object);
    std::sort(members.begin(), members.end());
    RefuseDuplicates(members);
    std::string text = password;
    for (const auto& [name, value] : members) {
        if (name != "sign") text += name + TextOf(value);
    }
    return Md5HexUpper(text + password);
}

Stamp Stamp::Now() {
    static constexpr std::string_view alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    static thread_local std::mt19937 generator{std::random_device{}()};
    std::uniform_int_distribution<std::size_t> letters(0, alphabet.size() - 1);
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    Stamp stamp{std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(now).count()), {}};
    for (int i = 0; i < 16; ++i) stamp.nonce += alphabet[letters(generator)];
    return stamp;
}

std::string Sign(const std::string& password, const std::string& object, const Stamp& stamp) {
    std::string text = object;
    const auto append = [&](const std::string& name, const std::string& value) {
        const auto members = Members(text);
        if (Has(members, name)) return;
        text.resize(text.rfind('}'));
        text += (members.empty() ? "\"" : ",\"") + name + "\":\"" + value + "\"}";
    };
    append("timestamp", stamp.timestamp);
    append("noncestr", stamp.nonce);
    append("sign", Signature(password, text));
    return text;
}

}  // namespace lab
