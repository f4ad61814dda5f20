#include "vsnd_params.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

int vsnd_parse_long(const char* text, long* out) {
  char* end = NULL;
  errno = 0;
  long v = strtol(text, &end, 0);
  if (errno != 0 || end == text || *end != '\0') return -EINVAL;
  *out = v;
  return 0;
}

int vsnd_parse_double(const char* text, double* out) {
  char* end = NULL;
  errno = 0;
  double v = strtod(text, &end);
  if (errno != 0 || end == text || *end != '\0') return -EINVAL;
  *out = v;
  return 0;
}

int vsnd_params_from_config(snd_config_t* conf, vsnd_param_fn fn, void* context) {
  snd_config_iterator_t i, next;
  snd_config_for_each(i, next, conf) {
    snd_config_t* node = snd_config_iterator_entry(i);
    const char* key = NULL;
    if (snd_config_get_id(node, &key) < 0) continue;
    if (strcmp(key, "comment") == 0 || strcmp(key, "type") == 0 || strcmp(key, "hint") == 0)
      continue;
    char* value = NULL;
    if (snd_config_get_ascii(node, &value) < 0) {
      SNDERR("vesk: parameter %s must be a number or a string", key);
      return -EINVAL;
    }
    int err = fn(context, key, value);
    if (err < 0) SNDERR("vesk: bad parameter %s = %s", key, value);
    free(value);
    if (err < 0) return err;
  }
  return 0;
}

int vsnd_params_from_env(const char* envName, vsnd_param_fn fn, void* context) {
  const char* text = getenv(envName);
  if (text == NULL || *text == '\0') return 0;
  char* copy = strdup(text);
  if (copy == NULL) return -ENOMEM;
  int err = 0;
  char* save = NULL;
  for (char* item = strtok_r(copy, ",", &save); item != NULL; item = strtok_r(NULL, ",", &save)) {
    char* eq = strchr(item, '=');
    if (eq == NULL) {
      SNDERR("vesk: %s: \"%s\" is not key=value", envName, item);
      err = -EINVAL;
      break;
    }
    *eq = '\0';
    err = fn(context, item, eq + 1);
    if (err < 0) {
      SNDERR("vesk: %s: bad parameter %s = %s", envName, item, eq + 1);
      break;
    }
  }
  free(copy);
  return err;
}
