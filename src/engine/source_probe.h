#pragma once

#include <cstdint>
#include <filesystem>

#include "codec/probe.h"

namespace tarnbloom {

// The cheap look at a file: header properties only, no pixels decoded. Used
// wherever many files must be classified quickly.
struct SourceProbe {
  // The container opened and has exactly one frame with usable properties.
  bool readable = false;
  // A single still image whose depth can be normalised; false for GIF and
  // multi-frame files.
  bool supportedFormat = false;
  int64_t width = 0;  // oriented: already swapped for orientations 5 to 8
  int64_t height = 0;
  int bitDepth = 8;  // normalised: 8 or 16; 8 when unknown
  uint32_t orientation = 1;
  // Not an image container at all, or one with no frame.
  bool notAnImage = false;
  // An image, but of a kind that is never enlarged (GIF).
  bool unsupportedType = false;
  // The bytes start like an image format we know, whatever followed: a
  // file that then cannot be opened is damaged, not foreign.
  bool knownContainer = false;

  // Never fails; every outcome is in the fields.
  static SourceProbe probe(const std::filesystem::path& url);
  // The same classification from header facts already read.
  static SourceProbe fromHeader(const codec::ContainerProbe& header);
};

}  // namespace tarnbloom
