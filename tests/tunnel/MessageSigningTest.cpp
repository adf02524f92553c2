#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <utility>

#include "tunnel/MessageSigning.h"

namespace nox::tunnel_client {
namespace {

// Members in order of their names, strings decoded, everything else as its text; only the exact name "sign"
// is left out. The digests were made with md5sum from texts put together by hand.
TEST(MessageSigningTest, SignsWhatWasPutTogetherByHand) {
    const std::pair<const char*, const char*> table[] = {
        {R"({"timestamp":"1700000000000","method":"message","sign":"x","noncestr":"abcdefghijklmnop"})",
         "4020B571B51BAE7521590E0F802D0F29"},
        {R"({"timestamp":17})", "B843BFE7B7E84A2D5017493B4B628708"},
        {R"({"timestamp":"17","sign":1})", "B843BFE7B7E84A2D5017493B4B628708"},
        {R"({"x":"keep","Sign":"","timestamp":{"t": [1, 2]}})", "EFD7417443D4D44C8735ADA0F0D337DE"},
        {R"({"b":true,"timestamp":17,"ab":[ 1 ,{"b":null} ],"sign2":"no\n","Sign":"Xa","a":1})",
         "CFA01949F2A4CEA204770C3FA5B04CD5"}};
    for (const auto& [message, signature] : table)
        EXPECT_EQ(ComputeSign("secret", json::jobject::parse(message)), signature) << message;
}

TEST(MessageSigningTest, RepeatsItsFirstNonceAtEveryStart) {
    std::srand(1);  // as a process starts, whichever test ran before
    json::jobject message;
    message["method"] = "verify";
    message["sign"] = "old";
    SignMessage("secret", message);
    EXPECT_EQ(message["noncestr"].as_string(), "pkDHTxmMR18N2l9k");  // glibc's rand()
    EXPECT_TRUE(std::regex_match(message["timestamp"].as_string(), std::regex("1[0-9]{12}")));
    EXPECT_EQ(message["sign"].as_string(), ComputeSign("secret", message));
    EXPECT_EQ(message.list_keys(), (std::vector<std::string>{"method", "sign", "timestamp", "noncestr"}));
    const std::string first = message["sign"].as_string();
    SignMessage("secret", message);
    EXPECT_NE(message["sign"].as_string(), first);
}

}  // namespace
}  // namespace nox::tunnel_client
