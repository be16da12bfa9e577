#include "Protocol/MessageTypes.h"

namespace VELMORA {

const char* messageTypeName(std::uint16_t type) {
    switch (type) {
#define VELMORA_MESSAGE_NAME(name, code, awaited) \
    case code:                                    \
        return #name;
        VELMORA_MESSAGE_TYPES(VELMORA_MESSAGE_NAME)
#undef VELMORA_MESSAGE_NAME
    }
    return nullptr;
}

std::uint16_t awaitedAnswer(std::uint16_t type) {
    using namespace MessageType;
    switch (type) {
#define VELMORA_MESSAGE_AWAITED(name, code, awaited) \
    case code:                                       \
        return awaited;
        VELMORA_MESSAGE_TYPES(VELMORA_MESSAGE_AWAITED)
#undef VELMORA_MESSAGE_AWAITED
    }
    return noAnswer;
}

}  // namespace VELMORA
