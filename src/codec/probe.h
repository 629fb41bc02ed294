#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "codec/container.h"

namespace tarnbloom::codec {

// Header facts of a file, read without decoding any pixels.
struct ContainerProbe {
  Container container = Container::unknown;
  // The container could be opened and its frames counted.
  bool opened = false;
  int frameCount = 0;
  // Frame 0 has a usable header (size, depth); false for damaged headers.
  bool hasProperties = false;
  int64_t width = 0;  // stored size of frame 0, orientation not applied
  int64_t height = 0;
  int bitsPerSample = 0;  // the file's own bits per sample; 0 when unknown
  bool isFloat = false;
  uint32_t orientation = 1;  // EXIF/TIFF/HEIF orientation 1...8
};

// Never throws and never decodes pixels.
ContainerProbe probeContainer(std::span<const std::byte> bytes);

}  // namespace tarnbloom::codec
