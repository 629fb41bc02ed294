#include <gtest/gtest.h>

#include <unistd.h>

#include <array>

#include "engine/engine_error.h"
#include "engine/resample_engine.h"
#include "engine/source_probe.h"
#include "support/sha256.h"
#include "fixtures.h"
#include "test_support.h"

namespace tarnbloom {
namespace {

using codec::PixelBuffer;
using codec::SampleFormat;
using testing::TempDir;

template <typename F>
std::string messageOf(F&& load) {
  try {
    load();
  } catch (const Error& error) {
    return error.description();
  }
  return "(no error)";
}

// Two markers in the stored bitmap: A at (0,0) and B at (1,0). By the EXIF
// definition of each orientation, stored row 0 and column 0 lie on known
// sides of the upright picture, so A lands in a known corner and B next to
// it along row 0's visual direction.
TEST(ApplyOrientation, DrawsEveryOrientationUpright) {
  const int w = 5, h = 3;
  PixelBuffer stored;
  stored.allocate(w, h, 3, SampleFormat::uint8);
  std::fill(stored.data.begin(), stored.data.end(), 0);
  stored.row(0)[0] = 200;      // A, red
  stored.row(0)[3 + 1] = 150;  // B, green

  struct Expected {
    uint32_t orientation;
    int ax, ay;  // A in the upright picture (as fractions: 0 = first, 1 = last)
    int bdx, bdy;  // where B sits relative to A
  };
  const std::array<Expected, 8> cases = {{{1, 0, 0, 1, 0},
                                          {2, 1, 0, -1, 0},
                                          {3, 1, 1, -1, 0},
                                          {4, 0, 1, 1, 0},
                                          {5, 0, 0, 0, 1},
                                          {6, 1, 0, 0, 1},
                                          {7, 1, 1, 0, -1},
                                          {8, 0, 1, 0, -1}}};
  for (const auto& c : cases) {
    const PixelBuffer upright = ResampleEngine::applyOrientation(stored, c.orientation);
    const bool transposed = c.orientation >= 5;
    ASSERT_EQ(upright.width, transposed ? h : w) << c.orientation;
    ASSERT_EQ(upright.height, transposed ? w : h) << c.orientation;
    const int ax = c.ax ? upright.width - 1 : 0;
    const int ay = c.ay ? upright.height - 1 : 0;
    EXPECT_EQ(upright.row(ay)[ax * 3], 200) << "orientation " << c.orientation;
    EXPECT_EQ(upright.row(ay + c.bdy)[(ax + c.bdx) * 3 + 1], 150) << "orientation " << c.orientation;
    int marked = 0;
    for (uint8_t v : upright.data) marked += v != 0;
    EXPECT_EQ(marked, 2) << "orientation " << c.orientation;
  }
  EXPECT_THROW(ResampleEngine::applyOrientation(stored, 9), EngineError);
  EXPECT_THROW(ResampleEngine::applyOrientation(stored, 0), EngineError);
}

TEST(Load, KeepsSixteenBitsAndHashesTheBytesRead) {
  TempDir dir;
  std::vector<uint16_t> samples(4 * 3 * 3);
  for (size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<uint16_t>(0x1234 + 97 * i);
  testing::writePng(dir / "deep.png", 4, 3, 3, 16, samples);

  const SourceImage image = ResampleEngine::load(dir / "deep.png");
  EXPECT_EQ(image.bitsPerComponent, 16);
  EXPECT_FALSE(image.nativeBitDepth);
  EXPECT_FALSE(image.hasAlpha);
  EXPECT_EQ(image.profileName(), "sRGB");
  ASSERT_EQ(image.bitmap->format, SampleFormat::uint16);
  const auto* values = reinterpret_cast<const uint16_t*>(image.bitmap->data.data());
  EXPECT_TRUE(std::equal(samples.begin(), samples.end(), values));
  EXPECT_EQ(image.sourceHash, sha256OfFile(dir / "deep.png"));
}

TEST(Load, KeepsTheStoredBitmapAndReportsTheOrientedSize) {
  TempDir dir;
  const int w = 60, h = 40;
  testing::writeJpeg(dir / "turned.jpg", w, h, std::vector<uint8_t>(w * h * 3, 128), 6);

  const SourceProbe probe = SourceProbe::probe(dir / "turned.jpg");
  EXPECT_TRUE(probe.readable);
  EXPECT_TRUE(probe.supportedFormat);
  EXPECT_EQ(probe.orientation, 6u);
  EXPECT_EQ(probe.width, h);
  EXPECT_EQ(probe.height, w);

  const SourceImage image = ResampleEngine::load(dir / "turned.jpg");
  EXPECT_EQ(image.orientation, 6u);
  EXPECT_EQ(image.pixelWidth(), w);
  EXPECT_EQ(image.orientedWidth(), h);
  EXPECT_EQ(image.orientedHeight(), w);
}

TEST(Load, RefusesWithTheExactMessages) {
  TempDir dir;
  // The smallest valid GIF: one white pixel.
  const std::vector<uint8_t> gif = {'G', 'I', 'F', '8', '9', 'a', 1, 0, 1, 0, 0x80, 0, 0, 255, 255,
                                    255, 0, 0, 0, ',', 0, 0, 0, 0, 1, 0, 1, 0, 0, 2, 2, 'D', 1, 0, ';'};
  testing::writeBytes(dir / "still.gif", gif);
  testing::writeText(dir / "notes.jpg", "These are notes, not a photo.\n");
  testing::writeText(dir / "empty.png", "");

  EXPECT_EQ(messageOf([&] { ResampleEngine::load(dir / "still.gif"); }),
            "“still.gif” is a GIF. GIF images aren’t supported — choose a JPEG, PNG, TIFF or HEIC "
            "still image.");
  for (const char* name : {"notes.jpg", "empty.png"})
    EXPECT_EQ(messageOf([&] { ResampleEngine::load(dir / name); }),
              std::string("“") + name + "” couldn’t be read as an image.");
  // A file that cannot be opened is the system's to explain.
  EXPECT_EQ(messageOf([&] { ResampleEngine::load(dir / "missing.tif"); }),
            "Couldn’t open “missing.tif”: No such file or directory.");

  const SourceProbe gifProbe = SourceProbe::probe(dir / "still.gif");
  EXPECT_TRUE(gifProbe.readable);
  EXPECT_FALSE(gifProbe.supportedFormat);
  EXPECT_FALSE(gifProbe.notAnImage);
  for (const char* name : {"notes.jpg", "empty.png", "missing.tif"}) {
    const SourceProbe probe = SourceProbe::probe(dir / name);
    EXPECT_TRUE(probe.notAnImage) << name;
    EXPECT_FALSE(probe.readable) << name;
    EXPECT_EQ(probe.width, 0) << name;
    EXPECT_EQ(probe.bitDepth, 8) << name;
  }
}

TEST(ValidateDestination, ProtectsTheOriginalAndNoticesEdits) {
  TempDir dir;
  testing::writePng(dir / "photo.png", 2, 2, 1, 8, {0, 64, 128, 255});
  const SourceImage image = ResampleEngine::load(dir / "photo.png");

  const auto expectCase = [&](const std::filesystem::path& destination, SourceProtectionError::Case c) {
    try {
      ResampleEngine::validateDestination(destination, image);
      ADD_FAILURE() << destination << " passed";
    } catch (const SourceProtectionError& error) {
      EXPECT_EQ(error.errorCase(), c) << destination;
    }
  };
  expectCase(dir / "photo.png", SourceProtectionError::Case::destinationIsSource);
  expectCase(dir.path() / "." / "photo.png", SourceProtectionError::Case::destinationIsSource);
  std::filesystem::create_symlink(dir / "photo.png", dir / "link.png");
  expectCase(dir / "link.png", SourceProtectionError::Case::destinationIsSource);
  EXPECT_NO_THROW(ResampleEngine::validateDestination(dir / "photo-x2.png", image));

  // Touched only: same bytes, new time. Still fine.
  std::filesystem::last_write_time(dir / "photo.png", std::filesystem::file_time_type::clock::now());
  EXPECT_NO_THROW(ResampleEngine::validateDestination(dir / "photo-x2.png", image));

  testing::writePng(dir / "photo.png", 2, 2, 1, 8, {0, 64, 128, 254});
  expectCase(dir / "photo-x2.png", SourceProtectionError::Case::sourceChanged);
  EXPECT_EQ(SourceProtectionError(SourceProtectionError::Case::sourceChanged).description(),
            "The source file changed after loading. Reopen it before exporting.");
  std::filesystem::remove(dir / "photo.png");
  expectCase(dir / "photo-x2.png", SourceProtectionError::Case::sourceChanged);
}

}  // namespace
}  // namespace tarnbloom
