#pragma once

#include <cstdint>
#include <vector>

#include "engine/float_image.h"

namespace tarnbloom::LanczosResampler {

inline constexpr int radius = 3;
inline constexpr int tapCount = 6;

// The taps of a run of output samples on one axis: for sample i, entries
// i*6 ... i*6+5 give a source position relative to the window start and its
// weight. Weights of a sample sum to 1 (or are all 0).
struct Axis {
  std::vector<int32_t> index;
  std::vector<float> weight;
};

struct Window {
  int64_t start = 0;
  int64_t count = 0;
};

// Lanczos 3 at a distance in source pixels.
double kernel(double x);

// The span of source samples that output samples start ... start+length-1
// read, on an axis of imageCount source and outputCount output samples.
Window window(int64_t imageCount, int64_t outputCount, int64_t start, int64_t length);

// Taps and weights of that run, relative to the window. Throws EngineError
// ("resample geometry") when an index cannot be stored.
Axis axis(int64_t imageCount, int64_t outputCount, int64_t start, int64_t length,
          int64_t windowStart, int64_t windowCount);

// The two passes of one output rectangle, for callers that consume output
// rows one at a time (converting each while it is still in cache). The
// constructor runs the horizontal pass over the rectangle's source rows;
// row() runs the vertical pass for one output row. Throws as resampleRGBA.
class BandResampler {
 public:
  BandResampler(const FloatImage& source, int64_t windowX, int64_t windowY, int64_t imageWidth,
                int64_t imageHeight, int64_t targetWidth, int64_t targetHeight, int64_t outX,
                int64_t outY, int64_t width, int64_t height);
  // Output row outY + y into `out` (width × channels floats).
  void row(int64_t y, float* out) const;
  int64_t width() const { return m_width; }
  int64_t height() const { return m_height; }

 private:
  int64_t m_width, m_height;
  Axis m_vertical;
  FloatImage m_scratch;
};

// Resamples the output rectangle (outX, outY, into.width, into.height) of an
// imageWidth × imageHeight → targetWidth × targetHeight enlargement. `source`
// holds the source pixels from (windowX, windowY) on; it must cover the
// rectangle's window. Horizontal pass first into scratch, then a row-wide
// vertical pass. Throws EngineError: "resample geometry" when the geometry
// does not fit, "resample scratch" when scratch cannot be allocated.
void resampleRGBA(const FloatImage& source, int64_t windowX, int64_t windowY, int64_t imageWidth,
                  int64_t imageHeight, int64_t targetWidth, int64_t targetHeight, int64_t outX,
                  int64_t outY, FloatImage& into);

// The same for one float channel.
void resamplePlanar(const FloatImage& source, int64_t windowX, int64_t windowY,
                    int64_t imageWidth, int64_t imageHeight, int64_t targetWidth,
                    int64_t targetHeight, int64_t outX, int64_t outY, FloatImage& into);

}  // namespace tarnbloom::LanczosResampler
