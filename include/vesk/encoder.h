// The public entry point of libvesk_encoder: the records, settings and
// messages a host needs.
#pragma once

#include "vesk/messages.h"
#include "vesk/records.h"
#include "vesk/settings.h"
#include "vesk/streaminfo.h"
