#include <gtest/gtest.h>

#include <string>

#include "bench/soak/KeyedStream.h"
#include "bench/soak/Plan.h"

namespace {

using soak::Direction;
using soak::KeyedStream;

std::string Bytes(const KeyedStream& stream, std::uint64_t position, std::size_t size) {
    std::string bytes(size, '\0');
    stream.Fill(position, bytes.data(), size);
    return bytes;
}

const KeyedStream mine(7, 42, Direction::ToService);

TEST(KeyedStreamTest, IsTheSameInPiecesOfAnySize) {
    const std::string whole = Bytes(mine, 0, 20000);
    for (const std::size_t size : {1U, 3U, 8U, 4096U, 4097U}) {
        for (std::size_t at = 0; at < whole.size(); at += size) {
            const std::string piece = whole.substr(at, size);
            ASSERT_EQ(Bytes(mine, at, piece.size()), piece) << size << " at " << at;
            ASSERT_EQ(mine.CountWrong(at, piece), 0U);
        }
    }
}

TEST(KeyedStreamTest, BeginsWithTheSessionsNumber) {
    EXPECT_EQ(Bytes(mine, 0, 8), std::string("\x2A\0\0\0\0\0\0\0", 8));
    EXPECT_EQ(KeyedStream::NumberIn(Bytes({7, 0x0102030405060708, Direction::ToClient}, 0, 100)),
              0x0102030405060708U);
}

struct Strange {
    const char* name;
    std::string bytes;  // where mine are expected, from position 5000
    std::size_t atLeast;
};
class NoticesBytes : public testing::TestWithParam<Strange> {};
TEST_P(NoticesBytes, ThatDoNotBelongThere) {
    EXPECT_GE(mine.CountWrong(5000, GetParam().bytes), GetParam().atLeast);
}
std::string Flipped() {
    std::string bytes = Bytes(mine, 5000, 9000);
    bytes[8999] = static_cast<char>(bytes[8999] ^ 1);
    return bytes;
}
INSTANTIATE_TEST_SUITE_P(
    Kinds, NoticesBytes,
    testing::Values(Strange{"OneBit", Flipped(), 1},
                    Strange{"OneByteRepeated", Bytes(mine, 4999, 9000), 8900},
                    Strange{"OneByteMissing", Bytes(mine, 5001, 9000), 8900},
                    Strange{"OneWordMissing", Bytes(mine, 5008, 9000), 8900},
                    Strange{"OtherSession", Bytes({7, 43, Direction::ToService}, 5000, 9000), 8900},
                    Strange{"OtherDirection", Bytes({7, 42, Direction::ToClient}, 5000, 9000), 8900},
                    Strange{"NextSessionsOtherDirection", Bytes({7, 41, Direction::ToClient}, 5000, 9000),
                            8900},
                    Strange{"OtherSeed", Bytes({8, 42, Direction::ToService}, 5000, 9000), 8900},
                    Strange{"Zeros", std::string(9000, '\0'), 8900}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(PlanTest, IsDrawnFromTheSeedAloneAndMakesEveryKindOfSession) {
    soak::Random one(99), same(99);
    std::array<int, soak::endings> drawn{};
    int clientStalls = 0, serviceStalls = 0;
    for (int i = 0; i < 500; ++i) {
        const auto plan = soak::DrawPlan(one), again = soak::DrawPlan(same);
        EXPECT_EQ(plan.ending, again.ending);
        EXPECT_EQ(plan.client.bytesToSend, again.client.bytesToSend);
        EXPECT_EQ(plan.service.stall, again.service.stall);
        EXPECT_GE(plan.client.bytesToSend, soak::KeyedStream::numberBytes)
            << "or its service could not know it";
        ++drawn.at(static_cast<std::size_t>(plan.ending));
        clientStalls += plan.client.Stalls();
        serviceStalls += plan.service.Stalls();
    }
    for (const int count : drawn) EXPECT_GT(count, 5);
    EXPECT_GT(clientStalls, 5);
    EXPECT_GT(serviceStalls, 5);
}

}  // namespace
