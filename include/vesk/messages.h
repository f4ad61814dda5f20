// The IPC message classes.
#pragma once

#include "vesk/messages/audiosettings.h"
#include "vesk/messages/avserializer.h"
#include "vesk/messages/basemessage.h"
#include "vesk/messages/baserequestmessage.h"
#include "vesk/messages/changevideosettings.h"
#include "vesk/messages/chipsettings.h"
#include "vesk/messages/chipvinsettingselement.h"
#include "vesk/messages/eventiavstateenterencode.h"
#include "vesk/messages/eventiavstateenteridle.h"
#include "vesk/messages/eventiavstateenterpreview.h"
#include "vesk/messages/eventiavstateexitencode.h"
#include "vesk/messages/restartstreams.h"
#include "vesk/messages/videosettings.h"
#include "vesk/messages/videosettingselement.h"
