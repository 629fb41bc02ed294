#include "encoding/output_metadata.h"

#include <lcms2.h>

#include <algorithm>
#include <exiv2/exiv2.hpp>
#include <mutex>

#include "engine/source_image.h"
#include "support/c_handle.h"

namespace tarnbloom::encoding {
namespace {

using Profile = CHandle<void, cmsCloseProfile>;

// Exiv2's XMP toolkit must be initialised once per process before any
// thread parses; registering our prefix belongs to the same step.
void initialiseXmp() {
  static std::once_flag once;
  std::call_once(once, [] {
    // Failures reach the user through our own errors; exiv2's log lines on
    // stderr would only repeat them.
    Exiv2::LogMsg::setLevel(Exiv2::LogMsg::mute);
    Exiv2::XmpParser::initialize();
    try {
      Exiv2::XmpProperties::registerNs(std::string(kIptcExtensionNamespace), "Iptc4xmpExt");
    } catch (const Exiv2::AnyError&) {
      // Already known under its own prefix: the namespace is what readers use.
    }
  });
}

bool hasClaim(std::span<const std::string> claims, std::string_view claim) {
  return std::find(claims.begin(), claims.end(), claim) != claims.end();
}

void addDisclosure(Exiv2::XmpData& xmp) {
  const std::string prefix = Exiv2::XmpProperties::prefix(std::string(kIptcExtensionNamespace));
  xmp["Xmp." + prefix + ".DigitalSourceType"] = std::string(kDigitalSourceTypeComposite);
}

std::optional<std::string> serialise(const Exiv2::XmpData& xmp) {
  std::string packet;
  if (Exiv2::XmpParser::encode(packet, xmp) != 0) return std::nullopt;
  return packet;
}

const std::string kExifNamespaces[] = {
    "http://ns.adobe.com/exif/1.0/",
    "http://cipa.jp/exif/1.0/",
    "http://ns.adobe.com/exif/1.0/aux/",
    "http://ns.adobe.com/tiff/1.0/",
};

std::vector<uint8_t> saveProfile(cmsHPROFILE profile) {
  cmsUInt32Number size = 0;
  std::vector<uint8_t> bytes;
  if (profile && cmsSaveProfileToMem(profile, nullptr, &size) && size > 0) {
    bytes.resize(size);
    if (!cmsSaveProfileToMem(profile, bytes.data(), &size)) bytes.clear();
  }
  return bytes;
}

// IFD0 tags that describe how pixels are stored: each writer sets its own,
// and stale ones from the source would contradict the new file.
const char* const kStructureTags[] = {
    "Exif.Image.NewSubfileType",    "Exif.Image.SubfileType",
    "Exif.Image.ImageWidth",        "Exif.Image.ImageLength",
    "Exif.Image.BitsPerSample",     "Exif.Image.Compression",
    "Exif.Image.PhotometricInterpretation", "Exif.Image.StripOffsets",
    "Exif.Image.SamplesPerPixel",   "Exif.Image.RowsPerStrip",
    "Exif.Image.StripByteCounts",   "Exif.Image.PlanarConfiguration",
    "Exif.Image.Predictor",         "Exif.Image.TileWidth",
    "Exif.Image.TileLength",        "Exif.Image.TileOffsets",
    "Exif.Image.TileByteCounts",    "Exif.Image.ExtraSamples",
    "Exif.Image.SampleFormat",      "Exif.Image.SubIFDs",
    "Exif.Image.InterColorProfile", "Exif.Image.XMLPacket",
    "Exif.Image.JPEGInterchangeFormat", "Exif.Image.JPEGInterchangeFormatLength",
    "Exif.Image.YCbCrSubSampling",  "Exif.Image.YCbCrPositioning",
    "Exif.Image.GPSTag",            "Exif.Image.ExifTag",
    "Exif.Image.IPTCNAA",           "Exif.Image.ImageResources",
    "Exif.Photo.InteroperabilityTag",
};

}  // namespace

std::optional<std::string> resolveXmp(const std::optional<std::string>& sourceXmp,
                                      const ColourPolicy& policy,
                                      std::span<const std::string> claims, bool* sourceDropped) {
  const bool estimate = hasClaim(claims, kClaimEstimateExport);
  const bool disclose = estimate || hasClaim(claims, kClaimBackgroundRemoval);
  if (policy.xmp == MetadataToggle::strip && !estimate) return std::nullopt;
  try {
    initialiseXmp();
    Exiv2::XmpData xmp;
    if (policy.xmp == MetadataToggle::keep) {
      if (sourceXmp && !sourceXmp->empty()) {
        // A packet we cannot read is not ours to pass on: it may hold the
        // location the policy strips. Only what we write ourselves goes out.
        if (Exiv2::XmpParser::decode(xmp, *sourceXmp) != 0) {
          xmp.clear();
          if (sourceDropped) *sourceDropped = true;
        } else {
          xmp["Xmp.tiff.Orientation"] = static_cast<uint16_t>(1);
        }
        const bool stripExif = policy.exif == MetadataToggle::strip;
        const bool stripGps = policy.gps == MetadataToggle::strip;
        if (stripExif || stripGps) {
          std::vector<std::string> doomed;
          for (const auto& datum : xmp) {
            const std::string ns = Exiv2::XmpProperties::ns(datum.groupName());
            const bool exifNs = std::find(std::begin(kExifNamespaces), std::end(kExifNamespaces),
                                          ns) != std::end(kExifNamespaces);
            // Locations also sit inside structures, as in the IPTC
            // extension's LocationCreated/exif:GPSLatitude.
            const bool gpsTag = (ns == kExifNamespaces[0] && datum.tagName().rfind("GPS", 0) == 0) ||
                                datum.key().find(":GPS") != std::string::npos ||
                                datum.key().find("/exif:GPS") != std::string::npos;
            if ((stripExif && exifNs) || (stripGps && gpsTag)) doomed.push_back(datum.key());
          }
          for (const auto& key : doomed) {
            const auto it = xmp.findKey(Exiv2::XmpKey(key));
            if (it != xmp.end()) xmp.erase(it);
          }
        }
      } else if (!disclose) {
        return std::nullopt;
      }
    }
    if (disclose) {
      Exiv2::XmpData withDisclosure = xmp;
      try {
        addDisclosure(withDisclosure);
        xmp = std::move(withDisclosure);
      } catch (const Exiv2::AnyError&) {
        // Without the tag the rest of the packet is still worth writing.
      }
    }
    if (xmp.empty()) return std::nullopt;
    return serialise(xmp);
  } catch (const Exiv2::AnyError&) {
    // Nothing of the source's passes a failure; the disclosure still must.
    if (policy.xmp == MetadataToggle::keep && sourceXmp && sourceDropped) *sourceDropped = true;
    if (!disclose) return std::nullopt;
    try {
      Exiv2::XmpData only;
      addDisclosure(only);
      return serialise(only);
    } catch (const Exiv2::AnyError&) {
      return std::nullopt;
    }
  }
}

std::vector<uint8_t> resolveExif(std::span<const uint8_t> sourceExif, const ColourPolicy& policy,
                                 int width, int height, std::vector<std::string>* dropped) {
  const auto drop = [&](const char* what) {
    if (dropped) dropped->push_back(what);
  };
  if (policy.exif == MetadataToggle::strip || sourceExif.empty()) return {};
  initialiseXmp();
  try {
    Exiv2::ExifData exif;
    const Exiv2::ByteOrder order =
        Exiv2::ExifParser::decode(exif, sourceExif.data(), static_cast<uint32_t>(sourceExif.size()));
    if (exif.empty()) {
      drop("exif");
      return {};
    }
    std::vector<std::string> doomed(std::begin(kStructureTags), std::end(kStructureTags));
    const bool stripGps = policy.gps == MetadataToggle::strip;
    // A maker note is the camera maker's own format. Exiv2 reads the ones it
    // knows into groups of their own; one it could not read stays an opaque
    // block. With GPS stripped, a note that holds a location, or that could
    // not be read and so might, goes whole.
    bool makerNoteRead = false, makerNoteHasLocation = false;
    for (const auto& datum : exif) {
      const std::string group = datum.groupName();
      if (!Exiv2::ExifTags::isMakerGroup(group)) continue;
      makerNoteRead = true;
      makerNoteHasLocation = makerNoteHasLocation || datum.tagName().find("GPS") != std::string::npos ||
                             datum.tagName().find("Location") != std::string::npos;
    }
    const bool hasMakerNote = exif.findKey(Exiv2::ExifKey("Exif.Photo.MakerNote")) != exif.end();
    const bool dropMakerNote = stripGps && (makerNoteHasLocation || (hasMakerNote && !makerNoteRead));
    if (dropMakerNote && hasMakerNote && !makerNoteRead) drop("maker note");
    for (const auto& datum : exif) {
      const std::string group = datum.groupName();
      // IFD1 and its kin hold the thumbnail of the old, smaller picture.
      if (group == "Thumbnail" || group.rfind("SubImage", 0) == 0 || group == "Iop" ||
          (stripGps && group == "GPSInfo") ||
          (dropMakerNote && Exiv2::ExifTags::isMakerGroup(group)))
        doomed.push_back(datum.key());
    }
    if (dropMakerNote) doomed.push_back("Exif.Photo.MakerNote");
    for (const auto& key : doomed) {
      const auto it = exif.findKey(Exiv2::ExifKey(key));
      if (it != exif.end()) exif.erase(it);
    }
    exif["Exif.Image.Orientation"] = static_cast<uint16_t>(1);
    exif["Exif.Photo.PixelXDimension"] = static_cast<uint32_t>(width);
    exif["Exif.Photo.PixelYDimension"] = static_cast<uint32_t>(height);
    const Exiv2::ByteOrder byteOrder = order == Exiv2::invalidByteOrder ? Exiv2::littleEndian : order;
    Exiv2::Blob blob;
    Exiv2::ExifParser::encode(blob, byteOrder, exif);
    // A JPEG carries EXIF in one 64 KB marker. The maker note is what grows
    // past it; without it the camera's standard tags still fit.
    if (blob.size() > 65000) {
      const auto note = exif.findKey(Exiv2::ExifKey("Exif.Photo.MakerNote"));
      if (note != exif.end()) exif.erase(note);
      blob.clear();
      Exiv2::ExifParser::encode(blob, byteOrder, exif);
    }
    return {blob.begin(), blob.end()};
  } catch (const Exiv2::AnyError&) {
    drop("exif");
    return {};
  }
}

const std::vector<uint8_t>& sRGBProfile() {
  static const std::vector<uint8_t> bytes = [] {
    const Profile profile(cmsCreate_sRGBProfile());
    return saveProfile(profile.get());
  }();
  return bytes;
}

const std::vector<uint8_t>& greyGamma22Profile() {
  static const std::vector<uint8_t> bytes = [] {
    cmsToneCurve* curve = cmsBuildGamma(nullptr, 2.2);
    const Profile profile(curve ? cmsCreateGrayProfile(cmsD50_xyY(), curve) : nullptr);
    if (curve) cmsFreeToneCurve(curve);
    return saveProfile(profile.get());
  }();
  return bytes;
}

OutputMetadata OutputMetadata::resolve(const SourceImage& source, const ColourPolicy& policy,
                                       std::span<const std::string> claims, int width, int height) {
  OutputMetadata metadata;
  if (policy.icc == MetadataToggle::keep) {
    // An untagged source is sRGB (or grey gamma 2.2); tagging the output
    // says so explicitly, so every reader shows the same colours.
    if (policy.profile == ProfilePolicy::srgb)
      metadata.icc = sRGBProfile();
    else if (!source.colorSpace.iccProfile.empty())
      metadata.icc = source.colorSpace.iccProfile;  // only a profile lcms could read
    else
      metadata.icc = source.isRGB() ? sRGBProfile() : greyGamma22Profile();
  }
  metadata.exif = resolveExif(source.exif, policy, width, height, &metadata.dropped);
  bool xmpDropped = false;
  metadata.xmp = resolveXmp(source.xmpMetadata, policy, claims, &xmpDropped);
  if (xmpDropped) metadata.dropped.push_back("xmp");
  return metadata;
}

}  // namespace tarnbloom::encoding
