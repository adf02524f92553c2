#pragma once

#include <deque>
#include <map>
#include <string>

namespace lab {

/// What a device presents to the tunnel server; the password signs the control messages of both sides.
struct Credentials {
    std::string username, password;
};

/// Which tokens the SSO service has issued, and which devices are registered. On the event loop only.
class Directory {
public:
    std::string IssueToken();
    bool IsToken(const std::string& token) const;

    /// Registers a device, with a new password each time.
    /// @return null when there are maxDevices already; valid until the device is added or removed again
    const Credentials* Add(const std::string& deviceId);
    /// @return whether there was such a device
    bool Remove(const std::string& deviceId) { return devices.erase(deviceId) > 0; }
    const Credentials* Find(const std::string& deviceId) const;

private:
    std::deque<std::string> tokens;
    std::map<std::string, Credentials> devices;
};

}  // namespace lab
