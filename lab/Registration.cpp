#include "lab/Registration.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <vector>

#include "lab/Settings.h"

namespace lab {

using nlohmann::json;
using nlohmann::ordered_json;

namespace {

constexpr std::string_view removePath = "/clients/remove/id/";

/// Ends the handling of a request with an HTTP error and its reason.
struct Refusal : std::runtime_error {
    Refusal(int httpStatus, const std::string& reason) : std::runtime_error(reason), status(httpStatus) {}
    int status;
};
void Require(bool holds, const std::string& reason) {
    if (!holds) throw Refusal(400, reason);
}

/// A condition on one member of an object.
struct Rule {
    const char* name;
    bool (*holds)(const json& value);
    const char* expectation;
    bool optional = false;
};

bool IsText(const json& value) { return value.is_string(); }
/// Control characters are refused, because later messages with this text would have to escape them, and some
/// devices read no escapes.
bool IsName(const json& value) {
    if (!value.is_string()) return false;
    const auto& text = value.get_ref<const std::string&>();
    return !text.empty() && text.size() <= maxNameBytes &&
           std::none_of(text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7F; });
}
bool IsMode(const json& value) { return value == "tunnel-client"; }
bool IsLoopback(const json& value) { return value == "127.0.0.1"; }
bool IsZero(const json& value) { return value.is_number_integer() && value == 0; }
bool IsPort(const json& value) { return value.is_number_integer() && value > 0 && value < 65536; }
bool IsObject(const json& value) { return value.is_object(); }

/// Requires an object with exactly these members, of which each follows its rule.
void Check(const json& object, const std::string& name, const std::vector<Rule>& rules) {
    Require(object.is_object(), name + " must be an object");
    for (const Rule& rule : rules) {
        const auto member = object.find(rule.name);
        Require(member == object.end() ? rule.optional : rule.holds(*member),
                name + "." + rule.name + " must be " + rule.expectation);
    }
    for (const auto& [key, value] : object.items()) {
        const auto isRuled = [&key = key](const Rule& rule) { return key == rule.name; };
        Require(std::any_of(rules.begin(), rules.end(), isRuled),
                name + "." + Word(key) + " has no business there");
    }
}

/// The one member of the body. @throws Refusal unless the body is an object with that member alone
json Unwrap(const std::string& body, const char* name) {
    const json parsed = json::parse(body, nullptr, false);
    Check(parsed, "body", {{name, IsObject, "an object"}});
    return parsed[name];
}

void CheckClient(const json& client) {
    Check(client, "client",
          {{"deviceId", IsName, "a short text without control characters"},
           {"deviceType", IsText, "a text"},
           {"name", IsText, "a text"},
           {"tenantId", IsText, "a text"},
           {"clientMode", IsMode, "\"tunnel-client\""},
           {"username", IsText, "a text", true},
           {"password", IsText, "a text", true},
           {"deviceCredentials", IsObject, "an object", true},
           {"metadata", IsObject, "an object", true}});
    if (client.contains("deviceCredentials"))
        Check(client["deviceCredentials"], "deviceCredentials",
              {{"username", IsText, "a text"}, {"password", IsText, "a text"}});
    if (client.contains("metadata"))
        Check(client["metadata"], "metadata",
              {{"macAddress", IsText, "a text", true}, {"avlId", IsText, "a text", true}});
}

void CheckRoute(const json& route) {
    Check(route, "route",
          {{"deviceId", IsName, "a short text without control characters"},
           {"clientMode", IsMode, "\"tunnel-client\""},
           {"port", IsZero, "0"},
           {"remoteHost", IsLoopback, "\"127.0.0.1\""},
           {"remotePort", IsPort, "a number from 1 to 65535"},
           {"serviceName", IsName, "a short text without control characters"}});
}

}  // namespace

ApiReply Registration::Handle(const ApiRequest& request) {
    try {
        return Dispatch(request);
    } catch (const Refusal& refusal) {
        report.Error("api: " + Word(request.method) + " " + Word(request.path) + ": " +
                     std::to_string(refusal.status) + " " + refusal.what());
        return {refusal.status, ordered_json{{"status", false}, {"error", refusal.what()}}.dump()};
    }
}

ApiReply Registration::Dispatch(const ApiRequest& request) {
    if (!directory.IsToken(request.token)) throw Refusal(401, "no token of ours");
    if (request.method == "DELETE" && request.path.rfind(removePath, 0) == 0)
        return RemoveDevice(request.path.substr(removePath.size()));
    if (request.method == "POST" && request.path == "/clients/add") return AddDevice(request);
    if (request.method == "POST" && request.path == "/routes/add") return AddRoute(request);
    throw Refusal(404, "no such call");
}

// An unknown device is not reported, because every device removes itself before it adds itself.
ApiReply Registration::RemoveDevice(const std::string& deviceId) {
    routes.RemoveDevice(deviceId);
    const bool known = directory.Remove(deviceId);
    return {known ? 200 : 400, ordered_json{{"status", known}, {"apiVersion", cloud.apiVersion}}.dump()};
}

ApiReply Registration::AddDevice(const ApiRequest& request) {
    const json client = Unwrap(request.body, "client");
    CheckClient(client);
    const std::string deviceId = client["deviceId"];
    const Credentials* credentials = directory.Add(deviceId);
    Require(credentials != nullptr, "too many devices");
    report.Event("device " + Word(deviceId) + " registered");
    const ordered_json login{{"username", credentials->username}, {"password", credentials->password}};
    const ordered_json data{
        {"tunnelServerEndpoint", request.reachedAt + ":" + std::to_string(cloud.tunnelPort)},
        {"tunnelServerCredentials", login}};
    return {200, ordered_json{{"status", true}, {"data", data}}.dump()};
}

ApiReply Registration::AddRoute(const ApiRequest& request) {
    const json body = Unwrap(request.body, "route");
    CheckRoute(body);
    const Route route{body["deviceId"], body["serviceName"], body["remotePort"]};
    Require(directory.Find(route.deviceId) != nullptr, "route.deviceId is not registered");
    Require(routes.Add(route), "too many routes");
    return {200, ordered_json{{"status", true}}.dump()};
}

}  // namespace lab
