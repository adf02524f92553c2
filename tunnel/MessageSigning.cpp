#include "tunnel/MessageSigning.h"

#include <openssl/md5.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

namespace nox::tunnel_client {

namespace {

using Digest = std::array<unsigned char, MD5_DIGEST_LENGTH>;

Digest Md5(const std::string& text) {
    Digest digest;
// OpenSSL 3 calls MD5() deprecated; the protocol asks for MD5, and the one-shot call allocates nothing.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    MD5(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data());
#pragma GCC diagnostic pop
    return digest;
}

std::string MillisecondsSinceEpoch() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

// rand() is never seeded, here or anywhere in the agent, so each start repeats the same nonces; servers know
// them so.
std::string Nonce() {
    constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    std::string nonce;
    while (nonce.size() < 16) nonce += alphabet[static_cast<unsigned>(std::rand()) % alphabet.size()];
    return nonce;
}

}  // namespace

std::string Md5HexUpper(const std::string& text) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    const Digest digest = Md5(text);
    std::string hex(2 * digest.size(), '0');
    auto digit = hex.begin();
    for (const unsigned byte : digest) {
        *digit++ = digits[byte >> 4];
        *digit++ = digits[byte & 15];
    }
    return hex;
}

void AddTimestampAndNonce(json::jobject& message) {
    message["timestamp"] = MillisecondsSinceEpoch();
    message["noncestr"] = Nonce();
}

// In ascending order of the members' names, whose bytes compare as unsigned. A number is signed by its text,
// so a time stamp sent as a number and one sent as a string sign alike.
std::string ComputeSign(const std::string& secret, const json::jobject& message) {
    if (!message.has_key("timestamp")) throw json::invalid_key("timestamp");
    std::multimap<std::string, std::size_t> positions;
    for (const std::string& name : message.list_keys()) positions.emplace(name, positions.size());
    std::string text = secret;
    for (const auto& [name, position] : positions)
        if (name != "sign") text += name + message.at(position).as_string();
    return Md5HexUpper(text + secret);
}

void SignMessage(const std::string& secret, json::jobject& message) {
    AddTimestampAndNonce(message);
    message["sign"] = ComputeSign(secret, message);
}

}  // namespace nox::tunnel_client
