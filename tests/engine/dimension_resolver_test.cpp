#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>

#include "engine/dimension_resolver.h"

namespace tarnbloom {
namespace {

using DimensionResolver::resolve;
using DimensionResolver::resolveScaleFactor;

class DimensionResolverTest : public ::testing::Test {
 protected:
  void SetUp() override { ::setenv("LC_ALL", "en_US.UTF-8", 1); }
  void TearDown() override { ::unsetenv("LC_ALL"); }
};

std::string failure(const std::function<void()>& call) {
  try {
    call();
  } catch (const DimensionError& error) {
    return error.description();
  }
  return "(resolved)";
}

ResolvedSize single(int64_t w, int64_t h, SizeMode mode, double value, const char* format = "png",
                    int depth = 8) {
  return resolve(w, h, mode, value, 0, 0, depth, std::string(format), false);
}

TEST_F(DimensionResolverTest, ResolvesEveryMode) {
  EXPECT_EQ(single(1, 1, SizeMode::x8, 0), (ResolvedSize{8, 8, 8.0, false}));
  EXPECT_EQ(single(4000, 3000, SizeMode::width, 4000), (ResolvedSize{4000, 3000, 1.0, true}));
  EXPECT_EQ(single(4000, 3000, SizeMode::width, 6000), (ResolvedSize{6000, 4500, 1.5, false}));
  EXPECT_EQ(single(3000, 4000, SizeMode::height, 5000), (ResolvedSize{3750, 5000, 1.25, false}));
  // Long edge on a square sets the width exactly; on a portrait the height.
  EXPECT_EQ(single(333, 333, SizeMode::longEdge, 1000).width, 1000);
  EXPECT_EQ(single(300, 400, SizeMode::longEdge, 1000), (ResolvedSize{750, 1000, 2.5, false}));
  // Halves round up: 3 × 1.5 = 4.5 → 5.
  EXPECT_EQ(single(2, 3, SizeMode::percent, 150).height, 5);
  EXPECT_EQ(single(100, 10, SizeMode::percent, 150.5), (ResolvedSize{151, 15, 1.505, false}));
  // The box takes the smaller ratio; equal ratios take the width's.
  EXPECT_EQ(resolve(400, 300, SizeMode::boundingBox, 0, 1000, 1000, 8, "png", false),
            (ResolvedSize{1000, 750, 2.5, false}));
  // A computed side below half a pixel still gives one pixel.
  EXPECT_EQ(resolve(10000, 1, SizeMode::width, 10001, 0, 0, 8, std::nullopt, false).height, 1);
}

TEST_F(DimensionResolverTest, RefusesDownscalesWithTheirLabels) {
  EXPECT_EQ(failure([] { single(4000, 3000, SizeMode::width, 3999); }),
            "SIZE-DOWNSCALE — 3999 px wide is smaller than the source (4,000 × 3,000).");
  EXPECT_EQ(failure([] { single(4000, 3000, SizeMode::height, 2999); }),
            "SIZE-DOWNSCALE — 2999 px tall is smaller than the source (4,000 × 3,000).");
  EXPECT_EQ(failure([] { single(4000, 3000, SizeMode::longEdge, 3999); }),
            "SIZE-DOWNSCALE — 3999 px is smaller than the source (4,000 × 3,000).");
  EXPECT_EQ(failure([] { single(4000, 3000, SizeMode::percent, 99.6); }),
            "SIZE-DOWNSCALE — 100% is smaller than the source (4,000 × 3,000).");
  EXPECT_EQ(failure([] { resolve(4000, 3000, SizeMode::boundingBox, 0, 5000, 2000, 8, "png", false); }),
            "SIZE-DOWNSCALE — 5000 × 2000 is smaller than the source (4,000 × 3,000).");
  EXPECT_EQ(failure([] { resolveScaleFactor(10, 10, 0.999, 8, "png", false); }),
            "SIZE-DOWNSCALE — 0.999× is smaller than the source (10 × 10).");
  try {
    single(10, 10, SizeMode::width, 9);
  } catch (const DimensionError& error) {
    EXPECT_EQ(error.recoverySuggestion(),
              "Tarnbloom enlarges; it does not resample down. Choose a size at or above the source, "
              "or use a photo editor to shrink it.");
  }
}

TEST_F(DimensionResolverTest, ValidatesValuesBeforeAnythingElse) {
  for (double bad : {2.5, 0.0, -4.0, std::nan(""), std::numeric_limits<double>::infinity()})
    EXPECT_EQ(failure([&] { single(4000, 3000, SizeMode::width, bad); }),
              "Width must be a whole number of pixels greater than zero.")
        << bad;
  EXPECT_EQ(failure([] { single(4000, 3000, SizeMode::width, 2e9); }),
            "Width must be no greater than 1,000,000,000 px.");
  // Both box sides wrong: the width is reported.
  EXPECT_EQ(failure([] { resolve(10, 10, SizeMode::boundingBox, 0, -1, 0.5, 8, "png", false); }),
            "Bounding-box width must be a whole number of pixels greater than zero.");
  EXPECT_EQ(failure([] { single(10, 10, SizeMode::percent, 0); }),
            "Percent must be a finite number greater than zero.");
  EXPECT_EQ(failure([] { resolveScaleFactor(10, 10, std::nan(""), 8, "png", false); }),
            "Scale factor must be a finite number greater than zero.");
  // The long edge is valid but the other side computes past the limit.
  EXPECT_EQ(failure([] { single(1, 100000, SizeMode::width, 20000); }),
            "Resolved dimension must be a finite value no greater than 1,000,000,000 px.");
}

TEST_F(DimensionResolverTest, AppliesThePixelCeilingForTheOutputDepth) {
  EXPECT_EQ(failure([] { single(7500, 7500, SizeMode::x2, 0, "png", 16); }),
            "SIZE-EXCEED — 15,000 × 15,000 exceeds the 200,000,000-pixel limit for this output.");
  EXPECT_NO_THROW(single(7500, 7500, SizeMode::x2, 0, "jpeg", 16));
  EXPECT_NO_THROW(single(7500, 7500, SizeMode::x2, 0, "PNG", 8));
  EXPECT_THROW(single(7500, 7500, SizeMode::x2, 0, "PNG", 16), DimensionError);
  EXPECT_NO_THROW(resolve(7500, 7500, SizeMode::x2, 0, 0, 0, 16, "png", true));
  // Exactly at the ceiling passes; one pixel more does not.
  EXPECT_NO_THROW(single(10000, 10000, SizeMode::width, 20000, "jpeg"));
  EXPECT_THROW(single(10000, 10000, SizeMode::height, 20001, "jpeg"), DimensionError);
}

}  // namespace
}  // namespace tarnbloom
