#include "soak/Traffic.h"

#include <algorithm>
#include <array>
#include <utility>

namespace soak {

using asio::ip::tcp;

namespace {

constexpr std::size_t openRoutes = 3;
constexpr std::chrono::seconds openingLimit{20};
/// A service's connection may come as late as this after its client's.
constexpr std::chrono::seconds serviceLimit{10};
/// Without a line in the agent's log for this long, it may not have been given the processor.
constexpr std::chrono::milliseconds agentPause{50};
/// How long after the stall of one client it may still delay other sessions.
constexpr std::chrono::seconds stallEffect{2};

const tcp::endpoint anyPort(asio::ip::address_v4::loopback(), 0);

}  // namespace

struct Traffic::Caller {
    std::size_t route;
    tcp::socket socket;
    std::array<char, KeyedStream::numberBytes> number;
};

Traffic::Traffic(asio::io_context& loop, std::uint64_t streamSeed,
                 const std::function<unsigned short()>& freePort,
                 std::function<void(const std::string&)> faultHandler)
    : io(loop), seed(streamSeed), onFault(std::move(faultHandler)), random(streamSeed) {
    for (std::size_t route = 0; route < openRoutes; ++route) AddService(freePort());
    AddRefusal(freePort());
}

void Traffic::AddService(unsigned short clientPort) {
    const std::size_t route = listeners.size();
    listeners.push_back({std::make_unique<tcp::acceptor>(io, anyPort), nullptr});
    doors.push_back(
        {"service" + std::to_string(route), listeners.back().acceptor->local_endpoint().port(), clientPort});
    Accept(route);
}

void Traffic::AddRefusal(unsigned short clientPort) {
    listeners.push_back({nullptr, std::make_unique<tcp::socket>(io, anyPort)});
    doors.push_back({"refusal", listeners.back().refusing->local_endpoint().port(), clientPort});
}

// ---- Services

void Traffic::Accept(std::size_t route) {
    listeners[route].acceptor->async_accept([this, route](std::error_code error, tcp::socket socket) {
        if (error) return onFault("accepting at a service: " + error.message());
        OnService(route, std::move(socket));
        Accept(route);
    });
}

void Traffic::OnService(std::size_t route, tcp::socket socket) {
    const auto caller = std::make_shared<Caller>(Caller{route, std::move(socket), {}});
    asio::async_read(
        caller->socket, asio::buffer(caller->number),
        [this, caller](std::error_code error, std::size_t size) { OnNumber(error, size, *caller); });
}

// A caller without a byte belongs to a session whose client or server went away at once. A part of a number
// is a fault.
void Traffic::OnNumber(std::error_code error, std::size_t size, Caller& caller) {
    if (size == 0) return;
    const auto number = error ? 0 : KeyedStream::NumberIn({caller.number.data(), caller.number.size()});
    if (number == 0 || number > entries.size()) return onFault("a service was called by no session of ours");
    Entry& entry = entries[number - 1];
    if (entry.account.route != caller.route || entry.account.service.appeared)
        return onFault("session " + std::to_string(number) +
                       " called a service that is not its own, or twice");
    const auto service = std::make_shared<Endpoint>(
        std::move(caller.socket), entry.account.plan.service, Stream(entry, Direction::ToClient),
        Stream(entry, Direction::ToService), entry.account.service, [this, &entry] { OnServiceOver(entry); });
    services[number] = service;
    service->Start(size);
}

void Traffic::OnServiceOver(Entry& entry) {
    if (SomebodyStalls()) lastStall = Clock::now();
    entry.account.tunnelWasHeld = Clock::now() - lastStall < stallEffect;
    WatchAgent();
    entry.account.agentPausedUntil = agentPausedUntil;
    services.erase(entry.account.number);
}

void Traffic::WatchAgent() {
    if (Clock::now() - lastAgentLine >= agentPause) agentPausedUntil = Clock::now();
}

KeyedStream Traffic::Stream(const Entry& entry, Direction direction) const {
    return {seed, entry.account.number, direction};
}

// ---- Clients

void Traffic::Open(Plan (*drawPlan)(Random&)) {
    if (isConnecting || opening != nullptr) return;
    Entry& entry = entries.emplace_back();
    entry.account.number = entries.size();
    entry.account.plan = drawPlan(random);
    const bool refused = entry.account.plan.ending == Ending::ServiceRefuses;
    entry.account.route = refused ? openRoutes : Draw(random, 0, openRoutes - 1);
    entry.openedAt = Clock::now();
    opening = &entry;
    isConnecting = true;
    const auto socket = std::make_shared<tcp::socket>(io);
    socket->async_connect(
        {asio::ip::address_v4::loopback(), doors[entry.account.route].clientPort},
        [this, socket, &entry](std::error_code error) { OnConnected(error, socket, entry); });
}

// While the device has not registered its routes with a fresh server, there is nothing to connect to.
void Traffic::OnConnected(std::error_code error, const std::shared_ptr<tcp::socket>& socket, Entry& entry) {
    isConnecting = false;
    if (error) return OnNoServer(entry);
    const std::uint64_t number = entry.account.number;
    const auto client = std::make_shared<Endpoint>(
        std::move(*socket), entry.account.plan.client, Stream(entry, Direction::ToService),
        Stream(entry, Direction::ToClient), entry.account.client, [this, number] { clients.erase(number); });
    clients[number] = client;
    client->Start();
}

void Traffic::OnNoServer(const Entry& entry) {
    if (opening == &entry) opening = nullptr;
}

// ---- The programs' lines

void Traffic::OnServerLine(const ServerLine& line) {
    using Kind = ServerLine::Kind;
    if (line.kind == Kind::Connected) ++serverConnections;
    const Key key{serverConnections, line.session};
    if (line.kind == Kind::Closed && atServer.count(key) > 0) atServer[key]->account.server = line.words;
    if (line.kind != Kind::Opened && line.kind != Kind::TurnedAway) return;
    if (opening == nullptr) return onFault("the server has a client that is not ours");
    opening->account.turnedAway = line.kind == Kind::TurnedAway;
    if (line.kind == Kind::Opened) atServer[opening->key = key] = opening;
    opening = nullptr;
}

void Traffic::OnAgentLine(const AgentLine& line) {
    WatchAgent();
    lastAgentLine = Clock::now();
    if (line.isVerified) ++agentConnections;
    if (line.word != nullptr) agentWords[{agentConnections, line.session}].*line.word = true;
}

bool Traffic::IsOver(const Entry& entry) const {
    const auto& account = entry.account;
    const bool serviceOver =
        account.service.appeared ? account.service.over : Clock::now() - entry.openedAt > serviceLimit;
    return account.client.over && serviceOver && (account.server || account.turnedAway);
}

void Traffic::Strike() {
    for (Entry& entry : entries)
        if (!IsOver(entry)) entry.account.struck = true;
}

void Traffic::OnServerGone() {
    Strike();
    opening = nullptr;
}

bool Traffic::SomebodyStalls() const {
    return std::any_of(clients.begin(), clients.end(),
                       [](const auto& client) { return client.second->IsStalling(); });
}

void Traffic::Tick() {
    if (SomebodyStalls()) lastStall = Clock::now();
    if (opening == nullptr || Clock::now() - opening->openedAt < openingLimit) return;
    onFault("no line of the server names session " + std::to_string(opening->account.number));
    opening = nullptr;
}

std::string Traffic::NamesOfLiving() const {
    std::string names;
    for (const auto& [number, client] : clients) names += " client " + std::to_string(number);
    for (const auto& [number, service] : services) names += " service " + std::to_string(number);
    return names;
}

std::vector<Account> Traffic::Accounts() const {
    std::vector<Account> accounts;
    for (const Entry& entry : entries) {
        if (!entry.account.client.appeared) continue;
        accounts.push_back(entry.account);
        const auto words = agentWords.find(entry.key);
        if (words != agentWords.end()) accounts.back().agent = words->second;
    }
    return accounts;
}

}  // namespace soak
