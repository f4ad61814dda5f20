#include "audioencoder.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>

#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

namespace {

// Room in the frame lists so that moving frames between them never allocates.
const size_t kListCapacity = 64;

struct limits_row_t {
  int mode;
  unsigned sampleRate;
  uint32_t minimum;
  uint32_t maximum;
};

// The (mode, sample rate, bit rate) triplets the AAC encoder accepts.
const limits_row_t kLimits[] = {
    {0, 8000, 8000, 12000},    {0, 11025, 8000, 40000},   {0, 12000, 8000, 40000},
    {0, 16000, 16000, 80000},  {0, 22050, 16000, 80000},  {0, 24000, 16000, 80000},
    {0, 32000, 16000, 160000}, {0, 44100, 16000, 160000}, {0, 48000, 16000, 160000},
    {1, 32000, 14000, 64000},  {1, 44100, 14000, 64000},  {1, 48000, 14000, 64000},
    {3, 32000, 14000, 64000},  {3, 44100, 14000, 64000},  {3, 48000, 14000, 64000},
};

void MoveAll(std::vector<audio_frame_t*>& from, std::vector<audio_frame_t*>& to) {
  to.insert(to.end(), from.begin(), from.end());
  from.clear();
}

void DeleteFrame(audio_frame_t* frame) {
  delete[] frame->payload;
  delete[] frame->altPayload;
  delete frame;
}

}  // namespace

AudioEncoder::AudioEncoder(AudioEncoderSettings& settings)
    : Thread("audio_encoder"), settings_(settings), flags_(0), lifeCycle_(nullptr) {
  for (const limits_row_t& row : kLimits)
    bitrateLimits_[row.mode][row.sampleRate] = bitrate_limits_t{row.minimum, row.maximum};
  readyFrames_.reserve(kListCapacity);
  takenFrames_.reserve(kListCapacity);
  freeFrames_.reserve(kListCapacity);
}

AudioEncoder::~AudioEncoder() {
  StopThread();
  for (auto* list : {&readyFrames_, &takenFrames_, &freeFrames_}) {
    for (audio_frame_t* frame : *list) DeleteFrame(frame);
    list->clear();
  }
}

AudioEncoder* AudioEncoder::GetInstance(AudioEncoderSettings& settings, int& error) {
  AudioEncoder* encoder = new AudioEncoder(settings);
  error = encoder->Initialize();
  if (error != 0) {
    VLOG_ERROR("AudioEncoder::Initialize() failed. Error was: %d", error);
    delete encoder;
    return nullptr;
  }
  return encoder;
}

void AudioEncoder::FreeInstance(AudioEncoder* encoder) {
  if (encoder == nullptr) return;
  encoder->StopThread();
  delete encoder;
}

int AudioEncoder::Initialize() {
  unsigned mode = settings_.mode();
  unsigned sampleRate = settings_.sampleRate();
  unsigned bitRate = settings_.bitRate();
  int err = ValidateSettings(mode, sampleRate, bitRate);
  if (err == 0) err = InitPCM();
  if (err == 0) err = InitAAC();
  if (err == 0) err = virtualMic_.Initialize(kTalkbackFifo, pcm_->BufferBytes());
  if (err == 0) err = StartThread();
  if (err != 0) VLOG_ERROR("AudioEncoder::Initialize() failed. Error was: %d", err);
  return err;
}

bool AudioEncoder::IsSupportedTriplet(unsigned mode, unsigned sampleRate, unsigned bitRate) {
  for (const limits_row_t& row : kLimits)
    if (row.mode == (int)mode && row.sampleRate == sampleRate)
      return bitRate >= row.minimum && bitRate <= row.maximum;
  return false;
}

int AudioEncoder::ValidateSettings(unsigned mode, unsigned sampleRate, unsigned bitRate) {
  auto byMode = bitrateLimits_.find((int)mode);
  if (byMode != bitrateLimits_.end()) {
    auto byRate = byMode->second.find(sampleRate);
    if (byRate != byMode->second.end() && bitRate >= byRate->second.minimum &&
        bitRate <= byRate->second.maximum)
      return 0;
  }
  VLOG_ERROR("Triplet combination not supported (mode/samplingrate/bitRate): %u/%u/%u", mode,
             sampleRate, bitRate);
  return -1;
}

int AudioEncoder::InitPCM() {
  pcm_.reset(new pcm_wrapper_t());
  int err = pcm_->Start(settings_.sampleRate(), settings_.channels(), settings_.volume(),
                        AACENC_FRAME_SAMPLES);
  if (err != 0) VLOG_ERROR("PCM start failed. Error was: %d", err);
  return err;
}

int AudioEncoder::InitAAC() {
  unsigned sampleRate = settings_.sampleRate();
  unsigned channels = settings_.channels();
  unsigned bitRate = settings_.bitRate();
  unsigned char quality = settings_.quality();
  bool tns = settings_.enableTemporalNoiseShaping();
  unsigned mode = settings_.mode();
  aac_.reset(new aac_wrapper_t());
  int err = aac_->Init(sampleRate, channels, bitRate, quality, tns, mode);
  if (err == 0) {
    aacMixed_.reset(new aac_wrapper_t());
    err = aacMixed_->Init(sampleRate, channels, bitRate, quality, tns, mode);
  }
  if (err != 0) VLOG_ERROR("AAC init failed. Error was: %d", err);
  return err;
}

void AudioEncoder::SetMustExit(bool mustExit) {
  pthread_mutex_lock(&mutex_);
  if (mustExit)
    flags_ |= FLAG_MUST_EXIT;
  else
    flags_ &= ~FLAG_MUST_EXIT;
  pthread_mutex_unlock(&mutex_);
  Notify();
}

unsigned AudioEncoder::GetFlags() {
  pthread_mutex_lock(&mutex_);
  unsigned flags = flags_;
  pthread_mutex_unlock(&mutex_);
  return flags;
}

audio_frame_t* AudioEncoder::GetFrame(bool releasePrevious, int& error) {
  error = 0;
  audio_frame_t* frame = nullptr;
  pthread_mutex_lock(&mutex_);
  if (releasePrevious) MoveAll(takenFrames_, freeFrames_);
  if (!readyFrames_.empty()) {
    frame = readyFrames_.front();
    readyFrames_.erase(readyFrames_.begin());
    takenFrames_.push_back(frame);
  }
  pthread_mutex_unlock(&mutex_);
  return frame;
}

int AudioEncoder::Rebase() {
  pthread_mutex_lock(&mutex_);
  flags_ |= FLAG_RESTART;
  MoveAll(readyFrames_, freeFrames_);
  pthread_mutex_unlock(&mutex_);
  return 0;
}

void AudioEncoder::DiscardExistingFrames() {
  pthread_mutex_lock(&mutex_);
  MoveAll(readyFrames_, freeFrames_);
  MoveAll(takenFrames_, freeFrames_);
  pthread_mutex_unlock(&mutex_);
}

int AudioEncoder::SetVolume(unsigned volume) {
  pthread_mutex_lock(&mutex_);
  int err = pcm_->SetVolume(volume);
  if (err != 0) {
    pthread_mutex_unlock(&mutex_);
    VLOG_ERROR("Setting PCM volume failed. Error was: %d", err);
    return err;
  }
  if (volume > 100) volume = 100;
  settings_["volume"] = (unsigned char)volume;
  // Muting is one way for the life of the worker.
  if (volume == 0) flags_ |= FLAG_MUTED;
  pthread_mutex_unlock(&mutex_);
  return 0;
}

int AudioEncoder::SetBitRate(unsigned bitRate) {
  int err = ValidateSettings(settings_.mode(), settings_.sampleRate(), bitRate);
  if (err != 0) {
    VLOG_ERROR("Invalid AAC bitrate value. Error was: %d", err);
    return err;
  }
  for (aac_wrapper_t* aac : {aac_.get(), aacMixed_.get()}) {
    err = aac ? aac->SetBitRate(bitRate) : -1;
    if (err != 0) {
      VLOG_ERROR("Setting AAC bitrate failed. Error was: %d", err);
      return err;
    }
  }
  return 0;
}

unsigned char* AudioEncoder::Mix(const unsigned char* microphone, const unsigned char* talkback,
                                 unsigned char* out, unsigned samples) {
  const int16_t* a = reinterpret_cast<const int16_t*>(microphone);
  const int16_t* b = reinterpret_cast<const int16_t*>(talkback);
  int16_t* o = reinterpret_cast<int16_t*>(out);
  for (unsigned i = 0; i < samples; i++) o[i] = (int16_t)(((int)a[i] + (int)b[i]) >> 1);
  return out;
}

audio_frame_t* AudioEncoder::CreateFrame() {
  pthread_mutex_lock(&mutex_);
  if (!freeFrames_.empty()) {
    audio_frame_t* frame = freeFrames_.front();
    freeFrames_.erase(freeFrames_.begin());
    pthread_mutex_unlock(&mutex_);
    return frame;
  }
  pthread_mutex_unlock(&mutex_);

  unsigned capacity = aac_ ? aac_->MaxOutputSize() : 0;
  audio_frame_t* frame = new (std::nothrow) audio_frame_t();
  if (frame == nullptr) return nullptr;
  frame->capacity = capacity;
  frame->payload = new (std::nothrow) unsigned char[capacity];
  frame->altPayload = new (std::nothrow) unsigned char[capacity];
  if (frame->payload == nullptr || frame->altPayload == nullptr) {
    delete[] frame->payload;
    delete[] frame->altPayload;
    delete frame;
    return nullptr;
  }
  frame->payloadLength = 0;
  frame->altPayloadLength = 0;
  frame->muted = 0;
  frame->duration = AACENC_FRAME_SAMPLES;
  return frame;
}

void AudioEncoder::ReleaseFrame(audio_frame_t* frame) {
  pthread_mutex_lock(&mutex_);
  freeFrames_.push_back(frame);
  pthread_mutex_unlock(&mutex_);
}

void AudioEncoder::LifeLog(int line, const char* format, ...) {
  if (lifeCycle_ == nullptr) return;
  fprintf(lifeCycle_, "%llu - %s:%d - ", (unsigned long long)nowWallMs(), "trackencoderaudio",
          line);
  va_list args;
  va_start(args, format);
  vfprintf(lifeCycle_, format, args);
  va_end(args);
  fputc('\n', lifeCycle_);
  fflush(lifeCycle_);
}

bool AudioEncoder::RecoverCapture() {
  int err = pcm_->Restart();
  if (err != 0) {
    LifeLog(__LINE__, "PCM restart failed permanently. Error was: %d", err);
    return false;
  }
  LifeLog(__LINE__, "PCM restarted");
  return true;
}

void AudioEncoder::Work() {
  lifeCycle_ = fopen(kLifeCycleFile, "a+");
  LifeLog(__LINE__, "Audio encoding thread started");
  std::vector<unsigned char> mixBuffer(pcm_->BufferBytes(), 0);
  const unsigned sampleRate = pcm_->SampleRate();

  for (;;) {
    unsigned flags = GetFlags();
    if (flags & FLAG_MUST_EXIT) {
      LifeLog(__LINE__, "Audio encoder thread set to exit");
      break;
    }
    bool stop = false;
    while (flags & FLAG_RESTART) {
      int err = pcm_->Restart();
      if (err != 0) {
        LifeLog(__LINE__, "PCM restart failed permanently. Error was: %d", err);
        stop = true;
        break;
      }
      pthread_mutex_lock(&mutex_);
      flags_ &= ~FLAG_RESTART;
      MoveAll(readyFrames_, freeFrames_);
      pthread_mutex_unlock(&mutex_);
      flags = GetFlags();
      if (flags & FLAG_MUST_EXIT) {
        LifeLog(__LINE__, "Audio encoder thread set to exit");
        stop = true;
      }
    }
    if (stop) break;

    long long timestamp = 0;
    int err = 0;
    const unsigned char* block = pcm_->Read(timestamp, err);
    if (block == nullptr) {
      LifeLog(__LINE__, "PCM reading failed. Error was: %d", err);
      if (!RecoverCapture()) break;
      continue;
    }

    int talkbackError = 0;
    const unsigned char* talkback = virtualMic_.Read(talkbackError);
    bool mixed = false;
    if (talkback != nullptr) {
      // For two channels only the first half of the interleaved block is mixed.
      Mix(block, talkback, mixBuffer.data(), pcm_->FramesPerBlock());
      virtualMic_.Ignore();
      mixed = true;
    } else if (talkbackError != 0) {
      if (!RecoverCapture()) break;
      continue;
    }

    EncodeAndQueue(block, mixed ? mixBuffer.data() : nullptr, timestamp, sampleRate, (flags & FLAG_MUTED) != 0);
  }
  ExitSequence();
}

// Encodes one captured block (and its mix with the talkback, when given) into
// a frame of the pool and queues it for the pump; a failure loses this block.
void AudioEncoder::EncodeAndQueue(const unsigned char* block, const unsigned char* mixed, long long timestamp,
                                  unsigned sampleRate, bool muted) {
  audio_frame_t* frame = CreateFrame();
  if (frame == nullptr) {
    LifeLog(__LINE__, "Unable to obtain an AAC frame.");
    return;
  }
  frame->payloadLength = 0;
  frame->altPayloadLength = 0;
  int size = aac_->Encode(block, frame->payload, muted);
  if (size < 1) {
    LifeLog(__LINE__, "AAC encoding failed. Error was: %d", size);
    ReleaseFrame(frame);
    return;
  }
  frame->payloadLength = (uint32_t)size;
  if (mixed != nullptr) {
    size = aacMixed_->Encode(mixed, frame->altPayload, muted);
    if (size < 1) {
      LifeLog(__LINE__, "AAC encoding failed. Error was: %d", size);
      ReleaseFrame(frame);
      return;
    }
    frame->altPayloadLength = (uint32_t)size;
  }
  frame->muted = muted ? 1 : 0;
  frame->pts = timestamp_t(timestamp, sampleRate);
  frame->duration = AACENC_FRAME_SAMPLES;

  pthread_mutex_lock(&mutex_);
  if (flags_ & FLAG_RESTART) {
    // A rebase came while this block was encoded: it carries the old time base.
    freeFrames_.push_back(frame);
    pthread_mutex_unlock(&mutex_);
    return;
  }
  if (readyFrames_.size() >= kMaxReadyFrames) {
    // The consumer fell behind: the oldest frame is dropped unseen.
    freeFrames_.push_back(readyFrames_.front());
    readyFrames_.erase(readyFrames_.begin());
  }
  readyFrames_.push_back(frame);
  pthread_mutex_unlock(&mutex_);
}

void AudioEncoder::ExitSequence() {
  pcm_->Stop();
  if (lifeCycle_ == nullptr) return;
  LifeLog(__LINE__, "--- BEGIN LOGREAD ---");
  fflush(lifeCycle_);
  // Without the system log reader (a PC) the collection fails without asking
  // the shell, which would only add its own complaint on stderr.
  std::string command = std::string("/usr/bin/logread >> ") + kLifeCycleFile;
  if (access("/usr/bin/logread", X_OK) != 0 || system(command.c_str()) != 0)
    LifeLog(__LINE__, "internal error: failed to collect logs");
  LifeLog(__LINE__, "--- END LOGREAD ---");
  LifeLog(__LINE__, "Audio encoding thread will now exit (MARKER)");
  fclose(lifeCycle_);
  lifeCycle_ = nullptr;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk
