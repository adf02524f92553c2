#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "lab/Frame.h"
#include "lab/FrameReader.h"
#include "lab/Members.h"
#include "lab/Signing.h"

namespace lab {

TEST(WireTest, AHeaderIsTypeLengthAndId) {
    const auto header = EncodeHeader(dataFrame, 131072, "abc");
    EXPECT_EQ(std::string(header.begin(), header.end()), std::string("\0\0\2\0\0abc0000000000000", 21));
    const auto decoded = DecodeHeader(
        "\x03\x00\x00\x01\xFE"
        "0123456789abcdef");
    EXPECT_EQ(decoded.type, controlFrame);
    EXPECT_EQ(decoded.payloadBytes, 510U);
    EXPECT_EQ(decoded.session, "0123456789abcdef");
}

TEST(WireTest, FramesComeWholeOutOfPiecesOfAnySize) {
    const std::string stream = std::string("\0\0\0\0\3", 5) + "0000000000000001" + "abc" +
                               std::string("\1\0\0\0\0", 5) + "0000000000000000" +
                               std::string("\0\0\0\0\1", 5) + "0000000000000002" + "d";
    for (std::size_t piece = 1; piece <= stream.size(); ++piece) {
        FrameReader reader;
        std::string seen;
        for (std::size_t start = 0; start < stream.size(); start += piece) {
            const std::string bytes = stream.substr(start, piece);
            bytes.copy(reader.Room(bytes.size()), bytes.size());
            reader.Received(bytes.size());
            while (const auto frame = reader.Next(3))
                seen += std::to_string(frame->type) + std::string(frame->session) +
                        std::string(frame->payload) + ";";
        }
        EXPECT_EQ(seen, "00000000000000001abc;10000000000000000;00000000000000002d;")
            << "pieces of " << piece;
    }
}

TEST(WireTest, AFrameTooLongIsRefusedByItsHeaderAlone) {
    FrameReader reader;
    std::string(
        "\0\0\0\0\4"
        "0000000000000001",
        21)
        .copy(reader.Room(21), 21);
    reader.Received(21);
    EXPECT_THROW(reader.Next(3), std::length_error);
    EXPECT_EQ(reader.Next(4), std::nullopt);
}

struct SignedObject {
    const char* name;
    std::string object, signature;  // by md5sum
};
class Signs : public testing::TestWithParam<SignedObject> {};
TEST_P(Signs, AsWorkedOutByHand) { EXPECT_EQ(Signature("pw", GetParam().object), GetParam().signature); }
INSTANTIATE_TEST_SUITE_P(
    Objects, Signs,
    testing::Values(
        SignedObject{"Empty", "{}", "F62C622F63EFAFE1C3E3D04C76C0784A"},
        SignedObject{"SortedByBytes", R"({"b":"1","a":"2","B":"3","ab":"4"})",
                     "DEE55C65902601BE74F5F26674939041"},
        SignedObject{"OnlySignIsLeftOut", R"({"sign":"x","Sign":"1","signs":"2"})",
                     "DA01F51C3B5829CCB4653398CC9A9C8F"},
        SignedObject{"TextsDecoded", R"({"a\"b":"c\/\u00e4"})", "FA319AEE23B68F916C3D33611C678BB5"},
        SignedObject{"OthersAsWritten", R"({ "n" : 1.50 , "o" : { "k" : [ 1 , "a b\/" ] } , "t" : true })",
                     "CEFC543BD12D663FD634E3C9D41D7A97"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(SigningTest, NumericAndTextualTimestampsSignAlike) {
    EXPECT_EQ(Signature("s", R"({"timestamp":1700000000000})"),
              Signature("s", R"({"timestamp":"1700000000000"})"));
}

TEST(SigningTest, LeavesTheObjectAsItIsAndAddsWhatItLacks) {
    const Stamp stamp{"1700000000000", "AAAAAAAAAAAAAAAA"};
    EXPECT_EQ(Sign("pw", R"({ "method":"x","n":1.50, "z":{}})", stamp),
              R"({ "method":"x","n":1.50, "z":{},"timestamp":"1700000000000","noncestr":"AAAAAAAAAAAAAAAA",)"
              R"("sign":"56C48ECE09C8D906A7B23CA1514BADE0"})");
    EXPECT_EQ(Sign("pw", R"({"sign":"wrong","timestamp":5})", stamp),
              R"({"sign":"wrong","timestamp":5,"noncestr":"AAAAAAAAAAAAAAAA"})");
}

class RefusesToSign : public testing::TestWithParam<std::string> {};
TEST_P(RefusesToSign, WhatIsNoObject) { EXPECT_THROW(Signature("pw", GetParam()), std::invalid_argument); }
INSTANTIATE_TEST_SUITE_P(Texts, RefusesToSign,
                         testing::Values("", "[]", "1", "{", "{} {}", R"({"a":1,})", R"({"a":1,"a":2})",
                                         "{\"a\":\"\xFF\"}", std::string(8192, '['),
                                         "{\"a\":" + std::string(4000, '[') + "}"));

TEST(MembersTest, DeepNestingCostsNoStack) {
    const std::string deep = std::string(60000, '[') + std::string(60000, ']');
    EXPECT_EQ(Members("{\"a\":" + deep + "}").front().second, deep);
}

}  // namespace lab
