/* Parameters of the virtual sound card plugins: the keys of the ALSA
 * configuration block, optionally overridden by a "key=value,key=value"
 * string from an environment variable (the plugins stand for hardware, so
 * a test may reconfigure the "device" without touching the config file). */
#ifndef VESK_VSND_PARAMS_H
#define VESK_VSND_PARAMS_H

#include <alsa/asoundlib.h>

/* Called once per parameter; returns 0, or a negative errno for an unknown
 * key or a bad value (the caller reports it with SNDERR). */
typedef int (*vsnd_param_fn)(void* context, const char* key, const char* value);

/* Every key of the configuration block except comment, type and hint. */
int vsnd_params_from_config(snd_config_t* conf, vsnd_param_fn fn, void* context);

/* Every "key=value" of the comma-separated list in the environment variable
 * envName (absent or empty: nothing). */
int vsnd_params_from_env(const char* envName, vsnd_param_fn fn, void* context);

/* Strict number parsers: 0 on success, -EINVAL otherwise. */
int vsnd_parse_long(const char* text, long* out);
int vsnd_parse_double(const char* text, double* out);

#endif
