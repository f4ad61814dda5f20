#include "basetrackencoder.h"

namespace vesk {
namespace encoder {
namespace internal {

BaseTrackEncoder::~BaseTrackEncoder() {}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk
