#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <map>
#include <utility>

#include "registration/CurlConnection.h"
#include "tests/registration/Recorder.h"
#include "tests/support/LogCapture.h"

static std::map<CURLoption, long> options;  // those that were set to numbers

// This program's function notes the option and hands it on to libcurl's.
extern "C" CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
    std::va_list arguments;
    va_start(arguments, option);
    void* const value = va_arg(arguments, void*);
    va_end(arguments);
    if (option < CURLOPTTYPE_OBJECTPOINT) options[option] = reinterpret_cast<long>(value);
    static const auto real =
        reinterpret_cast<CURLcode (*)(CURL*, CURLoption, ...)>(dlsym(RTLD_NEXT, "curl_easy_setopt"));
    return real(handle, option, value);
}

namespace nox::tunnel_client {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;

/// Everything but the host header, which holds the port.
std::string ReadAll(support::Connection& connection) {
    const support::HttpRequest request = support::ReadHttpRequest(connection);
    std::string text = request.method + " " + request.target + "\n";
    for (const auto& [name, value] : request.headers)
        if (name != "Host") text.append(name).append(": ").append(value).append("\n");
    return text + request.body;
}

std::string Url(unsigned short port, const std::string& path = "/") {
    return "http://127.0.0.1:" + std::to_string(port) + path;
}

struct CurlConnectionTest : testing::Test {
    CurlConnection curl;
};

TEST_F(CurlConnectionTest, SendsTheTwoHeadersWithTheseOptionsAndNothingUnasked) {
    const std::string ok = support::HttpReply(200, "");
    Recorder server(ReadAll, {ok, ok, ok});
    const auto expectOptions = [](std::map<CURLoption, long> expected) {
        expected.insert({{CURLOPT_FOLLOWLOCATION, 1},
                         {CURLOPT_IPRESOLVE, CURL_IPRESOLVE_V4},
                         {CURLOPT_NOPROGRESS, 1},
                         {CURLOPT_MAXREDIRS, 50},
                         {CURLOPT_TCP_KEEPALIVE, 1},
                         {CURLOPT_TIMEOUT, 30}});
        EXPECT_EQ(std::exchange(options, {}), expected);
    };
    options.clear();
    curl.Get(Url(server.Port(), "/a?b=c"), "t1");
    expectOptions({{CURLOPT_HTTPGET, 1}});
    curl.Post(Url(server.Port()), "t2", "{\"a\":1}\0unsent"s);
    expectOptions({{CURLOPT_HTTPGET, 0}});
    curl.Delete(Url(server.Port()), "");
    expectOptions({});
    const std::string common = "Accept: */*\nContent-Type: application/json\nAuthorization: Bearer ";
    EXPECT_THAT(server.Heard(), ElementsAre("GET /a?b=c\n" + common + "t1\n",
                                            "POST /\n" + common + "t2\nContent-Length: 7\n{\"a\":1}",
                                            "DELETE /\n" + common + "\n"));
}

TEST_F(CurlConnectionTest, PutsTogetherALongBodyThatComesInChunks) {
    std::string reply = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    std::string body;
    for (int i = 1000; i < 3000; ++i) {
        const std::string chunk = std::to_string(i) + std::string(96, '\0');
        reply += "64\r\n" + chunk + "\r\n";
        body += chunk;
    }
    Recorder server(ReadAll, {reply + "0\r\n\r\n"});
    EXPECT_EQ(curl.Get(Url(server.Port()), "t").body, body);
}

TEST_F(CurlConnectionTest, LogsAndThrowsWhatFails) {
    const std::pair<std::vector<std::string>, int> table[] = {
        {{}, CURLE_COULDNT_CONNECT},
        {{""}, CURLE_GOT_NOTHING},
        {{"hello\r\n\r\n"}, CURLE_UNSUPPORTED_PROTOCOL},
        {{"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc"}, CURLE_PARTIAL_FILE}};
    for (const auto& [replies, code] : table) {
        support::LogCapture lines;
        Recorder server(ReadAll, replies);
        const std::string url = Url(server.Port(), "/x");
        EXPECT_EQ(Thrown([&] { curl.Delete(url, "t"); }), "curl_easy_perform() failed");
        EXPECT_THAT(lines.Texts(),
                    ElementsAre("Curl error, code: " + std::to_string(code) + ", url: " + url));
    }
}

}  // namespace
}  // namespace nox::tunnel_client
