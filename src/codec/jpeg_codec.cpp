// clang-format off
#include <cstdio>  // jpeglib.h needs FILE declared first
#include <jpeglib.h>
#include <jerror.h>
// clang-format on

#include <csetjmp>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "codec/cmyk.h"
#include "codec/codec_error.h"
#include "codec/formats.h"
#include "codec/tiff_structure.h"
#include "support/c_handle.h"

namespace tarnbloom::codec::detail {
namespace {

constexpr std::string_view kExifPrefix{"Exif\0\0", 6};
constexpr std::string_view kXmpPrefix{"http://ns.adobe.com/xap/1.0/\0", 29};
// A progressive file may legally carry many scans, but thousands of tiny
// ones are a known way to make a small file take minutes to decode.
constexpr int kMaxScans = 1000;

bool startsWith(std::span<const uint8_t> bytes, std::string_view prefix) {
  return bytes.size() >= prefix.size() &&
         std::memcmp(bytes.data(), prefix.data(), prefix.size()) == 0;
}

bool isFrameHeader(uint8_t marker) {
  // SOF0...SOF15 except DHT (C4), JPG (C8) and DAC (CC).
  return marker >= 0xc0 && marker <= 0xcf && marker != 0xc4 && marker != 0xc8 && marker != 0xcc;
}

void freeMalloced(void* p) { std::free(p); }

// ---- Error handling ---------------------------------------------------------

struct JpegErrorManager {
  jpeg_error_mgr pub;  // first, so libjpeg's pointer to it is a pointer to us
  jpeg_progress_mgr progress;
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
};

[[noreturn]] void onJpegError(j_common_ptr cinfo) {
  auto* err = reinterpret_cast<JpegErrorManager*>(cinfo->err);
  (*cinfo->err->format_message)(cinfo, err->message);
  std::longjmp(err->jump, 1);
}

// libjpeg only warns about missing or corrupt entropy data and fills the
// gap with grey; we refuse such files instead of passing on a damaged photo.
// Warnings about stray bytes between markers, the scan script or a bad ICC
// chunk leave the pixels intact and are tolerated.
void onJpegMessage(j_common_ptr cinfo, int level) {
  if (level >= 0) return;  // trace output
  switch (cinfo->err->msg_code) {
    case JWRN_JPEG_EOF:
    case JWRN_HIT_MARKER:
    case JWRN_MUST_RESYNC:
    case JWRN_HUFF_BAD_CODE:
    case JWRN_ARITH_BAD_CODE:
      onJpegError(cinfo);
    default:
      ++cinfo->err->num_warnings;
  }
}

void onJpegProgress(j_common_ptr cinfo) {
  if (!cinfo->is_decompressor) return;
  if (reinterpret_cast<j_decompress_ptr>(cinfo)->input_scan_number <= kMaxScans) return;
  auto* err = reinterpret_cast<JpegErrorManager*>(cinfo->err);
  std::snprintf(err->message, sizeof err->message, "more than %d scans", kMaxScans);
  std::longjmp(err->jump, 1);
}

// ---- The longjmp targets: trivial locals only --------------------------------

bool createDecompressor(j_decompress_ptr cinfo, JpegErrorManager& err) {
  if (setjmp(err.jump)) return false;
  jpeg_create_decompress(cinfo);
  return true;
}

bool readJpegHeader(j_decompress_ptr cinfo, JpegErrorManager& err, const uint8_t* data, size_t size,
                    JOCTET** icc, unsigned* iccLength) {
  if (setjmp(err.jump)) return false;
  jpeg_mem_src(cinfo, data, static_cast<unsigned long>(size));
  jpeg_save_markers(cinfo, JPEG_APP0 + 1, 0xffff);  // EXIF, XMP
  jpeg_save_markers(cinfo, JPEG_APP0 + 2, 0xffff);  // ICC chunks
  jpeg_read_header(cinfo, TRUE);
  jpeg_read_icc_profile(cinfo, icc, iccLength);
  return true;
}

bool startJpeg(j_decompress_ptr cinfo, JpegErrorManager& err) {
  if (setjmp(err.jump)) return false;
  jpeg_start_decompress(cinfo);
  return true;
}

// libjpeg writes straight into the frame's rows, as many per call as it has
// ready, so there is no intermediate copy.
bool readJpegRows(j_decompress_ptr cinfo, JpegErrorManager& err, JSAMPARRAY rows) {
  if (setjmp(err.jump)) return false;
  while (cinfo->output_scanline < cinfo->output_height) {
    const JDIMENSION done = cinfo->output_scanline;
    if (jpeg_read_scanlines(cinfo, rows + done, cinfo->output_height - done) == 0) return false;
  }
  jpeg_finish_decompress(cinfo);
  return true;
}

class JpegDecompressor {
 public:
  JpegDecompressor() {
    std::memset(&m_cinfo, 0, sizeof m_cinfo);
    m_cinfo.err = jpeg_std_error(&m_err.pub);
    m_err.pub.error_exit = onJpegError;
    m_err.pub.emit_message = onJpegMessage;
    m_err.message[0] = '\0';
    m_err.progress.progress_monitor = onJpegProgress;
    // jpeg_create_decompress clears the struct and leaves the handlers alone.
    m_created = createDecompressor(&m_cinfo, m_err);
    if (!m_created) throw CodecError::unreadable(m_err.message);
    m_cinfo.progress = &m_err.progress;
  }
  ~JpegDecompressor() {
    if (m_created) jpeg_destroy_decompress(&m_cinfo);
  }
  JpegDecompressor(const JpegDecompressor&) = delete;
  JpegDecompressor& operator=(const JpegDecompressor&) = delete;

  j_decompress_ptr cinfo() { return &m_cinfo; }
  JpegErrorManager& err() { return m_err; }
  [[noreturn]] void fail() const { throw CodecError::unreadable(m_err.message); }

 private:
  jpeg_decompress_struct m_cinfo;
  JpegErrorManager m_err;
  bool m_created = false;
};

void collectApp1(j_decompress_ptr cinfo, DecodedFrame& frame) {
  bool haveExif = false;
  bool haveXmp = false;
  for (jpeg_saved_marker_ptr m = cinfo->marker_list; m; m = m->next) {
    if (m->marker != JPEG_APP0 + 1) continue;
    const std::span<const uint8_t> data(m->data, m->data_length);
    if (!haveExif && startsWith(data, kExifPrefix)) {
      const auto blob = data.subspan(kExifPrefix.size());
      frame.exif.assign(blob.begin(), blob.end());
      frame.orientation = exifOrientation(blob);
      haveExif = true;
    } else if (!haveXmp && startsWith(data, kXmpPrefix)) {
      const auto packet = data.subspan(kXmpPrefix.size());
      frame.xmp.assign(reinterpret_cast<const char*>(packet.data()), packet.size());
      haveXmp = true;
    }
  }
}

}  // namespace

ContainerProbe probeJpeg(Bytes bytes) {
  ContainerProbe probe;
  probe.container = Container::jpeg;
  const std::span<const uint8_t> b(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  if (b.size() < 4 || b[0] != 0xff || b[1] != 0xd8) return probe;

  // Walk the marker segments up to the first scan: the frame header gives
  // size and precision, the first Exif APP1 the orientation.
  bool haveExif = false;
  size_t at = 2;
  while (at < b.size()) {
    if (b[at] != 0xff) {  // stray bytes between segments; libjpeg skips them too
      ++at;
      continue;
    }
    while (at < b.size() && b[at] == 0xff) ++at;  // fill bytes
    if (at >= b.size()) break;
    const uint8_t marker = b[at++];
    if (marker == 0x00 || marker == 0x01 || marker == 0xd8 || (marker >= 0xd0 && marker <= 0xd7))
      continue;                                   // no length field
    if (marker == 0xda || marker == 0xd9) break;  // image data or end: the header is over
    if (b.size() - at < 2) break;
    const size_t length = size_t{b[at]} << 8 | b[at + 1];
    if (length < 2 || b.size() - at < length) break;
    const auto payload = b.subspan(at + 2, length - 2);
    if (marker == JPEG_APP0 + 1 && !haveExif && startsWith(payload, kExifPrefix)) {
      probe.orientation = exifOrientation(payload.subspan(kExifPrefix.size()));
      haveExif = true;
    } else if (isFrameHeader(marker) && !probe.opened && payload.size() >= 6) {
      probe.opened = true;
      probe.frameCount = 1;
      probe.bitsPerSample = payload[0];
      probe.height = int64_t{payload[1]} << 8 | payload[2];
      probe.width = int64_t{payload[3]} << 8 | payload[4];
      probe.hasProperties = probe.width >= 1 && probe.height >= 1 && probe.bitsPerSample >= 1;
    }
    at += length;
  }
  return probe;
}

DecodedFrame decodeJpeg(Bytes bytes) {
  JpegDecompressor decoder;
  j_decompress_ptr cinfo = decoder.cinfo();

  JOCTET* iccData = nullptr;
  unsigned iccLength = 0;
  const bool headerRead =
      readJpegHeader(cinfo, decoder.err(), reinterpret_cast<const uint8_t*>(bytes.data()),
                     bytes.size(), &iccData, &iccLength);
  // libjpeg allocates the profile with malloc; own it before anything can throw.
  const CHandle<void, freeMalloced> iccOwner(iccData);
  if (!headerRead) decoder.fail();

  DecodedFrame frame;
  frame.container = Container::jpeg;
  frame.nativeBits = cinfo->data_precision;
  if (iccData) frame.iccProfile.assign(iccData, iccData + iccLength);
  collectApp1(cinfo, frame);

  bool cmyk = false;
  switch (cinfo->jpeg_color_space) {
    case JCS_GRAYSCALE:
      cinfo->out_color_space = JCS_GRAYSCALE;
      break;
    case JCS_YCbCr:
    case JCS_RGB:
      cinfo->out_color_space = JCS_RGB;
      break;
    case JCS_CMYK:
    case JCS_YCCK:
      cinfo->out_color_space = JCS_CMYK;
      cmyk = true;
      break;
    default:
      throw CodecError::unreadable("unsupported JPEG colour space");
  }
  // Before libjpeg sizes its own buffers: a progressive file keeps every
  // coefficient of the frame in memory.
  checkDimensions(cinfo->image_width, cinfo->image_height);
  if (!startJpeg(cinfo, decoder.err())) decoder.fail();

  PixelBuffer decoded;
  decoded.allocate(static_cast<int>(cinfo->output_width), static_cast<int>(cinfo->output_height),
                   cinfo->output_components, SampleFormat::uint8);
  std::vector<JSAMPROW> rows(cinfo->output_height);
  for (int y = 0; y < decoded.height; ++y) rows[y] = decoded.row(y);
  if (!readJpegRows(cinfo, decoder.err(), rows.data())) decoder.fail();

  if (!cmyk) {
    frame.pixels = std::move(decoded);
    return frame;
  }
  // Adobe applications store CMYK inverted (0 = full ink) and mark it with
  // their APP14 segment.
  if (cinfo->saw_Adobe_marker)
    for (auto& sample : decoded.data) sample = static_cast<uint8_t>(255 - sample);
  convertCmykToSrgb(decoded, frame.iccProfile, frame.pixels);
  frame.iccProfile.clear();
  frame.convertedFromCmyk = true;
  return frame;
}

}  // namespace tarnbloom::codec::detail
