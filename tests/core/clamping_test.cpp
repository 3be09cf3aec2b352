#include "core/clamping.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

namespace {

TEST(ClampingTest, InsideBelowAndAbove) {
  EXPECT_EQ(core::clamped(12, 0, 10), 10);
  EXPECT_EQ(core::clamped(-1, 0, 10), 0);
  EXPECT_EQ(core::clamped(5, 0, 10), 5);
  EXPECT_EQ(core::clamped(10, core::ClosedRange{0, 10}), 10);  // both ends belong to the range
  EXPECT_EQ(core::clamped(1.5, core::ClosedRange{0.0, 1.0}), 1.0);
  EXPECT_EQ(core::clamped(std::string("zebra"), std::string("apple"), std::string("mango")),
            "mango");
  EXPECT_TRUE(std::isnan(core::clamped(std::numeric_limits<double>::quiet_NaN(), 0.0, 1.0)));

  int side = 4000;
  core::clamp(side, 1, 2048);
  EXPECT_EQ(side, 2048);
  double opacity = -0.25;
  core::clamp(opacity, core::ClosedRange{0.0, 1.0});
  EXPECT_EQ(opacity, 0.0);
  core::clamp(opacity, core::ClosedRange{0.5, 1.0});
  EXPECT_EQ(opacity, 0.5);
  static_assert(core::clamped(7, 0, 3) == 3);
}

}  // namespace
