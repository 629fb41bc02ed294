#include <tiffio.h>

#include <algorithm>
#include <cstring>
#include <exiv2/exiv2.hpp>

#include "encoding/encoder_error.h"
#include "encoding/image_writer.h"
#include "support/c_handle.h"

namespace tarnbloom::encoding {
namespace {

// A growable file in memory for libtiff's client interface: libtiff seeks
// back to patch offsets, so this is more than an append-only sink.
struct MemoryFile {
  std::vector<uint8_t> bytes;
  uint64_t position = 0;
};

tmsize_t readProc(thandle_t handle, void* buffer, tmsize_t size) {
  auto* file = static_cast<MemoryFile*>(handle);
  if (file->position >= file->bytes.size()) return 0;
  const auto n = std::min<uint64_t>(static_cast<uint64_t>(size), file->bytes.size() - file->position);
  std::memcpy(buffer, file->bytes.data() + file->position, n);
  file->position += n;
  return static_cast<tmsize_t>(n);
}

tmsize_t writeProc(thandle_t handle, void* buffer, tmsize_t size) {
  auto* file = static_cast<MemoryFile*>(handle);
  const uint64_t end = file->position + static_cast<uint64_t>(size);
  try {
    if (end > file->bytes.size()) file->bytes.resize(end);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  std::memcpy(file->bytes.data() + file->position, buffer, static_cast<size_t>(size));
  file->position = end;
  return size;
}

toff_t seekProc(thandle_t handle, toff_t offset, int whence) {
  auto* file = static_cast<MemoryFile*>(handle);
  uint64_t base = 0;
  if (whence == SEEK_CUR) base = file->position;
  if (whence == SEEK_END) base = file->bytes.size();
  file->position = base + offset;
  return file->position;
}

int closeProc(thandle_t) { return 0; }
toff_t sizeProc(thandle_t handle) { return static_cast<MemoryFile*>(handle)->bytes.size(); }
int mapProc(thandle_t, void**, toff_t*) { return 0; }
void unmapProc(thandle_t, void*, toff_t) {}

bool writeImage(TIFF* tiff, const codec::PixelBuffer& image, const OutputMetadata& metadata) {
  const bool grey = image.isGrey();
  const uint16_t bits = image.format == codec::SampleFormat::uint16 ? 16 : 8;
  bool ok = TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(image.width)) &&
            TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(image.height)) &&
            TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, bits) &&
            TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, static_cast<uint16_t>(image.channels)) &&
            TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, grey ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB) &&
            TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) &&
            TIFFSetField(tiff, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT) &&
            TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE) &&
            TIFFSetField(tiff, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL) &&
            TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tiff, 0));
  if (ok && image.hasAlpha()) {
    const uint16_t extra = EXTRASAMPLE_UNASSALPHA;  // our alpha is straight
    ok = TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, 1, &extra);
  }
  if (ok && !metadata.icc.empty())
    ok = TIFFSetField(tiff, TIFFTAG_ICCPROFILE, static_cast<uint32_t>(metadata.icc.size()),
                      metadata.icc.data());
  if (ok && metadata.xmp)
    ok = TIFFSetField(tiff, TIFFTAG_XMLPACKET, static_cast<uint32_t>(metadata.xmp->size()),
                      metadata.xmp->data());
  // libtiff wants native-endian samples and swaps them itself, but the
  // predictor differences the row in place: hand it a copy, never the render.
  std::vector<uint8_t> scratch(image.rowBytes());
  for (int y = 0; ok && y < image.height; ++y) {
    std::memcpy(scratch.data(), image.row(y), scratch.size());
    ok = TIFFWriteScanline(tiff, scratch.data(), static_cast<uint32_t>(y)) == 1;
  }
  return ok && TIFFWriteDirectory(tiff);
}

}  // namespace

std::vector<uint8_t> encodeTIFF(const codec::PixelBuffer& image, const OutputMetadata& metadata) {
  if (image.format == codec::SampleFormat::float32 || image.channels < 1 || image.channels > 4)
    throw EncoderError::writerFailed("TIFF", "unsupported sample layout");
  MemoryFile file;
  // BigTIFF only when the classic 4 GiB offsets may not do.
  const bool big = image.rowBytes() * static_cast<uint64_t>(image.height) > (uint64_t{3} << 30);
  bool ok = false;
  {
    CHandle<TIFF, TIFFClose> tiff(TIFFClientOpen("output.tif", big ? "w8" : "w", &file, readProc,
                                                 writeProc, seekProc, closeProc, sizeProc, mapProc,
                                                 unmapProc));
    ok = tiff && writeImage(tiff.get(), image, metadata);
  }
  if (!ok) throw EncoderError::writerFailed("TIFF");
  if (!metadata.exif.empty()) mergeExifIntoFile(file.bytes, metadata.exif);
  return std::move(file.bytes);
}

void mergeExifIntoFile(std::vector<uint8_t>& file, const std::vector<uint8_t>& exif) {
  try {
    Exiv2::ExifData tags;
    Exiv2::ExifParser::decode(tags, exif.data(), static_cast<uint32_t>(exif.size()));
    auto image = Exiv2::ImageFactory::open(file.data(), static_cast<long>(file.size()));
    image->readMetadata();
    // Keep our own XMP packet byte for byte rather than exiv2's re-encoding.
    image->writeXmpFromPacket(true);
    Exiv2::ExifData& target = image->exifData();
    for (const auto& datum : tags)
      if (target.findKey(Exiv2::ExifKey(datum.key())) == target.end()) target.add(datum);
    image->writeMetadata();
    Exiv2::BasicIo& io = image->io();
    if (io.open() != 0) throw EncoderError::writerFailed("TIFF", "metadata");
    const long size = io.size();
    std::vector<uint8_t> merged(static_cast<size_t>(size));
    io.seek(0, Exiv2::BasicIo::beg);
    const long read = io.read(merged.data(), size);
    io.close();
    if (read != size) throw EncoderError::writerFailed("TIFF", "metadata");
    file = std::move(merged);
  } catch (const Exiv2::AnyError& error) {
    throw EncoderError::writerFailed("TIFF", error.what());
  }
}

}  // namespace tarnbloom::encoding
