#include "codec/codec_error.h"
#include "codec/formats.h"

namespace tarnbloom::codec::detail {

ContainerProbe probeTiff(Bytes) { return {}; }
DecodedFrame decodeTiff(Bytes) { throw CodecError::unreadable("not implemented"); }

}  // namespace tarnbloom::codec::detail
