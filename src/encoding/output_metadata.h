#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "encoding/colour_policy.h"

namespace tarnbloom {
struct SourceImage;
}

namespace tarnbloom::encoding {

// Claims an export carries that call for the AI disclosure.
inline constexpr std::string_view kClaimEstimateExport = "CLAIM-ESTIMATE-EXPORT";
inline constexpr std::string_view kClaimBackgroundRemoval = "CLAIM-BG-REMOVE";

inline constexpr std::string_view kIptcExtensionNamespace =
    "http://iptc.org/std/Iptc4xmpExt/2008-02-29/";
inline constexpr std::string_view kDigitalSourceTypeComposite =
    "http://cv.iptc.org/newscodes/digitalsourcetype/compositeWithTrainedAlgorithmicMedia";

// The XMP to write under `policy`: the source's packet with orientation 1
// and the stripped namespaces removed, plus the AI disclosure when the
// claims call for it. With XMP stripped only an Enhance export writes a
// packet, holding the disclosure alone. None when nothing is to be written.
// A source packet that cannot be parsed is dropped, never carried: what it
// holds could be exactly what the policy strips. `sourceDropped` says so.
std::optional<std::string> resolveXmp(const std::optional<std::string>& sourceXmp,
                                      const ColourPolicy& policy,
                                      std::span<const std::string> claims,
                                      bool* sourceDropped = nullptr);

// The TIFF-structured EXIF block to write: the source's tags with
// orientation 1, the output's pixel size, no thumbnail, no image-structure
// tags, and no GPS when it is stripped: neither the GPS directory nor a
// maker note that holds a location or could not be read. Empty when EXIF is
// stripped, the source has none, or the source's block cannot be parsed (an
// unparsed block could rotate the upright pixels again or leak a location).
// What was dropped because it could not be read goes into `dropped`
// ("exif", "maker note").
std::vector<uint8_t> resolveExif(std::span<const uint8_t> sourceExif, const ColourPolicy& policy,
                                 int width, int height,
                                 std::vector<std::string>* dropped = nullptr);

// An sRGB ICC profile, and a grey one with gamma 2.2, made once.
const std::vector<uint8_t>& sRGBProfile();
const std::vector<uint8_t>& greyGamma22Profile();

// Everything an encoder embeds beside the pixels.
struct OutputMetadata {
  std::vector<uint8_t> icc;  // empty: no profile embedded
  std::vector<uint8_t> exif;
  std::optional<std::string> xmp;
  // Source metadata the policy wanted kept but that could not be read, so
  // it was left out: "xmp", "exif", "maker note", "icc".
  std::vector<std::string> dropped;

  // For a render of `source` of width × height pixels made under `policy`
  // (kept profile or sRGB; grey stays grey only with the profile kept).
  static OutputMetadata resolve(const SourceImage& source, const ColourPolicy& policy,
                                std::span<const std::string> claims, int width, int height);
};

}  // namespace tarnbloom::encoding
