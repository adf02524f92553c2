#include "lab/SsoService.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "lab/Weakly.h"
#include "lab/wire/Frame.h"
#include "lab/wire/Members.h"

namespace lab {

using asio::ip::tcp;
using nlohmann::ordered_json;

SsoExchange::SsoExchange(tcp::socket client, Owner& exchangeOwner, std::chrono::milliseconds limit)
    : socket(std::move(client)), timer(socket.get_executor(), limit), owner(exchangeOwner) {}

void SsoExchange::Start() {
    timer.async_wait(Weakly(this, &SsoExchange::OnLate));
    asio::async_read(socket, asio::buffer(*bytes), Weakly(this, &SsoExchange::OnLength, bytes));
}

void SsoExchange::OnLength(std::error_code error, std::size_t) {
    if (error) return Stop(error.message());
    const auto length = DecodeLength(bytes->data());
    if (length > maxSsoRequestBytes) return Stop("a request of " + std::to_string(length) + " bytes");
    bytes->resize(length);
    asio::async_read(socket, asio::buffer(*bytes), Weakly(this, &SsoExchange::OnRequest, bytes));
}

void SsoExchange::OnRequest(std::error_code error, std::size_t) {
    if (error) return Stop(error.message());
    try {
        const auto answer = owner.Answer(*bytes, socket.local_endpoint().address());
        *bytes = EncodeLength(answer.size()) + answer;
    } catch (const std::exception& fault) {
        return Stop(fault.what());
    }
    asio::async_write(socket, asio::buffer(*bytes), Weakly(this, &SsoExchange::OnAnswered, bytes));
}

void SsoExchange::OnAnswered(std::error_code error, std::size_t) { Stop(error ? error.message() : ""); }

void SsoExchange::OnLate(std::error_code) { Stop("no request in time"); }

void SsoExchange::Stop(const std::string& fault) {
    if (!socket.is_open()) return;
    socket.close();
    timer.cancel();
    owner.Over(*this, fault);
}

SsoService::SsoService(asio::io_context& io, const Ports& ports, const Timings& timings, Replies knownReplies,
                       Report& reportOfLab)
    : replies(std::move(knownReplies)),
      limit(timings.ssoLimit),
      report(reportOfLab),
      listener(std::make_shared<Listener>(io, tcp::endpoint(ports.address, ports.sso), report,
                                          [this](tcp::socket client) { OnClient(std::move(client)); })) {
    listener->Accept();
}

void SsoService::OnClient(tcp::socket client) {
    if (exchanges.size() == maxSsoConversations) return report.Error("sso: too many requests at once");
    SsoExchange::Owner& self = *this;
    (*exchanges.insert(std::make_shared<SsoExchange>(std::move(client), self, limit)).first)->Start();
}

void SsoService::Over(SsoExchange& exchange, const std::string& fault) {
    if (!fault.empty()) report.Error("sso: " + fault);
    exchanges.erase(exchange.shared_from_this());
}

std::string SsoService::Answer(const std::string& request, const asio::ip::address& reachedAt) {
    const auto members = Members(request);
    const std::string kind = TextMember(members, "request");
    const auto at = [&](unsigned short port) { return reachedAt.to_string() + ":" + std::to_string(port); };
    ordered_json answer{{"status", "ok"}};
    if (kind == "token" && !TextMember(members, "scope").empty()) {
        answer["token"] = replies.issueToken();
    } else if (kind == "data") {
        const ordered_json server{{"apiEndpoint", "http://" + at(replies.apiPort)},
                                  {"serverEndpoint", at(replies.tunnelPort)}};
        answer["discovery_data"] = {{"config", {{"tunnelServer", server}}}, {"tenantId", "lab-tenant"}};
    } else if (kind == "certificate_id") {
        answer["certificate_id"] = replies.certificateId;
    } else if (kind != "reset") {
        throw std::invalid_argument("not a request: " + Word(request));
    }
    return answer.dump();
}

}  // namespace lab
