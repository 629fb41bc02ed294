#pragma once

#include <cstdint>
#include <vector>

#include "engine/float_image.h"

namespace tarnbloom {

// One band of output and where it sits: its source window starts at
// (sourceX, sourceY), its first output pixel is (outputX, outputY) of a
// targetWidth × targetHeight enlargement of an imageWidth × imageHeight source.
struct BandFrame {
  int64_t sourceX = 0, sourceY = 0;
  int64_t outputX = 0, outputY = 0;
  int64_t imageWidth = 0, imageHeight = 0;
  int64_t targetWidth = 0, targetHeight = 0;
};

// How a source buffer handed along with a band is addressed: `global`, the
// whole image; `local`, only the band's window, its first pixel being
// (sourceX, sourceY) of the frame.
enum class BandMapping { global, local };

// The tuning of the Clarity method.
struct ClarityParams {
  static constexpr int ibpIterations = 4;
  static constexpr float ibpStep = 1.0f;
  // Source pixels a back-projected residual reaches (Lanczos 3 fits inside).
  static constexpr int ibpReach = 4;
  // Gaussian sigma of the detail filter, in output pixels per unit of scale.
  static constexpr double sigmaPerScale = 0.45;
  static constexpr float amount = 0.9f;
  static constexpr float noiseK = 2.0f;
  // Linear-light units.
  static constexpr float noiseFloor = 0.001f;
  // Width of the edge mask's ramp, in noise thresholds.
  static constexpr float maskWidth = 3.0f;

  // Source rows (or columns) of context a band needs on each side at this
  // scale (the larger of the two axis scales).
  static int margin(double scale);
};

// Bounded sharpening of a resampled band, on luminance in linear light.
// The result never leaves the range of the four source pixels bracketing
// each output pixel, and agrees with the source when averaged back down.
namespace ClarityPass {

// ITU-R BT.709 on linear RGB.
inline constexpr float lumR = 0.2126f;
inline constexpr float lumG = 0.7152f;
inline constexpr float lumB = 0.0722f;
// Share of the noise threshold withheld from a residual that exceeds it
// when it is propagated back to output resolution.
inline constexpr float propagatedGain = 0.4f;

// A single-channel float image.
using Plane = FloatImage;

// Sharpens one band in place. `band` holds output rows from frame.outputY
// and columns from frame.outputX (RGBA, premultiplied linear); `source` the
// linear source, addressed as `mapping` says. Alpha is never changed, and
// with `hasAlpha` colours stay within their alpha. Throws EngineError
// (vImage): "clarity geometry", "clarity down-projection", "clarity
// back-projection", "resample scratch".
void apply(FloatImage& band, const BandFrame& frame, const FloatImage& source, bool hasAlpha,
           float noiseSigma, BandMapping mapping);

// The planes of one band, kept between bands of a render so that each band
// reuses the memory of the last instead of mapping fresh pages.
struct Workspace {
  Plane sourceY, before, current, spreadLo, spreadHi, spreadRows, residual;
};

// apply() in two steps, for callers that convert rows while they are in
// cache: the band's new luminance (a plane of the band's size in
// `workspace`; the band is not changed), then that luminance carried into
// one row's colour.
const Plane& sharpenLuminance(const FloatImage& band, const BandFrame& frame,
                              const FloatImage& source, float noiseSigma, BandMapping mapping,
                              Workspace& workspace);
void carryColourRow(float* rgba, const float* luminance, int64_t count, bool hasAlpha);

// The noise level of an image's luminance in linear light: the median
// absolute diagonal detail of 2 × 2 blocks, as a Gaussian sigma.
float estimateNoise(const FloatImage& linear);

// Luminance of every pixel of an RGBA image into a plane of its size.
void luminance(const FloatImage& rgba, Plane& into);

// For output samples start ... start+length-1 on an axis of imageCount
// source and outputCount output samples: the source sample bracketing each
// from below (clamped to the image), relative to windowStart. Throws
// "clarity geometry" when the bracketing pair leaves the window.
std::vector<int32_t> bracketTable(int64_t imageCount, int64_t outputCount, int64_t start,
                                  int64_t length, int64_t windowStart, int64_t windowCount);

struct BracketTables {
  std::vector<int32_t> x, y;
};
// Both tables of a bandWidth × bandHeight band, relative to a source window
// starting at (windowX, windowY) of windowWidth × windowHeight.
BracketTables bracketTables(const BandFrame& frame, int64_t bandWidth, int64_t bandHeight,
                            int64_t windowX, int64_t windowY, int64_t windowWidth,
                            int64_t windowHeight);

// Per output pixel, the darkest and brightest of the four source pixels
// (bracket row pair × bracket column pair) in `sourceY`, a window plane.
void bounds(const Plane& sourceY, const BracketTables& tables, Plane& lo, Plane& hi);

// Area weights from output samples down to source samples: source sample j
// covers output interval [j·M/N, (j+1)·M/N). Each source sample of the run
// gets `taps` entries (unused ones weigh 0), indices relative to the output
// run [outputStart, outputStart+outputLength). Parts of a footprint outside
// that run are left out and the rest renormalised; `covered` is 0 where
// nothing of it is inside.
struct AreaAxis {
  int taps = 0;
  std::vector<int32_t> index;
  std::vector<float> weight;
  std::vector<uint8_t> covered;
};
AreaAxis areaAxis(int64_t imageCount, int64_t outputCount, int64_t sourceStart,
                  int64_t sourceLength, int64_t outputStart, int64_t outputLength);

// Averages a band plane (placed as `frame` says) down onto the source grid:
// `into` holds source pixels from (windowX, windowY) on; samples with no
// footprint in the band become 0. Throws "clarity down-projection".
void areaDown(const Plane& plane, const BandFrame& frame, int64_t windowX, int64_t windowY,
              Plane& into);

// Clamps every value of `plane` into its [lo, hi].
void clampTo(Plane& plane, const Plane& lo, const Plane& hi);

}  // namespace ClarityPass
}  // namespace tarnbloom
