#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "tunnel/PayloadQueue.h"

namespace nox::tunnel_client {
namespace {

using Sizes = std::deque<std::size_t>;

// What the queue is to do, done with one text; and the memory in which payloads arrive, gone once it may be.
class PayloadQueueTest : public testing::Test {
protected:
    void Append(std::size_t size) {
        auto& payload = *arrived.emplace_back(std::make_unique<std::string>(size, '\0'));
        for (char& one : payload) one = static_cast<char>(++appended * 31 % 251);
        queue.Append(payload);
        bytes += payload;
        sizes.push_back(size);
        arrivedBytes += size;
    }
    void KeepArrived() {
        queue.KeepArrived();
        for (const auto& payload : arrived) payload->assign(payload->size(), '?');
        arrived.clear();
        arrivedBytes = 0;
    }
    void Remove(std::size_t size) {
        const std::size_t kept = bytes.size() - arrivedBytes;
        if (kept == 0) arrivedBytes -= size;
        bytes.erase(0, size);
        begun += size;
        Sizes done, expected;
        queue.Remove(size, [&](std::size_t payload) { done.push_back(payload); });
        for (; !sizes.empty() && begun >= sizes.front(); sizes.pop_front()) {
            expected.push_back(sizes.front());
            begun -= sizes.front();
        }
        ASSERT_EQ(done, expected);
    }
    // Offered are the next bytes; as many as may be.
    std::size_t CheckNext(bool firstOnly) {
        const PayloadQueue::Pieces pieces = firstOnly ? queue.Next(1) : queue.Next();
        std::string offered;
        for (const asio::const_buffer& piece : pieces)
            offered.append(static_cast<const char*>(piece.data()), piece.size());
        EXPECT_TRUE(offered == bytes.substr(0, offered.size()));
        const std::size_t kept = bytes.size() - arrivedBytes;
        if (firstOnly) {
            EXPECT_EQ(offered.size(), sizes.front() - begun);
        } else if (pieces.back().size() == 0) {
            EXPECT_EQ(offered.size(), kept > 0 ? kept : arrivedBytes);
        }
        return offered.size();
    }

    asio::io_context io;
    PayloadMemory memory{io};
    PayloadQueue queue{memory};
    std::vector<std::unique_ptr<std::string>> arrived;
    std::string bytes;  // that wait
    Sizes sizes;        // of the payloads that wait
    std::size_t begun = 0, arrivedBytes = 0, appended = 0;
};

TEST_F(PayloadQueueTest, KeepsOrderBytesAndPayloadsWhateverIsDone) {
    std::mt19937 random(1);
    const auto below = [&](std::size_t limit) { return random() % limit; };
    const std::size_t usual[] = {1, 20, 1448, 8191, 8192, 16383, 16384, 16385, 32768, 131071, 131072};
    for (int step = 0; step < 4000 && !HasFailure(); ++step) {
        const std::size_t done = below(bytes.size() > 2000000 ? 6 : 12);
        if (done >= 5) Append(below(2) == 0 ? usual[below(std::size(usual))] : 1 + below(20000));
        if (done == 4) KeepArrived();
        if (done < 4 && !queue.IsEmpty()) {
            const std::size_t offered = CheckNext(below(2) == 0);
            ASSERT_GT(offered, 0U);
            Remove(below(2) == 0 ? offered : 1 + below(offered));
        }
        EXPECT_EQ(queue.IsEmpty(), sizes.empty());
    }
    KeepArrived();
    while (!queue.IsEmpty() && !HasFailure()) Remove(CheckNext(false));
    EXPECT_EQ(bytes, "");
}

TEST_F(PayloadQueueTest, OffersWhatHasArrivedWhereItLies) {
    Append(20);
    Append(131072);
    const PayloadQueue::Pieces pieces = queue.Next();
    EXPECT_EQ(pieces[0].data(), arrived[0]->data());
    EXPECT_EQ(pieces[1].data(), arrived[1]->data());
    EXPECT_EQ(pieces[2].size(), 0U);
    KeepArrived();
    EXPECT_EQ(CheckNext(false), 20U + 131072);
}

// A block that is given back is the next one to be used; one that is only freed goes to whoever asks first.
TEST_F(PayloadQueueTest, GivesBackMemoryThatHasBeenWrittenOrIsNotNeededAnyMore) {
    const std::string block(16384, 'x');
    Append(block.size());
    KeepArrived();
    const void* written = queue.Next()[0].data();
    Remove(block.size());
    const std::string taken = block;  // takes what has been freed
    EXPECT_EQ(memory.Copy(block).data(), written);
    const void* dropped;
    {
        PayloadQueue other(memory);
        other.Append(block);
        other.KeepArrived();
        dropped = other.Next()[0].data();
    }
    const std::string takenToo = block;  // takes what has been freed
    EXPECT_EQ(memory.Copy(block).data(), dropped);
}

}  // namespace
}  // namespace nox::tunnel_client
