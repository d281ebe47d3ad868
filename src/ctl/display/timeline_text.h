// The timeline as text.

#ifndef CTL_DISPLAY_TIMELINE_TEXT_H
#define CTL_DISPLAY_TIMELINE_TEXT_H

#include "ctl/display/screen.h"
#include "ctl/display/timeline.h"

#include <string>

namespace kest::ctl {

// The timeline as lines of the width of the screen, or of 100 columns without a terminal, but at
// least 30.
std::string TimelineInText(const TimelineData &data, const Screen &screen);

} // namespace kest::ctl

#endif
