#include "registration/RegistrationClient.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "log/Log.h"
#include "registration/SSOConnection.h"

namespace nox::tunnel_client {

namespace {

constexpr std::size_t avlIdCharacters = 8;
constexpr std::int32_t refusalsBetweenResets = 12;
/// From this version on, AddDevice sends metadata, and the credentials in an object of their own.
constexpr std::int32_t versionWithMetadata = 0x020000;

std::string LowerHexDigits(const std::string& text) {
    std::string digits;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (std::isxdigit(byte) != 0) digits += static_cast<char>(std::tolower(byte));
    }
    return digits;
}

/// "2.1.0" gives 0x020100. Only the first three parts count. Fewer parts are deliberately not padded: "2.1"
/// gives 0x000201, which counts as older than 2.0.0 and so gets the old form of AddDevice.
/// @throws std::invalid_argument or std::out_of_range "stoi" for a part that is empty or no number
std::int32_t PackVersion(const std::string& text) {
    std::int32_t packed = 0;
    std::size_t start = 0;
    for (int part = 0; part < 3 && start <= text.size(); ++part) {
        const std::size_t end = std::min(text.find('.', start), text.size());
        packed = (packed << 8) + (std::stoi(text.substr(start, end - start)) & 0xFF);
        start = end + 1;
    }
    return packed;
}

/// Splits "host:port" at the first colon.
/// @throws std::invalid_argument when there is no colon, and "stoi" when no number follows the first one
std::pair<std::string, std::int32_t> SplitEndpoint(const std::string& endpoint) {
    const std::size_t colon = endpoint.find(':');
    if (colon == std::string::npos)
        throw std::invalid_argument("Invalid tunnelServerEndpoint " + endpoint + ". Missing port?");
    return {endpoint.substr(0, colon), std::stoi(endpoint.substr(colon + 1))};
}

/// The member `key` of `object`, which must outlive the result.
/// @throws Exception with `complaint` when there is no such member
template <typename Exception>
json::jobject::const_proxy Member(const json::jobject& object, const char* key, const char* complaint) {
    if (!object.has_key(key)) throw Exception(complaint);
    return object[key];
}

json::jobject Wrap(const char* key, const json::jobject& object) {
    json::jobject wrapper;
    wrapper[key] = object;
    return wrapper;
}

}  // namespace

RegistrationClient::RegistrationClient(const RegistrationConfig& configuration) : config(configuration) {
    SetMacAddress(config.macAddress);
}

void RegistrationClient::SetMacAddress(const std::string& mac) {
    normalizedMac = LowerHexDigits(mac);
    LogWrite("RegistrationClient", __LINE__, logDebug, "Device MAC address: %s", normalizedMac.c_str());
    if (normalizedMac.size() >= avlIdCharacters)
        avlId = normalizedMac.substr(normalizedMac.size() - avlIdCharacters);
    else
        LogWrite("RegistrationClient", __LINE__, logWarning, "MAC address too short for AVL id");
    LogWrite("RegistrationClient", __LINE__, logDebug, "Device AVL id: %s", avlId.c_str());
}

TunnelAccess RegistrationClient::Register() {
    if (!discovered) DiscoverOnce();
    return RegisterDevice();
}

void RegistrationClient::DiscoverOnce() {
    try {
        Discover();
    } catch (const std::exception& e) {
        LogWrite("RegistrationClient", __LINE__, logError, "Discovery failed: %s", e.what());
        throw std::runtime_error("Discovery failed");
    }
    discovered = true;
}

TunnelAccess RegistrationClient::RegisterDevice() {
    try {
        const std::string token = SSOConnection::GetToken(config.ssoHost, config.ssoPort);
        if (token.empty()) throw std::runtime_error("Failed to get tunnel token");
        LogWrite("RegistrationClient", __LINE__, logInfo, "Registering with %s", apiEndpoint.c_str());
        RemoveDevice(token);
        TunnelAccess access = AddDevice(token);
        AddRoutes(token);
        LogWrite("RegistrationClient", __LINE__, logInfo, "Device %s registered", deviceId.c_str());
        return access;
    } catch (const std::exception& e) {
        LogWrite("RegistrationClient", __LINE__, logError, "Registration failed: %s", e.what());
        throw std::runtime_error("Registration failed");
    }
}

void RegistrationClient::Discover() {
    LogWrite("RegistrationClient", __LINE__, logInfo, "Requesting discovery from %s:%d",
             config.ssoHost.c_str(), config.ssoPort);
    const std::string text = SSOConnection::GetDiscoveryData(config.ssoHost, config.ssoPort);
    if (text.empty()) throw std::runtime_error("Received empty discovery data");
    ReadDiscoveryData(json::jobject::parse(text));
    deviceId = FindDeviceId();
}

void RegistrationClient::ReadDiscoveryData(const json::jobject& data) {
    using Fault = std::invalid_argument;
    const json::jobject configObject = Member<Fault>(data, "config", "Missing config in response");
    const json::jobject server =
        Member<Fault>(configObject, "tunnelServer", "Missing config.tunnelServer in response");
    apiEndpoint = Member<Fault>(server, "apiEndpoint", "Missing config.tunnelServer.apiEndpoint in response");
    // Only the presence of this member counts; the reply to AddDevice names the tunnel server that is used.
    Member<Fault>(server, "serverEndpoint", "Missing config.tunnelServer.serverEndpoint in response");
    clientMode = "tunnel-client";
    tenantId = Member<Fault>(data, "tenantId", "Missing discovery_data.tenantId in response");
    // JSON null is read as this text, too.
    if (tenantId == "null") throw std::runtime_error("Device is not assigned to a tenant");
}

std::string RegistrationClient::FindDeviceId() const {
    if (!config.deviceId.empty()) return config.deviceId;
    LogWrite("RegistrationClient", __LINE__, logInfo, "Requesting certificate ID from %s:%d",
             config.ssoHost.c_str(), config.ssoPort);
    std::string id = SSOConnection::GetCertificateId(config.ssoHost, config.ssoPort);
    if (id.empty()) throw std::runtime_error("Received empty certificate ID");
    return id;
}

void RegistrationClient::RemoveDevice(const std::string& token) {
    const HttpResponse response = curl.Delete(apiEndpoint + "/clients/remove/id/" + deviceId, token);
    // Comes before the check of the status, so a refusal must carry a JSON body, too.
    ParseApiVersion(response.body);
    CheckResponse(response);
    // 400 means that the device was not registered, so there is nothing to remove.
    const bool accepted = response.httpCode == 200 || response.httpCode == 400;
    LogWrite("RegistrationClient", __LINE__, accepted ? logInfo : logError, "RemoveDevice: (%ld) %s",
             response.httpCode, response.body.c_str());
    if (!accepted) throw std::runtime_error("Failed to remove device");
}

void RegistrationClient::ParseApiVersion(const std::string& body) {
    const json::jobject reply = json::jobject::parse(body);
    apiVersion = reply.has_key("apiVersion") ? PackVersion(reply["apiVersion"].as_string()) : oldestVersion;
    LogWrite("RegistrationClient", __LINE__, logDebug, "Tunnel server API version: 0x%06x",
             static_cast<unsigned>(apiVersion));
}

TunnelAccess RegistrationClient::AddDevice(const std::string& token) {
    const std::string request = Wrap("client", ClientObject()).as_string();
    LogWrite("RegistrationClient", __LINE__, logInfo, "Adding device %s", deviceId.c_str());
    const HttpResponse response = curl.Post(apiEndpoint + "/clients/add", token, request);
    CheckResponse(response);
    if (response.httpCode != 200) {
        LogWrite("RegistrationClient", __LINE__, logError, "Failed to add device: (%ld) %s",
                 response.httpCode, response.body.c_str());
        throw std::runtime_error("Failed to add device");
    }
    LogWrite("RegistrationClient", __LINE__, logVerbose, "AddDevice: %s", response.body.c_str());
    return ReadAddDeviceReply(json::jobject::parse(response.body));
}

TunnelAccess RegistrationClient::ReadAddDeviceReply(const json::jobject& reply) const {
    using Fault = std::runtime_error;
    if (!reply.has_key("status") || !reply["status"].is_bool())
        throw Fault("Missing status in AddDevice response");
    if (!static_cast<bool>(reply["status"])) throw Fault("Failed to add device, status = false");
    const json::jobject data = Member<Fault>(reply, "data", "Missing data in AddDevice response");
    TunnelAccess access;
    access.deviceId = deviceId;
    std::tie(access.serverHost, access.serverPort) = SplitEndpoint(
        Member<Fault>(data, "tunnelServerEndpoint", "Missing tunnelServerEndpoint in AddDevice response"));
    std::tie(access.username, access.password) = TunnelCredentials(data);
    return access;
}

std::pair<std::string, std::string> RegistrationClient::TunnelCredentials(const json::jobject& data) const {
    if (!data.has_key("tunnelServerCredentials")) return {config.dvrUsername, config.dvrPassword};
    using Fault = std::runtime_error;
    const json::jobject credentials = data["tunnelServerCredentials"];
    std::string username = Member<Fault>(credentials, "username",
                                         "Missing tunnelServerCredentials.username in AddDevice response");
    std::string password = Member<Fault>(credentials, "password",
                                         "Missing tunnelServerCredentials.password in AddDevice response");
    return {std::move(username), std::move(password)};
}

json::jobject RegistrationClient::ClientObject() const {
    json::jobject client;
    client["deviceId"] = deviceId;
    client["deviceType"] = config.deviceType;
    client["name"] = config.deviceName;
    client["tenantId"] = tenantId;
    client["clientMode"] = clientMode;
    if (apiVersion < versionWithMetadata)
        AddCredentials(client);  // even when they are empty
    else
        AddCredentialsAndMetadata(client);
    return client;
}

void RegistrationClient::AddCredentials(json::jobject& object) const {
    object["username"] = config.dvrUsername;
    object["password"] = config.dvrPassword;
}

void RegistrationClient::AddCredentialsAndMetadata(json::jobject& client) const {
    if (!config.dvrUsername.empty() || !config.dvrPassword.empty()) {
        json::jobject credentials;
        AddCredentials(credentials);
        client["deviceCredentials"] = credentials;
    }
    json::jobject metadata;
    if (!normalizedMac.empty()) metadata["macAddress"] = normalizedMac;
    if (!avlId.empty()) metadata["avlId"] = avlId;
    if (metadata.size() > 0) client["metadata"] = metadata;
}

void RegistrationClient::AddRoutes(const std::string& token) {
    for (const Route& route : config.routes) AddRoute(token, route);
}

void RegistrationClient::AddRoute(const std::string& token, const Route& route) {
    const std::string request = Wrap("route", RouteObject(route)).as_string();
    LogWrite("RegistrationClient", __LINE__, logDebug, "AddRoute: %s", request.c_str());
    const HttpResponse response = curl.Post(apiEndpoint + "/routes/add", token, request);
    CheckResponse(response);
    if (response.httpCode != 200) {
        LogWrite("RegistrationClient", __LINE__, logError, "Failed to add route: (%ld) %s", response.httpCode,
                 response.body.c_str());
        throw std::runtime_error("Failed to add route");
    }
    LogWrite("RegistrationClient", __LINE__, logInfo, "AddRoute: %s", response.body.c_str());
}

json::jobject RegistrationClient::RouteObject(const Route& route) const {
    json::jobject object;
    object["deviceId"] = deviceId;
    object["clientMode"] = clientMode;
    object["port"] = 0;
    object["remoteHost"] = std::string("127.0.0.1");
    object["remotePort"] = route.remotePort;
    object["serviceName"] = route.serviceName;
    return object;
}

void RegistrationClient::CheckResponse(const HttpResponse& response) {
    if (response.httpCode == 200) ssoResetCountdown = 0;
    if (response.httpCode != 401 && response.httpCode != 403) return;
    // Never below 0; otherwise years of failing resets would take the counter to the end of its range.
    ssoResetCountdown = std::max(ssoResetCountdown - 1, 0);
    if (ssoResetCountdown > 0) return;
    LogWrite("RegistrationClient", __LINE__, logError, "Resetting SSO after getting code (%ld)",
             response.httpCode);
    SSOConnection::Reset(config.ssoHost, config.ssoPort);
    // A failed reset has thrown, so the countdown stays at 0 and the next refusal tries the reset again.
    ssoResetCountdown = refusalsBetweenResets;
}

}  // namespace nox::tunnel_client
