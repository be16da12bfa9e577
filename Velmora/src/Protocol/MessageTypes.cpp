#include "Protocol/MessageTypes.h"

namespace VELMORA {

const char* messageTypeName(std::uint16_t type) {
    switch (type) {
#define VELMORA_MESSAGE_NAME(name, code) \
    case code:                           \
        return #name;
        VELMORA_MESSAGE_TYPES(VELMORA_MESSAGE_NAME)
#undef VELMORA_MESSAGE_NAME
    }
    return nullptr;
}

}  // namespace VELMORA
