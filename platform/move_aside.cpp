#include "platform/move_aside.h"

#include "platform/errno_kept.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

bool MoveAside(const std::string &path) {
    std::string place = path + ".XXXXXX";
    if (mkdtemp(place.data()) == nullptr)
        return false;
    if (std::rename(path.c_str(), (place + path.substr(path.rfind('/'))).c_str()) == 0)
        return true;
    const ErrnoKept kept;
    rmdir(place.c_str());
    return false;
}
