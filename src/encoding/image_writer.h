#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "codec/pixel_buffer.h"
#include "encoding/byte_sink.h"
#include "encoding/export_format.h"
#include "encoding/output_metadata.h"
#include "encoding/row_writer.h"

namespace tarnbloom::encoding {

// The writers for the formats without an encoder of their own (PNG, TIFF,
// HEIC, AVIF). Each takes an upright 8- or 16-bit render, grey or RGB, with
// or without alpha, and returns the whole file; they throw EncoderError.
// EXIF, XMP and the profile go in as given: the policy has been applied.

std::vector<uint8_t> encodePNG(const codec::PixelBuffer& image, const OutputMetadata& metadata);

// Deflate-compressed, one strip per 64 KiB or so.
std::vector<uint8_t> encodeTIFF(const codec::PixelBuffer& image, const OutputMetadata& metadata);

// The same files written from rows that arrive a band at a time. PNG goes
// to `sink` as it is written, but for the last few megabytes of rows. TIFF
// is kept whole until finish(), since libtiff patches the header once the
// strips are written and the EXIF goes in after that; only the encoded
// file is held, never the rows. Opening throws EncoderError for a layout
// the format cannot store.
std::unique_ptr<RowWriter> openPNG(const RowLayout& layout, const OutputMetadata& metadata,
                                   ByteSink& sink);
std::unique_ptr<RowWriter> openTIFF(const RowLayout& layout, const OutputMetadata& metadata,
                                    ByteSink& sink);

// HEIC (HEVC) or AVIF (AV1) at `quality` (0...100). A 16-bit render is
// written with 12 or 10 bits per sample where the encoder accepts it.
std::vector<uint8_t> encodeHEIF(ExportFormat format, const codec::PixelBuffer& image,
                                const OutputMetadata& metadata,
                                int quality = kImageWriterLossyQuality);

// Adds EXIF tags to an already written file through exiv2 (used for TIFF,
// whose EXIF lives in a sub-directory libtiff cannot fill from a block).
void mergeExifIntoFile(std::vector<uint8_t>& file, const std::vector<uint8_t>& exif);

}  // namespace tarnbloom::encoding
