#include <libraw/libraw.h>

#include <cstring>
#include <exception>

#include "codec/codec_error.h"
#include "codec/formats.h"
#include "support/c_handle.h"

namespace tarnbloom::codec::detail {
namespace {

using RawProcessor = CHandle<libraw_data_t, libraw_close>;
using ProcessedImage = CHandle<libraw_processed_image_t, libraw_dcraw_clear_mem>;

// LibRaw reports damaged data and failed allocations by printing to stderr;
// its return codes already tell us, so the messages are dropped.
void ignoreDataError(void*, const char*, const int) noexcept {}
void ignoreMemoryError(void*, const char*, const char*) noexcept {}

// Identifies the file (reads its headers; nothing is unpacked). Null when
// LibRaw does not recognise it as camera raw.
RawProcessor openRaw(Bytes bytes) {
  if (bytes.empty()) return nullptr;
  RawProcessor raw(libraw_init(0));
  if (!raw) return nullptr;
  libraw_set_dataerror_handler(raw.get(), ignoreDataError, nullptr);
  libraw_set_memerror_handler(raw.get(), ignoreMemoryError, nullptr);
  // LibRaw only reads the buffer; its C interface predates const.
  if (libraw_open_buffer(raw.get(), const_cast<std::byte*>(bytes.data()), bytes.size()) !=
      LIBRAW_SUCCESS)
    return nullptr;
  return raw;
}

// LibRaw's flip code (dcraw's: 3 turned 180°, 5 turned 90° anti-clockwise,
// 6 turned 90° clockwise, the others mirrored) as an EXIF orientation: the
// inverse of the table dcraw reads EXIF orientations with.
uint32_t orientationOfFlip(int flip) {
  static constexpr uint32_t kExif[8] = {1, 2, 4, 3, 5, 8, 6, 7};
  return flip >= 0 && flip < 8 ? kExif[flip] : 1;
}

}  // namespace

ContainerProbe probeRaw(Bytes bytes) {
  ContainerProbe probe;
  try {
    const RawProcessor raw = openRaw(bytes);
    if (!raw) return probe;
    probe.container = Container::raw;
    probe.opened = true;
    probe.frameCount = 1;
    probe.width = raw->sizes.width;
    probe.height = raw->sizes.height;
    probe.bitsPerSample = 16;  // what we develop the sensor data to
    probe.orientation = orientationOfFlip(raw->sizes.flip);
    probe.hasProperties = probe.width > 0 && probe.height > 0;
  } catch (const std::exception&) {
    probe = ContainerProbe{};
  }
  return probe;
}

DecodedFrame decodeRaw(Bytes bytes) {
  const RawProcessor raw = [&] {
    try {
      return openRaw(bytes);
    } catch (const std::exception&) {
      return RawProcessor{};
    }
  }();
  if (!raw) throw CodecError::unreadable("not a camera raw file LibRaw can read");
  // Both the sensor data and the developed frame are allocated from these.
  checkDimensions(raw->sizes.raw_width, raw->sizes.raw_height);
  checkDimensions(raw->sizes.width, raw->sizes.height);
  const uint32_t orientation = orientationOfFlip(raw->sizes.flip);

  // Develop like a camera's own rendering: the white balance it recorded,
  // converted to sRGB with the sRGB tone curve, 16 bits so grading keeps its
  // headroom. Auto-brightening stays on (LibRaw's default): without it the
  // linear sensor range maps to a picture that looks about a stop too dark,
  // unlike what the camera and every raw viewer show. The frame is not
  // turned: the orientation is carried beside it as for any other format.
  libraw_output_params_t& params = raw->params;
  params.output_bps = 16;
  params.output_color = 1;
  params.gamm[0] = 1 / 2.4;
  params.gamm[1] = 12.92;
  params.use_camera_wb = 1;
  params.no_auto_bright = 0;
  params.user_flip = 0;

  ProcessedImage image;
  int err = LIBRAW_SUCCESS;
  try {
    err = libraw_unpack(raw.get());
    if (err == LIBRAW_SUCCESS) err = libraw_dcraw_process(raw.get());
    if (err == LIBRAW_SUCCESS) image.reset(libraw_dcraw_make_mem_image(raw.get(), &err));
  } catch (const std::exception&) {
    err = LIBRAW_UNSPECIFIED_ERROR;
  }
  if (err != LIBRAW_SUCCESS || !image) throw CodecError::unreadable(libraw_strerror(err));
  if (image->type != LIBRAW_IMAGE_BITMAP || image->bits != 16 ||
      (image->colors != 1 && image->colors != 3))
    throw CodecError::unreadable("unexpected developed raw layout");

  DecodedFrame out;
  out.container = Container::raw;
  out.frameCount = 1;
  out.nativeBits = 16;
  out.orientation = orientation;
  out.pixels.allocate(image->width, image->height, image->colors, SampleFormat::uint16);
  if (image->data_size < out.pixels.data.size())
    throw CodecError::unreadable("developed raw frame is short");
  // 16-bit samples in host order, rows packed like ours.
  std::memcpy(out.pixels.data.data(), image->data, out.pixels.data.size());
  return out;
}

}  // namespace tarnbloom::codec::detail
