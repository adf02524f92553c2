#pragma once

#include <gtest/gtest.h>

#include <exception>

namespace support {

/// For what has to happen before a delay of the agent ends: calls `attempt(1)`, and while its outcome is not
/// the expected one, or it throws, `attempt(4)` and `attempt(16)`, whose delays are as many times longer. A
/// machine that was too busy for the short delays has time enough within the long ones; a fault of the agent
/// fails with all of them.
template <typename Outcome, typename Attempt>
void ExpectInTime(const Outcome& expected, Attempt attempt) {
    for (const int scale : {1, 4}) {
        try {
            if (attempt(scale) == expected) return;
        } catch (const std::exception&) {
            continue;
        }
    }
    EXPECT_EQ(attempt(16), expected);
}

}  // namespace support
