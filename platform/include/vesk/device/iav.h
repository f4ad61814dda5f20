/* The IAV video DSP driver's interface: request codes and driver records.
 *
 * The request codes are the driver's own (Linux ioctl encoding, type letter 'V'
 * for the encoder, 's' for the video input, 'u' for the microcode device).
 * The records are our layout of the driver's records; where the driver fixes a
 * size or a field offset, a static assertion below pins it. Every record is
 * zeroed by the caller before a "get" request and written back as read,
 * with only the fields the caller means to change altered.
 *
 * Requests whose argument is a value (ENABLE_PREVIEW, START_ENCODE,
 * STOP_ENCODE, UPDATE_UCODE) take it directly: vdev_ioctl(fd, code, value).
 * All others take a pointer to their record. */
#ifndef VESK_DEVICE_IAV_H
#define VESK_DEVICE_IAV_H

#include <stddef.h>
#include <stdint.h>

/* ---- Request codes ---------------------------------------------------- */

/* States (on /dev/iav). */
#define IAV_IOC_ENTER_IDLE 0x00005611u        /* no argument */
#define IAV_IOC_ENABLE_PREVIEW 0x40045612u    /* value 0 */
#define IAV_IOC_START_ENCODE 0x40045613u      /* value: stream mask (bits 0-3, copy in 16-19) */
#define IAV_IOC_STOP_ENCODE 0x40045614u       /* value: stream mask, as START_ENCODE */

/* Microcode (on /dev/ucode). */
#define IAV_IOC_GET_UCODE_INFO 0x80687500u    /* iav_ucode_load_t, read */
#define IAV_IOC_GET_UCODE_VERSION 0x800C7501u /* iav_ucode_version_t, read */
#define IAV_IOC_UPDATE_UCODE 0x40047502u      /* value 0 */

/* Chip and video input (on /dev/iav). */
#define IAV_IOC_GET_CHIP_ID 0x80015600u       /* int32_t, read */
#define IAV_IOC_VIN_GET_VIDEOINFO 0x802C7305u /* vindev_video_info_t, mode and HDR in, rest out */
#define IAV_IOC_VIN_SET_MODE 0x40107303u      /* iav_vin_mode_t, written */
#define IAV_IOC_VIN_SET_FPS 0x40087304u       /* iav_vin_fps_t, written */

/* Source buffers and system resources (on /dev/iav). */
#define IAV_IOC_GET_SOURCE_BUFFER_SETUP 0xC0045630u /* iav_srcbuf_setup_t, read */
#define IAV_IOC_SET_SOURCE_BUFFER_SETUP 0x40045630u /* iav_srcbuf_setup_t, written */
#define IAV_IOC_GET_SYSTEM_RESOURCE 0xC0045615u     /* iav_system_resource_t, read */
#define IAV_IOC_SET_SYSTEM_RESOURCE 0x40045615u     /* iav_system_resource_t, written */

/* Encode streams (on /dev/iav); each record starts with the stream id. */
#define IAV_IOC_GET_STREAM_FORMAT 0xC0045634u /* iav_stream_format_t, id in, rest out */
#define IAV_IOC_SET_STREAM_FORMAT 0x40045634u /* iav_stream_format_t, written */
#define IAV_IOC_GET_H264_CONFIG 0xC0045638u   /* iav_h264_config_t, id in, rest out */
#define IAV_IOC_SET_H264_CONFIG 0x40045638u   /* iav_h264_config_t, written */
#define IAV_IOC_GET_STREAM_CONFIG 0xC0045636u /* iav_stream_cfg_t, id and item in, value out */
#define IAV_IOC_SET_STREAM_CONFIG 0x40045636u /* iav_stream_cfg_t, written */

/* Buffers and descriptors (on /dev/iav). */
#define IAV_IOC_QUERY_BUF 0xC0045618u  /* iav_querybuf_t: buffer id in, length and offset out */
#define IAV_IOC_QUERY_DESC 0xC0045619u /* iav_querydesc_t: kind (and stream) in, descriptor out */

/* ---- Limits ---------------------------------------------------------- */

#define IAV_MAX_ENCODE_STREAMS 4   /* stream ids 0 to 3 */
#define IAV_MAX_SOURCE_BUFFERS 5   /* source buffer ids 0 to 4 */
#define IAV_UCODE_MAX_ITEMS 4      /* microcode items in the load record */
#define IAV_UCODE_NAME_LENGTH 20   /* file name bytes of one item, NUL included */
#define IAV_VIN_CLOCK 512000000u   /* frame periods are counted in this clock */

/* ---- Microcode ------------------------------------------------------- */

/* One microcode item: copy the file into the mapped region at `offset`. */
typedef struct iav_ucode_item {
  uint32_t offset;                       /* byte offset of the item in the mapped region */
  char fileName[IAV_UCODE_NAME_LENGTH];  /* file name, NUL-terminated, to append to the firmware path */
} iav_ucode_item_t;

/* IAV_IOC_GET_UCODE_INFO: what to copy where before IAV_IOC_UPDATE_UCODE. */
typedef struct iav_ucode_load {
  uint32_t mapSize;                             /* bytes of /dev/ucode to map read-write, shared, at 0 */
  int32_t itemCount;                            /* items used, 0 to IAV_UCODE_MAX_ITEMS */
  iav_ucode_item_t items[IAV_UCODE_MAX_ITEMS];  /* the items, in load order */
} iav_ucode_load_t;

/* IAV_IOC_GET_UCODE_VERSION: all zero while no microcode runs. */
typedef struct iav_ucode_version {
  uint16_t year;        /* build date: year */
  uint8_t month;        /* build date: month 1-12 */
  uint8_t day;          /* build date: day 1-31 */
  uint32_t editionNum;  /* edition number, non-zero once microcode runs */
  uint32_t editionVer;  /* edition version */
} iav_ucode_version_t;

/* ---- Video input ----------------------------------------------------- */

/* IAV_IOC_VIN_GET_VIDEOINFO: the caller sets vsrcId, mode and hdrMode; the
 * driver fills the rest, or refuses (EINVAL) a mode/HDR pair the sensor lacks. */
typedef struct vindev_video_info {
  uint32_t vsrcId;        /* video source (sensor) id, 0 */
  uint32_t mode;          /* sensor mode index (set by the caller) */
  uint32_t width;         /* active width in pixels */
  uint32_t height;        /* active height in pixels */
  uint32_t framePeriod;   /* IAV_VIN_CLOCK / frame rate (e.g. 17066667 for 30) */
  uint8_t format;         /* 0 progressive */
  uint8_t bitsPerPixel;   /* sensor raw bits per pixel */
  uint8_t bayerPattern;   /* sensor colour filter pattern */
  uint8_t reserved0[8];
  uint8_t hdrMode;        /* HDR mode: 0 linear, 1 2X, 2 3X, 3 4X (set by the caller, reported) */
  uint32_t maxWidth;      /* sensor's full width */
  uint32_t maxHeight;     /* sensor's full height */
  uint32_t reserved1;
} vindev_video_info_t;

/* IAV_IOC_VIN_SET_MODE (idle state only). */
typedef struct iav_vin_mode {
  uint32_t vsrcId;   /* 0 */
  uint32_t mode;     /* a sensor mode index that VIN_GET_VIDEOINFO answers */
  uint32_t hdrMode;  /* an HDR mode that the sensor has for that index */
  uint32_t reserved; /* 0 */
} iav_vin_mode_t;

/* IAV_IOC_VIN_SET_FPS (idle state only, after VIN_SET_MODE). */
typedef struct iav_vin_fps {
  uint32_t vsrcId;       /* 0 */
  uint32_t framePeriod;  /* IAV_VIN_CLOCK / rate; not shorter than the mode's own period */
} iav_vin_fps_t;

/* ---- Source buffers -------------------------------------------------- */

#define IAV_SRCBUF_TYPE_OFF 0u
#define IAV_SRCBUF_TYPE_ENCODE 1u

typedef struct iav_size {
  uint32_t width;
  uint32_t height;
} iav_size_t;

typedef struct iav_rect {
  uint32_t x;       /* input window on the VIN picture; all zero: the whole picture */
  uint32_t y;
  uint32_t width;
  uint32_t height;
} iav_rect_t;

/* IAV_IOC_GET/SET_SOURCE_BUFFER_SETUP (set: idle state only). */
typedef struct iav_srcbuf_setup {
  iav_size_t size[IAV_MAX_SOURCE_BUFFERS];   /* buffer sizes; buffer 0 is the main buffer */
  iav_rect_t input[IAV_MAX_SOURCE_BUFFERS];  /* input windows (zero: whole VIN picture) */
  uint32_t type[IAV_MAX_SOURCE_BUFFERS];     /* IAV_SRCBUF_TYPE_OFF or _ENCODE */
  uint32_t reserved[2];                      /* kept as read */
} iav_srcbuf_setup_t;

/* ---- System resources ------------------------------------------------- */

/* Per-stream limits that the chip reserves memory for; zero means "no limit
 * given" (the driver then uses its own maximum). */
typedef struct iav_stream_limit {
  uint32_t maxWidth;   /* widest picture the stream will be given */
  uint32_t maxHeight;  /* tallest picture the stream will be given */
  uint32_t maxM;       /* largest H.264 M (1-3) the stream will be given */
  uint32_t maxN;       /* largest H.264 N the stream will be given (0: any) */
} iav_stream_limit_t;

/* Option bits of iav_system_resource_t::options. */
#define IAV_SYSRES_OPT_ME0_SCALE_MASK 0x3u   /* motion statistics scale: 0 off, 1, 2 (1/8), 3 (1/16) */
#define IAV_SYSRES_OPT_ME0_SCALE(scale) ((uint32_t)(scale) & IAV_SYSRES_OPT_ME0_SCALE_MASK)
#define IAV_SYSRES_OPT_VENDOR_FLAG 0x100u    /* board-specific flag chosen from the system id */

/* IAV_IOC_GET/SET_SYSTEM_RESOURCE (set: idle state only). */
typedef struct iav_system_resource {
  uint32_t maxEncodeStreams;      /* streams to reserve, 1 to 4 */
  uint32_t maxSourceBuffers;      /* source buffers to reserve, 1 to 5 */
  uint32_t exposureNum;           /* exposures per VIN frame: HDR mode + 1 (1 to 4) */
  uint32_t options;               /* IAV_SYSRES_OPT_* bits */
  uint32_t systemId;              /* the camera's system id */
  uint32_t reserved0[3];
  iav_stream_limit_t stream[IAV_MAX_ENCODE_STREAMS];  /* per-stream limits */
  uint32_t reserved1[12];
} iav_system_resource_t;

/* ---- Encode streams ---------------------------------------------------- */

#define IAV_STREAM_TYPE_NONE 0u
#define IAV_STREAM_TYPE_H264 1u
#define IAV_STREAM_TYPE_MJPEG 2u

/* IAV_IOC_GET/SET_STREAM_FORMAT. Set: while the stream encodes only its
 * current record is taken (anything else: EBUSY). */
typedef struct iav_stream_format {
  uint32_t id;          /* stream id 0-3 */
  uint32_t type;        /* IAV_STREAM_TYPE_* */
  uint32_t sourceBuf;   /* source buffer id 0-4 the stream is encoded from */
  uint32_t width;       /* encoded width (even, not larger than the source buffer) */
  uint32_t height;      /* encoded height (even, not larger than the source buffer) */
  uint32_t offsetX;     /* crop offset inside the source buffer */
  uint32_t offsetY;
  uint8_t hflip;        /* 0 */
  uint8_t vflip;        /* 0 */
  uint8_t rotate;       /* 0 */
  uint8_t reserved0;
  uint32_t reserved1[2];
} iav_stream_format_t;

/* IAV_IOC_GET/SET_H264_CONFIG. Set: while the stream encodes only its
 * current record is taken (anything else: EBUSY). */
typedef struct iav_h264_config {
  uint32_t id;            /* stream id 0-3 */
  uint8_t M;              /* reference picture distance, 1 (no B pictures) to 3 */
  uint8_t reserved0;
  uint16_t N;             /* I picture distance in frames, at least 1 */
  uint8_t gopModel;       /* GOP model 0-4 */
  uint8_t cabac;          /* entropy coding: 1 (set to 1) */
  uint8_t audType;        /* access-unit delimiters: 1 (set to 1) */
  uint8_t lowLatency;     /* 0 (set to 0) */
  uint32_t profile;       /* 0: chosen by the chip */
  uint32_t reserved1[3];
} iav_h264_config_t;

/* Items of IAV_IOC_GET/SET_STREAM_CONFIG. */
#define IAV_STMCFG_FPS 0x0000u        /* iav_stream_fps_t: frame-rate factor */
#define IAV_STMCFG_GOP 0x1000u        /* iav_stream_gop_t: IDR cadence (H.264) */
#define IAV_STMCFG_BITRATE 0x1001u    /* iav_stream_bitrate_t: rate control (H.264) */
#define IAV_STMCFG_FORCE_IDR 0x1002u  /* no payload: next picture is an IDR (H.264) */
#define IAV_STMCFG_MJPEG_QUALITY 0x2000u /* iav_stream_quality_t: JPEG quality (MJPEG) */

/* Frame-rate factor: the stream runs at VIN rate x numerator / denominator. */
typedef struct iav_stream_fps {
  uint32_t numerator;    /* the stream's rate, 1 to denominator */
  uint32_t denominator;  /* the VIN rate */
} iav_stream_fps_t;

/* IDR cadence: one IDR picture every idrInterval frames. */
typedef struct iav_stream_gop {
  uint32_t idrInterval;  /* frames between IDR pictures (multiplier x rate), at least 1 */
  uint32_t apply;        /* 1: the cadence restarts with the next picture */
} iav_stream_gop_t;

#define IAV_BRC_MODE_VBR 4u   /* the mode the library programs: target = bits/s at the VIN rate */

/* Rate control. The target counts bits per second at the VIN rate, as the DSP
 * does: a stream at half the VIN rate delivers half the target. */
typedef struct iav_stream_bitrate {
  uint32_t targetBitrate;  /* bits per second at the VIN rate, > 0 */
  uint8_t rcMode;          /* rate-control mode 1-4 (4: IAV_BRC_MODE_VBR) */
  uint8_t vbrLevel;        /* VBR smoothing level (set to 4) */
  uint8_t adaptQp;         /* adaptive QP (set to 0) */
  uint8_t reserved0;
  uint8_t qpMinI;          /* QP range of I/IDR pictures, 0 <= min <= max <= 51 */
  uint8_t qpMaxI;
  uint8_t qpMinP;          /* QP range of P pictures */
  uint8_t qpMaxP;
  uint8_t qpMinB;          /* QP range of B pictures */
  uint8_t qpMaxB;
  uint8_t reserved1[2];
} iav_stream_bitrate_t;

/* JPEG quality 1 (smallest) to 100 (best). */
typedef struct iav_stream_quality {
  uint32_t quality;
} iav_stream_quality_t;

/* IAV_IOC_GET/SET_STREAM_CONFIG: one item of one stream. Allowed in any state
 * (they are the run-time settings); an unknown item is refused with EINVAL. */
typedef struct iav_stream_cfg {
  uint32_t id;   /* stream id 0-3 */
  uint32_t cid;  /* item: IAV_STMCFG_* */
  union {
    iav_stream_fps_t fps;
    iav_stream_gop_t gop;
    iav_stream_bitrate_t bitrate;
    iav_stream_quality_t quality;
    uint8_t raw[24];
  } arg;
} iav_stream_cfg_t;

/* ---- Buffers and descriptors ------------------------------------------ */

#define IAV_BUFFER_ME0 0u        /* motion statistics planes */
#define IAV_BUFFER_BSB 1u        /* bitstream ring of the encoded pictures */

/* IAV_IOC_QUERY_BUF: map `length` bytes (or twice that, mirrored: the second
 * half shows the same memory as the first) read-only, shared, at `offset`. */
typedef struct iav_querybuf {
  uint32_t buf;     /* in: IAV_BUFFER_* */
  uint32_t length;  /* out: bytes of the buffer */
  uint32_t offset;  /* out: mmap offset of the buffer on /dev/iav */
} iav_querybuf_t;

/* Descriptor kinds of IAV_IOC_QUERY_DESC. */
#define IAV_DESC_FRAME 0u   /* the next encoded picture (never waits: EAGAIN when none) */
#define IAV_DESC_ME0 5u     /* the next motion statistics plane (waits up to one frame) */

/* Picture types of iav_framedesc_t::picType (low three bits). */
#define IAV_PIC_TYPE_JPEG 0u
#define IAV_PIC_TYPE_IDR 1u
#define IAV_PIC_TYPE_I 2u
#define IAV_PIC_TYPE_P 3u
#define IAV_PIC_TYPE_B 4u

#define IAV_STREAM_ID_ANY (-1)

/* One encoded picture in the bitstream ring. */
typedef struct iav_framedesc {
  int32_t id;            /* in: stream id, or IAV_STREAM_ID_ANY; out: the picture's stream id */
  uint32_t picType;      /* IAV_PIC_TYPE_* in the low three bits */
  uint32_t frameNum;     /* picture counter of the stream since it started */
  uint32_t dataOffset;   /* byte offset of the picture in the ring (below its length) */
  uint32_t size;         /* bytes of the picture; it may run past the ring's end into the mirror */
  uint32_t width;        /* picture size */
  uint32_t height;
  uint32_t reserved0;
  uint64_t pts;          /* presentation time at 90 kHz, from the hardware timer's clock */
  uint64_t hwTimestamp;  /* hardware timer ticks when the picture was captured */
  uint32_t streamEnd;    /* 1: the stream stopped after this picture */
  uint32_t reserved1[3];
} iav_framedesc_t;

/* One motion statistics plane (ME0): one byte per cell, `height` rows
 * `pitch` bytes apart, starting at `dataOffset` in the mapped buffer. Two
 * places alternate, so the previous plane stays readable. */
typedef struct iav_me0desc {
  uint32_t dataOffset;   /* byte offset of the plane in the mapped buffer */
  uint32_t width;        /* cells per row */
  uint32_t height;       /* rows */
  uint32_t pitch;        /* bytes from one row to the next */
  uint32_t seqNum;       /* plane counter (one per VIN frame) */
  uint32_t reserved0;
  uint64_t pts;          /* VIN frame time at 90 kHz */
  uint32_t reserved1[4];
} iav_me0desc_t;

/* IAV_IOC_QUERY_DESC. */
typedef struct iav_querydesc {
  uint32_t qid;                  /* in: IAV_DESC_FRAME or IAV_DESC_ME0 */
  uint32_t reserved;
  union {
    iav_framedesc_t frame;       /* qid IAV_DESC_FRAME */
    iav_me0desc_t me0;           /* qid IAV_DESC_ME0 */
  } arg;
} iav_querydesc_t;

/* ---- Sizes and offsets the driver fixes ------------------------------- */

#ifdef __cplusplus
static_assert(sizeof(iav_ucode_item_t) == 24, "microcode item is 24 bytes");
static_assert(sizeof(iav_ucode_load_t) == 104, "microcode load record is 104 bytes");
static_assert(offsetof(iav_ucode_load_t, items) == 8, "microcode items start at 8");
static_assert(sizeof(iav_ucode_version_t) == 12, "microcode version record is 12 bytes");
static_assert(offsetof(iav_ucode_version_t, editionNum) == 4, "edition number at 4");
static_assert(sizeof(vindev_video_info_t) == 44, "sensor-mode record is 44 bytes");
static_assert(offsetof(vindev_video_info_t, mode) == 4, "mode index at 4");
static_assert(offsetof(vindev_video_info_t, width) == 8, "width at 8");
static_assert(offsetof(vindev_video_info_t, height) == 12, "height at 12");
static_assert(offsetof(vindev_video_info_t, framePeriod) == 16, "frame period at 16");
static_assert(offsetof(vindev_video_info_t, hdrMode) == 31, "HDR mode at 31");
static_assert(sizeof(iav_vin_mode_t) == 16, "VIN mode: four words");
static_assert(sizeof(iav_vin_fps_t) == 8, "VIN rate: two words");
static_assert(sizeof(iav_srcbuf_setup_t) == 148, "source-buffer record is 148 bytes");
static_assert(offsetof(iav_srcbuf_setup_t, input) == 40, "input rectangles at 40");
static_assert(offsetof(iav_srcbuf_setup_t, type) == 120, "buffer types at 120");
static_assert(sizeof(iav_system_resource_t) == 144, "system-resource record is 144 bytes");
static_assert(sizeof(iav_stream_cfg_t) == 32, "stream configuration record");
static_assert(offsetof(iav_stream_cfg_t, arg) == 8, "stream configuration payload at 8");
static_assert(sizeof(iav_framedesc_t) == 64, "frame descriptor");
#endif

#endif
