#include "Network/TimeValue.h"

#include "Platform/Platform.h"

namespace NORVA {

TimeValue TimeValue::now() {
    return fromCounter(Platform::counterNow(), Platform::counterFrequency());
}

}  // namespace NORVA
