#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>

#include "tunnel/MessageSigning.h"

namespace nox::tunnel_client {
namespace {

// The digests were made with md5sum from texts put together by hand.
struct Signed {
    const char* name;
    const char* message;
    const char* signature;
};
class ComputesSignatures : public testing::TestWithParam<Signed> {};

TEST_P(ComputesSignatures, OverTheMembersInOrderOfTheirNames) {
    const auto message = json::jobject::parse(GetParam().message);
    EXPECT_EQ(ComputeSign("secret", message), GetParam().signature);
}

INSTANTIATE_TEST_SUITE_P(
    Messages, ComputesSignatures,
    testing::Values(
        Signed{"SortedWithoutSign",
               R"({"timestamp":"1700000000000","method":"message","sign":"x","noncestr":"abcdefghijklmnop"})",
               "4020B571B51BAE7521590E0F802D0F29"},
        Signed{"NumberAsTimestamp", R"({"timestamp":17})", "B843BFE7B7E84A2D5017493B4B628708"},
        Signed{"TextAsTimestamp", R"({"timestamp":"17","sign":1})", "B843BFE7B7E84A2D5017493B4B628708"},
        Signed{"OnlyTheExactNameSignIsLeftOut", R"({"x":"keep","Sign":"","timestamp":{"t": [1, 2]}})",
               "EFD7417443D4D44C8735ADA0F0D337DE"},
        Signed{"RawTextOfWhatIsNoString",
               R"({"b":true,"timestamp":17,"ab":[ 1 ,{"b":null} ],"sign2":"no\n","Sign":"Xa","a":1})",
               "CFA01949F2A4CEA204770C3FA5B04CD5"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(MessageSigningTest, NeedsATimestamp) {
    try {
        ComputeSign("secret", json::jobject::parse(R"({"method":"message"})"));
        FAIL() << "signed without a timestamp";
    } catch (const json::invalid_key& error) {
        EXPECT_STREQ(error.what(), "timestamp");
    }
}

TEST(MessageSigningTest, DigestsInUpperCase) {
    EXPECT_EQ(Md5HexUpper(""), "D41D8CD98F00B204E9800998ECF8427E");
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
