#include <gtest/gtest.h>

#include "encoding/colour_policy.h"
#include "support/settings.h"
#include "test_support.h"

namespace tarnbloom::encoding {
namespace {

TEST(ColourPolicy, CanonicalisesFlattenColours) {
  EXPECT_EQ(ColourPolicy::canonicalFlattenColour("  #ff8800 \n"), "#FF8800");
  EXPECT_EQ(ColourPolicy::canonicalFlattenColour("FF8800"), "#FF8800");
  EXPECT_EQ(ColourPolicy::canonicalFlattenColour("White"), "white");
  EXPECT_EQ(ColourPolicy::canonicalFlattenColour("black"), "#000000");
  for (const char* bad : {"#FFF", "grey", "#GG0000", "#FF88001", ""}) {
    try {
      ColourPolicy::canonicalFlattenColour(bad);
      ADD_FAILURE() << bad;
    } catch (const ColourPolicyError& error) {
      EXPECT_EQ(error.description(), std::string("“") + bad +
                                         "” isn’t a colour Tarnbloom understands for flattening "
                                         "transparency.");
    }
  }
  const auto rgb = ColourPolicy::resolveFlattenColourSRGB("#FF8000");
  EXPECT_DOUBLE_EQ(rgb[0], 1.0);
  EXPECT_NEAR(rgb[1], 128 / 255.0, 1e-12);
  EXPECT_DOUBLE_EQ(rgb[2], 0.0);
}

TEST(ColourPolicy, ReadsSettingsWithLegacyKeysAndFallbacks) {
  testing::TempDir dir;
  Settings settings = Settings::load(dir / "settings.json");
  EXPECT_EQ(ColourPolicy::saved(settings), ColourPolicy{});
  EXPECT_EQ(ColourPolicy::saved(settings).gps, MetadataToggle::strip);

  // The older booleans apply only when the new keys are absent or unknown.
  settings.set("keepProfile", false);
  settings.set("stripGPS", false);
  settings.set("colour.exif", "sometimes");
  settings.set("colour.flattenColour", "");
  ColourPolicy policy = ColourPolicy::saved(settings);
  EXPECT_EQ(policy.profile, ProfilePolicy::srgb);
  EXPECT_EQ(policy.gps, MetadataToggle::keep);
  EXPECT_EQ(policy.exif, MetadataToggle::keep);
  EXPECT_EQ(policy.flatten, "white");

  settings.set("colour.gps", "strip");
  settings.set("colour.profilePolicy", "keep");
  EXPECT_EQ(ColourPolicy::saved(settings).gps, MetadataToggle::strip);
  EXPECT_EQ(ColourPolicy::saved(settings).profile, ProfilePolicy::keep);

  policy = {ProfilePolicy::srgb, MetadataToggle::strip, MetadataToggle::strip,
            MetadataToggle::keep, MetadataToggle::keep, "#102030"};
  policy.save(settings);
  settings.save();
  EXPECT_EQ(ColourPolicy::saved(Settings::load(dir / "settings.json")), policy);
}

}  // namespace
}  // namespace tarnbloom::encoding
