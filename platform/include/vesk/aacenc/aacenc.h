/* The AAC encoder library: one AAC-LC access unit, with its 7-byte ADTS
 * header, per block of 1024 samples per channel of signed 16-bit interleaved
 * PCM.
 *
 * Every call takes the caller's configuration and state record and reports
 * its outcome in the record's error word (AACENC_OK or one of the codes
 * below). The caller fills the configuration words, allocates the work
 * buffer (AACENC_WORK_BUFFER_BYTES) and calls aacenc_setup, then
 * aacenc_open, then aacenc_encode once per block with the input and output
 * pointers set. The library keeps all its state inside the work buffer; the
 * record and the work buffer must stay in place while the encoder is open,
 * and aacenc_close releases what aacenc_open acquired.
 *
 * The record is 268 bytes with 32-bit words. The pointer words hold the
 * address itself on a 32-bit target; on a 64-bit target the word holds the
 * low half and pointer_high[] the high half, so always go through the
 * aacenc_set_*() and aacenc_get_*() helpers below. */
#ifndef VESK_AACENC_AACENC_H
#define VESK_AACENC_AACENC_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define AACENC_WORK_BUFFER_BYTES 0x40000u
#define AACENC_FIXED_PARAMETER 116u
#define AACENC_FRAME_SAMPLES 1024u
#define AACENC_ADTS_HEADER_BYTES 7u
#define AACENC_VERSION_BYTES 82u

/* Error words. */
#define AACENC_OK 0u
#define AACENC_ERR_SAMPLE_RATE 2u     /* not one of 8000..48000 of the AAC table */
#define AACENC_ERR_CHANNELS 3u        /* not 1 or 2 */
#define AACENC_ERR_BIT_RATE 4u        /* 0, or above 6144 bits per channel per frame */
#define AACENC_ERR_MODE 5u            /* above 3 */
#define AACENC_ERR_FIXED_PARAMETER 6u /* the fixed word is not 116 */
#define AACENC_ERR_WORK_BUFFER 7u     /* no work buffer, or one not 8-byte aligned */
#define AACENC_ERR_NOT_SET_UP 8u      /* aacenc_open before a successful aacenc_setup */
#define AACENC_ERR_NOT_OPEN 9u        /* aacenc_encode before a successful aacenc_open */
#define AACENC_ERR_BUFFERS 10u        /* no input or output pointer */
#define AACENC_ERR_CODEC 11u          /* the underlying encoder failed */

/* Indexes into pointer_high[]. */
#define AACENC_PTR_OUTPUT 0
#define AACENC_PTR_INPUT 1
#define AACENC_PTR_WORK_BUFFER 2
#define AACENC_PTR_SILENT_FRAME 3

typedef struct aacenc_record {
  uint32_t sample_rate;         /*   0: Hz */
  uint32_t reserved_4;          /*   4 */
  uint32_t channels;            /*   8 */
  uint32_t reserved_12;         /*  12 */
  uint32_t bit_rate_initial;    /*  16: bit/s, used by aacenc_setup */
  uint32_t reserved_20;         /*  20 */
  uint32_t bit_rate;            /*  24: bit/s, current; read again by every aacenc_encode */
  uint8_t quality;              /*  28: accepted; the bit rate alone drives this encoder */
  uint8_t reserved_29[3];       /*  29 */
  uint8_t temporal_noise_shaping; /* 32: 0 or 1 */
  uint8_t reserved_33[3];       /*  33 */
  uint32_t fixed_parameter;     /*  36: AACENC_FIXED_PARAMETER */
  uint32_t mode;                /*  40: 0..3, every mode gives AAC-LC */
  uint32_t reserved_44;         /*  44 */
  uint32_t error_code;          /*  48: set by every call */
  uint32_t output_bits;         /*  52: size of the last access unit in bits, ADTS header included */
  uint32_t output;              /*  56: where aacenc_encode writes (low half) */
  uint32_t input;               /*  60: the PCM block (low half) */
  uint32_t work_buffer;         /*  64: AACENC_WORK_BUFFER_BYTES bytes (low half) */
  uint32_t reserved_68[2];      /*  68 */
  char version[AACENC_VERSION_BYTES]; /* 76: library version, NUL-terminated */
  char build[AACENC_VERSION_BYTES];   /* 158: codec build, NUL-terminated */
  uint32_t pointer_high[4];     /* 240: high halves of the pointer words on 64-bit targets */
  uint32_t max_output_size;     /* 256: caller's, bytes */
  uint32_t silent_frame;        /* 260: caller's pre-encoded silence (low half) */
  uint32_t silent_frame_size;   /* 264: caller's, bytes */
} aacenc_record_t;

#ifdef __cplusplus
static_assert(sizeof(aacenc_record_t) == 268, "the AAC record is 268 bytes");
static_assert(offsetof(aacenc_record_t, sample_rate) == 0, "sample rate at 0");
static_assert(offsetof(aacenc_record_t, channels) == 8, "channels at 8");
static_assert(offsetof(aacenc_record_t, bit_rate_initial) == 16, "initial bit rate at 16");
static_assert(offsetof(aacenc_record_t, bit_rate) == 24, "current bit rate at 24");
static_assert(offsetof(aacenc_record_t, quality) == 28, "quality at 28");
static_assert(offsetof(aacenc_record_t, temporal_noise_shaping) == 32, "TNS flag at 32");
static_assert(offsetof(aacenc_record_t, fixed_parameter) == 36, "fixed parameter at 36");
static_assert(offsetof(aacenc_record_t, mode) == 40, "mode at 40");
static_assert(offsetof(aacenc_record_t, error_code) == 48, "error code at 48");
static_assert(offsetof(aacenc_record_t, output_bits) == 52, "output bits at 52");
static_assert(offsetof(aacenc_record_t, output) == 56, "output pointer at 56");
static_assert(offsetof(aacenc_record_t, input) == 60, "input pointer at 60");
static_assert(offsetof(aacenc_record_t, work_buffer) == 64, "work buffer at 64");
static_assert(offsetof(aacenc_record_t, version) == 76, "version strings at 76");
static_assert(offsetof(aacenc_record_t, max_output_size) == 256, "maximum output size at 256");
static_assert(offsetof(aacenc_record_t, silent_frame) == 260, "silent frame at 260");
static_assert(offsetof(aacenc_record_t, silent_frame_size) == 264, "silent frame size at 264");
#endif

/* Pointer words. */
static inline void aacenc_put_pointer(aacenc_record_t* r, uint32_t* word, int index, const void* p) {
  uintptr_t v = (uintptr_t)p;
  *word = (uint32_t)v;
#if UINTPTR_MAX > 0xFFFFFFFFu
  r->pointer_high[index] = (uint32_t)(v >> 32);
#else
  (void)r;
  (void)index;
#endif
}

static inline void* aacenc_take_pointer(const aacenc_record_t* r, uint32_t word, int index) {
  uintptr_t v = word;
#if UINTPTR_MAX > 0xFFFFFFFFu
  v |= (uintptr_t)r->pointer_high[index] << 32;
#else
  (void)r;
  (void)index;
#endif
  return (void*)v;
}

static inline void aacenc_set_output(aacenc_record_t* r, unsigned char* p) {
  aacenc_put_pointer(r, &r->output, AACENC_PTR_OUTPUT, p);
}
static inline unsigned char* aacenc_get_output(const aacenc_record_t* r) {
  return (unsigned char*)aacenc_take_pointer(r, r->output, AACENC_PTR_OUTPUT);
}
static inline void aacenc_set_input(aacenc_record_t* r, const unsigned char* p) {
  aacenc_put_pointer(r, &r->input, AACENC_PTR_INPUT, p);
}
static inline const unsigned char* aacenc_get_input(const aacenc_record_t* r) {
  return (const unsigned char*)aacenc_take_pointer(r, r->input, AACENC_PTR_INPUT);
}
static inline void aacenc_set_work_buffer(aacenc_record_t* r, unsigned char* p) {
  aacenc_put_pointer(r, &r->work_buffer, AACENC_PTR_WORK_BUFFER, p);
}
static inline unsigned char* aacenc_get_work_buffer(const aacenc_record_t* r) {
  return (unsigned char*)aacenc_take_pointer(r, r->work_buffer, AACENC_PTR_WORK_BUFFER);
}
static inline void aacenc_set_silent_frame(aacenc_record_t* r, unsigned char* p) {
  aacenc_put_pointer(r, &r->silent_frame, AACENC_PTR_SILENT_FRAME, p);
}
static inline unsigned char* aacenc_get_silent_frame(const aacenc_record_t* r) {
  return (unsigned char*)aacenc_take_pointer(r, r->silent_frame, AACENC_PTR_SILENT_FRAME);
}

/* Checks the configuration words (sample rate, channels, initial bit rate,
 * mode, fixed parameter, work buffer), prepares the state in the work buffer
 * and fills the two version strings. */
void aacenc_setup(aacenc_record_t* record);

/* Opens the encoder as set up; afterwards every aacenc_encode yields exactly
 * one access unit for the block it was given. Opening an open encoder
 * reopens it. */
void aacenc_open(aacenc_record_t* record);

/* Encodes the 1024-sample block at the input pointer and writes one ADTS
 * access unit at the output pointer (at most channels x 768 + 7 bytes);
 * output_bits receives its size. A changed bit_rate word takes effect with
 * this block; sample_rate and channels must stay as they were at open. */
void aacenc_encode(aacenc_record_t* record);

/* Releases what aacenc_open acquired; the work buffer may then be freed.
 * Safe on a record that was never opened (zero-filled). */
void aacenc_close(aacenc_record_t* record);

#ifdef __cplusplus
}
#endif

#endif
