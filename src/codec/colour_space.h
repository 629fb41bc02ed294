#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tarnbloom::codec {

// The colour space of a decoded frame: its ICC profile (empty for the
// default of its model) and the well-known name the profile is registered
// under, if any.
struct ColourSpace {
  enum class Model { rgb, grey };

  Model model = Model::rgb;
  // Empty when the file declared no usable profile: RGB is then sRGB, grey
  // is grey with gamma 2.2.
  std::vector<uint8_t> iccProfile;
  // "sRGB", "DisplayP3", "AdobeRGB1998", ...; empty for a profile that is
  // not one of the well-known spaces.
  std::string registeredName;

  // Builds the space for a frame. A profile that lcms2 cannot parse, or
  // whose model does not match the pixels, is ignored (the frame is then
  // treated as untagged), as a damaged profile must not reach the output.
  static ColourSpace forFrame(std::span<const uint8_t> iccProfile, bool isGrey);

  bool isRGB() const { return model == Model::rgb; }
  // registeredName, or "embedded profile".
  std::string profileName() const;
};

// The registered name of a profile judged by its description, or empty.
std::string registeredProfileName(std::span<const uint8_t> iccProfile);

}  // namespace tarnbloom::codec
