#include <gtest/gtest.h>

#include "tunnel/UploadWindow.h"

namespace nox::tunnel_client {
namespace {

TEST(UploadWindowTest, PausesOnceAtTwenty) {
    UploadWindow window;
    for (int frames = 1; frames <= 25; ++frames) {
        EXPECT_EQ(window.OnQueued(), frames == 20) << frames;
        EXPECT_EQ(window.IsPaused(), frames >= 20) << frames;
        EXPECT_EQ(window.Pending(), frames);
        EXPECT_EQ(window.Room(), 20 - frames);
    }
}

TEST(UploadWindowTest, GoesOnOnceAtFourteen) {
    UploadWindow window;
    for (int frames = 0; frames < 20; ++frames) window.OnQueued();
    for (int frames = 19; frames >= 0; --frames) {
        EXPECT_EQ(window.OnWritten(), frames == 14) << frames;
        EXPECT_EQ(window.IsPaused(), frames > 14) << frames;
    }
}

TEST(UploadWindowTest, NeitherPausesNorGoesOnInBetween) {
    UploadWindow window;
    for (int frames = 0; frames < 14; ++frames) window.OnQueued();
    for (int round = 0; round < 3; ++round) {
        for (int frames = 15; frames <= 19; ++frames) EXPECT_FALSE(window.OnQueued()) << frames;
        for (int frames = 18; frames >= 10; --frames) EXPECT_FALSE(window.OnWritten()) << frames;
        for (int frames = 11; frames <= 19; ++frames) EXPECT_FALSE(window.OnQueued()) << frames;
        EXPECT_TRUE(window.OnQueued());
        for (int frames = 19; frames >= 15; --frames) EXPECT_FALSE(window.OnWritten()) << frames;
        EXPECT_FALSE(window.OnQueued()) << "sixteen, and it has paused before";
        for (int frames = 15; frames >= 15; --frames) EXPECT_FALSE(window.OnWritten()) << frames;
        EXPECT_TRUE(window.OnWritten());
    }
}

TEST(UploadWindowTest, CountsBelowZeroWhatAnEarlierSessionQueued) {
    UploadWindow window;
    for (int frames = 0; frames < 3; ++frames) EXPECT_FALSE(window.OnWritten());
    EXPECT_EQ(window.Pending(), -3);
    EXPECT_EQ(window.Room(), 23);
    for (int frames = 0; frames < 22; ++frames) EXPECT_FALSE(window.OnQueued()) << frames;
    EXPECT_TRUE(window.OnQueued());
}

}  // namespace
}  // namespace nox::tunnel_client
