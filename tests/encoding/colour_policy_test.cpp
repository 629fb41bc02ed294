#include <gtest/gtest.h>

#include "encoding/colour_policy.h"
#include "encoding/export_format.h"
#include "support/settings.h"
#include "test_support.h"

namespace tarnbloom::encoding {
namespace {

TEST(ExportFormat, SameAsSourceFollowsTheExtensionTable) {
  const auto all = [](ExportFormat) { return true; };
  const auto noHeif = [](ExportFormat f) { return f != ExportFormat::avif && f != ExportFormat::heic; };
  struct Case {
    const char* name;
    ExportFormat everything, withoutHeif;
  };
  for (const Case& c : std::vector<Case>{
           {"a.JPEG", ExportFormat::jpeg, ExportFormat::jpeg},
           {"a.jpg", ExportFormat::jpeg, ExportFormat::jpeg},
           {"a.png", ExportFormat::png, ExportFormat::png},
           {"a.tiff", ExportFormat::tiff, ExportFormat::tiff},
           // TIFF-structured RAW files must not count as TIFF.
           {"a.DNG", ExportFormat::tiff, ExportFormat::tiff},
           {"a.cr3", ExportFormat::tiff, ExportFormat::tiff},
           {"a.webp", ExportFormat::webp, ExportFormat::webp},
           {"a.avif", ExportFormat::avif, ExportFormat::jpeg},
           {"a.heif", ExportFormat::heic, ExportFormat::jpeg},
           {"a.HEIC", ExportFormat::heic, ExportFormat::jpeg},
           {"a.gif", ExportFormat::png, ExportFormat::png},
           {"a.xyz", ExportFormat::png, ExportFormat::png},
           {"noextension", ExportFormat::png, ExportFormat::png},
       }) {
    EXPECT_EQ(matchingFormat(c.name, all), c.everything) << c.name;
    EXPECT_EQ(matchingFormat(c.name, noHeif), c.withoutHeif) << c.name;
  }
  EXPECT_EQ(sameAsSourceNote(noHeif),
            "PNG, JPEG, TIFF and WebP keep their format. AVIF and HEIC saves as JPEG on this "
            "computer. Camera RAW saves as TIFF, anything else as PNG.");
  EXPECT_EQ(sameAsSourceNote(all),
            "PNG, JPEG, TIFF, WebP, AVIF and HEIC keep their format. Camera RAW saves as TIFF, "
            "anything else as PNG.");
  EXPECT_FALSE(exportFormatFromRawValue("jpg"));
  EXPECT_EQ(exportFormatFromRawValue("heic"), ExportFormat::heic);
}

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
