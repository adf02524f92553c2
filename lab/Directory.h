#pragma once

#include <deque>
#include <map>
#include <string>

namespace lab {

/// A device's login at the tunnel server; the password signs the control messages of both sides.
struct Credentials {
    std::string username, password;
};

/// Which tokens the SSO service has issued, and which devices are registered. On the event loop only.
class Directory {
public:
    std::string IssueToken();
    bool IsToken(const std::string& token) const;

    /// Registers a device, with a new password each time.
    /// @return null when there are maxDevices already; the pointer is valid until the device is added again
    ///         or removed
    const Credentials* Add(const std::string& deviceId);
    /// @return whether the device was registered
    bool Remove(const std::string& deviceId) { return devices.erase(deviceId) > 0; }
    const Credentials* Find(const std::string& deviceId) const;

private:
    std::deque<std::string> tokens;
    std::map<std::string, Credentials> devices;
};

}  // namespace lab
