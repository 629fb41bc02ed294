#include "encoding/jpeg_encoder.h"

// clang-format off
#include <stdio.h>  // jpeglib.h uses FILE without declaring it
#include <jpeglib.h>
#include <jerror.h>
// clang-format on
#include <openssl/evp.h>

#include <algorithm>
#include <csetjmp>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include "encoding/byte_sink.h"
#include "engine/engine_error.h"
#include "support/settings.h"

namespace tarnbloom::encoding {
namespace {

constexpr char kExifHeader[] = "Exif\0\0";                     // 6 bytes with the two NULs
constexpr char kXmpHeader[] = "http://ns.adobe.com/xap/1.0/";  // written with its NUL
constexpr size_t kMaxMarkerPayload = 65533;

struct ErrorManager {
  jpeg_error_mgr base;
  std::jmp_buf jump;
};

void errorExit(j_common_ptr cinfo) {
  std::longjmp(reinterpret_cast<ErrorManager*>(cinfo->err)->jump, 1);
}
void quietMessage(j_common_ptr) {}

// Everything an encode needs, prepared outside the setjmp function so that
// no object with a destructor lives in it.
struct EncodeJob {
  RowLayout layout;
  int quality;
  std::optional<JPEGSubsampling> subsampling;
  const std::vector<uint8_t>* icc;
  const std::vector<uint8_t>* exifMarker;  // with its "Exif\0\0" header
  const std::vector<std::vector<uint8_t>>* xmpMarkers;
  std::array<uint8_t, 3> flatten;
  uint8_t* scratch;  // one output row, used when samples need converting
};

// Turns row y of `rows` into 8-bit samples without alpha.
const uint8_t* prepareRow(const EncodeJob& job, const codec::PixelBuffer& rows, int y) {
  const bool sixteen = rows.format == codec::SampleFormat::uint16;
  if (!sixteen && !rows.hasAlpha()) return rows.row(y);
  const int colour = rows.isGrey() ? 1 : 3;
  const int channels = rows.channels;
  uint8_t* out = job.scratch;
  if (sixteen) {
    const auto* in = reinterpret_cast<const uint16_t*>(rows.row(y));
    for (int x = 0; x < rows.width; ++x, in += channels) {
      const uint32_t a = rows.hasAlpha() ? in[channels - 1] : 65535;
      for (int c = 0; c < colour; ++c) {
        const uint32_t bg = job.flatten[c] * 257u;
        const uint64_t v = (uint64_t{in[c]} * a + uint64_t{bg} * (65535 - a) + 32767) / 65535;
        *out++ = static_cast<uint8_t>((v * 255 + 32767) / 65535);
      }
    }
  } else {
    const uint8_t* in = rows.row(y);
    for (int x = 0; x < rows.width; ++x, in += channels) {
      const uint32_t a = in[channels - 1];
      for (int c = 0; c < colour; ++c)
        *out++ = static_cast<uint8_t>((in[c] * a + job.flatten[c] * (255 - a) + 127) / 255);
    }
  }
  return job.scratch;
}

// libjpeg's output goes to a ByteSink a buffer at a time. The sink may
// throw, which must not cross libjpeg: the failure is kept here and
// libjpeg is stopped through its error exit instead.
struct SinkDestination {
  jpeg_destination_mgr base;
  ByteSink* sink;
  std::exception_ptr failure;
  std::vector<JOCTET> buffer;
};

bool deliver(SinkDestination* destination, size_t size) noexcept {
  try {
    destination->sink->write(std::span<const uint8_t>(destination->buffer.data(), size));
    return true;
  } catch (...) {
    destination->failure = std::current_exception();
    return false;
  }
}

void initDestination(j_compress_ptr cinfo) {
  auto* destination = reinterpret_cast<SinkDestination*>(cinfo->dest);
  destination->base.next_output_byte = destination->buffer.data();
  destination->base.free_in_buffer = destination->buffer.size();
}

boolean emptyBuffer(j_compress_ptr cinfo) {
  auto* destination = reinterpret_cast<SinkDestination*>(cinfo->dest);
  if (!deliver(destination, destination->buffer.size())) ERREXIT(cinfo, JERR_FILE_WRITE);
  initDestination(cinfo);
  return TRUE;
}

void termDestination(j_compress_ptr cinfo) {
  auto* destination = reinterpret_cast<SinkDestination*>(cinfo->dest);
  const size_t size = destination->buffer.size() - destination->base.free_in_buffer;
  if (size > 0 && !deliver(destination, size)) ERREXIT(cinfo, JERR_FILE_WRITE);
}

// Called between setjmp and a possible longjmp: trivial locals only.
void startCompress(jpeg_compress_struct* cinfo, const EncodeJob* job,
                   SinkDestination* destination) {
  jpeg_create_compress(cinfo);
  cinfo->dest = &destination->base;
  const RowLayout& layout = job->layout;
  cinfo->image_width = static_cast<JDIMENSION>(layout.width);
  cinfo->image_height = static_cast<JDIMENSION>(layout.height);
  cinfo->input_components = layout.isGrey() ? 1 : 3;
  cinfo->in_color_space = layout.isGrey() ? JCS_GRAYSCALE : JCS_RGB;
  jpeg_set_defaults(cinfo);
  jpeg_set_quality(cinfo, job->quality, TRUE);
  if (job->subsampling && !layout.isGrey()) {
    const int factor = *job->subsampling == JPEGSubsampling::s420 ? 2 : 1;
    cinfo->comp_info[0].h_samp_factor = factor;
    cinfo->comp_info[0].v_samp_factor = factor;
    for (int c = 1; c < 3; ++c)
      cinfo->comp_info[c].h_samp_factor = cinfo->comp_info[c].v_samp_factor = 1;
  }
  jpeg_start_compress(cinfo, TRUE);
  if (!job->exifMarker->empty())
    jpeg_write_marker(cinfo, JPEG_APP0 + 1, job->exifMarker->data(),
                      static_cast<unsigned>(job->exifMarker->size()));
  if (!job->icc->empty())
    jpeg_write_icc_profile(cinfo, job->icc->data(), static_cast<unsigned>(job->icc->size()));
  for (const auto& xmp : *job->xmpMarkers)
    jpeg_write_marker(cinfo, JPEG_APP0 + 1, xmp.data(), static_cast<unsigned>(xmp.size()));
}

// Called between setjmp and a possible longjmp: trivial locals only.
void writeScanlines(jpeg_compress_struct* cinfo, const EncodeJob* job,
                    const codec::PixelBuffer* rows) {
  for (int y = 0; y < rows->height; ++y) {
    JSAMPROW row = const_cast<JSAMPROW>(prepareRow(*job, *rows, y));
    jpeg_write_scanlines(cinfo, &row, 1);
  }
}

enum class Step { start, rows, finish };

// libjpeg reports errors by longjmp; only trivial locals live here and in
// what it calls.
bool run(Step step, jpeg_compress_struct* cinfo, const EncodeJob* job, SinkDestination* destination,
         const codec::PixelBuffer* rows) {
  if (setjmp(reinterpret_cast<ErrorManager*>(cinfo->err)->jump)) return false;
  switch (step) {
    case Step::start:
      startCompress(cinfo, job, destination);
      break;
    case Step::rows:
      writeScanlines(cinfo, job, rows);
      break;
    case Step::finish:
      jpeg_finish_compress(cinfo);
      break;
  }
  return true;
}

std::vector<uint8_t> marker(const char* header, size_t headerSize, std::span<const uint8_t> body) {
  if (body.empty()) return {};
  // EXIF may not span markers; a block that does not fit one cannot be
  // carried faithfully.
  if (headerSize + body.size() > kMaxMarkerPayload) throw EngineError::jpegEncode();
  std::vector<uint8_t> bytes(header, header + headerSize);
  bytes.insert(bytes.end(), body.begin(), body.end());
  return bytes;
}

std::string md5Hex(std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr) != 1)
    throw EngineError::jpegEncode();
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex.push_back(kHex[digest[i] >> 4]);
    hex.push_back(kHex[digest[i] & 15]);
  }
  return hex;
}

// XMP in APP1 markers. A packet too large for one marker (Photoshop's
// document history easily passes 64 KB) is written the way Adobe's readers
// expect: a small standard packet naming the extension by its MD5, and the
// whole packet in extension markers, each saying the total length and its
// own offset.
std::vector<std::vector<uint8_t>> xmpMarkers(const std::optional<std::string>& xmp) {
  if (!xmp || xmp->empty()) return {};
  auto bytesOf = [](std::string_view text) {
    return std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  };
  if (sizeof kXmpHeader + xmp->size() <= kMaxMarkerPayload)
    return {marker(kXmpHeader, sizeof kXmpHeader, bytesOf(*xmp))};

  const std::string guid = md5Hex(*xmp);
  const std::string standard =
      "<?xpacket begin=\"\xEF\xBB\xBF\" id=\"W5M0MpCehiHzreSzNTczkc9d\"?>"
      "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"><rdf:RDF "
      "xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\"><rdf:Description rdf:about=\"\" "
      "xmlns:xmpNote=\"http://ns.adobe.com/xmp/note/\" xmpNote:HasExtendedXMP=\"" +
      guid + "\"/></rdf:RDF></x:xmpmeta><?xpacket end=\"w\"?>";
  std::vector<std::vector<uint8_t>> markers = {
      marker(kXmpHeader, sizeof kXmpHeader, bytesOf(standard))};
  static constexpr char kExtensionHeader[] = "http://ns.adobe.com/xmp/extension/";  // with its NUL
  const size_t room = kMaxMarkerPayload - sizeof kExtensionHeader - guid.size() - 8;
  const auto total = static_cast<uint32_t>(xmp->size());
  for (size_t offset = 0; offset < xmp->size(); offset += room) {
    std::vector<uint8_t> chunk(kExtensionHeader, kExtensionHeader + sizeof kExtensionHeader);
    chunk.insert(chunk.end(), guid.begin(), guid.end());
    for (uint32_t value : {total, static_cast<uint32_t>(offset)})
      for (int shift = 24; shift >= 0; shift -= 8)
        chunk.push_back(static_cast<uint8_t>(value >> shift));
    const auto piece = bytesOf(*xmp).subspan(offset, std::min(room, xmp->size() - offset));
    chunk.insert(chunk.end(), piece.begin(), piece.end());
    markers.push_back(std::move(chunk));
  }
  return markers;
}

// Compressed output is handed to the sink in pieces of this size.
constexpr size_t kDestinationBytes = size_t{64} << 10;

// libjpeg's state, released however the writer ends (also when opening
// fails halfway).
struct Compressor {
  jpeg_compress_struct cinfo{};
  ErrorManager errors{};
  Compressor() {
    cinfo.err = jpeg_std_error(&errors.base);
    errors.base.error_exit = errorExit;
    errors.base.output_message = quietMessage;
  }
  ~Compressor() { jpeg_destroy_compress(&cinfo); }
  Compressor(const Compressor&) = delete;
  Compressor& operator=(const Compressor&) = delete;
};

class JPEGRowWriter final : public RowWriter {
 public:
  JPEGRowWriter(const RowLayout& layout, const OutputMetadata& metadata, int quality,
                std::optional<JPEGSubsampling> subsampling, std::array<uint8_t, 3> flatten,
                ByteSink& sink)
      : m_exif(marker(kExifHeader, 6, metadata.exif)), m_xmp(xmpMarkers(metadata.xmp)) {
    m_scratch.resize(static_cast<size_t>(layout.width) * 3);
    m_job = {layout,      std::clamp(quality, 1, 100),
             subsampling, &metadata.icc,
             &m_exif,     &m_xmp,
             flatten,     m_scratch.data()};
    m_destination.base.init_destination = initDestination;
    m_destination.base.empty_output_buffer = emptyBuffer;
    m_destination.base.term_destination = termDestination;
    m_destination.sink = &sink;
    m_destination.buffer.resize(kDestinationBytes);
    step(Step::start, nullptr);
    // The markers are written: the metadata need not outlive the opening.
    m_job.icc = m_job.exifMarker = nullptr;
    m_job.xmpMarkers = nullptr;
  }

  void writeRows(const codec::PixelBuffer& rows) override {
    if (m_spent || !m_job.layout.matches(rows) || rows.height > m_job.layout.height - m_received)
      fail();
    step(Step::rows, &rows);
    m_received += rows.height;
  }

  void finish() override {
    if (m_spent || m_received != m_job.layout.height) fail();
    step(Step::finish, nullptr);
    m_spent = true;
  }

 private:
  void step(Step which, const codec::PixelBuffer* rows) {
    if (run(which, &m_compressor.cinfo, &m_job, &m_destination, rows)) return;
    m_spent = true;
    // A sink's own failure (a full disk, say) is passed on as it is.
    if (m_destination.failure) std::rethrow_exception(m_destination.failure);
    throw EngineError::jpegEncode();
  }
  [[noreturn]] void fail() {
    m_spent = true;
    throw EngineError::jpegEncode();
  }

  std::vector<uint8_t> m_exif;
  std::vector<std::vector<uint8_t>> m_xmp;
  std::vector<uint8_t> m_scratch;
  EncodeJob m_job{};
  SinkDestination m_destination{};
  Compressor m_compressor;
  int m_received = 0;
  bool m_spent = false;
};

}  // namespace

std::string_view rawValue(JPEGSubsampling subsampling) {
  return subsampling == JPEGSubsampling::s444 ? "4:4:4" : "4:2:0";
}

std::optional<JPEGSubsampling> jpegSubsamplingFromRawValue(std::string_view text) {
  if (text == "4:4:4") return JPEGSubsampling::s444;
  if (text == "4:2:0") return JPEGSubsampling::s420;
  return std::nullopt;
}

JPEGOptions JPEGOptions::normalized() const {
  JPEGOptions n = *this;
  n.quality = std::clamp(quality, 1, 100);
  n.floor = std::clamp(floor, 1, n.quality);
  return n;
}

JPEGOptions JPEGOptions::saved(const Settings& settings) {
  JPEGOptions options;
  if (const auto q = settings.integer("jpeg.quality"))
    options.quality = static_cast<int>(std::clamp<int64_t>(*q, -1000, 1000));
  if (const auto s = settings.string("jpeg.subsampling"))
    options.subsampling = jpegSubsamplingFromRawValue(*s);
  if (const auto m = settings.integer("jpeg.maxBytes"); m && *m > 0) options.maxBytes = *m;
  if (const auto f = settings.integer("jpeg.floor"))
    options.floor = static_cast<int>(std::clamp<int64_t>(*f, -1000, 1000));
  return options;
}

void JPEGOptions::save(Settings& settings) const {
  settings.set("jpeg.quality", quality);
  if (subsampling)
    settings.set("jpeg.subsampling", std::string(rawValue(*subsampling)));
  else
    settings.remove("jpeg.subsampling");
  if (maxBytes)
    settings.set("jpeg.maxBytes", *maxBytes);
  else
    settings.remove("jpeg.maxBytes");
  settings.set("jpeg.floor", floor);
}

std::unique_ptr<RowWriter> JPEGEncoder::openRows(const RowLayout& layout,
                                                 const OutputMetadata& metadata, int quality,
                                                 std::optional<JPEGSubsampling> subsampling,
                                                 ByteSink& sink, std::array<uint8_t, 3> flatten) {
  if (layout.format == codec::SampleFormat::float32 || layout.channels < 1 || layout.channels > 4 ||
      layout.width <= 0 || layout.height <= 0 || layout.width > 65500 || layout.height > 65500)
    throw EngineError::jpegEncode();
  return std::make_unique<JPEGRowWriter>(layout, metadata, quality, subsampling, flatten, sink);
}

std::vector<uint8_t> JPEGEncoder::encodeOnce(const codec::PixelBuffer& image,
                                             const OutputMetadata& metadata, int quality,
                                             std::optional<JPEGSubsampling> subsampling,
                                             std::array<uint8_t, 3> flatten) {
  return writeWhole(image, [&](const RowLayout& layout, ByteSink& sink) {
    return openRows(layout, metadata, quality, subsampling, sink, flatten);
  });
}

JPEGEncodeResult JPEGEncoder::encode(const codec::PixelBuffer& image,
                                     const OutputMetadata& metadata, const JPEGOptions& options,
                                     std::array<uint8_t, 3> flatten) {
  const JPEGOptions n = options.normalized();
  JPEGEncodeResult result;
  auto attempt = [&](int quality) {
    ++result.attempts;
    return encodeOnce(image, metadata, quality, n.subsampling, flatten);
  };
  auto fits = [&](const std::vector<uint8_t>& data) {
    return static_cast<int64_t>(data.size()) <= *n.maxBytes;
  };

  int used = n.quality;
  bool floorHit = false;
  std::vector<uint8_t> data = attempt(n.quality);
  if (n.maxBytes && !fits(data)) {
    if (n.floor >= n.quality) {
      floorHit = true;
    } else {
      std::vector<uint8_t> atFloor = attempt(n.floor);
      used = n.floor;
      if (!fits(atFloor)) {
        floorHit = true;
        data = std::move(atFloor);
      } else {
        // The floor fits and the requested quality does not: the answer
        // lies in [floor, quality - 1]; try the upper middle each time.
        int lo = n.floor, hi = n.quality - 1;
        data = std::move(atFloor);
        while (lo < hi) {
          const int mid = lo + (hi - lo + 1) / 2;
          std::vector<uint8_t> candidate = attempt(mid);
          if (fits(candidate)) {
            lo = mid;
            data = std::move(candidate);
          } else {
            hi = mid - 1;
          }
        }
        used = lo;
      }
    }
  }

  result.report = report(options, used, floorHit, data);
  result.data = std::move(data);
  return result;
}

JPEGEncodeReport JPEGEncoder::report(const JPEGOptions& options, int qualityUsed, bool floorHit,
                                     std::span<const uint8_t> data) {
  const JPEGOptions n = options.normalized();
  JPEGEncodeReport report;
  report.qualityRequested = n.quality;
  report.qualityUsed = qualityUsed;
  report.subsamplingRequested = n.subsampling;
  report.subsamplingActual = actualSubsampling(data);
  report.maxBytes = n.maxBytes;
  report.floor = n.floor;
  report.floorHit = floorHit;
  report.bytesActual = static_cast<int64_t>(data.size());
  return report;
}

std::optional<JPEGSubsampling> JPEGEncoder::actualSubsampling(std::span<const uint8_t> data) {
  if (data.size() < 2 || data[0] != 0xFF || data[1] != 0xD8) return std::nullopt;
  size_t at = 2;
  while (at + 1 < data.size()) {
    if (data[at] != 0xFF) return std::nullopt;
    const uint8_t code = data[at + 1];
    if (code == 0xFF) {  // fill byte before a marker
      ++at;
      continue;
    }
    at += 2;
    if (code == 0x01 || (code >= 0xD0 && code <= 0xD7)) continue;  // no length
    if (code == 0xD9 || code == 0xDA) return std::nullopt;         // image data before any frame
    if (at + 2 > data.size()) return std::nullopt;
    const size_t length = size_t{data[at]} << 8 | data[at + 1];
    if (length < 2 || at + length > data.size()) return std::nullopt;
    const bool frame = code >= 0xC0 && code <= 0xCF && code != 0xC4 && code != 0xC8 && code != 0xCC;
    if (frame) {
      // length(2) precision(1) height(2) width(2) count(1), then per
      // component: id(1) sampling(1) table(1).
      if (length < 8 + 3 || data[at + 7] != 3 || length < 8 + 9) return std::nullopt;
      const uint8_t sampling = data[at + 9];
      const int h = sampling >> 4, v = sampling & 0x0F;
      if (h == 1 && v == 1) return JPEGSubsampling::s444;
      if (h == 2 && v == 2) return JPEGSubsampling::s420;
      return std::nullopt;
    }
    at += length;
  }
  return std::nullopt;
}

}  // namespace tarnbloom::encoding
