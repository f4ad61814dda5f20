/* The virtual sound card's control device (ALSA ctl_ext type "vesk").
 *
 * Exposes one two-channel integer MIXER element, "VESK_CVOLUME", with the
 * range "min".."max" of the configuration. Its values persist in the text
 * file "state" ("<left> <right>\n"), so that every handle opened on the
 * device sees what an earlier one wrote and a test can read the volume back.
 * Without a state file the values live only as long as the handle.
 *
 * Parameters come from the configuration block and are then overridden by
 * the environment variable VESK_VSND_CTL ("min=0,max=63,state=/tmp/x").
 */
#include <alsa/asoundlib.h>
#include <alsa/control_external.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "vsnd_params.h"

#define VSND_CTL_ENV "VESK_VSND_CTL"
#define VSND_ELEMENT_NAME "VESK_CVOLUME"
#define VSND_CHANNELS 2

typedef struct vsnd_ctl {
  snd_ctl_ext_t ext;
  long min;
  long max;
  long initial;
  int initialSet;
  char* statePath;
  long values[VSND_CHANNELS];
} vsnd_ctl_t;

static int ctl_param(void* context, const char* key, const char* value) {
  vsnd_ctl_t* c = context;
  long n = 0;
  if (strcmp(key, "state") == 0) {
    free(c->statePath);
    c->statePath = (*value != '\0') ? strdup(value) : NULL;
    return (*value != '\0' && c->statePath == NULL) ? -ENOMEM : 0;
  }
  if (vsnd_parse_long(value, &n) < 0) return -EINVAL;
  if (strcmp(key, "min") == 0) {
    c->min = n;
  } else if (strcmp(key, "max") == 0) {
    c->max = n;
  } else if (strcmp(key, "initial") == 0) {
    c->initial = n;
    c->initialSet = 1;
  } else {
    return -EINVAL;
  }
  return 0;
}

static long clamp(const vsnd_ctl_t* c, long v) {
  return v < c->min ? c->min : (v > c->max ? c->max : v);
}

/* Loads the values from the state file, when there is one that parses. */
static void load_state(vsnd_ctl_t* c) {
  if (c->statePath == NULL) return;
  FILE* f = fopen(c->statePath, "r");
  if (f == NULL) return;
  long left = 0;
  long right = 0;
  if (fscanf(f, "%ld %ld", &left, &right) == 2) {
    c->values[0] = clamp(c, left);
    c->values[1] = clamp(c, right);
  }
  fclose(f);
}

/* Writes the values to the state file through a temporary file and a
 * rename, so that a reader never sees half a line. */
static int save_state(const vsnd_ctl_t* c) {
  if (c->statePath == NULL) return 0;
  size_t len = strlen(c->statePath) + 16;
  char* tmp = malloc(len);
  if (tmp == NULL) return -ENOMEM;
  snprintf(tmp, len, "%s.%d.tmp", c->statePath, (int)getpid());
  int err = 0;
  FILE* f = fopen(tmp, "w");
  if (f == NULL) {
    err = -errno;
  } else {
    fprintf(f, "%ld %ld\n", c->values[0], c->values[1]);
    if (fclose(f) != 0) err = -errno;
    if (err == 0 && rename(tmp, c->statePath) != 0) err = -errno;
  }
  if (err < 0) {
    SNDERR("vesk: cannot write the mixer state to %s", c->statePath);
    unlink(tmp);
  }
  free(tmp);
  return err;
}

static int vsnd_elem_count(snd_ctl_ext_t* ext) {
  (void)ext;
  return 1;
}

static int vsnd_elem_list(snd_ctl_ext_t* ext, unsigned int offset, snd_ctl_elem_id_t* id) {
  (void)ext;
  if (offset != 0) return -EINVAL;
  snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
  snd_ctl_elem_id_set_name(id, VSND_ELEMENT_NAME);
  return 0;
}

static snd_ctl_ext_key_t vsnd_find_elem(snd_ctl_ext_t* ext, const snd_ctl_elem_id_t* id) {
  (void)ext;
  if (snd_ctl_elem_id_get_numid(id) == 1) return 0;
  if (snd_ctl_elem_id_get_interface(id) == SND_CTL_ELEM_IFACE_MIXER &&
      strcmp(snd_ctl_elem_id_get_name(id), VSND_ELEMENT_NAME) == 0 && snd_ctl_elem_id_get_index(id) == 0)
    return 0;
  return SND_CTL_EXT_KEY_NOT_FOUND;
}

static int vsnd_get_attribute(snd_ctl_ext_t* ext, snd_ctl_ext_key_t key, int* type, unsigned int* acc,
                              unsigned int* count) {
  (void)ext;
  if (key != 0) return -EINVAL;
  *type = SND_CTL_ELEM_TYPE_INTEGER;
  *acc = SND_CTL_EXT_ACCESS_READWRITE;
  *count = VSND_CHANNELS;
  return 0;
}

static int vsnd_get_integer_info(snd_ctl_ext_t* ext, snd_ctl_ext_key_t key, long* imin, long* imax,
                                 long* istep) {
  vsnd_ctl_t* c = ext->private_data;
  if (key != 0) return -EINVAL;
  *imin = c->min;
  *imax = c->max;
  *istep = 1;
  return 0;
}

static int vsnd_read_integer(snd_ctl_ext_t* ext, snd_ctl_ext_key_t key, long* value) {
  vsnd_ctl_t* c = ext->private_data;
  if (key != 0) return -EINVAL;
  load_state(c); /* another handle may have written since */
  for (int i = 0; i < VSND_CHANNELS; ++i) value[i] = c->values[i];
  return 0;
}

/* Like a driver, refuses values outside the range. Returns 0 on success, as
 * the kernel's element write does whether or not a value changed. */
static int vsnd_write_integer(snd_ctl_ext_t* ext, snd_ctl_ext_key_t key, long* value) {
  vsnd_ctl_t* c = ext->private_data;
  if (key != 0) return -EINVAL;
  for (int i = 0; i < VSND_CHANNELS; ++i)
    if (value[i] < c->min || value[i] > c->max) return -EINVAL;
  for (int i = 0; i < VSND_CHANNELS; ++i) c->values[i] = value[i];
  return save_state(c);
}

static int vsnd_read_event(snd_ctl_ext_t* ext, snd_ctl_elem_id_t* id, unsigned int* event_mask) {
  (void)ext;
  (void)id;
  (void)event_mask;
  return -EAGAIN;
}

static void vsnd_ctl_free(vsnd_ctl_t* c) {
  free(c->statePath);
  free(c);
}

static void vsnd_ctl_close(snd_ctl_ext_t* ext) {
  vsnd_ctl_free(ext->private_data);
}

static const snd_ctl_ext_callback_t vsnd_ctl_callbacks = {
    .close = vsnd_ctl_close,
    .elem_count = vsnd_elem_count,
    .elem_list = vsnd_elem_list,
    .find_elem = vsnd_find_elem,
    .get_attribute = vsnd_get_attribute,
    .get_integer_info = vsnd_get_integer_info,
    .read_integer = vsnd_read_integer,
    .write_integer = vsnd_write_integer,
    .read_event = vsnd_read_event,
};

SND_CTL_PLUGIN_DEFINE_FUNC(vesk) {
  (void)root;
  vsnd_ctl_t* c = calloc(1, sizeof(*c));
  if (c == NULL) return -ENOMEM;
  c->min = 0;
  c->max = 63;

  int err = vsnd_params_from_config(conf, ctl_param, c);
  if (err >= 0) err = vsnd_params_from_env(VSND_CTL_ENV, ctl_param, c);
  if (err >= 0 && c->min > c->max) {
    SNDERR("vesk: mixer range %ld..%ld is empty", c->min, c->max);
    err = -EINVAL;
  }
  if (err < 0) {
    vsnd_ctl_free(c);
    return err;
  }
  long initial = clamp(c, c->initialSet ? c->initial : c->max);
  for (int i = 0; i < VSND_CHANNELS; ++i) c->values[i] = initial;
  load_state(c);

  c->ext.version = SND_CTL_EXT_VERSION;
  c->ext.card_idx = 0;
  snprintf(c->ext.id, sizeof(c->ext.id), "Vesk");
  snprintf(c->ext.driver, sizeof(c->ext.driver), "vesk");
  snprintf(c->ext.name, sizeof(c->ext.name), "Vesk virtual sound card");
  snprintf(c->ext.longname, sizeof(c->ext.longname), "Vesk virtual sound card (capture volume)");
  snprintf(c->ext.mixername, sizeof(c->ext.mixername), "Vesk virtual mixer");
  c->ext.poll_fd = -1;
  c->ext.callback = &vsnd_ctl_callbacks;
  c->ext.private_data = c;

  err = snd_ctl_ext_create(&c->ext, name, mode);
  if (err < 0) {
    vsnd_ctl_free(c);
    return err;
  }
  *handlep = c->ext.handle;
  return 0;
}

SND_CTL_PLUGIN_SYMBOL(vesk);
