#include "engine/colour_conversion.h"

#include <lcms2.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engine/engine_error.h"
#include "support/c_handle.h"

namespace tarnbloom {
namespace {

using codec::ColourSpace;
using codec::PixelBuffer;
using codec::SampleFormat;
using Profile = CHandle<void, cmsCloseProfile>;
using Transform = CHandle<void, cmsDeleteTransform>;
using ToneCurve = CHandle<cmsToneCurve, cmsFreeToneCurve>;
using Matrix = std::array<double, 9>;  // row-major 3 × 3

constexpr int kEncodeSteps = 65536;  // encode tables: uniform in linear light, interpolated

[[noreturn]] void colourFailure() { throw EngineError::vImage("colour conversion", kResamplerInvalidParameter); }

Matrix multiply(const Matrix& a, const Matrix& b) {
  Matrix m{};
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c)
      for (int k = 0; k < 3; ++k) m[r * 3 + c] += a[r * 3 + k] * b[k * 3 + c];
  return m;
}

Matrix inverse(const Matrix& m) {
  const double det = m[0] * (m[4] * m[8] - m[5] * m[7]) - m[1] * (m[3] * m[8] - m[5] * m[6]) +
                     m[2] * (m[3] * m[7] - m[4] * m[6]);
  if (std::fabs(det) < 1e-12) colourFailure();
  const double d = 1.0 / det;
  return {(m[4] * m[8] - m[5] * m[7]) * d, (m[2] * m[7] - m[1] * m[8]) * d, (m[1] * m[5] - m[2] * m[4]) * d,
          (m[5] * m[6] - m[3] * m[8]) * d, (m[0] * m[8] - m[2] * m[6]) * d, (m[2] * m[3] - m[0] * m[5]) * d,
          (m[3] * m[7] - m[4] * m[6]) * d, (m[1] * m[6] - m[0] * m[7]) * d, (m[0] * m[4] - m[1] * m[3]) * d};
}

Profile openProfile(const ColourSpace& space) {
  Profile profile;
  if (!space.iccProfile.empty())
    profile.reset(cmsOpenProfileFromMem(space.iccProfile.data(), static_cast<cmsUInt32Number>(space.iccProfile.size())));
  else if (space.model == ColourSpace::Model::grey) {
    ToneCurve gamma(cmsBuildGamma(nullptr, 2.2));
    profile.reset(cmsCreateGrayProfile(cmsD50_xyY(), gamma.get()));
  } else {
    profile.reset(cmsCreate_sRGBProfile());
  }
  if (!profile) colourFailure();
  return profile;
}

// Extended linear sRGB: sRGB primaries and D65 white with straight-line curves.
Profile linearSrgbProfile() {
  const cmsCIExyY d65 = {0.3127, 0.3290, 1.0};
  const cmsCIExyYTRIPLE primaries = {{0.64, 0.33, 1.0}, {0.30, 0.60, 1.0}, {0.15, 0.06, 1.0}};
  ToneCurve linear(cmsBuildGamma(nullptr, 1.0));
  cmsToneCurve* curves[3] = {linear.get(), linear.get(), linear.get()};
  Profile profile(cmsCreateRGBProfile(&d65, &primaries, curves));
  if (!profile) colourFailure();
  return profile;
}

// The colorant matrix (RGB → PCS XYZ) and curves of a matrix/TRC profile
// that lcms2 would use for a relative colorimetric transform; false when the
// profile carries tables that take precedence, or is not matrix/TRC.
struct Shaper {
  Matrix toXYZ{};
  const cmsToneCurve* curves[3] = {};
  bool grey = false;
};

bool readShaper(cmsHPROFILE profile, bool asInput, Shaper& shaper) {
  const cmsTagSignature tables[] = {asInput ? cmsSigAToB0Tag : cmsSigBToA0Tag,
                                    asInput ? cmsSigAToB1Tag : cmsSigBToA1Tag};
  for (auto tag : tables)
    if (cmsIsTag(profile, tag)) return false;
  if (cmsGetColorSpace(profile) == cmsSigGrayData) {
    shaper.grey = true;
    shaper.curves[0] = static_cast<const cmsToneCurve*>(cmsReadTag(profile, cmsSigGrayTRCTag));
    return shaper.curves[0] != nullptr;
  }
  if (!cmsIsMatrixShaper(profile)) return false;
  const cmsTagSignature colorants[] = {cmsSigRedColorantTag, cmsSigGreenColorantTag, cmsSigBlueColorantTag};
  const cmsTagSignature trcs[] = {cmsSigRedTRCTag, cmsSigGreenTRCTag, cmsSigBlueTRCTag};
  for (int c = 0; c < 3; ++c) {
    const auto* xyz = static_cast<const cmsCIEXYZ*>(cmsReadTag(profile, colorants[c]));
    shaper.curves[c] = static_cast<const cmsToneCurve*>(cmsReadTag(profile, trcs[c]));
    if (!xyz || !shaper.curves[c]) return false;
    shaper.toXYZ[0 * 3 + c] = xyz->X;
    shaper.toXYZ[1 * 3 + c] = xyz->Y;
    shaper.toXYZ[2 * 3 + c] = xyz->Z;
  }
  return true;
}

Matrix linearSrgbToXYZ() {
  Shaper shaper;
  Profile linear = linearSrgbProfile();
  if (!readShaper(linear.get(), true, shaper)) colourFailure();
  return shaper.toXYZ;
}

template <typename T>
float sampleScale() {
  return std::is_same_v<T, uint8_t> ? 1.0f / 255.0f : 1.0f / 65535.0f;
}

// Matrix/TRC input: one decode table per curve and sample value, then one
// matrix.
struct ShaperTables {
  std::vector<float> decode;
  float matrix[9] = {};
  bool grey = false;
  int levels = 256;
};

ShaperTables shaperTables(const Shaper& shaper, bool wide) {
  ShaperTables tables;
  tables.grey = shaper.grey;
  tables.levels = wide ? 65536 : 256;
  const int curveCount = shaper.grey ? 1 : 3;
  tables.decode.resize(static_cast<size_t>(tables.levels) * curveCount);
  for (int c = 0; c < curveCount; ++c)
    for (int v = 0; v < tables.levels; ++v)
      tables.decode[c * tables.levels + v] =
          cmsEvalToneCurveFloat(shaper.curves[c], static_cast<float>(v) / (tables.levels - 1));
  if (!shaper.grey) {
    const Matrix m = multiply(inverse(linearSrgbToXYZ()), shaper.toXYZ);
    for (int i = 0; i < 9; ++i) tables.matrix[i] = static_cast<float>(m[i]);
  }
  return tables;
}

template <typename T>
void shaperToLinear(const PixelBuffer& bitmap, const ShaperTables& tables, int64_t firstRow,
                    FloatImage& out) {
  const int kLevels = tables.levels;
  const float* decode = tables.decode.data();
  const float* mf = tables.matrix;
  const int channels = bitmap.channels;
  const bool alpha = bitmap.hasAlpha();
  const float scale = sampleScale<T>();

#pragma omp parallel for schedule(static)
  for (int64_t y = 0; y < out.height; ++y) {
    const T* in = reinterpret_cast<const T*>(bitmap.row(static_cast<int>(firstRow + y)));
    float* o = out.row(y);
    for (int x = 0; x < bitmap.width; ++x, in += channels, o += 4) {
      float r, g, b;
      if (tables.grey) {
        r = g = b = decode[in[0]];
      } else {
        const float lr = decode[in[0]], lg = decode[kLevels + in[1]], lb = decode[2 * kLevels + in[2]];
        r = mf[0] * lr + mf[1] * lg + mf[2] * lb;
        g = mf[3] * lr + mf[4] * lg + mf[5] * lb;
        b = mf[6] * lr + mf[7] * lg + mf[8] * lb;
      }
      const float a = alpha ? in[channels - 1] * scale : 1.0f;
      o[0] = r * a;
      o[1] = g * a;
      o[2] = b * a;
      o[3] = a;
    }
  }
}

// Any other profile: lcms2 into float linear sRGB, then alpha.
Transform lcmsTransform(const PixelBuffer& bitmap, cmsHPROFILE source) {
  Profile linear = linearSrgbProfile();
  const bool grey = bitmap.isGrey();
  const bool wide = bitmap.format == SampleFormat::uint16;
  const cmsUInt32Number inFormat = grey ? (wide ? TYPE_GRAY_16 : TYPE_GRAY_8) : (wide ? TYPE_RGB_16 : TYPE_RGB_8);
  // Skip the alpha sample in the input layout.
  const cmsUInt32Number inLayout = bitmap.hasAlpha() ? inFormat | EXTRA_SH(1) : inFormat;
  Transform transform(cmsCreateTransform(source, inLayout, linear.get(), TYPE_RGB_FLT,
                                         INTENT_RELATIVE_COLORIMETRIC, cmsFLAGS_NOCACHE));
  if (!transform) colourFailure();
  return transform;
}

template <typename T>
void lcmsToLinear(const PixelBuffer& bitmap, cmsHTRANSFORM transform, int64_t firstRow,
                  FloatImage& out) {
  const int channels = bitmap.channels;
  const float scale = sampleScale<T>();

#pragma omp parallel
  {
    std::vector<float> rgb(static_cast<size_t>(bitmap.width) * 3);
#pragma omp for schedule(static)
    for (int64_t y = 0; y < out.height; ++y) {
      const uint8_t* row = bitmap.row(static_cast<int>(firstRow + y));
      cmsDoTransform(transform, row, rgb.data(), static_cast<cmsUInt32Number>(bitmap.width));
      const T* in = reinterpret_cast<const T*>(row);
      float* o = out.row(y);
      for (int x = 0; x < bitmap.width; ++x) {
        const float a = bitmap.hasAlpha() ? in[x * channels + channels - 1] * scale : 1.0f;
        o[x * 4 + 0] = rgb[x * 3 + 0] * a;
        o[x * 4 + 1] = rgb[x * 3 + 1] * a;
        o[x * 4 + 2] = rgb[x * 3 + 2] * a;
        o[x * 4 + 3] = a;
      }
    }
  }
}

// Encodes one linear channel value through a table uniform in linear light
// (kEncodeSteps intervals), interpolating between entries.
inline float encodeThrough(const float* table, float linear) {
  const float clamped = linear > 0.0f ? (linear < 1.0f ? linear : 1.0f) : 0.0f;
  const float position = clamped * kEncodeSteps;
  int index = static_cast<int>(position);
  index = index < kEncodeSteps - 1 ? index : kEncodeSteps - 1;
  const float t = position - static_cast<float>(index);
  return table[index] + t * (table[index + 1] - table[index]);
}

// The common case, opaque RGB: matrix, curves and rounding in one loop that
// the compiler can vectorise (with gathers) for each instruction set.
template <typename Out>
inline void encodeOpaqueRgb(const float* __restrict rgba, int64_t count, const float* m,
                            const float* t0, const float* t1, const float* t2, Out* __restrict out) {
  constexpr float kMax = sizeof(Out) == 1 ? 255.0f : 65535.0f;
  for (int64_t x = 0; x < count; ++x) {
    const float r = rgba[x * 4], g = rgba[x * 4 + 1], b = rgba[x * 4 + 2];
    const float e0 = encodeThrough(t0, m[0] * r + m[1] * g + m[2] * b);
    const float e1 = encodeThrough(t1, m[3] * r + m[4] * g + m[5] * b);
    const float e2 = encodeThrough(t2, m[6] * r + m[7] * g + m[8] * b);
    out[x * 3] = static_cast<Out>(e0 * kMax + 0.5f);
    out[x * 3 + 1] = static_cast<Out>(e1 * kMax + 0.5f);
    out[x * 3 + 2] = static_cast<Out>(e2 * kMax + 0.5f);
  }
}

__attribute__((target_clones("arch=x86-64-v4", "arch=x86-64-v3", "default")))
void encodeOpaqueRgb8(const float* rgba, int64_t count, const float* m, const float* t0,
                      const float* t1, const float* t2, uint8_t* out) {
  encodeOpaqueRgb<uint8_t>(rgba, count, m, t0, t1, t2, out);
}

__attribute__((target_clones("arch=x86-64-v4", "arch=x86-64-v3", "default")))
void encodeOpaqueRgb16(const float* rgba, int64_t count, const float* m, const float* t0,
                       const float* t1, const float* t2, uint16_t* out) {
  encodeOpaqueRgb<uint16_t>(rgba, count, m, t0, t1, t2, out);
}

}  // namespace

struct LinearConverter::Impl {
  Profile profile;
  std::optional<ShaperTables> shaper;
  Transform transform;  // when not matrix/TRC
};

LinearConverter::LinearConverter(const PixelBuffer& bitmap, const ColourSpace& space)
    : m_bitmap(bitmap), m_impl(std::make_unique<Impl>()) {
  if (bitmap.format == SampleFormat::float32) colourFailure();
  m_impl->profile = openProfile(space);
  Shaper shaper;
  if (readShaper(m_impl->profile.get(), true, shaper) && shaper.grey == bitmap.isGrey())
    m_impl->shaper = shaperTables(shaper, bitmap.format == SampleFormat::uint16);
  else
    m_impl->transform = lcmsTransform(bitmap, m_impl->profile.get());
}

LinearConverter::~LinearConverter() = default;

FloatImage LinearConverter::rows(int64_t firstRow, int64_t count) const {
  if (firstRow < 0 || count < 0 || firstRow + count > m_bitmap.height) colourFailure();
  FloatImage out;
  try {
    out = FloatImage(m_bitmap.width, count, 4);
  } catch (const std::bad_alloc&) {
    throw EngineError::vImage("resample scratch", kResamplerMemoryAllocationError);
  }
  const bool wide = m_bitmap.format == SampleFormat::uint16;
  if (m_impl->shaper) {
    wide ? shaperToLinear<uint16_t>(m_bitmap, *m_impl->shaper, firstRow, out)
         : shaperToLinear<uint8_t>(m_bitmap, *m_impl->shaper, firstRow, out);
  } else {
    wide ? lcmsToLinear<uint16_t>(m_bitmap, m_impl->transform.get(), firstRow, out)
         : lcmsToLinear<uint8_t>(m_bitmap, m_impl->transform.get(), firstRow, out);
  }
  return out;
}

FloatImage convertToLinear(const PixelBuffer& bitmap, const ColourSpace& space) {
  return LinearConverter(bitmap, space).rows(0, bitmap.height);
}

struct OutputConverter::Impl {
  bool shaper = false;
  bool grey = false;
  bool alpha = false;
  bool sixteen = false;
  bool flatten = false;
  bool opaque = false;
  float flattenColour[3] = {};
  float matrix[9] = {};
  float greyWeights[3] = {};
  // Per output channel: encoded value (0...1) at kEncodeSteps + 1 points
  // uniform in linear light, interpolated.
  std::shared_ptr<const std::vector<float>> encode[3];
  Profile profile;
  Transform transform;  // when not matrix/TRC

  // Straight (un-premultiplied) colour of a working pixel, or the pixel
  // composited onto the flatten colour.
  float straight(const float* rgba, float rgb[3]) const {
    const float a = rgba[3];
    if (flatten) {
      for (int c = 0; c < 3; ++c) rgb[c] = rgba[c] + (1.0f - a) * flattenColour[c];
      return 1.0f;
    }
    const float inv = a > 0.0f ? 1.0f / a : 0.0f;
    for (int c = 0; c < 3; ++c) rgb[c] = rgba[c] * inv;
    return a;
  }

  float encodeChannel(int c, float linear) const { return encodeThrough(encode[c]->data(), linear); }
};

namespace {

// The inverse of a tone curve sampled uniformly in linear light. Building
// one costs about 3 ms of pow() per channel, more than rendering a small
// photo, so tables are kept per distinct curve for the life of the process.
std::shared_ptr<const std::vector<float>> encodeTable(const cmsToneCurve* curve) {
  // A curve is identified by its 16-bit table, which lcms keeps for every
  // curve, and by its exact parameters when it has them.
  const cmsUInt32Number entries = cmsGetToneCurveEstimatedTableEntries(curve);
  const cmsUInt16Number* values = cmsGetToneCurveEstimatedTable(curve);
  std::string key(reinterpret_cast<const char*>(values), entries * sizeof(cmsUInt16Number));
  const cmsInt32Number type = cmsGetToneCurveParametricType(curve);
  key.append(reinterpret_cast<const char*>(&type), sizeof type);
  if (const cmsFloat64Number* parameters = type != 0 ? cmsGetToneCurveParams(curve) : nullptr)
    key.append(reinterpret_cast<const char*>(parameters), 10 * sizeof(cmsFloat64Number));
  static std::mutex mutex;
  static std::map<std::string, std::shared_ptr<const std::vector<float>>> tables;
  {
    std::lock_guard lock(mutex);
    if (const auto found = tables.find(key); found != tables.end()) return found->second;
  }
  ToneCurve reversed(cmsReverseToneCurve(curve));
  if (!reversed) colourFailure();
  auto table = std::make_shared<std::vector<float>>(kEncodeSteps + 1);
  for (int i = 0; i <= kEncodeSteps; ++i)
    (*table)[i] = std::clamp(cmsEvalToneCurveFloat(reversed.get(), static_cast<float>(i) / kEncodeSteps), 0.0f, 1.0f);
  std::lock_guard lock(mutex);
  if (tables.size() >= 32) tables.clear();  // a bound for processes that see many profiles
  return tables.emplace(std::move(key), std::move(table)).first->second;
}

}  // namespace

OutputConverter::OutputConverter(const ColourSpace& space, bool sixteenBit, bool alpha)
    : m_impl(std::make_unique<Impl>()) {
  Impl& impl = *m_impl;
  impl.alpha = alpha;
  impl.sixteen = sixteenBit;
  impl.grey = space.model == ColourSpace::Model::grey;
  impl.profile = openProfile(space);
  m_channels = (impl.grey ? 1 : 3) + (alpha ? 1 : 0);
  m_format = sixteenBit ? SampleFormat::uint16 : SampleFormat::uint8;

  Shaper shaper;
  if (readShaper(impl.profile.get(), false, shaper) && shaper.grey == impl.grey) {
    impl.shaper = true;
    const Matrix linearToXYZ = linearSrgbToXYZ();
    if (impl.grey) {
      // A grey profile's curve maps grey to PCS Y.
      for (int c = 0; c < 3; ++c) impl.greyWeights[c] = static_cast<float>(linearToXYZ[3 + c]);
    } else {
      const Matrix m = multiply(inverse(shaper.toXYZ), linearToXYZ);
      for (int i = 0; i < 9; ++i) impl.matrix[i] = static_cast<float>(m[i]);
    }
    for (int c = 0; c < (impl.grey ? 1 : 3); ++c) impl.encode[c] = encodeTable(shaper.curves[c]);
  } else {
    Profile linear = linearSrgbProfile();
    const cmsUInt32Number outFormat =
        impl.grey ? (sixteenBit ? TYPE_GRAY_16 : TYPE_GRAY_8) : (sixteenBit ? TYPE_RGB_16 : TYPE_RGB_8);
    impl.transform.reset(cmsCreateTransform(linear.get(), TYPE_RGB_FLT, impl.profile.get(),
                                            alpha ? outFormat | EXTRA_SH(1) : outFormat,
                                            INTENT_RELATIVE_COLORIMETRIC,
                                            cmsFLAGS_NOCACHE));
    if (!impl.transform) colourFailure();
  }
}

void OutputConverter::assumeOpaque() { m_impl->opaque = true; }

void OutputConverter::setFlatten(std::array<float, 3> linearColour) {
  m_impl->flatten = true;
  for (int c = 0; c < 3; ++c) m_impl->flattenColour[c] = linearColour[c];
}

OutputConverter::~OutputConverter() = default;
OutputConverter::OutputConverter(OutputConverter&&) noexcept = default;

void OutputConverter::convertRow(const float* rgba, int64_t count, uint8_t* out) const {
  const Impl& impl = *m_impl;
  const float maxValue = impl.sixteen ? 65535.0f : 255.0f;
  auto store = [&](int64_t i, float unit) {
    const float v = unit * maxValue + 0.5f;
    const float clamped = v < 0.0f ? 0.0f : (v > maxValue ? maxValue : v);
    if (impl.sixteen)
      reinterpret_cast<uint16_t*>(out)[i] = static_cast<uint16_t>(clamped);
    else
      out[i] = static_cast<uint8_t>(clamped);
  };
  const int channels = m_channels;

  if (!impl.shaper) {
    // lcms2 path: un-premultiply into a float row, transform, then alpha.
    std::vector<float> rgb(static_cast<size_t>(count) * 3);
    std::vector<float> alpha(static_cast<size_t>(count));
    for (int64_t x = 0; x < count; ++x) alpha[x] = impl.straight(rgba + x * 4, &rgb[x * 3]);
    cmsDoTransform(impl.transform.get(), rgb.data(), out, static_cast<cmsUInt32Number>(count));
    if (impl.alpha)
      for (int64_t x = 0; x < count; ++x) store(x * channels + channels - 1, alpha[x]);
    return;
  }

  const float* m = impl.matrix;
  if (impl.opaque && !impl.grey && !impl.alpha) {
    const float *t0 = impl.encode[0]->data(), *t1 = impl.encode[1]->data(), *t2 = impl.encode[2]->data();
    if (impl.sixteen)
      encodeOpaqueRgb16(rgba, count, m, t0, t1, t2, reinterpret_cast<uint16_t*>(out));
    else
      encodeOpaqueRgb8(rgba, count, m, t0, t1, t2, out);
    return;
  }
  for (int64_t x = 0; x < count; ++x, rgba += 4) {
    float rgb[3];
    const float a = impl.straight(rgba, rgb);
    const float r = rgb[0], g = rgb[1], b = rgb[2];
    const int64_t base = x * channels;
    if (impl.grey) {
      const float y = impl.greyWeights[0] * r + impl.greyWeights[1] * g + impl.greyWeights[2] * b;
      store(base, impl.encodeChannel(0, y));
    } else {
      store(base + 0, impl.encodeChannel(0, m[0] * r + m[1] * g + m[2] * b));
      store(base + 1, impl.encodeChannel(1, m[3] * r + m[4] * g + m[5] * b));
      store(base + 2, impl.encodeChannel(2, m[6] * r + m[7] * g + m[8] * b));
    }
    if (impl.alpha) store(base + channels - 1, a);
  }
}

}  // namespace tarnbloom
