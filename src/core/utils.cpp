#include "core/utils.h"

#include "log/error_log.h"
#include "platform/kestsdk.h"

namespace kest {

bool QueryHeld(bool &held) {
    int status = 1;
    const bool isKnown = KESTVorldStatusGet(1, &status) != -1;
    held = status == 2;
    return isKnown;
}

bool IsVorldHeld() {
    bool held = false;
    if (!QueryHeld(held))
        LOG_ERROR("Fail to KESTVorldStatusGet()");
    return held;
}

} // namespace kest
