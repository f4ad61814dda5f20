// One AAC encoder: the AAC library's configuration and state record itself,
// with the calls that drive it.
#pragma once

#include "vesk/aacenc/aacenc.h"

namespace vesk {
namespace encoder {
namespace internal {

class aac_wrapper_t {
 public:
  aac_wrapper_t();  // zero-filled
  ~aac_wrapper_t();
  aac_wrapper_t(const aac_wrapper_t&) = delete;
  aac_wrapper_t& operator=(const aac_wrapper_t&) = delete;

  // Sets up and opens the encoder and pre-encodes one block of silence.
  // 0, or the failure's result after a log line.
  int Init(unsigned sampleRate, unsigned channels, unsigned bitRate, unsigned char quality,
           bool enableTemporalNoiseShaping, unsigned mode);
  // Encodes one block into out (MaxOutputSize() bytes): the size in bytes, or
  // -1. Muted: the silent frame, without calling the library.
  int Encode(const unsigned char* pcm, unsigned char* out, bool muted);
  // Changes the current bit rate word; picked up at the next encode.
  int SetBitRate(unsigned bitRate);

  unsigned MaxOutputSize() const { return record_.max_output_size; }
  const aacenc_record_t& Record() const { return record_; }

 private:
  aacenc_record_t record_;
};

static_assert(sizeof(aac_wrapper_t) == 268, "the wrapper is the library's record");

}  // namespace internal
}  // namespace encoder
}  // namespace vesk
