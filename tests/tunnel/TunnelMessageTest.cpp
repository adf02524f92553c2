#include <gtest/gtest.h>

#include <utility>

#include "tunnel/TunnelMessage.h"

namespace nox::tunnel_client {
namespace {

using namespace std::string_literals;

TEST(TunnelMessageTest, EncodesByteForByte) {
    const std::pair<TunnelMessage, std::string> table[] = {
        {TunnelMessage(1), "\x01\0\0\0\0"s + "0000000000000000"},
        {{3, "abcdefghijklmnop", "{}"},
         "\x03\0\0\0\x02"s + "0000000000000000"},  // control never carries an id
        {{0, "abcdefghijklmnop", std::string(16384, 'x')}, "\0\0\0\x40\0"s + "abcdefghijklmnop"},
        {{0, "abc", "x"}, "\0\0\0\0\x01"s + "abc0000000000000"},
        {{0, "abcdefghijklmnopq", "x"}, "\0\0\0\0\x01"s + "abcdefghijklmnop"}};
    for (const auto& [message, header] : table) {
        const HeaderBytes bytes = EncodeHeader(message);
        EXPECT_EQ(std::string(bytes.begin(), bytes.end()), header);
    }
}

TEST(TunnelMessageTest, DecodesUnsignedBigEndian) {
    HeaderBytes bytes;
    const std::string text = "\xFF\xFE\xDC\xBA\x98"s +
                             "\0"
                             "123456789abcde\0"s;
    ASSERT_EQ(text.copy(bytes.data(), bytes.size()), bytes.size());
    const FrameHeader header = DecodeHeader(bytes);
    EXPECT_EQ(header.type, 255);
    EXPECT_EQ(header.length, 0xFEDCBA98U);
    EXPECT_EQ(std::string(header.session.begin(), header.session.end()), text.substr(5));
}

}  // namespace
}  // namespace nox::tunnel_client
