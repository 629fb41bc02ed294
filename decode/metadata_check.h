#pragma once

#include "codec/decode.h"

namespace tarnbloom::decodehelper {

// The caller reads a frame's metadata with third-party parsers of its own:
// Exiv2 for EXIF and XMP (the export's metadata policy), lcms2 for the ICC
// profile (colour conversion both ways). The helper runs the same parsers
// on the same bytes first, so a blob that takes a parser down ends the
// helper and the file is refused before the blob reaches the caller.
// Failures the parsers report are left for the caller to handle.

// Before the sandbox closes: what the parsers set up once.
void prepareMetadataReaders();
void readMetadataAsTheCallerWill(const codec::DecodedFrame& frame);

}  // namespace tarnbloom::decodehelper
