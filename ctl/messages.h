// What the shared code has to say, which in the daemon goes to the system log.

#ifndef CTL_MESSAGES_H
#define CTL_MESSAGES_H

#include <string>
#include <vector>

// The messages since the last call, without tag and line. Nothing reaches the system log.
std::vector<std::string> TakeMessages();

#endif
