#include "codec/cmyk.h"

#include <lcms2.h>

#include "support/c_handle.h"

namespace tarnbloom::codec {
namespace {

using Profile = CHandle<void, cmsCloseProfile>;
using Transform = CHandle<void, cmsDeleteTransform>;

template <typename T>
void complementFormula(const PixelBuffer& cmyk, PixelBuffer& out) {
  constexpr double kMax = sizeof(T) == 1 ? 255.0 : 65535.0;
  for (int y = 0; y < cmyk.height; ++y) {
    const T* in = reinterpret_cast<const T*>(cmyk.row(y));
    T* o = reinterpret_cast<T*>(out.row(y));
    for (int x = 0; x < cmyk.width; ++x, in += 4, o += 3) {
      const double k = 1.0 - in[3] / kMax;
      for (int c = 0; c < 3; ++c) o[c] = static_cast<T>((1.0 - in[c] / kMax) * k * kMax + 0.5);
    }
  }
}

}  // namespace

void convertCmykToSrgb(const PixelBuffer& cmyk, std::span<const uint8_t> iccProfile,
                       PixelBuffer& out) {
  const bool wide = cmyk.format == SampleFormat::uint16;
  out.allocate(cmyk.width, cmyk.height, 3, cmyk.format);

  Profile source;
  if (!iccProfile.empty()) {
    source.reset(cmsOpenProfileFromMem(iccProfile.data(), static_cast<cmsUInt32Number>(iccProfile.size())));
    if (source && cmsGetColorSpace(source.get()) != cmsSigCmykData) source.reset();
  }
  if (source) {
    Profile srgb(cmsCreate_sRGBProfile());
    Transform transform(cmsCreateTransform(source.get(), wide ? TYPE_CMYK_16 : TYPE_CMYK_8,
                                           srgb.get(), wide ? TYPE_RGB_16 : TYPE_RGB_8,
                                           INTENT_PERCEPTUAL, cmsFLAGS_BLACKPOINTCOMPENSATION));
    if (transform) {
      for (int y = 0; y < cmyk.height; ++y)
        cmsDoTransform(transform.get(), cmyk.row(y), out.row(y), static_cast<cmsUInt32Number>(cmyk.width));
      return;
    }
  }
  if (wide)
    complementFormula<uint16_t>(cmyk, out);
  else
    complementFormula<uint8_t>(cmyk, out);
}

}  // namespace tarnbloom::codec
