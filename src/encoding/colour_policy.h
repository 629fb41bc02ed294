#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "support/error.h"

namespace tarnbloom {
class Settings;
}

namespace tarnbloom::encoding {

enum class ProfilePolicy { keep, srgb };
enum class MetadataToggle { keep, strip };

std::string_view rawValue(ProfilePolicy policy);
std::string_view rawValue(MetadataToggle toggle);
std::optional<ProfilePolicy> profilePolicyFromRawValue(std::string_view text);
std::optional<MetadataToggle> metadataToggleFromRawValue(std::string_view text);

// A flatten colour that is neither "white", "black" nor six hex digits.
class ColourPolicyError : public Error {
 public:
  explicit ColourPolicyError(std::string text) : m_text(std::move(text)) {}
  const std::string& text() const { return m_text; }
  std::string description() const override;

 private:
  std::string m_text;
};

// What every encoder does with colour and metadata. GPS is stripped by
// default unlike every other toggle: a location is the one thing people
// most often publish by accident.
struct ColourPolicy {
  ProfilePolicy profile = ProfilePolicy::keep;
  MetadataToggle icc = MetadataToggle::keep;
  MetadataToggle exif = MetadataToggle::keep;
  MetadataToggle xmp = MetadataToggle::keep;
  MetadataToggle gps = MetadataToggle::strip;
  std::string flatten = "white";

  bool operator==(const ColourPolicy&) const = default;

  // Reads "colour.*" (and the older "keepProfile"/"stripGPS"); unknown
  // values fall back to the defaults and never fail.
  static ColourPolicy saved(const Settings& settings);
  // Writes all six fields as their raw values.
  void save(Settings& settings) const;

  // "white", or "#RRGGBB" in upper-case hex; throws ColourPolicyError.
  static std::string canonicalFlattenColour(std::string_view text);
  // The colour's sRGB components in 0...1; throws ColourPolicyError.
  static std::array<double, 3> resolveFlattenColourSRGB(std::string_view text);
};

}  // namespace tarnbloom::encoding
