#include <gtest/gtest.h>

#include "tunnel/UploadWindow.h"

namespace nox::tunnel_client {
namespace {

TEST(UploadWindowTest, PausesOnceAtTwentyAndGoesOnOnceAtFourteen) {
    UploadWindow window;
    for (int frames = 1; frames <= 25; ++frames) {
        EXPECT_EQ(window.OnQueued(), frames == 20) << frames;
        EXPECT_EQ(window.IsPaused(), frames >= 20) << frames;
        EXPECT_EQ(window.Pending(), frames);
        EXPECT_EQ(window.Room(), 20 - frames);
    }
    for (int frames = 24; frames >= 0; --frames) {
        EXPECT_EQ(window.OnWritten(), frames == 14) << frames;
        EXPECT_EQ(window.IsPaused(), frames > 14) << frames;
    }
}

TEST(UploadWindowTest, NeitherPausesNorGoesOnInBetween) {
    UploadWindow window;
    while (window.Pending() < 14) window.OnQueued();
    for (int round = 0; round < 3; ++round) {
        while (window.Pending() < 19) EXPECT_FALSE(window.OnQueued()) << window.Pending();
        while (window.Pending() > 10) EXPECT_FALSE(window.OnWritten()) << window.Pending();
        while (window.Pending() < 19) EXPECT_FALSE(window.OnQueued()) << window.Pending();
        EXPECT_TRUE(window.OnQueued());
        while (window.Pending() > 15) EXPECT_FALSE(window.OnWritten()) << window.Pending();
        EXPECT_TRUE(window.OnWritten());
    }
}

TEST(UploadWindowTest, CountsBelowZeroWhatAnEarlierSessionQueued) {
    UploadWindow window;
    while (window.Pending() > -3) EXPECT_FALSE(window.OnWritten());
    EXPECT_EQ(window.Room(), 23);
    while (window.Pending() < 19) EXPECT_FALSE(window.OnQueued());
    EXPECT_TRUE(window.OnQueued());
}

}  // namespace
}  // namespace nox::tunnel_client
