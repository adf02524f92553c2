#include "lab/Signing.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <stdexcept>

#include "lab/RandomText.h"

namespace lab {

namespace {

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

std::string Md5HexUpper(const std::string& text) {
    std::array<unsigned char, 16> digest{};
    EVP_Digest(text.data(), text.size(), digest.data(), nullptr, EVP_md5(), nullptr);
    std::string hex;
    for (const unsigned char byte : digest) {
        hex += "0123456789ABCDEF"[byte >> 4];
        hex += "0123456789ABCDEF"[byte & 0xF];
    }
    return hex;
}

std::string Signature(const std::string& password, std::vector<Member> members) {
    std::sort(members.begin(), members.end());
    RefuseDuplicates(members);
    std::string text = password;
    for (const auto& [name, value] : members) {
        if (name != "sign") text += name + TextOf(value);
    }
    return Md5HexUpper(text + password);
}

Stamp Stamp::Now() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return {std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(now).count()),
            RandomText(16)};
}

std::string Sign(const std::string& password, const std::string& object, const Stamp& stamp) {
    auto members = Members(object);
    std::string text = object.substr(0, object.rfind('}'));
    const auto append = [&](const std::string& name, const std::string& value) {
        if (Has(members, name)) return;
        text += (members.empty() ? "\"" : ",\"") + name + "\":\"" + value + '"';
        members.emplace_back(name, '"' + value + '"');
    };
    append("timestamp", stamp.timestamp);
    append("noncestr", stamp.nonce);
    append("sign", Signature(password, members));
    return text + '}';
}

}  // namespace lab
