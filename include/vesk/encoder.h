// The public entry point of libvesk_encoder.
#pragma once

#include "vesk/records.h"
#include "vesk/streaminfo.h"
