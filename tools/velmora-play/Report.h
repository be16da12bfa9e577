// What velmora-play prints and writes as JSON.
#pragma once

#include <string>

#include "AsioHost.h"

std::string reportText(const PlayReport& report);
std::string reportJson(const PlayReport& report);
