#include <gtest/gtest.h>

#include <chrono>

#include "support/update_manifest.h"

namespace tarnbloom {
namespace {

using Case = UpdateManifestError::Case;

std::span<const std::byte> bytes(std::string_view text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

std::optional<Case> refusal(std::string_view text) {
  try {
    UpdateManifest::parse(bytes(text));
  } catch (const UpdateManifestError& error) {
    return error.errorCase();
  }
  return std::nullopt;
}

TEST(Version, OrdersPartsNumericallyAndRefusesAnythingButDigitsAndDots) {
  EXPECT_GT(Version::parse("0.10.0"), Version::parse("0.9.1"));
  EXPECT_GT(Version::parse("1.0.0"), Version::parse("0.99.99"));
  EXPECT_LT(Version::parse("2.1"), Version::parse("2.1.1"));
  EXPECT_EQ(Version::parse("1.2"), Version::parse("1.2.0"));
  EXPECT_EQ(Version::parse("1.02"), Version::parse("1.2"));

  for (const char* bad : {"", ".", "1.", ".1", "1..2", "1.2.x", "1.0-beta", "v1.0", "+1.0", "-1", " 1.0",
                          "1.0 ", "1.2.3.4.5", "1234567890.0"}) {
    try {
      Version::parse(bad);
      ADD_FAILURE() << "accepted " << bad;
    } catch (const UpdateManifestError& error) {
      EXPECT_EQ(error.errorCase(), Case::badVersion) << bad;
      EXPECT_NE(error.description().find(bad), std::string::npos) << error.description();
    }
  }
}

TEST(UpdateManifest, ReadsExactlyTheThreeKeysAndRefusesEverythingElse) {
  const auto manifest = UpdateManifest::parse(
      bytes(R"({"version":"0.2.0","url":"https://tarnbloom.example/notes/0.2","published":"2026-11-20"})"));
  EXPECT_EQ(manifest.version, "0.2.0");
  EXPECT_EQ(manifest.url, "https://tarnbloom.example/notes/0.2");
  EXPECT_EQ(manifest.published, "2026-11-20");

  const std::pair<const char*, Case> bad[] = {
      {"", Case::notJson},
      // A second "version" could differ from the one that was checked.
      {R"({"version":"0.2.0","version":"9.0","url":"https://a.example","published":"2026-11-20"})", Case::notJson},
      {R"(["0.2.0"])", Case::notAnObject},
      {R"({"url":"https://a.example","published":"2026-11-20"})", Case::missingKey},
      {R"({"version":2,"url":"https://a.example","published":"2026-11-20"})", Case::notAString},
      {R"({"version":"0.2.0","url":"https://a.example","published":"2026-11-20","run":"x"})", Case::unknownKey},
      {R"({"version":"0.2.0-rc1","url":"https://a.example","published":"2026-11-20"})", Case::badVersion},
      // Opened in the browser: only https, with a host and no user part.
      {R"({"version":"0.2.0","url":"http://a.example","published":"2026-11-20"})", Case::badURL},
      {R"({"version":"0.2.0","url":"file:///etc/passwd","published":"2026-11-20"})", Case::badURL},
      {R"({"version":"0.2.0","url":"https://a.example@b.example/","published":"2026-11-20"})", Case::badURL},
      {R"({"version":"0.2.0","url":"https://a.example/x y","published":"2026-11-20"})", Case::badURL},
      {R"({"version":"0.2.0","url":"https://a.example","published":"2026-02-30"})", Case::badDate},
  };
  for (const auto& [text, expected] : bad) EXPECT_EQ(refusal(text), expected) << text;

  const std::string huge = R"({"version":"0.2.0","url":"https://a.example/)" +
                           std::string(UpdateManifest::kMaxBytes, 'a') + R"(","published":"2026-11-20"})";
  EXPECT_EQ(refusal(huge), Case::tooLarge);
}

TEST(UpdateSchedule, ChecksAtMostDailyAndOnlyOnceAgreed) {
  using namespace std::chrono;
  const WallTime now = sys_days(year(2026) / 11 / 24) + hours(10);
  EXPECT_FALSE(shouldCheck(now, std::nullopt, std::nullopt));  // not yet asked
  EXPECT_FALSE(shouldCheck(now, std::nullopt, false));
  EXPECT_TRUE(shouldCheck(now, std::nullopt, true));
  EXPECT_FALSE(shouldCheck(now, now - hours(23) - minutes(59), true));
  EXPECT_TRUE(shouldCheck(now, now - hours(24), true));
  // A clock set back must not silence checks until it catches up.
  EXPECT_TRUE(shouldCheck(now, now + hours(24 * 365), true));
}

TEST(UpdateSchedule, NotifiesOnlyOfNewerVersionsThatWereNotSkipped) {
  const UpdateManifest manifest{"0.10.0", "https://a.example", "2026-11-20"};
  EXPECT_TRUE(shouldNotify(manifest, "0.9.1", std::nullopt));
  EXPECT_FALSE(shouldNotify(manifest, "0.10.0", std::nullopt));
  EXPECT_FALSE(shouldNotify(manifest, "0.9.1", "0.10"));
  // Skipping one release does not skip the next.
  EXPECT_TRUE(shouldNotify(manifest, "0.9.1", "0.9.5"));
  EXPECT_TRUE(shouldNotify(manifest, "0.9.1", "garbage"));
}

}  // namespace
}  // namespace tarnbloom
