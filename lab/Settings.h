#pragma once

#include <asio/ip/address.hpp>
#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace lab {

/// Where the lab listens.
struct Ports {
    asio::ip::address address = asio::ip::address_v4::loopback();
    unsigned short sso = 0, api = 0, tunnel = 0;  ///< 0: the kernel chooses
    std::map<std::string, unsigned short> local;  ///< fixed local ports of routes, by service name
};

/// How long the lab waits.
struct Timings {
    std::chrono::milliseconds ssoLimit = std::chrono::seconds(10);  ///< for a whole SSO exchange
    std::chrono::milliseconds verifyLimit =
        std::chrono::seconds(15);  ///< from a device's connect to its "verify"
    /// How long nothing may come for a session after its end_session has left, before it is over. A device
    /// goes on relaying for five seconds.
    std::chrono::milliseconds quiet = std::chrono::seconds(6);
    /// How long a client that others wait for may take nothing before it is dropped.
    std::chrono::milliseconds stall = std::chrono::seconds(30);
    std::chrono::milliseconds farewell = std::chrono::seconds(2);  ///< for a device to read our last message
};

constexpr std::size_t maxSsoRequestBytes = 4096;
constexpr std::size_t maxSsoConversations = 64;
constexpr std::size_t maxApiBodyBytes = 65536;
constexpr std::size_t maxControlBytes = 8192;      ///< what devices send has a few hundred
constexpr std::size_t maxDeviceConnections = 512;  // verified or not, or with sessions still closing
constexpr std::size_t maxDevices = 256;
constexpr std::size_t maxRoutes = 1024;
constexpr std::size_t maxNameBytes = 128;  ///< of devices and services
constexpr std::size_t maxTokens = 1024;    ///< older ones are forgotten

constexpr std::size_t deviceReadBytes = 262144;
/// No more is read from clients while so much waits for their device.
constexpr std::size_t deviceBacklogBytes = 1048576;
/// New clients are turned away while so much waits: only control messages to a device that
/// takes nothing come here.
constexpr std::size_t deviceBacklogLimitBytes = 4 * deviceBacklogBytes;
/// Nothing is read from a device while so much waits for one of its clients, until half of it has left.
constexpr std::size_t clientBacklogBytes = 1048576;

}  // namespace lab
