#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <fstream>

#include "tests/support/Eventually.h"
#include "tunnel/PayloadMemory.h"

namespace nox::tunnel_client {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t blockBytes = 16384;
const std::string block(blockBytes, 'x');
constexpr std::size_t burstBlocks = 128;  // 2 MiB, the smallest burst

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool hasOwnAllocator = false;  // the sanitizer's; its figures are not those of the device
#else
constexpr bool hasOwnAllocator = true;
#endif

class PayloadMemoryTest : public testing::Test {
protected:
    void Copy(std::size_t count) {
        while (count-- > 0) copies.push_back(memory.Copy(block));
    }
    void Release(std::size_t count) {
        for (; count > 0; --count, copies.pop_back()) memory.Release(std::move(copies.back()));
    }
    // Whether it wants to give memory back later.
    bool HasTimer() {
        io.restart();
        io.poll();
        return !io.stopped();
    }

    asio::io_context io;
    PayloadMemory memory{io};
    std::vector<std::string> copies;
};

TEST_F(PayloadMemoryTest, CopiesExactlyAndUsesBlocksAgainThatAreNotTooLarge) {
    for (const std::size_t spareSize : {16384U, 131072U}) {
        for (const std::size_t size : {1U, 20U, 8191U, 8192U, 16383U, 16384U, 65535U, 65536U, 131072U}) {
            SCOPED_TRACE(std::to_string(size) + " of " + std::to_string(spareSize));
            PayloadMemory fresh(io);
            std::string first = fresh.Copy(std::string(spareSize, 'x'));
            const void* const spare = first.data();
            fresh.Release(std::move(first));
            const std::string bytes(size, 'y');
            const std::string copy = fresh.Copy(bytes);
            EXPECT_TRUE(copy == bytes);
            if (size <= spareSize && 2 * size >= spareSize) {
                EXPECT_EQ(copy.data(), spare);
            }
            EXPECT_LE(copy.capacity(), std::max<std::size_t>(2 * size, 15));
        }
    }
}

TEST_F(PayloadMemoryTest, HoldsSmallCopiesAmongLargeOnesInLittleMore) {
    constexpr std::size_t count = 5000;
    std::vector<std::string> small;
    small.reserve(count);
    Copy(40);
    Release(40);
    const std::size_t before = mallinfo2().uordblks;
    for (std::size_t i = 0; i < count; ++i) {
        Copy(1 + i % 3);
        small.push_back(memory.Copy("twenty bytes, always"));
        EXPECT_LE(small.back().capacity(), 40U);
        Release(1 + i % 3);
    }
    if (hasOwnAllocator) {
        EXPECT_LE(mallinfo2().uordblks, before + 300 * count);
    }
    for (std::string& copy : small) memory.Release(std::move(copy));
}

TEST_F(PayloadMemoryTest, KeepsNoMoreThanThirtyTwoBlocks) {
    Copy(100);
    const std::size_t before = mallinfo2().uordblks;
    Release(100);
    if (hasOwnAllocator) {
        EXPECT_LE(mallinfo2().uordblks, before - (100 - 32) * blockBytes);
    }
}

// Bytes copied at most, of which so many are released: a burst is over when less than a quarter is held.
TEST_F(PayloadMemoryTest, LooksOnlyForBurstsThatAreOver) {
    Copy(burstBlocks - 1);
    Release(burstBlocks - 1);
    EXPECT_FALSE(HasTimer()) << "a block too few";
    Copy(burstBlocks);
    Release(96);
    EXPECT_FALSE(HasTimer()) << "a quarter is held";
    Release(1);
    EXPECT_TRUE(HasTimer());
}

std::size_t ResidentBytes() {
    std::size_t total = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

TEST_F(PayloadMemoryTest, GivesBackTheMemoryOfABurstOnceASecond) {
    const auto begin = std::chrono::steady_clock::now();
    for (int burst = 0; burst < 3; ++burst) {
        copies.push_back(memory.Copy("early"));
        Copy(1000);
        std::string late = memory.Copy(std::string(5000, 'l'));
        copies.insert(copies.begin(), std::move(late));
        Release(1000);
    }
    const std::size_t resident = ResidentBytes();
    io.restart();
    EXPECT_EQ(io.run_for(support::patience), 1U) << "once for all of it";
    EXPECT_TRUE(io.stopped());
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 1s);
    if (hasOwnAllocator) {
        EXPECT_LE(ResidentBytes(), resident - 12000000);
    }
    for (const std::string& copy : copies) EXPECT_TRUE(copy == "early" || copy == std::string(5000, 'l'));
}

TEST_F(PayloadMemoryTest, LeavesNothingForLaterOnceTrimmed) {
    Copy(burstBlocks);
    Release(burstBlocks);
    ASSERT_TRUE(HasTimer());
    memory.Trim();
    EXPECT_FALSE(HasTimer());
    Copy(burstBlocks - 1);
    const void* const spare = copies.back().data();
    Release(burstBlocks - 1);
    memory.Trim();
    EXPECT_FALSE(HasTimer()) << "a burst is counted from the last trim on";
    copies.clear();
    Copy(32);
    EXPECT_NE(std::find_if(copies.begin(), copies.end(),
                           [&](const std::string& copy) { return copy.data() == spare; }),
              copies.end())
        << "without a burst its blocks stay";
}

}  // namespace
}  // namespace nox::tunnel_client
