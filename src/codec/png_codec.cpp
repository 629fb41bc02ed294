#include "codec/codec_error.h"
#include "codec/formats.h"

namespace tarnbloom::codec::detail {

ContainerProbe probePng(Bytes) { return {}; }
DecodedFrame decodePng(Bytes) { throw CodecError::unreadable("not implemented"); }

}  // namespace tarnbloom::codec::detail
