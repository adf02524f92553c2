#include <gtest/gtest.h>

#include "soak/KeyedStream.h"

namespace {

using soak::Direction;
using soak::KeyedStream;

std::string Bytes(const KeyedStream& stream, std::uint64_t position, std::size_t size) {
    std::string bytes(size, '\0');
    stream.Fill(position, bytes.data(), size);
    return bytes;
}

const KeyedStream mine(7, 42, Direction::ToService);

TEST(KeyedStreamTest, IsTheSameInPiecesOfAnySizeAndBeginsWithTheSessionsNumber) {
    const std::string whole = Bytes(mine, 0, 20000);
    for (const std::size_t size : {1U, 3U, 8U, 4097U})
        for (std::size_t at = 0; at + size <= whole.size(); at += size)
            ASSERT_EQ(Bytes(mine, at, size), whole.substr(at, size));
    EXPECT_EQ(KeyedStream::NumberIn(whole), 42U);
}

TEST(KeyedStreamTest, NoticesBytesThatDoNotBelongThere) {
    std::string bytes = Bytes(mine, 5000, 9000);
    EXPECT_EQ(mine.CountWrong(5000, bytes), 0U);
    bytes[8999] = static_cast<char>(bytes[8999] ^ 1);
    EXPECT_EQ(mine.CountWrong(5000, bytes), 1U);
    for (const std::uint64_t place : {4999U, 5008U}) EXPECT_GE(mine.CountWrong(place, bytes), 8900U);
    const KeyedStream others[] = {{7, 43, Direction::ToService},
                                  {7, 42, Direction::ToClient},
                                  {7, 41, Direction::ToClient},
                                  {8, 42, Direction::ToService}};
    for (const auto& other : others) EXPECT_GE(other.CountWrong(5000, bytes), 8900U);
}

}  // namespace
