#include "engine/estimate_engine.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "engine/engine_error.h"
#include "engine/estimate_error.h"
#include "support/sha256.h"
#include "support/state_paths.h"

#ifndef TARNBLOOM_SOURCE_MODELS
#define TARNBLOOM_SOURCE_MODELS ""
#endif

namespace tarnbloom {
namespace {

constexpr const char* kModelFile = "realesr-general-x4v3.param";
// The ×4 estimate is held whole as 8-bit RGBA; beyond this the source is
// too large to enhance.
constexpr uint64_t kMaxEstimateBytes = 3'200'000'000;

float featherWeight(int64_t distance) {
  const float w = static_cast<float>(distance + 1) / EstimateEngine::featherWidth;
  return std::clamp(w, 1e-3f, 1.0f);
}

}  // namespace

std::optional<std::filesystem::path> EstimateEngine::configuredURL() {
  if (const char* configured = std::getenv("TARNBLOOM_ESTIMATE_MODEL"); configured && *configured) {
    const std::filesystem::path path = configured;
    return std::filesystem::exists(path) ? std::optional(path) : std::nullopt;
  }
  for (const std::filesystem::path& folder :
       {applicationDataFolder() / "models", std::filesystem::path(TARNBLOOM_SOURCE_MODELS)}) {
    if (folder.empty()) continue;
    if (std::filesystem::exists(folder / kModelFile)) return folder / kModelFile;
  }
  return std::nullopt;
}

std::vector<int64_t> EstimateEngine::gridOrigins(int64_t length) {
  const int64_t n = length > 33 ? (length - 33) / gridStride : 0;
  std::vector<int64_t> origins;
  for (int64_t k = 0; k <= n; ++k) origins.push_back(-context + gridStride * k);
  return origins;
}

double EstimateEngine::clampStrength(double strength) {
  if (!std::isfinite(strength)) return maximumStrength;
  return std::clamp(strength, minimumStrength, maximumStrength);
}

bool EstimateEngine::isUnblended(double strength) {
  return !std::isfinite(strength) || std::min(strength, maximumStrength) >= maximumStrength;
}

std::vector<uint8_t> EstimateEngine::blendedPixels(const std::vector<uint8_t>& estimate,
                                                   const std::vector<uint8_t>& exact, double strength) {
  if (estimate.size() != exact.size() || isUnblended(strength)) return estimate;
  std::vector<uint8_t> out(estimate.size());
  blendPixels(estimate.data(), exact.data(), estimate.size(), strength, out.data());
  return out;
}

void EstimateEngine::blendPixels(const uint8_t* estimate, const uint8_t* exact, size_t bytes,
                                 double strength, uint8_t* out) {
  const double s = clampStrength(strength);
  for (size_t i = 0; i + 3 < bytes; i += 4) {
    const double alpha = estimate[i + 3];
    for (int c = 0; c < 3; ++c) {
      const double v = std::round((1 - s) * exact[i + c] + s * estimate[i + c]);
      out[i + c] = static_cast<uint8_t>(std::clamp(v, 0.0, alpha));
    }
    out[i + 3] = estimate[i + 3];
  }
}

void EstimateEngine::useModel(SrvggNetwork network, std::string digest) {
  std::lock_guard lock(m_modelLock);
  m_network = std::move(network);
  m_digest = std::move(digest);
  m_runner.reset();
}

const SrvggNetwork& EstimateEngine::model() {
  std::lock_guard lock(m_modelLock);
  if (!m_network) {
    const auto& url = m_modelURL;
    if (!url || !std::filesystem::exists(*url)) throw EstimateError::modelMissing();
    m_network = SrvggNetwork::read(*url);
    std::filesystem::path bin = *url;
    bin.replace_extension(".bin");
    m_digest = sha256OfFile(*url).value_or("") + "+" + sha256OfFile(bin).value_or("");
  }
  return *m_network;
}

std::string EstimateEngine::artifactDigest() {
  model();
  std::lock_guard lock(m_modelLock);
  return m_digest;
}

std::string EstimateEngine::precisionText() {
  std::lock_guard lock(m_modelLock);
  if (!m_ranText.empty()) return m_ranText;
  return EstimateNetwork::precisionText(EstimateNetwork::defaultPrecision(), EstimateNetwork::defaultConvolution());
}

MosaicImage EstimateEngine::inferTiled(const MosaicImage& image, const TileProgress& onTile,
                                       const std::atomic<bool>* cancel) {
  const int64_t outWidth = image.width * scale, outHeight = image.height * scale;
  const uint64_t resultBytes =
      static_cast<uint64_t>(outWidth) * static_cast<uint64_t>(outHeight) * 4;
  if (resultBytes > kMaxEstimateBytes)
    throw EngineError::tooLarge(outWidth, outHeight, resultBytes);
  MosaicImage result{outWidth, outHeight, {}};
  inferRows(
      image,
      [&](const uint8_t* rgba, int64_t firstRow, int64_t count) {
        if (result.rgba.empty()) result.rgba.resize(static_cast<size_t>(resultBytes));
        const size_t rowBytes = static_cast<size_t>(outWidth) * 4;
        std::copy(rgba, rgba + rowBytes * count, result.rgba.data() + rowBytes * firstRow);
      },
      onTile, cancel);
  return result;
}

void EstimateEngine::inferRows(const MosaicImage& image, const EstimateRows& onRows,
                               const TileProgress& onTile, const std::atomic<bool>* cancel) {
  if (image.width < 1 || image.height < 1 || image.rgba.size() != static_cast<size_t>(image.width * image.height * 4))
    throw EstimateError::colourPreparation();
  const SrvggNetwork& network = model();
  if (network.upscale != scale) throw EstimateError::modelFailed("prediction must be [1, 3, 1024, 1024]");
  std::lock_guard render(m_renderLock);
  ++m_inferences;
  if (!m_runner) {
    m_runner = std::make_unique<EstimateNetwork>(network, tileSize, tileSize, 1, EstimateNetwork::defaultPrecision(),
                                                 EstimateNetwork::defaultConvolution());
    std::lock_guard lock(m_modelLock);
    m_ranText = m_runner->precisionText();
  }

  const int64_t outWidth = image.width * scale, outHeight = image.height * scale;

  // Colour and weight sums are kept only for the output rows one row of
  // tiles covers; rows no later tile reaches are finished and the overlap
  // carried on, so memory follows the image's width, not its area.
  const int out = tileSize * scale;
  const size_t stripPixels = static_cast<size_t>(outWidth) * out;
  std::vector<float> sum(stripPixels * 3), weight(stripPixels);
  int64_t stripTop = 0;  // output row of the strip's first row
  std::vector<uint8_t> finished;  // rows handed to onRows, reused down the image

  // Where each output column samples the source's alpha, worked out once.
  struct Sample {
    int64_t first, second;
    double weight;
  };
  auto samplesAlong = [&](int64_t outLength, int64_t length) {
    std::vector<Sample> samples(static_cast<size_t>(outLength));
    for (int64_t i = 0; i < outLength; ++i) {
      const double f = std::clamp((i + 0.5) / scale - 0.5, 0.0, static_cast<double>(length - 1));
      const int64_t first = static_cast<int64_t>(f);
      samples[static_cast<size_t>(i)] = {first, std::min(first + 1, length - 1), f - first};
    }
    return samples;
  };
  const std::vector<Sample> columnSamples = samplesAlong(outWidth, image.width);
  bool opaque = true;
  for (size_t i = 3; i < image.rgba.size() && opaque; i += 4) opaque = image.rgba[i] == 255;

  // Finishes rows [from, to): alpha sampled bilinearly from the source, colour
  // divided by its weight and kept within alpha (premultiplied).
  auto finishRows = [&](int64_t from, int64_t to) {
    finished.resize(static_cast<size_t>((to - from) * outWidth) * 4);
#pragma omp parallel for schedule(static)
    for (int64_t y = from; y < to; ++y) {
      const double fy = std::clamp((y + 0.5) / scale - 0.5, 0.0, static_cast<double>(image.height - 1));
      const int64_t y1 = static_cast<int64_t>(fy), y2 = std::min(y1 + 1, image.height - 1);
      const double wy = fy - y1;
      auto alphaAt = [&](int64_t xx, int64_t yy) { return image.rgba[(yy * image.width + xx) * 4 + 3] / 255.0; };
      for (int64_t x = 0; x < outWidth; ++x) {
        double a8 = 255;  // alpha 1 everywhere interpolates to 255 exactly
        if (!opaque) {
          const auto [x1, x2, wx] = columnSamples[static_cast<size_t>(x)];
          const double alpha = (alphaAt(x1, y1) * (1 - wx) + alphaAt(x2, y1) * wx) * (1 - wy) +
                               (alphaAt(x1, y2) * (1 - wx) + alphaAt(x2, y2) * wx) * wy;
          a8 = std::round(alpha * 255);
        }
        const size_t at = static_cast<size_t>((y - stripTop) * outWidth + x);
        uint8_t* p = finished.data() + static_cast<size_t>((y - from) * outWidth + x) * 4;
        for (int c = 0; c < 3; ++c) {
          const double v = std::round(sum[at * 3 + c] / weight[at] * 255);
          p[c] = static_cast<uint8_t>(std::clamp(v, 0.0, a8));
        }
        p[3] = static_cast<uint8_t>(a8);
      }
    }
    if (to > from) onRows(finished.data(), from, to - from);
  };

  const auto columns = gridOrigins(image.width);
  const auto rows = gridOrigins(image.height);
  const int64_t total = static_cast<int64_t>(columns.size() * rows.size());
  std::vector<float> input(3 * tileSize * tileSize);
  std::vector<float> output(3 * tileSize * tileSize * scale * scale);
  int64_t done = 0;
  for (size_t r = 0; r < rows.size(); ++r) {
    const int64_t oy = rows[r];
    for (const int64_t ox : columns) {
      if (cancel && cancel->load()) throw EngineError::cancelled();
      // Samples outside the image repeat its edge.
#pragma omp parallel for schedule(static)
      for (int y = 0; y < tileSize; ++y) {
        const int64_t sy = std::clamp<int64_t>(oy + y, 0, image.height - 1);
        for (int x = 0; x < tileSize; ++x) {
          const int64_t sx = std::clamp<int64_t>(ox + x, 0, image.width - 1);
          const uint8_t* p = image.rgba.data() + (sy * image.width + sx) * 4;
          for (int c = 0; c < 3; ++c) input[(static_cast<size_t>(c) * tileSize + y) * tileSize + x] = p[c] / 255.0f;
        }
      }
      m_runner->infer(input.data(), output.data());
      bool finite = true;
#pragma omp parallel for schedule(static) reduction(&& : finite)
      for (size_t i = 0; i < output.size(); ++i) finite = finite && std::isfinite(output[i]);
      if (!finite) throw EstimateError::modelFailed("non-finite prediction");

      // Feathered accumulation: weights fall off towards tile edges that lie
      // inside the image; an edge on the image border needs no feathering.
      const int64_t x0 = ox * scale, y0 = oy * scale;
      const bool featherLeft = ox > 0, featherTop = oy > 0;
      const bool featherRight = ox + tileSize < image.width, featherBottom = oy + tileSize < image.height;
#pragma omp parallel for schedule(static)
      for (int y = 0; y < out; ++y) {
        const int64_t ty = y0 + y;
        if (ty < 0 || ty >= outHeight) continue;
        for (int x = 0; x < out; ++x) {
          const int64_t tx = x0 + x;
          if (tx < 0 || tx >= outWidth) continue;
          int64_t d = featherWidth;
          if (featherLeft) d = std::min<int64_t>(d, x);
          if (featherRight) d = std::min<int64_t>(d, out - 1 - x);
          if (featherTop) d = std::min<int64_t>(d, y);
          if (featherBottom) d = std::min<int64_t>(d, out - 1 - y);
          const float w = featherWeight(d);
          const size_t at = static_cast<size_t>((ty - stripTop) * outWidth + tx);
          for (int c = 0; c < 3; ++c) sum[at * 3 + c] += w * output[(static_cast<size_t>(c) * out + y) * out + x];
          weight[at] += w;
        }
      }
      if (onTile) onTile(++done, total);
    }
    // Rows above the next tile row are final; what that row overlaps moves
    // to the top of the strip.
    const int64_t nextTop = r + 1 < rows.size() ? std::max<int64_t>(rows[r + 1] * scale, stripTop) : outHeight;
    finishRows(stripTop, std::min(nextTop, outHeight));
    if (nextTop >= outHeight) break;
    // Moved by both threads: the strip is about 100 MB for a 1.7-megapixel
    // photo, and moving it on one thread cost a tenth of the network's
    // time. Rows shift by at least 704 of 1024, so what is read and what
    // is written never overlap; the zeroing waits until all is read.
    const size_t shift = static_cast<size_t>(nextTop - stripTop) * outWidth;
    const size_t kept = weight.size() - shift;
    const auto move = [&](auto& strip, size_t perPixel) {
      float* data = strip.data();
      const size_t from = shift * perPixel, count = kept * perPixel;
      if (from < count) {
        std::copy(data + from, data + from + count, data);
      } else {
#pragma omp parallel for schedule(static)
        for (size_t i = 0; i < count; ++i) data[i] = data[from + i];
      }
#pragma omp parallel for schedule(static)
      for (size_t i = count; i < strip.size(); ++i) data[i] = 0.0f;
    };
    move(sum, 3);
    move(weight, 1);
    stripTop = nextTop;
  }
}

std::string EstimateEngine::tilingText() {
  return std::to_string(tileSize) + "×" + std::to_string(tileSize) + " tiles, " +
         std::to_string(context) + " px context, " + std::to_string(featherWidth) + " px feather";
}

}  // namespace tarnbloom
