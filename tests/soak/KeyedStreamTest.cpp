#include <gtest/gtest.h>

#include <string>

#include "soak/KeyedStream.h"
#include "soak/Plan.h"

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
    for (const std::size_t size : {1U, 3U, 8U, 4096U, 4097U}) {
        for (std::size_t at = 0; at < whole.size(); at += size) {
            const std::string piece = whole.substr(at, size);
            ASSERT_EQ(Bytes(mine, at, piece.size()), piece) << size << " at " << at;
            ASSERT_EQ(mine.CountWrong(at, piece), 0U);
        }
    }
    EXPECT_EQ(KeyedStream::NumberIn(Bytes({7, 0x0102030405060708, Direction::ToClient}, 0, 100)),
              0x0102030405060708U);
}

TEST(KeyedStreamTest, NoticesBytesThatDoNotBelongThere) {
    std::string oneBit = Bytes(mine, 5000, 9000);
    oneBit[8999] = static_cast<char>(oneBit[8999] ^ 1);
    EXPECT_EQ(mine.CountWrong(5000, oneBit), 1U);
    const std::pair<const char*, std::string> rows[] = {
        {"one byte repeated", Bytes(mine, 4999, 9000)},
        {"one byte missing", Bytes(mine, 5001, 9000)},
        {"one word missing", Bytes(mine, 5008, 9000)},
        {"other session", Bytes({7, 43, Direction::ToService}, 5000, 9000)},
        {"other direction", Bytes({7, 42, Direction::ToClient}, 5000, 9000)},
        {"next session's other direction", Bytes({7, 41, Direction::ToClient}, 5000, 9000)},
        {"other seed", Bytes({8, 42, Direction::ToService}, 5000, 9000)},
        {"zeros", std::string(9000, '\0')}};
    for (const auto& [name, bytes] : rows) EXPECT_GE(mine.CountWrong(5000, bytes), 8900U) << name;
}

TEST(PlanTest, IsDrawnFromTheSeedAloneAndMakesEveryKindOfSession) {
    soak::Random one(99), same(99);
    std::array<int, soak::endings> drawn{};
    int clientStalls = 0, serviceStalls = 0;
    for (int i = 0; i < 500; ++i) {
        const auto plan = soak::DrawPlan(one), again = soak::DrawPlan(same);
        EXPECT_EQ(plan.ending, again.ending);
        EXPECT_EQ(plan.client.bytesToSend, again.client.bytesToSend);
        EXPECT_EQ(plan.service.stall, again.service.stall);
        EXPECT_GE(plan.client.bytesToSend, KeyedStream::numberBytes) << "or its service could not know it";
        ++drawn.at(static_cast<std::size_t>(plan.ending));
        clientStalls += plan.client.Stalls();
        serviceStalls += plan.service.Stalls();
    }
    for (const int count : drawn) EXPECT_GT(count, 5);
    EXPECT_TRUE(clientStalls > 5 && serviceStalls > 5) << clientStalls << ' ' << serviceStalls;
}

}  // namespace
