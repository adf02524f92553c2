#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <system_error>

#include "registration/SSOConnection.h"
#include "tests/registration/Recorder.h"
#include "tests/support/LogCapture.h"

namespace nox::tunnel_client {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;

const std::string host = "127.0.0.1";

using Ask = std::string (*)(const std::string&, std::int32_t);
const Ask token = SSOConnection::GetToken;
const Ask data = SSOConnection::GetDiscoveryData;
const Ask certificate = SSOConnection::GetCertificateId;
const Ask reset = [](const std::string& address, std::int32_t port) {
    SSOConnection::Reset(address, port);
    return std::string("done");
};

std::string ReadBytes(support::Connection& connection) {
    const std::string length = connection.Read(4);
    return length + connection.Read(static_cast<unsigned char>(length[3]));
}

TEST(SSOConnectionTest, SendsTheseBytesToTheLowHalfOfThePort) {
    Recorder service(ReadBytes, std::vector<std::string>(4, support::SsoReply("{}")));
    for (const Ask ask : {token, data, certificate, reset})
        EXPECT_THROW(ask(host, service.Port() + 0x10000), std::invalid_argument);
    EXPECT_THAT(
        service.Heard(),
        ElementsAre("\0\0\0\x39{\"request\":\"token\",\"scope\":\"file-receiver hardware-read\"}"s,
                    "\0\0\0\x12{\"request\":\"data\"}"s, "\0\0\0\x1c{\"request\":\"certificate_id\"}"s,
                    "\0\0\0\x13{\"request\":\"reset\"}"s));
}

struct Exchange {
    const char* name;
    Ask ask;
    std::string reply;    // bytes
    std::string outcome;  // the returned text, or the text of the exception
};

class Exchanges : public testing::TestWithParam<Exchange> {};

TEST_P(Exchanges, EndLikeThis) {
    Recorder service(ReadBytes, {GetParam().reply});
    std::string outcome;
    const std::string thrown = Thrown([&] { outcome = GetParam().ask(host, service.Port()); });
    EXPECT_TRUE(outcome + thrown == GetParam().outcome) << thrown;
}

using support::SsoReply;
/// A well-formed frame with status "ok" and what follows it.
std::string Ok(const std::string& rest) { return SsoReply(R"({"status":"ok")" + rest + "}"); }

const char* const noObject = "Input is not a valid object";
const char* const badStatus = "Invalid status in response";

const Exchange exchanges[] = {
    {"Token", token, Ok(R"(,"token":"a\nb")"), "a\nb"},
    {"EmptyToken", token, Ok(R"(,"token":"")"), ""},
    {"TokenThatComesInParts", token, Ok(R"(,"token":")" + std::string(200000, 't') + '"'),
     std::string(200000, 't')},
    {"DataAsObject", data, Ok(R"(,"discovery_data":{ "a" : [1, 2] })"), R"({"a":[1,2]})"},
    {"DataAsText", data, Ok(R"(,"discovery_data":"{\"a\":[1,2]}")"), R"({"a":[1,2]})"},
    {"NumericCertificate", certificate, Ok(R"(,"certificate_id":12345)"), "12345"},
    {"NullCertificate", certificate, Ok(R"(,"certificate_id":null)"), "null"},
    {"Reset", reset, Ok(""), "done"},
    {"NoToken", token, Ok(""), "Missing token in response"},
    {"NoData", data, Ok(""), "Missing discovery_data in response"},
    {"NoCertificate", certificate, Ok(""), "Missing certificate_id in response"},
    {"NoReset", reset, SsoReply(R"({"status":"no"})"), badStatus},
    {"NoStatus", token, SsoReply(R"({"token":"t"})"), badStatus},
    {"CapitalStatus", token, SsoReply(R"({"status":"OK","token":"t"})"), badStatus},
    {"BooleanStatus", token, SsoReply(R"({"status":true,"token":"t"})"), badStatus},
    {"Array", token, SsoReply(R"(["status"])"), badStatus},
    {"NoJson", token, SsoReply("<html>"), noObject},
    {"LengthZero", token, SsoReply(""), noObject},
};

INSTANTIATE_TEST_SUITE_P(SSOConnection, Exchanges, testing::ValuesIn(exchanges), nameOfRow);

TEST(SSOConnectionTest, PaysNoMemoryForAnAnnouncedLength) {
    const auto peakKibibytes = [] {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_maxrss;
    };
    Recorder service(ReadBytes, {"\xff\xff\xff\xff{}!"});
    const long before = peakKibibytes();
    EXPECT_EQ(Thrown([&] { SSOConnection::GetToken(host, service.Port()); }), "read: End of file");
    EXPECT_LT(peakKibibytes() - before, 32 * 1024);
}

TEST(SSOConnectionTest, AnnouncesARequestThatNobodyTakes) {
    const unsigned short closed = support::ScriptedServer({}).Port();
    support::LogCapture log;
    EXPECT_EQ(Thrown([&] { SSOConnection::Reset(host, closed); }), "connect: Connection refused");
    EXPECT_THROW(SSOConnection::Reset("localhost", closed), std::system_error);
    const std::string rest = ":" + std::to_string(closed) + R"(, request {"request":"reset"})";
    EXPECT_THAT(log.Texts(), ElementsAre("Connecting to SSO service at 127.0.0.1" + rest,
                                         "Connecting to SSO service at localhost" + rest));
}

}  // namespace
}  // namespace nox::tunnel_client
