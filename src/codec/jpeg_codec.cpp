#include "codec/codec_error.h"
#include "codec/formats.h"

namespace tarnbloom::codec::detail {

ContainerProbe probeJpeg(Bytes) { return {}; }
DecodedFrame decodeJpeg(Bytes) { throw CodecError::unreadable("not implemented"); }

}  // namespace tarnbloom::codec::detail
