#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "lab/wire/ControlMessage.h"
#include "lab/wire/FrameReader.h"
#include "lab/wire/Signing.h"

namespace lab {

TEST(WireTest, FramesComeWholeOutOfPiecesOfAnySize) {
    const std::string stream = std::string("\0\0\0\0\3", 5) + "0000000000000001" + "abc" +
                               std::string("\1\0\0\0\0", 5) + "0000000000000000" +
                               std::string("\0\0\0\0\1", 5) + "0000000000000002" + "d";
    for (std::size_t piece = 1; piece <= stream.size(); ++piece) {
        FrameReader reader;
        std::string seen;
        for (std::size_t start = 0; start < stream.size(); start += piece) {
            reader.Received(stream.copy(reader.Room(piece), piece, start));
            while (const auto frame = reader.Next(3))
                seen.append(std::to_string(frame->type)).append(frame->session).append(frame->payload) += ';';
        }
        EXPECT_EQ(seen, "00000000000000001abc;10000000000000000;00000000000000002d;") << piece;
    }
}

TEST(SigningTest, SignsAsWorkedOutByHand) {  // with md5sum
    const std::pair<const char*, const char*> rows[] = {
        {"{}", "F62C622F63EFAFE1C3E3D04C76C0784A"},
        {R"({"b":"1","a":"2","B":"3","ab":"4"})", "DEE55C65902601BE74F5F26674939041"},
        {R"({"sign":"x","Sign":"1","signs":"2"})", "DA01F51C3B5829CCB4653398CC9A9C8F"},
        {R"({"a\"b":"c\/\u00e4"})", "FA319AEE23B68F916C3D33611C678BB5"},
        {R"({ "n" : 1.50 , "o" : { "k" : [ 1 , "a b\/" ] } , "t" : true })",
         "CEFC543BD12D663FD634E3C9D41D7A97"}};
    for (const auto& [object, signature] : rows)
        EXPECT_EQ(Signature("pw", Members(object)), signature) << object;
}

TEST(SigningTest, LeavesTheObjectAsItIsAndAddsWhatItLacks) {
    const Stamp stamp{"1700000000000", "AAAAAAAAAAAAAAAA"};
    EXPECT_EQ(Sign("pw", R"({ "method":"x","n":1.50, "z":{}})", stamp),
              R"({ "method":"x","n":1.50, "z":{},"timestamp":"1700000000000","noncestr":"AAAAAAAAAAAAAAAA",)"
              R"("sign":"56C48ECE09C8D906A7B23CA1514BADE0"})");
    EXPECT_EQ(Sign("pw", R"({"sign":"wrong","timestamp":5})", stamp),
              R"({"sign":"wrong","timestamp":5,"noncestr":"AAAAAAAAAAAAAAAA"})");
}

/// The bytes of the hex block in docs/protocol.md: 16 columns of two digits a line, then the same as text.
std::string WorkedExample() {
    std::ifstream page(PROTOCOL_PAGE);
    std::string bytes, line;
    while (std::getline(page, line) && line != "```hex") continue;
    while (std::getline(page, line) && line != "```") {
        std::istringstream columns(line.substr(0, 48));
        for (unsigned value = 0; columns >> std::hex >> value;) bytes += static_cast<char>(value);
    }
    return bytes;
}

TEST(SigningTest, TheWorkedExampleOfTheProtocolPageIsWhatTheLabSends) {
    const std::string payload =
        Sign("bench-secret", NewSession("0000000000000001", 8080), {"1700000000000", "AbCdEfGhIjKlMnOp"});
    const auto header = EncodeHeader(controlFrame, payload.size(), noSession);
    EXPECT_EQ(WorkedExample(), std::string(header.begin(), header.end()) + payload);
}

}  // namespace lab
