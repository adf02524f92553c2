#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/Loopback.h"
#include "tunnel/ReadTurns.h"

namespace nox::tunnel_client {
namespace {

using namespace std::chrono_literals;
using support::RunUntil;

struct Line : ReadTurns::Line {
    std::size_t FramesWaiting() const override { return frames; }
    std::uint64_t Waits() const override { return waits; }
    std::uint64_t Departed() const override { return isMoving ? ++departed : departed; }
    std::size_t frames = 0;
    std::uint64_t waits = 0;
    bool isMoving = false;
    mutable std::uint64_t departed = 0;
};

class ReadTurnsTest : public testing::Test {
protected:
    // Notes its turns, as in "A4 ", and reads something or not.
    struct Reader : ReadTurns::Reader {
        Reader(ReadTurnsTest& readTurnsTest, char letter) : test(readTurnsTest), name(letter) {}
        void ReadInTurn(int frames) override {
            test.told += name + (frames == ReadTurns::allFrames ? "all" : std::to_string(frames)) + " ";
            test.line.frames += reads;
        }
        ReadTurnsTest& test;
        char name;
        std::size_t reads = 1;
    };

    std::shared_ptr<Reader> Ask(char name, std::size_t reads = 1) {
        const auto reader = std::make_shared<Reader>(*this, name);
        reader->reads = reads;
        turns.Wait(*reader);
        return reader;
    }
    // What had waited has been written.
    std::string Turns() {
        line.frames = 0;
        turns.GiveTurns();
        return std::exchange(told, "");
    }

    asio::io_context io;
    Line line;
    ReadTurns turns{io, line, 30ms};
    std::string told;
};

struct Asked {
    const char* name;
    std::size_t waiting;  // frames
    int own;              // of them
    bool mayRead;
};
class ReadTurnsAsked : public ReadTurnsTest, public testing::WithParamInterface<Asked> {};
TEST_P(ReadTurnsAsked, LetsReadOnIfNobodyElseIsKeptWaiting) {
    Reader reader(*this, 'R');
    EXPECT_EQ(turns.MayRead(reader, 0), 8);
    line.frames = GetParam().waiting;
    EXPECT_EQ(turns.MayRead(reader, GetParam().own), GetParam().mayRead ? 8 : 0);
    const auto other = Ask('A');
    EXPECT_EQ(turns.MayRead(reader, GetParam().own), 0) << "out of turn";
}
INSTANTIATE_TEST_SUITE_P(Frames, ReadTurnsAsked,
                         testing::Values(Asked{"None", 0, 0, true}, Asked{"OwnOnly", 19, 19, true},
                                         Asked{"OneOfAnother", 1, 0, false},
                                         Asked{"OwnAndOneOfAnother", 20, 19, false},
                                         Asked{"NoneAndACountBelowZero", 0, -1, true},
                                         Asked{"OneAndACountBelowZero", 1, -1, false}),
                         [](const auto& row) { return std::string(row.param.name); });

// Twenty stall limits long; the other may read whenever the queue is empty.
TEST_F(ReadTurnsTest, AreTakenInsteadOfReadingAheadForAWhileAfterAnotherHasRead) {
    Reader busy(*this, 'B'), other(*this, 'O');
    EXPECT_EQ(turns.MayRead(busy, 0), 8);
    EXPECT_EQ(turns.MayRead(other, 0), 8);
    const auto shared = std::chrono::steady_clock::now();
    EXPECT_EQ(turns.MayRead(busy, 0), 8);
    line.frames = 8;
    const bool mayRead = turns.MayRead(busy, 8) > 0;
    EXPECT_TRUE(!mayRead || std::chrono::steady_clock::now() - shared >= 600ms) << "out of turn";
    ASSERT_TRUE(RunUntil(io, [&] { return turns.MayRead(busy, 8) == 8; })) << "alone again";
    EXPECT_GE(std::chrono::steady_clock::now() - shared, 600ms);
    EXPECT_EQ(turns.MayRead(other, 8), 0) << "these are not its frames";
}

TEST_F(ReadTurnsTest, AreGivenInTheOrderOfAskingUntilAFrameWaits) {
    const auto a = Ask('A', 0), b = Ask('B', 1), c = Ask('C', 0), d = Ask('D', 0);
    EXPECT_EQ(Turns(), "A1 B2 ");
    turns.Wait(*a);
    EXPECT_EQ(Turns(), "C4 D8 A8 ");
    EXPECT_EQ(Turns(), "") << "one for each time of asking";
}

TEST_F(ReadTurnsTest, AreNotGivenWhileAFrameWaits) {
    const auto reader = Ask('A');
    line.frames = 1;
    turns.GiveTurns();
    EXPECT_EQ(told, "");
}

TEST_F(ReadTurnsTest, AreOneFrameUntilTheLineHasTakenTwoAtOnceAndThenDouble) {
    const auto a = Ask('A'), b = Ask('B'), c = Ask('C');
    std::string all;
    for (const bool hadToWait : {false, true, false, false, false, true, true, false, true}) {
        if (hadToWait) line.waits += 2;
        all += Turns();
        turns.Wait(*(all[all.size() - 3] == 'A' ? a : all[all.size() - 3] == 'B' ? b : c));
    }
    EXPECT_EQ(all, "A1 B1 C1 A2 B4 C1 A1 B1 C1 ");
}

TEST_F(ReadTurnsTest, AreLongWhenNobodyElseWaits) {
    const auto a = Ask('A');
    EXPECT_EQ(Turns(), "A8 ");
    ++line.waits;
    turns.Wait(*a);
    EXPECT_EQ(Turns(), "A8 ");
}

TEST_F(ReadTurnsTest, AreNotUsedUpByReadersThatHaveLeft) {
    const auto a = Ask('A'), b = Ask('B'), c = Ask('C'), d = Ask('D'), e = Ask('E');
    ++line.waits;
    turns.Leave(*a);
    turns.Leave(*d);
    EXPECT_EQ(Turns(), "B1 ");
    EXPECT_EQ(Turns(), "C1 ");
    EXPECT_EQ(Turns(), "E8 ") << "nobody else waits any more";
    line.frames = 0;
    EXPECT_EQ(turns.MayRead(*e, 0), 8) << "nobody waits";
}

TEST_F(ReadTurnsTest, EndWhenNothingDepartsAndAllReadOneAfterTheOther) {
    line.frames = 1;
    const auto begin = std::chrono::steady_clock::now();
    const auto a = Ask('A'), b = Ask('B'), c = Ask('C');
    ASSERT_TRUE(RunUntil(io, [&] { return !told.empty(); }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 30ms);
    EXPECT_EQ(told, "Aall ");
    EXPECT_EQ(turns.MayRead(*a, 0), ReadTurns::allFrames) << "one that asks now";
    io.run_one();
    EXPECT_EQ(told, "Aall Ball ") << "the loop has a turn in between";
    ++line.departed;
    EXPECT_EQ(turns.MayRead(*a, 0), 0);
    io.run_one();
    EXPECT_EQ(told, "Aall Ball ") << "it moves again";
    told.clear();
    EXPECT_EQ(Turns(), "C8 ");
    EXPECT_TRUE(support::RunToTheEnd(io)) << "nobody waits";
}

TEST_F(ReadTurnsTest, GoOnWhileTheLineMovesHoweverSlowly) {
    line.frames = 1;
    line.isMoving = true;
    const auto reader = Ask('A');
    for (int timers = 0; timers < 5; ++timers) io.run_one();
    EXPECT_EQ(told, "");
    line.isMoving = false;
    ASSERT_TRUE(RunUntil(io, [&] { return told == "Aall "; })) << "and end when it stands";
}

// Each time that it turns out to have paused only, up to eight times as long.
TEST_F(ReadTurnsTest, WaitLongerForALineThatPausesNowAndThen) {
    line.frames = 1;
    for (const auto limit : {30ms, 60ms, 120ms, 240ms, 240ms}) {
        SCOPED_TRACE(limit.count());
        told.clear();
        const auto begin = std::chrono::steady_clock::now();
        const auto reader = Ask('A');
        ASSERT_TRUE(RunUntil(io, [&] { return told == "Aall "; }));
        EXPECT_GE(std::chrono::steady_clock::now() - begin, limit);
        ++line.departed;
        EXPECT_EQ(turns.MayRead(*reader, 0), 0);
        EXPECT_TRUE(support::RunToTheEnd(io));
    }
}

TEST_F(ReadTurnsTest, AskTheLineNoMoreOnceItHasMovedAgain) {
    line.frames = 1;
    const auto reader = Ask('A');
    ASSERT_TRUE(RunUntil(io, [&] { return told == "Aall "; }));
    ++line.departed;
    EXPECT_EQ(turns.MayRead(*reader, 0), 0);
    line.isMoving = true;
    const std::uint64_t asked = line.departed;
    for (int times = 0; times < 10; ++times) turns.MayRead(*reader, 0);
    EXPECT_EQ(line.departed, asked);
}

TEST_F(ReadTurnsTest, AreWatchedOnlyWhileSomebodyWaits) {
    line.isMoving = true;
    auto left = Ask('A'), served = Ask('B');
    turns.Leave(*left);
    EXPECT_EQ(Turns(), "B8 ");
    EXPECT_TRUE(support::RunToTheEnd(io));
    line.isMoving = false;
    line.frames = 1;
    turns.Wait(*left);
    ASSERT_TRUE(RunUntil(io, [&] { return told == "Aall "; })) << "watched again";
    EXPECT_TRUE(support::RunToTheEnd(io));
}

}  // namespace
}  // namespace nox::tunnel_client
