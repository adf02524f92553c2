#include <gtest/gtest.h>

#include <asio.hpp>
#include <filesystem>

namespace {

// The kernel may refuse to watch a descriptor, and asio would not notice: a timer on one would never come.
TEST(EventLoopTest, HasTimersThatNeedNoDescriptor) {
    asio::io_context io;
    asio::steady_timer timer(io, std::chrono::milliseconds(1));
    bool came = false;
    timer.async_wait([&](std::error_code error) { came = !error; });
    for (const auto& descriptor : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const auto target = std::filesystem::read_symlink(descriptor, gone).string();
        EXPECT_EQ(target.find("timerfd"), std::string::npos) << target;
    }
    io.run_for(std::chrono::seconds(5));
    EXPECT_TRUE(came);
}

}  // namespace
