#include "lab/wire/Signing.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <utility>

#include "lab/wire/RandomText.h"

namespace lab {

namespace {

bool Has(const std::vector<Member>& members, const std::string& name) {
    return std::any_of(members.begin(), members.end(),
                       [&](const Member& member) { return member.first == name; });
}

/// Sorts by name. Refuses a name that comes twice, because the two sides could then read and sign different
/// values.
std::vector<const Member*> Sorted(const std::vector<Member>& members) {
    std::vector<const Member*> sorted(members.size());
    std::transform(members.begin(), members.end(), sorted.begin(),
                   [](const Member& member) { return &member; });
    const auto byName = [](const Member* a, const Member* b) { return a->first < b->first; };
    std::sort(sorted.begin(), sorted.end(), byName);
    const auto sameName = [](const Member* a, const Member* b) { return a->first == b->first; };
    if (std::adjacent_find(sorted.begin(), sorted.end(), sameName) != sorted.end())
        throw std::invalid_argument("a member comes twice");
    return sorted;
}

/// Completes `text`, a message without its closing bracket, with those of the three members of a signature
/// that it lacks.
std::string Seal(std::string text, std::vector<Member> members, const std::string& password,
                 const Stamp& stamp) {
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

std::string Md5HexUpper(const std::string& text) {
    // Fetched once, because EVP_md5() would make the library look for its implementation in every call.
    static const std::unique_ptr<EVP_MD, decltype(&EVP_MD_free)> md5(EVP_MD_fetch(nullptr, "MD5", nullptr),
                                                                     EVP_MD_free);
    std::array<unsigned char, 16> digest{};
    EVP_Digest(text.data(), text.size(), digest.data(), nullptr, md5.get(), nullptr);
    std::string hex;
    for (const unsigned char byte : digest) {
        hex += "0123456789ABCDEF"[byte >> 4];
        hex += "0123456789ABCDEF"[byte & 0xF];
    }
    return hex;
}

}  // namespace

std::string Signature(const std::string& password, const std::vector<Member>& members) {
    std::string text = password;
    for (const auto* member : Sorted(members)) {
        if (member->first != "sign") text.append(member->first).append(TextOf(member->second));
    }
    return Md5HexUpper(text.append(password));
}

Stamp Stamp::Now() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return {std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(now).count()),
            RandomText(16)};
}

std::string Sign(const std::string& password, const std::string& object, const Stamp& stamp) {
    return Seal(object.substr(0, object.rfind('}')), Members(object), password, stamp);
}

std::string Sign(const std::string& password, const std::vector<Member>& members, const Stamp& stamp) {
    std::string text = "{";
    for (const auto& [name, value] : members)
        text.append(text.size() > 1 ? ",\"" : "\"").append(name).append("\":").append(value);
    return Seal(std::move(text), members, password, stamp);
}

}  // namespace lab
