#pragma once

#include <asio/ip/address.hpp>
#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace lab {

/// The address and the ports that the lab listens on.
struct Ports {
    asio::ip::address address = asio::ip::address_v4::loopback();
    unsigned short sso = 0, api = 0, tunnel = 0;  ///< 0: the kernel chooses
    std::map<std::string, unsigned short> local;  ///< fixed local ports of routes, by service name
};

/// The lab's time limits.
struct Timings {
    /// For a whole SSO exchange.
    std::chrono::milliseconds ssoLimit = std::chrono::seconds(10);
    /// From a device's connect to its "verify".
    std::chrono::milliseconds verifyLimit = std::chrono::seconds(15);
    /// An ended session closes when no byte has come for it for this long. A device goes on relaying for five
    /// seconds after it has received the end_session.
    std::chrono::milliseconds quiet = std::chrono::seconds(6);
    /// A client that takes nothing for this long is dropped, if its session has ended or others wait for it.
    std::chrono::milliseconds stall = std::chrono::seconds(30);
    /// For a device to read our last message.
    std::chrono::milliseconds farewell = std::chrono::seconds(2);
};

constexpr std::size_t maxSsoRequestBytes = 4096;
constexpr std::size_t maxSsoConversations = 64;
constexpr std::size_t maxApiBodyBytes = 65536;
constexpr std::size_t maxControlBytes = 8192;      ///< the messages of devices have a few hundred
constexpr std::size_t maxDeviceConnections = 512;  // verified or not, or with sessions still closing
constexpr std::size_t maxDevices = 256;
constexpr std::size_t maxRoutes = 1024;
constexpr std::size_t maxNameBytes = 128;  ///< of devices and services
constexpr std::size_t maxTokens = 1024;    ///< older ones are forgotten

constexpr std::size_t deviceReadBytes = 262144;
/// Nothing is read from clients while this much waits for their device.
constexpr std::size_t deviceBacklogBytes = 1048576;
/// New clients are turned away while this much waits. Data never reaches this limit; only the control
/// messages to a device that takes nothing do.
constexpr std::size_t deviceBacklogLimitBytes = 4 * deviceBacklogBytes;
/// Nothing is read from a device once more than this waits for one of its clients, until half of it has left.
constexpr std::size_t clientBacklogBytes = 1048576;

}  // namespace lab
