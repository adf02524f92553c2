#include "lab/Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <stdexcept>

namespace lab {

namespace {

constexpr int badOptions = 2;

/// The reason to refuse the option's value; "" accepts it, as the library expects.
std::string FaultOfAddress(const std::string& text) {
    std::error_code error;
    asio::ip::make_address_v4(text, error);
    return error ? "\"" + text + "\" is no numeric IPv4 address" : "";
}

/// Refuses control characters, because a line of the environment file or a text for a device must not hold
/// any.
std::string FaultOfText(const std::string& text) {
    const auto isControl = [](unsigned char c) { return c < ' ' || c == 0x7F; };
    return std::any_of(text.begin(), text.end(), isControl) ? "control characters are not allowed" : "";
}

std::pair<std::string, unsigned short> ReadPort(const char* option, const std::string& text) {
    const auto equals = text.rfind('=');
    unsigned short port = 0;
    if (equals == 0 || equals == std::string::npos || !FaultOfText(text).empty() ||
        !CLI::detail::lexical_cast(text.substr(equals + 1), port) || port == 0)
        throw CLI::ValidationError(option, "\"" + text + "\" is not SERVICE=PORT");
    return {text.substr(0, equals), port};
}

template <typename Keep>
void AddPorts(CLI::App& app, const char* name, const char* description, Keep keep) {
    const auto keepAll = [name, keep](const std::vector<std::string>& texts) {
        for (const auto& text : texts) keep(ReadPort(name, text));
    };
    app.add_option_function<std::vector<std::string>>(name, keepAll, description)
        ->allow_extra_args(false)
        ->type_name("SERVICE=PORT");
}

void AddListening(CLI::App& app, Options& options) {
    auto& ports = options.ports;
    app.add_option_function<std::string>(
           "--bind", [&](const std::string& text) { ports.address = asio::ip::make_address_v4(text); },
           "Address to listen on, numeric [127.0.0.1]")
        ->check(FaultOfAddress)
        ->type_name("ADDRESS");
    app.add_option("--sso-port", ports.sso, "Port of the SSO service [any]")->type_name("N");
    app.add_option("--api-port", ports.api, "Port of the registration API [any]")->type_name("N");
    app.add_option("--tunnel-port", ports.tunnel, "Port of the tunnel server [any]")->type_name("N");
    AddPorts(app, "--local-port", "Local port for the route of a service [any]; repeatable",
             [&](const auto& port) { ports.local.insert(port); });
}

void AddAgentFiles(CLI::App& app, Options& options) {
    auto& agent = options.agent;
    app.add_option("--write-config", options.configFile, "Write an agent configuration for this lab")
        ->type_name("FILE");
    AddPorts(app, "--route", "Route in that configuration, port on the device; repeatable",
             [&](const auto& port) { agent.routes.push_back(port); });
    app.add_option("--agent-log-path", agent.logPath, "Its log path [standard output]")
        ->check(FaultOfText)
        ->type_name("PATH");
    app.add_option("--agent-log-level", agent.logLevel, "Its log level [info]")
        ->check(CLI::IsMember({"error", "warning", "info", "debug", "verbose"}))
        ->type_name("NAME");
    app.add_option_function<int>(
           "--reconnect", [&](int seconds) { agent.reconnect = std::chrono::seconds(seconds); },
           "Its pause before it registers or connects again [5]")
        ->check(CLI::Range(0, 86400))
        ->type_name("SECONDS");
}

void AddDevice(CLI::App& app, Options& options) {
    auto& agent = options.agent;
    app.add_option("--write-env", options.environmentFile, "Write the agent's environment")
        ->type_name("FILE");
    const auto add = [&app](const char* name, std::string& text, const char* description) {
        app.add_option(name, text, description + std::string(" [") + text + "]")
            ->check(FaultOfText)
            ->type_name("TEXT");
    };
    add("--device-id", agent.deviceId, "Device id in that environment, and the SSO service's certificate id");
    add("--device-type", agent.deviceType, "Device type in that environment");
    add("--device-name", agent.deviceName, "Device name in it");
    add("--mac-address", agent.macAddress, "MAC address in it");
    add("--dvr-username", agent.dvrUsername, "User name of the recorder in it");
    add("--dvr-password", agent.dvrPassword, "Password of the recorder in it");
    add("--api-version", options.apiVersion, "Version that the API reports");
}

}  // namespace

Options ReadOptions(int argc, char** argv) {
    Options options;
    CLI::App app(
        "A cloud on the bench for the tunnel agent: SSO service, registration API and tunnel server.");
    app.set_version_flag("--version", "tunnel-lab " LAB_VERSION);
    AddListening(app, options);
    AddAgentFiles(app, options);
    AddDevice(app, options);
    app.add_option_function<int>(
           "--report", [&](int seconds) { options.reportEvery = std::chrono::seconds(seconds); },
           "A report line every so often [only at the end and on SIGUSR1]")
        ->check(CLI::Range(0, 86400))
        ->type_name("SECONDS");
    app.add_option("--frame-bytes", options.frameBytes,
                   "Largest payload of the frames that it sends [" + std::to_string(maxPayloadBytes) + "]")
        ->check(CLI::Range(std::size_t{1}, maxPayloadBytes))
        ->type_name("N");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        throw ExitNow{app.exit(error) == 0 ? 0 : badOptions};
    }
    return options;
}

}  // namespace lab
