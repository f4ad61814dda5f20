#include "aacwrapper.h"

#include <unistd.h>

#include <cstring>
#include <vector>

#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

aac_wrapper_t::aac_wrapper_t() { memset(&record_, 0, sizeof(record_)); }

aac_wrapper_t::~aac_wrapper_t() {
  aacenc_close(&record_);
  delete[] aacenc_get_work_buffer(&record_);
  delete[] aacenc_get_silent_frame(&record_);
}

int aac_wrapper_t::Init(unsigned sampleRate, unsigned channels, unsigned bitRate,
                        unsigned char quality, bool enableTemporalNoiseShaping, unsigned mode) {
  record_.sample_rate = sampleRate;
  record_.channels = channels;
  record_.bit_rate_initial = bitRate;
  record_.bit_rate = bitRate;
  record_.quality = quality;
  record_.temporal_noise_shaping = enableTemporalNoiseShaping ? 1 : 0;
  record_.fixed_parameter = AACENC_FIXED_PARAMETER;
  record_.mode = mode;
  if (aacenc_get_work_buffer(&record_) == nullptr)
    aacenc_set_work_buffer(&record_, new unsigned char[AACENC_WORK_BUFFER_BYTES]());

  // The largest access unit, rounded up to whole memory pages.
  long page = sysconf(_SC_PAGESIZE);
  if (page <= 0) page = 4096;
  unsigned maxOutput = channels * 768 + 128;
  record_.max_output_size = (unsigned)(((maxOutput + page - 1) / page) * page);

  aacenc_setup(&record_);
  if (record_.error_code != AACENC_OK) {
    VLOG_ERROR("aacenc_setup() failed. Error was: %u", record_.error_code);
    return -1;
  }
  aacenc_open(&record_);
  if (record_.error_code != AACENC_OK) {
    VLOG_ERROR("aacenc_open() failed. Error was: %u", record_.error_code);
    return -1;
  }

  // A muted camera still delivers valid AAC: keep one encoded block of silence.
  delete[] aacenc_get_silent_frame(&record_);
  unsigned char* silent = new unsigned char[record_.max_output_size]();
  aacenc_set_silent_frame(&record_, silent);
  record_.silent_frame_size = 0;
  std::vector<unsigned char> silence((size_t)AACENC_FRAME_SAMPLES * channels * 2, 0);
  int size = Encode(silence.data(), silent, false);
  if (size < 1) {
    VLOG_ERROR("Encode() failed. Error was: %d", size);
    return size < 0 ? size : -1;
  }
  record_.silent_frame_size = (unsigned)size;

  VLOG_INFO("AAC version: %s@%s", record_.version, record_.build);
  VLOG_INFO("AAC encoding triplet (mode/samplingrate/bitRate): %u/%u/%u", mode, sampleRate,
            bitRate);
  return 0;
}

int aac_wrapper_t::Encode(const unsigned char* pcm, unsigned char* out, bool muted) {
  if (muted) {
    memcpy(out, aacenc_get_silent_frame(&record_), record_.silent_frame_size);
    return (int)record_.silent_frame_size;
  }
  aacenc_set_input(&record_, pcm);
  aacenc_set_output(&record_, out);
  aacenc_encode(&record_);
  if (record_.error_code != AACENC_OK) {
    VLOG_ERROR("aacenc_encode failed. Error was: %u", record_.error_code);
    return -1;
  }
  int bytes = (int)((record_.output_bits + 7) / 8);
  if (bytes == 0) {
    VLOG_ERROR("AAC encode produced a 0 size frame");
    return -1;
  }
  return bytes;
}

int aac_wrapper_t::SetBitRate(unsigned bitRate) {
  record_.bit_rate = bitRate;
  VLOG_INFO("AAC bitrate set to %ubps", bitRate);
  return 0;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk
