#include "bench/FloorControl.h"

#include <openssl/evp.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <string_view>

namespace floor_agent {

namespace {

std::string Digest(const std::string& text) {
    std::array<unsigned char, 16> digest{};
    EVP_Digest(text.data(), text.size(), digest.data(), nullptr, EVP_md5(), nullptr);
    std::string hex;
    for (const unsigned char byte : digest) {
        hex += "0123456789ABCDEF"[byte >> 4];
        hex += "0123456789ABCDEF"[byte & 0xF];
    }
    return hex;
}

std::string Signature(const Members& message, const std::string& password) {
    std::string text = password;
    for (const auto& [name, value] : message) {
        if (name != "sign") text += name + value;
    }
    return Digest(text + password);
}

std::string Nonce() {
    constexpr std::string_view letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    std::string nonce(16, ' ');
    for (auto& letter : nonce) letter = letters[static_cast<std::size_t>(std::rand()) % letters.size()];
    return nonce;
}

}  // namespace

Members Parse(const std::string& object) {
    Members members;
    for (auto at = object.find('"'); at != std::string::npos; at = object.find('"', at)) {
        const auto nameEnd = object.find('"', at + 1);
        const std::string name = object.substr(at + 1, nameEnd - at - 1);
        const bool isText = object[nameEnd + 2] == '"';
        const auto value = nameEnd + (isText ? 3 : 2);
        const auto end = object.find_first_of(isText ? "\"" : ",}", value);
        members[name] = object.substr(value, end - value);
        at = end + 1;
    }
    return members;
}

bool IsSigned(const Members& message, const std::string& password) {
    const auto sign = message.find("sign");
    return sign != message.end() && sign->second == Signature(message, password);
}

std::string Sign(Members message, const std::string& password) {
    using namespace std::chrono;
    const auto now = duration_cast<milliseconds>(system_clock::now().time_since_epoch());
    message["timestamp"] = std::to_string(now.count());
    message["noncestr"] = Nonce();
    message["sign"] = Signature(message, password);
    std::string text;
    for (const auto& [name, value] : message) {
        for (const auto* piece : {text.empty() ? "{\"" : ",\"", name.c_str(), "\":\"", value.c_str(), "\""})
            text += piece;
    }
    return text + "}";
}

}  // namespace floor_agent
