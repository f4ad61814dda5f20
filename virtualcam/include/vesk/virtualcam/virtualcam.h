/* Control of the virtual camera, for host programs and tests.
 *
 * The virtual camera emulates the IAV video DSP behind /dev/iav and /dev/ucode
 * (reached through vesk/device/device.h) and the hardware timer files. It has
 * one device state per process, shared by every open descriptor. These calls
 * configure it (chip, sensor modes, scene, microcode, clock), inject faults
 * and read back what the driver was told. All are thread-safe. */
#ifndef VESK_VIRTUALCAM_VIRTUALCAM_H
#define VESK_VIRTUALCAM_VIRTUALCAM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Defaults and reset ------------------------------------------------ */

#define VCAM_DEFAULT_CHIP_ID 5                 /* "S2L_66" */
#define VCAM_TIMER_FREQUENCY 27000000u         /* hardware timer ticks per second */
#define VCAM_DEFAULT_BITSTREAM_SIZE (4u << 20) /* bytes of the bitstream ring */
#define VCAM_DEFAULT_QUEUE_DEPTH 64u           /* descriptors kept before the oldest is lost */
#define VCAM_MAX_SENSOR_MODES 32u

/* Back to the defaults: driver state closed-idle with nothing configured,
 * microcode loaded, default chip and sensor modes, moving scene, real-time
 * clock, no replay, no faults, empty ring and queue, counters zero. Wakes
 * every thread waiting in the driver. Descriptors stay open; mappings stay
 * valid. */
void vcam_reset(void);

/* ---- Hardware configuration ------------------------------------------- */

/* Chip id that IAV_IOC_GET_CHIP_ID answers (any value, also out of range). */
void vcam_set_chip_id(int32_t chipId);

/* One sensor mode: VIN_GET_VIDEOINFO answers exactly these (mode, hdrMode)
 * pairs and refuses all others with EINVAL. */
typedef struct vcam_sensor_mode {
  uint32_t mode;         /* mode index */
  uint8_t hdrMode;       /* HDR mode of this entry */
  uint32_t width;
  uint32_t height;
  uint32_t framePeriod;  /* 512000000 / rate */
} vcam_sensor_mode_t;

/* Replaces the sensor's modes (at most VCAM_MAX_SENSOR_MODES). 0 or -1. The
 * defaults are, with their mode index: 0 1920x1080@30, 1 1920x1080@60,
 * 2 1920x1080@30 in HDR mode 1, 3 1280x720@60, 131072 2592x1944@29.97 (a
 * period no frame-rate table holds). */
int vcam_set_sensor_modes(const vcam_sensor_mode_t* modes, size_t count);
size_t vcam_get_sensor_modes(vcam_sensor_mode_t* modes, size_t capacity);

typedef enum vcam_scene {
  VCAM_SCENE_STILL = 0,   /* nothing moves: statistics planes never change */
  VCAM_SCENE_MOVING = 1,  /* a box crosses the picture: some cells change */
  VCAM_SCENE_BUSY = 2     /* noise over the whole picture: nearly every cell changes */
} vcam_scene_t;
void vcam_set_scene(vcam_scene_t scene);

/* Microcode resident (default) or not. When not, GET_UCODE_VERSION reports
 * zeros, the state requests fail with ENODEV, and UPDATE_UCODE succeeds only
 * once every item's file (see vcam_write_firmware) was copied into the
 * mapped /dev/ucode region at its offset. */
void vcam_set_ucode_loaded(int loaded);
int vcam_get_ucode_loaded(void);
/* Writes the microcode item files into `directory` (which must exist); the
 * track copies them from its firmware path. 0, or -1 with errno. */
int vcam_write_firmware(const char* directory);

/* Bytes of the bitstream ring (a multiple of 4096) and the depth of the
 * descriptor queue; take effect at once, empty the ring and queue, and are
 * kept until vcam_reset. Set them before the ring is mapped. 0 or -1. */
int vcam_set_bitstream_size(uint32_t bytes);
int vcam_set_queue_depth(uint32_t descriptors);

/* ---- Clock ------------------------------------------------------------- */

typedef enum vcam_clock_mode {
  VCAM_CLOCK_REALTIME = 0,  /* time runs; a thread produces the pictures due (default) */
  VCAM_CLOCK_MANUAL = 1     /* time moves only in vcam_advance */
} vcam_clock_mode_t;
void vcam_set_clock_mode(vcam_clock_mode_t mode);

/* Manual clock: moves time forward and produces, on the calling thread, every
 * VIN frame (statistics plane, pictures due) that falls in that time. Nothing
 * in real-time mode. */
void vcam_advance_us(uint64_t microseconds);
void vcam_advance_ms(uint32_t milliseconds);

/* Real-time clock: the camera's time (hardware timer, VIN frames, picture
 * times) runs `ppm` parts per million faster (positive) or slower than real
 * time, as a drifting crystal would, while the sound card keeps real time.
 * The time goes on from where it is; vcam_reset sets 0 again. At most
 * +-VCAM_CLOCK_RATE_LIMIT_PPM; 0, or -1 when out of range. */
#define VCAM_CLOCK_RATE_LIMIT_PPM 500000
int vcam_set_clock_rate_ppm(int32_t ppm);

/* Hardware timer now (ticks at VCAM_TIMER_FREQUENCY). */
uint64_t vcam_timer_ticks(void);

/* Manual clock: a blocking motion query that sees no new plane returns the
 * latest plane again after this much real time (default 200 ms; 0 waits
 * for a new plane, which only time advanced while the VIN runs makes, or for
 * the descriptor to be closed or the camera reset). */
void vcam_set_manual_wait_limit_ms(uint32_t milliseconds);

/* Replay: each stream encodes one IDR period of pictures when it starts and
 * then replays them in a loop (same sizes, types and cadence), so that
 * benchmarks measure the reader rather than the encoder. Bit-rate changes
 * take effect at the next start. Off by default. */
void vcam_set_replay(int enabled);

/* ---- Fault injection ---------------------------------------------------- */

#define VCAM_FAULT_ALWAYS (-1)

/* Besides request codes, these operations can be made to fail. */
#define VCAM_OP_OPEN_IAV 0xFFFF0001ul      /* open("/dev/iav") */
#define VCAM_OP_OPEN_UCODE 0xFFFF0002ul    /* open("/dev/ucode") */
#define VCAM_OP_MMAP 0xFFFF0003ul          /* mmap of any served descriptor */
#define VCAM_OP_OPEN_HWTIMER 0xFFFF0004ul  /* opening either hardware timer file */
#define VCAM_OP_READ_HWTIMER 0xFFFF0005ul  /* the timer file opens but holds no number (errno unused) */
#define VCAM_OP_START_UCODE 0xFFFF0006ul   /* UPDATE_UCODE succeeds but the microcode does not
                                              start: its version stays zero (errno unused) */

/* The next `count` calls of `request` (or VCAM_OP_*) fail with `err`;
 * VCAM_FAULT_ALWAYS: until cleared; 0 clears. */
void vcam_fault_request(unsigned long request, int err, int count);

/* The next frame query returns, before any real picture, a made-up descriptor
 * with this stream id and picture type (e.g. type 7, or stream 4) pointing at
 * the latest picture's bytes. Several calls queue several. */
void vcam_fault_descriptor(int32_t streamId, uint32_t picType);

/* The next `count` H.264 pictures written to the ring have every NAL unit's
 * type replaced by 0 (forbidden), as a corrupted bitstream would. */
void vcam_fault_corrupt_nal(uint32_t count);

void vcam_clear_faults(void);

/* ---- What the driver was told ------------------------------------------ */

#define VCAM_IAV_STATE_IDLE 0
#define VCAM_IAV_STATE_PREVIEW 1
#define VCAM_IAV_STATE_ENCODE 2

typedef struct vcam_status {
  int iavState;              /* VCAM_IAV_STATE_* */
  int ucodeLoaded;
  uint32_t vinMode;          /* last VIN_SET_MODE */
  uint32_t vinHdrMode;
  uint32_t vinFramePeriod;   /* last VIN_SET_FPS, 0 when not set */
  uint32_t vinWidth;
  uint32_t vinHeight;
  uint32_t encodeMask;       /* streams encoding now (bits 0-3) */
  uint32_t lastStartArgument;  /* last START_ENCODE value as received */
  uint32_t lastStopArgument;   /* last STOP_ENCODE value as received */
  uint64_t vinFrames;        /* VIN frames since preview was entered */
  uint64_t vinFramesLate;    /* VIN frames skipped because production fell behind (real time) */
  uint64_t picturesWritten;  /* pictures written into the ring */
  uint64_t picturesLost;     /* pictures lost before they were read (queue full or ring wrapped) */
  uint64_t picturesRead;     /* descriptors handed out */
} vcam_status_t;
void vcam_get_status(vcam_status_t* status);

typedef struct vcam_stream_status {
  int encoding;
  uint32_t type;             /* IAV_STREAM_TYPE_* */
  uint32_t sourceBuf;
  uint32_t width;
  uint32_t height;
  uint32_t M;
  uint32_t N;
  uint32_t gopModel;
  uint32_t fpsNumerator;     /* frame-rate factor */
  uint32_t fpsDenominator;
  uint32_t idrInterval;
  uint32_t rcMode;
  uint32_t targetBitrate;    /* bits/s at the VIN rate, as programmed */
  uint32_t quality;          /* JPEG quality */
  uint32_t forcedIdrs;       /* FORCE_IDR items received */
  uint64_t pictures;         /* pictures written since the stream last started */
  uint64_t bytes;            /* bytes written since the stream last started */
} vcam_stream_status_t;
/* 0, or -1 for a stream id above 3. */
int vcam_get_stream_status(uint32_t streamId, vcam_stream_status_t* status);

/* How many times a request code was received since the reset (refused ones
 * included). */
uint32_t vcam_request_count(unsigned long request);

/* The last system-resource and source-buffer records written. */
struct iav_system_resource;
struct iav_srcbuf_setup;
void vcam_get_system_resource(struct iav_system_resource* record);
void vcam_get_source_buffers(struct iav_srcbuf_setup* record);

#ifdef __cplusplus
}
#endif

#endif
