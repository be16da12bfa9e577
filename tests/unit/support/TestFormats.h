// The format most tests stream: stereo, 32-bit signed, 48 kHz (8-byte frames).
#pragma once

#include "Format/FormatID.h"

inline const VELMORA::FormatID stereoS32At48k(0x802u, 0x000Cu);
