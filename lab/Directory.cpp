#include "lab/Directory.h"

#include <algorithm>

#include "lab/Settings.h"
#include "lab/wire/RandomText.h"

namespace lab {

std::string Directory::IssueToken() {
    if (tokens.size() == maxTokens) tokens.pop_front();
    return tokens.emplace_back(RandomText(32));
}

bool Directory::IsToken(const std::string& token) const {
    return std::find(tokens.begin(), tokens.end(), token) != tokens.end();
}

const Credentials* Directory::Add(const std::string& deviceId) {
    if (devices.size() >= maxDevices && devices.count(deviceId) == 0) return nullptr;
    return &(devices[deviceId] = {"tunnel-" + RandomText(6), RandomText(24)});
}

const Credentials* Directory::Find(const std::string& deviceId) const {
    const auto found = devices.find(deviceId);
    return found == devices.end() ? nullptr : &found->second;
}

}  // namespace lab
