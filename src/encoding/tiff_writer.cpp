#include <tiffio.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <exiv2/exiv2.hpp>
#include <memory>

#include "encoding/encoder_error.h"
#include "encoding/image_writer.h"
#include "support/c_handle.h"
#include "support/error.h"

namespace tarnbloom::encoding {
namespace {

// Where libtiff's client interface writes: a growable file in memory, or
// the sink's file on disk. libtiff seeks back to patch offsets, so either
// is more than an append-only sink.
struct ClientFile {
  std::vector<uint8_t> bytes;
  FileSink* disk = nullptr;
  uint64_t position = 0;
  // The disk's first failure, passed on once libtiff has returned.
  std::exception_ptr error;

  uint64_t size() const { return disk ? disk->size() : bytes.size(); }
};

tmsize_t readProc(thandle_t handle, void* buffer, tmsize_t size) {
  auto* file = static_cast<ClientFile*>(handle);
  if (file->position >= file->size()) return 0;
  const auto n = std::min<uint64_t>(static_cast<uint64_t>(size), file->size() - file->position);
  if (file->disk) {
    try {
      const size_t got =
          file->disk->readAt(file->position, std::span(static_cast<uint8_t*>(buffer), n));
      file->position += got;
      return static_cast<tmsize_t>(got);
    } catch (const Error&) {
      if (!file->error) file->error = std::current_exception();
      return -1;
    }
  }
  std::memcpy(buffer, file->bytes.data() + file->position, n);
  file->position += n;
  return static_cast<tmsize_t>(n);
}

tmsize_t writeProc(thandle_t handle, void* buffer, tmsize_t size) {
  auto* file = static_cast<ClientFile*>(handle);
  const uint64_t end = file->position + static_cast<uint64_t>(size);
  if (file->disk) {
    // libtiff cannot carry our error through its C frames: it is kept and
    // rethrown once libtiff has returned.
    try {
      file->disk->writeAt(file->position, std::span(static_cast<const uint8_t*>(buffer),
                                                    static_cast<size_t>(size)));
    } catch (const Error&) {
      if (!file->error) file->error = std::current_exception();
      return -1;
    }
    file->position = end;
    return size;
  }
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
  auto* file = static_cast<ClientFile*>(handle);
  uint64_t base = 0;
  if (whence == SEEK_CUR) base = file->position;
  if (whence == SEEK_END) base = file->size();
  file->position = base + offset;
  return file->position;
}

int closeProc(thandle_t) { return 0; }
toff_t sizeProc(thandle_t handle) { return static_cast<ClientFile*>(handle)->size(); }
int mapProc(thandle_t, void**, toff_t*) { return 0; }
void unmapProc(thandle_t, void*, toff_t) {}

bool writeTags(TIFF* tiff, const RowLayout& layout, const OutputMetadata& metadata) {
  const bool grey = layout.isGrey();
  const uint16_t bits = layout.format == codec::SampleFormat::uint16 ? 16 : 8;
  bool ok =
      TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(layout.width)) &&
      TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(layout.height)) &&
      TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, bits) &&
      TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, static_cast<uint16_t>(layout.channels)) &&
      TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, grey ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB) &&
      TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) &&
      TIFFSetField(tiff, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT) &&
      TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE) &&
      TIFFSetField(tiff, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL) &&
      TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tiff, 0));
  if (ok && layout.hasAlpha()) {
    const uint16_t extra = EXTRASAMPLE_UNASSALPHA;  // our alpha is straight
    ok = TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, 1, &extra);
  }
  if (ok && !metadata.icc.empty())
    ok = TIFFSetField(tiff, TIFFTAG_ICCPROFILE, static_cast<uint32_t>(metadata.icc.size()),
                      metadata.icc.data());
  if (ok && metadata.xmp)
    ok = TIFFSetField(tiff, TIFFTAG_XMLPACKET, static_cast<uint32_t>(metadata.xmp->size()),
                      metadata.xmp->data());
  return ok;
}

// libtiff compresses each strip as it fills and writes it to the end of the
// file (the sink's file on disk, else one in memory); the directory follows
// when the last row is in.
class TIFFRowWriter final : public RowWriter {
 public:
  TIFFRowWriter(const RowLayout& layout, const OutputMetadata& metadata, ByteSink& sink)
      : m_layout(layout), m_exif(metadata.exif), m_sink(sink) {
    if (layout.format == codec::SampleFormat::float32 || layout.channels < 1 ||
        layout.channels > 4 || layout.width < 1 || layout.height < 1)
      throw EncoderError::writerFailed("TIFF", "unsupported sample layout");
    // BigTIFF only when the classic 4 GiB offsets may not do.
    const uint64_t raw = layout.rowBytes() * static_cast<uint64_t>(layout.height);
    const bool big = raw > (uint64_t{3} << 30);
    m_file.disk = sink.file();
    // In memory: room for the file as large as its raw samples, so that it
    // does not move as it grows: moving holds it twice. Reserving takes
    // address space only; memory is used as the file is written. Without
    // the room the file still grows, only less cheaply.
    try {
      if (!m_file.disk) m_file.bytes.reserve(raw + (size_t{1} << 20));
    } catch (const std::bad_alloc&) {
    }
    m_tiff.reset(TIFFClientOpen("output.tif", big ? "w8" : "w", &m_file, readProc, writeProc,
                                seekProc, closeProc, sizeProc, mapProc, unmapProc));
    if (!m_tiff || !writeTags(m_tiff.get(), layout, metadata))
      throw EncoderError::writerFailed("TIFF");
    m_scratch.resize(layout.rowBytes());
  }

  void writeRows(const codec::PixelBuffer& rows) override {
    if (!m_tiff || !m_layout.matches(rows) || rows.height > m_layout.height - m_received) fail();
    // libtiff wants native-endian samples and swaps them itself, but the
    // predictor differences the row in place: hand it a copy, never the
    // render.
    for (int y = 0; y < rows.height; ++y, ++m_received) {
      std::memcpy(m_scratch.data(), rows.row(y), m_scratch.size());
      if (TIFFWriteScanline(m_tiff.get(), m_scratch.data(), static_cast<uint32_t>(m_received)) != 1)
        fail();
    }
  }

  void finish() override {
    if (!m_tiff || m_received != m_layout.height || !TIFFWriteDirectory(m_tiff.get())) fail();
    m_tiff.reset();
    if (FileSink* disk = m_file.disk) {
      if (m_exif.empty()) return;
      // The EXIF goes in through exiv2, which rewrites the file whole.
      std::vector<uint8_t> file(disk->size());
      if (disk->readAt(0, file) != file.size()) fail();
      mergeExifIntoFile(file, m_exif);
      disk->writeAt(0, file);
      disk->truncate(file.size());
      return;
    }
    if (!m_exif.empty()) mergeExifIntoFile(m_file.bytes, m_exif);
    m_sink.writeOwned(std::move(m_file.bytes));
  }

 private:
  [[noreturn]] void fail() {
    m_tiff.reset();
    if (m_file.error) std::rethrow_exception(m_file.error);
    throw EncoderError::writerFailed("TIFF");
  }

  RowLayout m_layout;
  std::vector<uint8_t> m_exif;
  ByteSink& m_sink;
  ClientFile m_file;
  // Closed once the file is complete or broken: the writer is spent then.
  CHandle<TIFF, TIFFClose> m_tiff;
  std::vector<uint8_t> m_scratch;
  int m_received = 0;
};

}  // namespace

std::unique_ptr<RowWriter> openTIFF(const RowLayout& layout, const OutputMetadata& metadata,
                                    ByteSink& sink) {
  return std::make_unique<TIFFRowWriter>(layout, metadata, sink);
}

std::vector<uint8_t> encodeTIFF(const codec::PixelBuffer& image, const OutputMetadata& metadata) {
  return writeWhole(image, [&](const RowLayout& layout, ByteSink& sink) {
    return openTIFF(layout, metadata, sink);
  });
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
