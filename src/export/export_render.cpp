#include "export/export_render.h"

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>

#include "encoding/byte_sink.h"
#include "encoding/image_writer.h"
#include "encoding/jpeg_encoder.h"
#include "encoding/output_metadata.h"
#include "encoding/webp_encoder.h"
#include "engine/colour_conversion.h"
#include "export/preflight.h"
#include "support/files.h"
#include "support/sha256.h"

namespace tarnbloom::exporting {

using encoding::ExportFormat;

namespace {

class StageClock {
 public:
  explicit StageClock(std::map<std::string, double>& timings) : m_timings(timings) {}
  void mark(const char* stage) {
    const auto now = std::chrono::steady_clock::now();
    m_timings[stage] = std::chrono::duration<double>(now - m_last).count();
    m_last = now;
  }
  // Two stages that took turns since the last mark: `measured` seconds of
  // it were `second`'s, the rest `first`'s.
  void markInterleaved(const char* first, const char* second, double measured) {
    const auto now = std::chrono::steady_clock::now();
    m_timings[first] = std::chrono::duration<double>(now - m_last).count() - measured;
    m_timings[second] = measured;
    m_last = now;
  }

 private:
  std::map<std::string, double>& m_timings;
  std::chrono::steady_clock::time_point m_last = std::chrono::steady_clock::now();
};

// Whether `format` is written from rows as they are rendered. A JPEG size
// ceiling takes several whole encodes; WebP, HEIC and AVIF take the whole
// picture in their libraries.
// Enough of a JPEG's start to reach its frame header past any metadata.
constexpr size_t kJPEGHeadBytes = size_t{16} << 20;

bool streams(ExportFormat format, const ExportOptions& options) {
  return format == ExportFormat::png || format == ExportFormat::tiff ||
         (format == ExportFormat::jpeg && !options.jpeg.maxBytes);
}

// Each band of an Exact or Clarity render frees its float buffers, and an
// encoder its pieces, before the next band allocates them again. glibc
// raises its mmap threshold as large blocks are freed, so later bands'
// buffers come from heaps that keep what was freed, and a band a little
// larger than the last one no longer fits where that one was: the heaps
// then grow band after band, tens of megabytes past what any band holds,
// depending on thread timing. Freed pages go back whenever the heaps grow
// 16 MiB past the largest size they kept after giving back, so the peak
// is what one step really holds and at most that much more, which is what
// memory admission estimates. Heaps that only reuse what they hold are
// left alone: giving pages back costs faulting them in again (a trim after
// every band costs ×4 of 24 MP a tenth more time; this, nothing
// measurable). Measuring from the size before giving back instead lets
// one band's growth through: a third more at the peak of ×8 of 2 MP.
class HeapGrowth {
 public:
  void giveBackFreedPages() {
    if (::mallinfo2().arena <= m_largest + kSlack) return;
    ::malloc_trim(0);
    m_largest = std::max(m_largest, ::mallinfo2().arena);
  }

 private:
  static constexpr size_t kSlack = kBandHeapSlackBytes;
  size_t m_largest = 0;
};

// What stops a render whose file on disk could not be written: the band
// receiver throws it past the engine.
struct FileWriteStopped {
  int errnoValue;
};

// Renders band by band into the format's row writer: the output's pixels
// are never held whole, and the file goes to `disk` when there is one,
// else to memory. The writer opens on the first band, which fixes the
// layout the render chose.
void renderStreamed(SourceImage source, EstimateEngine* estimates, const ResolvedSize& size,
                    const ExportOptions& options, const RenderOutput& output, ExportFormat format,
                    const encoding::OutputMetadata& metadata, EncodedExport& result,
                    const RenderProgress& progress, const std::atomic<bool>* cancel,
                    StageClock& clock, std::unique_ptr<encoding::FileSink> disk,
                    HeapGrowth& heaps) {
  encoding::MemorySink memory(true);
  encoding::ByteSink& sink = disk ? static_cast<encoding::ByteSink&>(*disk) : memory;
  std::unique_ptr<encoding::RowWriter> writer;
  double encodeSeconds = 0;
  // A full or failing disk stops the render; the export then fails where
  // it is staged, naming its output, as any other write would.
  const auto writing = [&](const auto& step) {
    try {
      step();
    } catch (const FileError& error) {
      if (!disk) throw;
      throw FileWriteStopped{error.errnoValue()};
    }
  };
  const auto encodeBand = [&](const codec::PixelBuffer& rows, int64_t) {
    heaps.giveBackFreedPages();  // the band's float buffers, before the encoder's own
    const auto start = std::chrono::steady_clock::now();
    writing([&] {
      if (!writer) {
        const auto layout = encoding::RowLayout::of(rows, static_cast<int>(size.height));
        if (format == ExportFormat::png) {
          writer = encoding::openPNG(layout, metadata, sink);
        } else if (format == ExportFormat::tiff) {
          writer = encoding::openTIFF(layout, metadata, sink);
        } else {
          const encoding::JPEGOptions jpeg = options.jpeg.normalized();
          writer = encoding::JPEGEncoder::openRows(layout, metadata, jpeg.quality, jpeg.subsampling,
                                                   sink);
        }
      }
      writer->writeRows(rows);
    });
    encodeSeconds +=
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  try {
    {
      const ResampleEngine engine(std::move(source), estimates);
      clock.mark("linearise");
      engine.exportBands({size.width, size.height}, options.method, output, encodeBand, progress,
                         cancel);
    }
    // The source is gone before the file is finished: TIFF may hold its
    // file more than once while its EXIF goes in.
    const auto start = std::chrono::steady_clock::now();
    writing([&] {
      writer->finish();
      writer.reset();
      result.sha256 = disk ? disk->sha256() : memory.sha256();
    });
    encodeSeconds +=
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  } catch (const FileWriteStopped& stopped) {
    result.writeFailure = stopped.errnoValue;
    return;
  }
  clock.markInterleaved("render", "encode", encodeSeconds);
  std::vector<uint8_t> head;
  if (disk) {
    result.size = disk->size();
    if (format == ExportFormat::jpeg) head = disk->head(kJPEGHeadBytes);
    result.file = std::move(disk);
  } else {
    result.bytes = memory.take();
    result.size = result.bytes.size();
  }
  if (format == ExportFormat::jpeg) {
    result.jpegReport = encoding::JPEGEncoder::report(
        options.jpeg, options.jpeg.normalized().quality, false, result.file ? head : result.bytes);
    result.jpegReport->bytesActual = static_cast<int64_t>(result.size);
  }
}

}  // namespace

EncodedExport renderAndEncode(SourceImage source, const ExportOptions& options,
                              const ResolvedSize& size, ExportFormat format,
                              const std::vector<std::string>& claims, EstimateEngine* estimates,
                              const RenderProgress& progress, const std::atomic<bool>* cancel,
                              const std::filesystem::path& fileFolder) {
  EncodedExport result;
  // A canvas decides the output's size: known before any pixel is rendered.
  const auto& canvasSpec = options.canvas;
  result.width = canvasSpec ? canvasSpec->width : size.width;
  result.height = canvasSpec ? canvasSpec->height : size.height;
  result.claims = claims;
  StageClock clock(result.timings);
  // WebP's side limit is known before any pixel is rendered.
  if (format == ExportFormat::webp) encoding::WebPEncoder::preflight(result.width, result.height);

  // WebP, HEIC and AVIF store colour only: a grey source goes to them as
  // sRGB grey, since its grey profile cannot describe RGB pixels.
  encoding::ColourPolicy policy = options.colourPolicy;
  if (!source.isRGB() && (format == ExportFormat::webp || format == ExportFormat::heic ||
                          format == ExportFormat::avif))
    policy.profile = encoding::ProfilePolicy::srgb;
  RenderOutput output;
  output.estimateStrength = options.estimateStrength;
  output.keepProfile = policy.profile == encoding::ProfilePolicy::keep;
  output.sixteenBit = source.bitsPerComponent == 16 && encoding::supports16Bit(format);
  const auto flattenSRGB = encoding::ColourPolicy::resolveFlattenColourSRGB(policy.flatten);
  if (!encoding::supportsAlpha(format) && source.hasAlpha)
    output.flatten =
        std::array<float, 3>{linearFromSRGB(flattenSRGB[0]), linearFromSRGB(flattenSRGB[1]),
                             linearFromSRGB(flattenSRGB[2])};
  const encoding::OutputMetadata metadata = encoding::OutputMetadata::resolve(
      source, policy, claims, static_cast<int>(result.width), static_cast<int>(result.height));
  result.metadataDropped = metadata.dropped;
  canvas::CanvasPreviewContext context;
  canvas::ComposeTarget target;
  if (canvasSpec) {
    context.sourceIdentity = source.sourceHash.value_or("");
    context.resampledWidth = size.width;
    context.resampledHeight = size.height;
    context.canvas = *canvasSpec;
    context.formatToken = std::string(encoding::rawValue(format));
    target.colourSpace =
        output.keepProfile ? source.colorSpace : codec::ColourSpace::forFrame({}, false);
    target.keepsAlpha = encoding::supportsAlpha(format);
    target.flattenSRGB = flattenSRGB;
  }

  HeapGrowth heaps;
  const RenderProgress bandDone = [&, method = options.method](int64_t done, int64_t total) {
    if (method != ResampleMethod::estimate) heaps.giveBackFreedPages();
    if (progress) progress(done, total);
  };
  if (!canvasSpec && streams(format, options)) {
    renderStreamed(std::move(source), estimates, size, options, output, format, metadata, result,
                   bandDone, cancel, clock,
                   fileFolder.empty() ? nullptr : encoding::FileSink::openUnnamed(fileFolder),
                   heaps);
    return result;
  }

  codec::PixelBuffer image;
  {
    const ResampleEngine engine(std::move(source), estimates);
    clock.mark("linearise");
    image = engine.exportImage({size.width, size.height}, options.method, output, bandDone, cancel);
  }
  clock.mark("render");
  if (canvasSpec) {
    auto applied = canvas::CanvasComposer::apply(canvasSpec, std::move(image),
                                                 options.canvasConfirmation, context, target);
    image = std::move(applied.image);
    result.canvas = applied.canvas;
    result.cropRect = applied.cropRect;
    result.padding = applied.padding;
  }

  switch (format) {
    case ExportFormat::png:
      result.bytes = encoding::encodePNG(image, metadata);
      break;
    case ExportFormat::tiff:
      result.bytes = encoding::encodeTIFF(image, metadata);
      break;
    case ExportFormat::avif:
    case ExportFormat::heic: {
      const int quality = options.heifQuality.value_or(encoding::kImageWriterLossyQuality);
      result.bytes = encoding::encodeHEIF(format, image, metadata, quality);
      result.heifQuality = quality;
      break;
    }
    case ExportFormat::webp:
      result.bytes = encoding::WebPEncoder::encode(image, metadata, options.webp);
      result.webpOptions = options.webp.normalized();
      break;
    case ExportFormat::jpeg: {
      auto encoded = encoding::JPEGEncoder::encode(image, metadata, options.jpeg);
      result.bytes = std::move(encoded.data);
      result.jpegReport = encoded.report;
      break;
    }
  }
  result.size = result.bytes.size();
  result.sha256 = sha256Hex(std::as_bytes(std::span(result.bytes)));
  clock.mark("encode");
  return result;
}

void EncodedExport::stage(const std::filesystem::path& path) const {
  if (writeFailure) throw FileError(path, "write", writeFailure);
  if (!file) return writeNewFile(path, std::as_bytes(std::span(bytes)));
  file->linkAs(path);
}

std::vector<uint8_t> EncodedExport::contents() const {
  if (!file) return bytes;
  std::vector<uint8_t> whole(file->size());
  whole.resize(file->readAt(0, whole));
  return whole;
}

}  // namespace tarnbloom::exporting
