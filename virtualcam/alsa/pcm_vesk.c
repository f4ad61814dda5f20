/* The virtual sound card's capture PCM (ALSA ioplug type "vesk").
 *
 * Delivers signed 16-bit interleaved frames, 1 or 2 channels, at exactly the
 * rate the application asks for (or only at the rates listed in "rates", to
 * stand for a device that grants another rate). By default the stream is
 * paced in real time by a periodic timerfd armed at the period length when
 * the PCM starts; "free 1" makes every read complete at once. The source is a
 * sine tone ("tone" Hz, "amplitude") or a 16-bit PCM WAV file ("wav"), whose
 * samples are delivered as they are at the capture rate.
 *
 * Parameters come from the configuration block and are then overridden by
 * the environment variable VESK_VSND_PCM ("tone=1000,free=1,rates=44100").
 */
#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>

#include <errno.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include "vsnd_params.h"

#define VSND_PCM_ENV "VESK_VSND_PCM"
#define VSND_MAX_RATES 16
#define VSND_MAX_WAV_BYTES (256u * 1024u * 1024u)

typedef struct vsnd_pcm {
  snd_pcm_ioplug_t io;
  int timerFd;

  /* parameters */
  double toneHz;
  long amplitude;
  char* wavPath;
  int loop;
  int freeRun;
  unsigned rates[VSND_MAX_RATES];
  unsigned rateCount;
  /* faults: a read fails once this many frames were captured (0: never);
   * opening fails while this file exists */
  uint64_t failAfter;
  char* failOpenFile;

  /* the WAV source, loaded at open */
  int16_t* wav;
  size_t wavFrames;
  unsigned wavChannels;

  /* frames produced since prepare: the tone's phase and the WAV position */
  uint64_t produced;
  struct timespec startTime;
} vsnd_pcm_t;

/* ---- parameters ---------------------------------------------------------- */

static int parse_rates(vsnd_pcm_t* p, const char* value) {
  char* copy = strdup(value);
  if (copy == NULL) return -ENOMEM;
  unsigned count = 0;
  int err = 0;
  char* save = NULL;
  for (char* item = strtok_r(copy, ": ", &save); item != NULL; item = strtok_r(NULL, ": ", &save)) {
    long rate = 0;
    if (vsnd_parse_long(item, &rate) < 0 || rate < 1000 || rate > 384000 || count == VSND_MAX_RATES) {
      err = -EINVAL;
      break;
    }
    p->rates[count++] = (unsigned)rate;
  }
  free(copy);
  if (err == 0) p->rateCount = count;
  return err;
}

static int pcm_param(void* context, const char* key, const char* value) {
  vsnd_pcm_t* p = context;
  long n = 0;
  if (strcmp(key, "tone") == 0) {
    double hz = 0;
    if (vsnd_parse_double(value, &hz) < 0 || hz < 0 || hz > 192000) return -EINVAL;
    p->toneHz = hz;
  } else if (strcmp(key, "amplitude") == 0) {
    if (vsnd_parse_long(value, &n) < 0 || n < 0 || n > 32767) return -EINVAL;
    p->amplitude = n;
  } else if (strcmp(key, "wav") == 0) {
    free(p->wavPath);
    p->wavPath = (*value != '\0') ? strdup(value) : NULL;
    if (*value != '\0' && p->wavPath == NULL) return -ENOMEM;
  } else if (strcmp(key, "loop") == 0) {
    if (vsnd_parse_long(value, &n) < 0) return -EINVAL;
    p->loop = (n != 0);
  } else if (strcmp(key, "free") == 0) {
    if (vsnd_parse_long(value, &n) < 0) return -EINVAL;
    p->freeRun = (n != 0);
  } else if (strcmp(key, "rates") == 0) {
    return parse_rates(p, value);
  } else if (strcmp(key, "fail_after") == 0) {
    if (vsnd_parse_long(value, &n) < 0 || n < 0) return -EINVAL;
    p->failAfter = (uint64_t)n;
  } else if (strcmp(key, "fail_open_file") == 0) {
    free(p->failOpenFile);
    p->failOpenFile = (*value != '\0') ? strdup(value) : NULL;
    if (*value != '\0' && p->failOpenFile == NULL) return -ENOMEM;
  } else {
    return -EINVAL;
  }
  return 0;
}

/* ---- WAV source ---------------------------------------------------------- */

static uint32_t get_le32(const unsigned char* b) {
  return (uint32_t)b[0] | ((uint32_t)b[1] << 8) | ((uint32_t)b[2] << 16) | ((uint32_t)b[3] << 24);
}

static uint16_t get_le16(const unsigned char* b) {
  return (uint16_t)(b[0] | (b[1] << 8));
}

/* Reads a RIFF/WAVE file with 16-bit PCM samples, 1 or 2 channels. */
static int load_wav(vsnd_pcm_t* p) {
  FILE* f = fopen(p->wavPath, "rb");
  if (f == NULL) {
    SNDERR("vesk: cannot open %s", p->wavPath);
    return -errno;
  }
  int err = -EINVAL;
  unsigned char head[12];
  unsigned channels = 0;
  unsigned bits = 0;
  if (fread(head, 1, 12, f) != 12 || memcmp(head, "RIFF", 4) != 0 || memcmp(head + 8, "WAVE", 4) != 0)
    goto done;
  for (;;) {
    unsigned char chunk[8];
    if (fread(chunk, 1, 8, f) != 8) goto done;
    uint32_t size = get_le32(chunk + 4);
    if (memcmp(chunk, "fmt ", 4) == 0) {
      unsigned char fmt[16];
      if (size < 16 || fread(fmt, 1, 16, f) != 16) goto done;
      uint16_t tag = get_le16(fmt);
      channels = get_le16(fmt + 2);
      bits = get_le16(fmt + 14);
      if ((tag != 1 && tag != 0xFFFE) || bits != 16 || channels < 1 || channels > 2) goto done;
      if (fseek(f, (long)(size - 16 + (size & 1)), SEEK_CUR) != 0) goto done;
    } else if (memcmp(chunk, "data", 4) == 0) {
      if (channels == 0 || size > VSND_MAX_WAV_BYTES) goto done;
      size_t frames = size / (2u * channels);
      p->wav = malloc(frames * channels * sizeof(int16_t) + 1);
      if (p->wav == NULL) {
        err = -ENOMEM;
        goto done;
      }
      if (fread(p->wav, 2u * channels, frames, f) != frames) goto done;
      for (size_t i = 0; i < frames * channels; ++i) {
        const unsigned char* b = (const unsigned char*)&p->wav[i];
        p->wav[i] = (int16_t)get_le16(b);
      }
      p->wavFrames = frames;
      p->wavChannels = channels;
      err = 0;
      goto done;
    } else if (fseek(f, (long)(size + (size & 1)), SEEK_CUR) != 0) {
      goto done;
    }
  }
done:
  fclose(f);
  if (err < 0) {
    SNDERR("vesk: %s is not a 16-bit PCM WAV file with 1 or 2 channels", p->wavPath);
    free(p->wav);
    p->wav = NULL;
  }
  return err;
}

/* ---- sample generation --------------------------------------------------- */

/* One sample of channel ch of source frame n. */
static int16_t source_sample(const vsnd_pcm_t* p, uint64_t n, unsigned ch) {
  if (p->wav != NULL) {
    if (p->wavFrames == 0) return 0;
    if (n >= p->wavFrames) {
      if (!p->loop) return 0;
      n %= p->wavFrames;
    }
    unsigned wavCh = (ch < p->wavChannels) ? ch : p->wavChannels - 1;
    return p->wav[n * p->wavChannels + wavCh];
  }
  if (p->toneHz <= 0 || p->amplitude == 0) return 0;
  /* position within the tone's period, kept exact for long runs */
  double cycles = fmod((double)n * p->toneHz, (double)p->io.rate) / (double)p->io.rate;
  return (int16_t)lrint((double)p->amplitude * sin(2.0 * M_PI * cycles));
}

static snd_pcm_sframes_t vsnd_transfer(snd_pcm_ioplug_t* io, const snd_pcm_channel_area_t* areas,
                                       snd_pcm_uframes_t offset, snd_pcm_uframes_t size) {
  vsnd_pcm_t* p = io->private_data;
  for (unsigned ch = 0; ch < io->channels; ++ch) {
    const snd_pcm_channel_area_t* a = &areas[ch];
    char* base = (char*)a->addr + a->first / 8;
    for (snd_pcm_uframes_t i = 0; i < size; ++i) {
      int16_t* out = (int16_t*)(base + (offset + i) * (a->step / 8));
      *out = source_sample(p, p->produced + i, ch);
    }
  }
  p->produced += size;
  return (snd_pcm_sframes_t)size;
}

/* ---- pacing -------------------------------------------------------------- */

static uint64_t frames_since_start(const vsnd_pcm_t* p) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  int64_t ns = (int64_t)(now.tv_sec - p->startTime.tv_sec) * 1000000000 + (now.tv_nsec - p->startTime.tv_nsec);
  if (ns <= 0) return 0;
  return (uint64_t)((unsigned __int128)ns * p->io.rate / 1000000000u);
}

static int arm_timer(vsnd_pcm_t* p, const struct itimerspec* spec) {
  return timerfd_settime(p->timerFd, 0, spec, NULL) < 0 ? -errno : 0;
}

static int vsnd_start(snd_pcm_ioplug_t* io) {
  vsnd_pcm_t* p = io->private_data;
  clock_gettime(CLOCK_MONOTONIC, &p->startTime);
  struct itimerspec spec;
  memset(&spec, 0, sizeof(spec));
  if (p->freeRun) {
    /* expires once and is never read: the descriptor stays readable */
    spec.it_value.tv_nsec = 1;
  } else {
    uint64_t periodNs = (uint64_t)io->period_size * 1000000000u / io->rate;
    if (periodNs == 0) periodNs = 1;
    spec.it_value.tv_sec = (time_t)(periodNs / 1000000000u);
    spec.it_value.tv_nsec = (long)(periodNs % 1000000000u);
    spec.it_interval = spec.it_value;
  }
  return arm_timer(p, &spec);
}

static int vsnd_stop(snd_pcm_ioplug_t* io) {
  vsnd_pcm_t* p = io->private_data;
  struct itimerspec spec;
  memset(&spec, 0, sizeof(spec));
  return arm_timer(p, &spec);
}

/* The capture position in the ring: frames elapsed since start (or, running
 * free, always one frame short of a full ring ahead of the reader). A reader
 * a whole ring behind has overrun. */
static snd_pcm_sframes_t vsnd_pointer(snd_pcm_ioplug_t* io) {
  vsnd_pcm_t* p = io->private_data;
  const uint64_t ring = io->buffer_size;
  if (ring == 0) return 0;
  if (io->state != SND_PCM_STATE_RUNNING) return (snd_pcm_sframes_t)(io->hw_ptr % ring);
  const uint64_t appl = io->appl_ptr;
  if (p->failAfter != 0 && appl >= p->failAfter) {
    p->failAfter = 0; /* once per open */
    return -EIO;
  }
  if (p->freeRun) return (snd_pcm_sframes_t)((appl + ring - 1) % ring);
  const uint64_t elapsed = frames_since_start(p);
  if (elapsed >= appl + ring) return -EPIPE;
  return (snd_pcm_sframes_t)(elapsed % ring);
}

static int vsnd_prepare(snd_pcm_ioplug_t* io) {
  vsnd_pcm_t* p = io->private_data;
  p->produced = 0;
  return vsnd_stop(io);
}

static int vsnd_poll_revents(snd_pcm_ioplug_t* io, struct pollfd* pfd, unsigned int nfds,
                             unsigned short* revents) {
  vsnd_pcm_t* p = io->private_data;
  if (nfds != 1) return -EINVAL;
  *revents = pfd[0].revents;
  if ((pfd[0].revents & POLLIN) && !p->freeRun) {
    uint64_t expirations;
    if (read(p->timerFd, &expirations, sizeof(expirations)) < 0 && errno != EAGAIN) return -errno;
  }
  return 0;
}

static void vsnd_free(vsnd_pcm_t* p) {
  if (p->timerFd >= 0) close(p->timerFd);
  free(p->wav);
  free(p->wavPath);
  free(p->failOpenFile);
  free(p);
}

static int vsnd_close(snd_pcm_ioplug_t* io) {
  vsnd_free(io->private_data);
  return 0;
}

static const snd_pcm_ioplug_callback_t vsnd_callbacks = {
    .start = vsnd_start,
    .stop = vsnd_stop,
    .pointer = vsnd_pointer,
    .transfer = vsnd_transfer,
    .close = vsnd_close,
    .prepare = vsnd_prepare,
    .poll_revents = vsnd_poll_revents,
};

/* ---- hardware constraints ------------------------------------------------ */

static int set_constraints(vsnd_pcm_t* p) {
  static const unsigned int accessList[] = {SND_PCM_ACCESS_RW_INTERLEAVED};
  static const unsigned int formatList[] = {SND_PCM_FORMAT_S16_LE};
  snd_pcm_ioplug_t* io = &p->io;
  int err = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_ACCESS, 1, accessList);
  if (err >= 0) err = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_FORMAT, 1, formatList);
  if (err >= 0) err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_CHANNELS, 1, 2);
  if (err >= 0) {
    if (p->rateCount > 0)
      err = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_RATE, p->rateCount, p->rates);
    else
      err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_RATE, 8000, 48000);
  }
  if (err >= 0) err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIOD_BYTES, 256, 64 * 1024);
  if (err >= 0) err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_BUFFER_BYTES, 4096, 64 * 1024);
  if (err >= 0) err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIODS, 2, 1024);
  return err;
}

SND_PCM_PLUGIN_DEFINE_FUNC(vesk) {
  (void)root;
  if (stream != SND_PCM_STREAM_CAPTURE) {
    SNDERR("vesk: %s is a capture-only device", name);
    return -EINVAL;
  }
  vsnd_pcm_t* p = calloc(1, sizeof(*p));
  if (p == NULL) return -ENOMEM;
  p->timerFd = -1;
  p->toneHz = 440.0;
  p->amplitude = 8000;
  p->loop = 1;

  int err = vsnd_params_from_config(conf, pcm_param, p);
  if (err >= 0) err = vsnd_params_from_env(VSND_PCM_ENV, pcm_param, p);
  if (err >= 0 && p->wavPath != NULL) err = load_wav(p);
  if (err >= 0 && p->failOpenFile != NULL && access(p->failOpenFile, F_OK) == 0) err = -EIO;
  if (err >= 0) {
    p->timerFd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (p->timerFd < 0) err = -errno;
  }
  if (err < 0) {
    vsnd_free(p);
    return err;
  }

  p->io.version = SND_PCM_IOPLUG_VERSION;
  p->io.name = "Vesk virtual capture";
  p->io.flags = SND_PCM_IOPLUG_FLAG_MONOTONIC;
  p->io.poll_fd = p->timerFd;
  p->io.poll_events = POLLIN;
  p->io.mmap_rw = 0;
  p->io.callback = &vsnd_callbacks;
  p->io.private_data = p;

  err = snd_pcm_ioplug_create(&p->io, name, stream, mode);
  if (err < 0) {
    vsnd_free(p);
    return err;
  }
  err = set_constraints(p);
  if (err < 0) {
    snd_pcm_ioplug_delete(&p->io); /* calls vsnd_close */
    return err;
  }
  *pcmp = p->io.pcm;
  return 0;
}

SND_PCM_PLUGIN_SYMBOL(vesk);
