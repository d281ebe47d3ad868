#include "core/utils.h"

#include "log/error_log.h"
#include "platform/kestsdk.h"

bool IsVorldHeld() {
    constexpr int held = 2;
    int status = 1;
    if (KESTVorldStatusGet(1, &status) == -1)
        LOG_ERROR("Fail to KESTVorldStatusGet()");
    return status == held;
}
