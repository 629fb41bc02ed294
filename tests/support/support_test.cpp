#include <gtest/gtest.h>


#include "support/files.h"
#include "support/iso_time.h"
#include "support/settings.h"
#include "support/sha256.h"
#include "test_support.h"

namespace tarnbloom {
namespace {

using testing::TempDir;

std::span<const std::byte> textBytes(std::string_view text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

TEST(Sha256, MatchesKnownDigestsInMemoryAndOnDisk) {
  EXPECT_EQ(sha256Hex(textBytes("")), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(sha256Hex(textBytes("abc")), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");

  TempDir dir;
  // Larger than one read chunk, so the streaming path joins chunks correctly.
  std::string big(200'000, 'x');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>('a' + i % 26);
  testing::writeText(dir / "big", big);
  EXPECT_EQ(sha256OfFile(dir / "big"), sha256Hex(textBytes(big)));
  EXPECT_EQ(sha256OfFile(dir / "missing"), std::nullopt);
}

TEST(Iso8601, WritesWholeSecondsAndReadsFractionsAndOffsets) {
  using namespace std::chrono;
  const auto time = sys_days(year(2026) / 11 / 22) + hours(23) + minutes(5) + seconds(9) + milliseconds(750);
  EXPECT_EQ(formatIso8601(time_point_cast<WallTime::duration>(time)), "2026-11-22T23:05:09Z");

  const auto whole = parseIso8601("2026-11-22T23:05:09Z");
  ASSERT_TRUE(whole);
  EXPECT_EQ(formatIso8601(*whole), "2026-11-22T23:05:09Z");
  const auto fractional = parseIso8601("2026-11-22T23:05:09.750Z");
  ASSERT_TRUE(fractional);
  EXPECT_EQ(duration_cast<milliseconds>(*fractional - *whole).count(), 750);
  const auto offset = parseIso8601("2026-11-23T01:05:09+02:00");
  ASSERT_TRUE(offset);
  EXPECT_EQ(*offset, *whole);

  for (const char* bad : {"", "2026-11-22", "2026-11-22T23:05:09", "2026-02-30T00:00:00Z",
                          "2026-11-22T24:00:00Z", "2026-11-22T23:05:09.Z", "2026-11-22T23:05:09Zjunk",
                          "2026-11-22 23:05:09Z"})
    EXPECT_FALSE(parseIso8601(bad)) << bad;
}

TEST(AtomicFile, ReplacesWholeOrLeavesTheOldFile) {
  TempDir dir;
  const auto target = dir / "state.json";
  writeFileAtomically(target, std::string_view("first"));
  writeFileAtomically(target, std::string_view("second"));
  EXPECT_EQ(readWholeFile(target).size(), 6u);

  {
    AtomicFileWriter writer(target);
    writer.write(std::string_view("half-writ"));
    EXPECT_TRUE(std::filesystem::exists(writer.temporaryPath()));
    // Destroyed without commit: as if the process failed mid-write.
  }
  const auto kept = readWholeFile(target);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(kept.data()), kept.size()), "second");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1)
      << "the temporary file must not stay behind";

  EXPECT_THROW(writeFileAtomically(dir / "no-such-folder" / "x", std::string_view("x")), FileError);
}

TEST(ReadWholeFile, RefusesFoldersMissingFilesAndOversizedFiles) {
  TempDir dir;
  EXPECT_THROW(readWholeFile(dir.path()), FileError);
  EXPECT_THROW(readWholeFile(dir / "missing"), FileError);
  testing::writeText(dir / "ten", "0123456789");
  EXPECT_THROW(readWholeFile(dir / "ten", 9), FileError);
  EXPECT_EQ(readWholeFile(dir / "ten", 10).size(), 10u);
}

TEST(Settings, RoundTripsDottedKeysAndKeepsADamagedFile) {
  TempDir dir;
  const auto path = dir / "config" / "settings.json";
  {
    auto settings = Settings::load(path);
    EXPECT_FALSE(settings.integer("jpeg.quality"));
    settings.set("jpeg.quality", 90);
    settings.set("colour.profilePolicy", "srgb");
    settings.save();
  }
  auto reread = Settings::load(path);
  EXPECT_EQ(reread.integer("jpeg.quality"), 90);
  EXPECT_EQ(reread.string("colour.profilePolicy"), "srgb");
  EXPECT_FALSE(reread.string("jpeg.quality")) << "a mistyped value reads as absent";

  testing::writeText(path, "{ not json");
  auto damaged = Settings::load(path);
  EXPECT_FALSE(damaged.integer("jpeg.quality"));
  damaged.set("method", "exact");
  damaged.save();
  ASSERT_FALSE(damaged.damagedCopy().empty());
  const auto kept = readWholeFile(damaged.damagedCopy());
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(kept.data()), kept.size()), "{ not json");
  EXPECT_EQ(Settings::load(path).string("method"), "exact");
}

}  // namespace
}  // namespace tarnbloom
