#include "codec/colour_space.h"

#include <lcms2.h>

#include <array>
#include <string_view>

#include "support/c_handle.h"

namespace tarnbloom::codec {
namespace {

using Profile = CHandle<void, cmsCloseProfile>;

struct KnownProfile {
  std::string_view descriptionPart;
  std::string_view name;
};

// Descriptions written by the common profile makers, most specific first.
constexpr std::array<KnownProfile, 16> kKnownProfiles = {{
    {"Display P3", "DisplayP3"},
    {"DCI-P3", "DCIP3"},
    {"DCI(P3)", "DCIP3"},
    {"Adobe RGB (1998)", "AdobeRGB1998"},
    {"AdobeRGB", "AdobeRGB1998"},
    {"ProPhoto", "ROMMRGB"},
    {"ROMM", "ROMMRGB"},
    {"Rec. 2020", "ITUR_2020"},
    {"Rec.2020", "ITUR_2020"},
    {"BT.2020", "ITUR_2020"},
    {"Rec. 709", "ITUR_709"},
    {"BT.709", "ITUR_709"},
    {"Generic Gray Gamma 2.2", "GenericGrayGamma2_2"},
    {"Linear Gray", "LinearGray"},
    {"scRGB", "ExtendedLinearSRGB"},
    {"sRGB", "sRGB"},
}};

std::string profileDescription(cmsHPROFILE profile) {
  const cmsUInt32Number size = cmsGetProfileInfoASCII(profile, cmsInfoDescription, "en", "US", nullptr, 0);
  if (size == 0 || size > 4096) return {};
  std::string text(size, '\0');
  cmsGetProfileInfoASCII(profile, cmsInfoDescription, "en", "US", text.data(), size);
  if (const auto zero = text.find('\0'); zero != std::string::npos) text.resize(zero);
  return text;
}

std::string nameFromDescription(std::string_view description) {
  for (const auto& known : kKnownProfiles)
    if (description.find(known.descriptionPart) != std::string_view::npos)
      return std::string(known.name);
  return {};
}

}  // namespace

std::string registeredProfileName(std::span<const uint8_t> iccProfile) {
  Profile profile(cmsOpenProfileFromMem(iccProfile.data(), static_cast<cmsUInt32Number>(iccProfile.size())));
  if (!profile) return {};
  return nameFromDescription(profileDescription(profile.get()));
}

ColourSpace ColourSpace::forFrame(std::span<const uint8_t> iccProfile, bool isGrey) {
  ColourSpace space;
  space.model = isGrey ? Model::grey : Model::rgb;
  if (!iccProfile.empty()) {
    Profile profile(cmsOpenProfileFromMem(iccProfile.data(), static_cast<cmsUInt32Number>(iccProfile.size())));
    const cmsColorSpaceSignature wanted = isGrey ? cmsSigGrayData : cmsSigRgbData;
    if (profile && cmsGetColorSpace(profile.get()) == wanted) {
      space.iccProfile.assign(iccProfile.begin(), iccProfile.end());
      space.registeredName = nameFromDescription(profileDescription(profile.get()));
      return space;
    }
  }
  space.registeredName = isGrey ? "GenericGrayGamma2_2" : "sRGB";
  return space;
}

std::string ColourSpace::profileName() const {
  return registeredName.empty() ? "embedded profile" : registeredName;
}

}  // namespace tarnbloom::codec
