#include "codec/codec_error.h"
#include "codec/formats.h"

namespace tarnbloom::codec::detail {

ContainerProbe probeRaw(Bytes) { return {}; }
DecodedFrame decodeRaw(Bytes) { throw CodecError::unreadable("not implemented"); }

}  // namespace tarnbloom::codec::detail
