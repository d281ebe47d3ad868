// The picture of the coming hours for a terminal.

#ifndef CTL_DISPLAY_TIMELINE_TEXT_H
#define CTL_DISPLAY_TIMELINE_TEXT_H

#include "ctl/commands/timeline.h"
#include "ctl/display/screen.h"

#include <string>

namespace kest::ctl {

// The picture as lines of text that fit the screen, and 100 columns where there is none; below 30
// columns it is drawn for 30.
std::string TimelineInText(const ComingHours &hours, const Screen &screen);

} // namespace kest::ctl

#endif
