#include <gtest/gtest.h>

#include "engine/dimension_resolver.h"
#include "preview/inspector_model.h"
#include "support/locale_numbers.h"

namespace tarnbloom::preview {
namespace {

using exporting::ExportOptions;

TEST(InspectorModel, ShowsTheResolvedSizeOrTheResolversOwnRefusal) {
  const SourceFacts photo{"/photos/cat.jpg", 4000, 3000, 8};
  ExportOptions options;
  options.method = ResampleMethod::exact;
  options.sizeMode = SizeMode::x2;
  auto state = evaluateOptions(options, photo, std::nullopt);
  ASSERT_TRUE(state.size);
  EXPECT_EQ(state.size->width, 8000);
  EXPECT_TRUE(state.canExport);
  EXPECT_EQ(state.format, encoding::ExportFormat::png);

  // A target below the source is refused with the resolver's words.
  options.sizeMode = SizeMode::width;
  options.sizeValue = 3999;
  state = evaluateOptions(options, photo, std::nullopt);
  EXPECT_FALSE(state.size);
  EXPECT_FALSE(state.canExport);
  try {
    DimensionResolver::resolve(4000, 3000, SizeMode::width, 3999, 0, 0, 8, "png", false);
    FAIL() << "the resolver accepted a downscale";
  } catch (const DimensionError& error) {
    EXPECT_NE(state.message.find(error.description()), std::string::npos) << state.message;
  }
  EXPECT_EQ(state.exportBlockedReason, state.message);

  // Past the pixel ceiling.
  options.sizeMode = SizeMode::x8;
  state = evaluateOptions(options, {"/p/big.png", 20000, 20000, 8}, std::nullopt);
  EXPECT_FALSE(state.canExport);
  EXPECT_NE(state.message.find(groupedNumber(DimensionResolver::kPixelCeiling)), std::string::npos)
      << state.message;
}

TEST(InspectorModel, EnhanceWithoutItsModelBlocksExportWithTheModelsMessage) {
  ExportOptions options;
  options.sizeMode = SizeMode::x4;
  options.method = ResampleMethod::estimate;
  const SourceFacts photo{"/photos/cat.png", 300, 200, 8};
  const auto state = evaluateOptions(options, photo, std::string("No model here."));
  ASSERT_TRUE(state.size) << "the size still shows";
  EXPECT_FALSE(state.canExport);
  EXPECT_EQ(state.exportBlockedReason, "No model here.");
  options.method = ResampleMethod::clarity;
  EXPECT_TRUE(evaluateOptions(options, photo, std::string("No model here.")).canExport);
}

TEST(InspectorModel, FormatsFactorsAndSizesAsPeopleReadThem) {
  EXPECT_EQ(factorText(4), "4×");
  EXPECT_EQ(factorText(2.5), "2.5×");
  EXPECT_EQ(factorText(4.0 / 3), "1.33×");
  const std::string text = sizeText(3200, 2400);
  EXPECT_NE(text.find(" px · 7.7 MP"), std::string::npos) << text;
  EXPECT_NE(text.find(" × "), std::string::npos) << text;
}

}  // namespace
}  // namespace tarnbloom::preview
