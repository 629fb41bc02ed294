#include "encoding/colour_policy.h"

#include <cctype>
#include <cmath>
#include <cstdio>

#include "support/settings.h"

namespace tarnbloom::encoding {
namespace {

std::string trimmedLower(std::string_view text) {
  size_t begin = 0, end = text.size();
  while (begin < end && std::isspace(static_cast<unsigned char>(text[begin]))) ++begin;
  while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1]))) --end;
  std::string out(text.substr(begin, end - begin));
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

MetadataToggle toggleSetting(const Settings& settings, const std::string& key,
                             MetadataToggle fallback) {
  if (const auto text = settings.string(key))
    if (const auto toggle = metadataToggleFromRawValue(*text)) return *toggle;
  return fallback;
}

}  // namespace

std::string_view rawValue(ProfilePolicy policy) {
  return policy == ProfilePolicy::keep ? "keep" : "srgb";
}

std::string_view rawValue(MetadataToggle toggle) {
  return toggle == MetadataToggle::keep ? "keep" : "strip";
}

std::optional<ProfilePolicy> profilePolicyFromRawValue(std::string_view text) {
  if (text == "keep") return ProfilePolicy::keep;
  if (text == "srgb") return ProfilePolicy::srgb;
  return std::nullopt;
}

std::optional<MetadataToggle> metadataToggleFromRawValue(std::string_view text) {
  if (text == "keep") return MetadataToggle::keep;
  if (text == "strip") return MetadataToggle::strip;
  return std::nullopt;
}

std::string ColourPolicyError::description() const {
  return "“" + m_text + "” isn’t a colour Tarnbloom understands for flattening transparency.";
}

ColourPolicy ColourPolicy::saved(const Settings& settings) {
  ColourPolicy policy;
  const auto profileText = settings.string("colour.profilePolicy");
  const auto profile = profileText ? profilePolicyFromRawValue(*profileText) : std::nullopt;
  if (profile)
    policy.profile = *profile;
  else if (const auto keep = settings.boolean("keepProfile"))
    policy.profile = *keep ? ProfilePolicy::keep : ProfilePolicy::srgb;

  policy.icc = toggleSetting(settings, "colour.icc", MetadataToggle::keep);
  policy.exif = toggleSetting(settings, "colour.exif", MetadataToggle::keep);
  policy.xmp = toggleSetting(settings, "colour.xmp", MetadataToggle::keep);

  const auto gpsText = settings.string("colour.gps");
  const auto gps = gpsText ? metadataToggleFromRawValue(*gpsText) : std::nullopt;
  if (gps)
    policy.gps = *gps;
  else if (const auto strip = settings.boolean("stripGPS"))
    policy.gps = *strip ? MetadataToggle::strip : MetadataToggle::keep;

  const auto flatten = settings.string("colour.flattenColour");
  policy.flatten = flatten && !flatten->empty() ? *flatten : "white";
  return policy;
}

void ColourPolicy::save(Settings& settings) const {
  settings.set("colour.profilePolicy", std::string(rawValue(profile)));
  settings.set("colour.icc", std::string(rawValue(icc)));
  settings.set("colour.exif", std::string(rawValue(exif)));
  settings.set("colour.xmp", std::string(rawValue(xmp)));
  settings.set("colour.gps", std::string(rawValue(gps)));
  settings.set("colour.flattenColour", flatten);
}

std::array<double, 3> ColourPolicy::resolveFlattenColourSRGB(std::string_view text) {
  std::string t = trimmedLower(text);
  if (t == "white") return {1, 1, 1};
  if (t == "black") return {0, 0, 0};
  if (!t.empty() && t[0] == '#') t.erase(0, 1);
  if (t.size() != 6) throw ColourPolicyError(std::string(text));
  unsigned value = 0;
  for (const char c : t) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) throw ColourPolicyError(std::string(text));
    value = value * 16 + static_cast<unsigned>(std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : c - 'a' + 10);
  }
  return {((value >> 16) & 0xFF) / 255.0, ((value >> 8) & 0xFF) / 255.0, (value & 0xFF) / 255.0};
}

std::string ColourPolicy::canonicalFlattenColour(std::string_view text) {
  if (trimmedLower(text) == "white") return "white";
  const auto rgb = resolveFlattenColourSRGB(text);
  char out[8];
  std::snprintf(out, sizeof out, "#%02X%02X%02X", static_cast<unsigned>(std::lround(rgb[0] * 255)),
                static_cast<unsigned>(std::lround(rgb[1] * 255)),
                static_cast<unsigned>(std::lround(rgb[2] * 255)));
  return out;
}

}  // namespace tarnbloom::encoding
