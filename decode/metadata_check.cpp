#include "metadata_check.h"

#include <lcms2.h>

#include <array>
#include <exiv2/exiv2.hpp>

#include "codec/colour_space.h"
#include "support/c_handle.h"

namespace tarnbloom::decodehelper {

namespace {

using Profile = CHandle<void, cmsCloseProfile>;
using Transform = CHandle<void, cmsDeleteTransform>;

void readExif(const std::vector<uint8_t>& block) {
  if (block.empty()) return;
  try {
    Exiv2::ExifData exif;
    const Exiv2::ByteOrder order =
        Exiv2::ExifParser::decode(exif, block.data(), static_cast<uint32_t>(block.size()));
    // The export writes the tags back out: the encoder walks them too.
    Exiv2::Blob blob;
    Exiv2::ExifParser::encode(blob, order == Exiv2::invalidByteOrder ? Exiv2::littleEndian : order,
                              exif);
  } catch (const Exiv2::AnyError&) {
  }
}

void readXmp(const std::string& packet) {
  if (packet.empty()) return;
  try {
    Exiv2::XmpData xmp;
    if (Exiv2::XmpParser::decode(xmp, packet) != 0) return;
    std::string written;
    Exiv2::XmpParser::encode(written, xmp);
  } catch (const Exiv2::AnyError&) {
  }
}

// The profile as the engine uses it: into float RGB and back out of it.
void readProfile(const codec::DecodedFrame& frame) {
  const codec::ColourSpace space =
      codec::ColourSpace::forFrame(frame.iccProfile, frame.pixels.isGrey());
  if (space.iccProfile.empty()) return;
  const Profile profile(cmsOpenProfileFromMem(space.iccProfile.data(),
                                              static_cast<cmsUInt32Number>(space.iccProfile.size())));
  const Profile srgb(cmsCreate_sRGBProfile());
  if (!profile || !srgb) return;
  const bool grey = frame.pixels.isGrey();
  const cmsUInt32Number samples = grey ? TYPE_GRAY_16 : TYPE_RGB_16;
  const cmsUInt32Number floats = grey ? TYPE_GRAY_FLT : TYPE_RGB_FLT;
  const Transform in(cmsCreateTransform(profile.get(), samples, srgb.get(), TYPE_RGB_FLT,
                                        INTENT_RELATIVE_COLORIMETRIC, cmsFLAGS_NOCACHE));
  const Transform out(cmsCreateTransform(srgb.get(), TYPE_RGB_FLT, profile.get(), floats,
                                         INTENT_RELATIVE_COLORIMETRIC, cmsFLAGS_NOCACHE));
  std::array<uint16_t, 12> ramp = {0, 0, 0, 20000, 30000, 40000, 65535, 32768, 0, 65535, 65535, 65535};
  std::array<float, 12> values{};
  if (in) cmsDoTransform(in.get(), ramp.data(), values.data(), 4);
  std::array<float, 12> back{};
  if (out) cmsDoTransform(out.get(), values.data(), back.data(), 4);
}

}  // namespace

void prepareMetadataReaders() {
  Exiv2::LogMsg::setLevel(Exiv2::LogMsg::mute);
  Exiv2::XmpParser::initialize();
  // lcms2 builds its plug-in tables and the sRGB profile once.
  const Profile srgb(cmsCreate_sRGBProfile());
}

void readMetadataAsTheCallerWill(const codec::DecodedFrame& frame) {
  readExif(frame.exif);
  readXmp(frame.xmp);
  readProfile(frame);
}

}  // namespace tarnbloom::decodehelper
