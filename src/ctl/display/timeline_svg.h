// The picture of the coming hours for a page or a report.

#ifndef CTL_DISPLAY_TIMELINE_SVG_H
#define CTL_DISPLAY_TIMELINE_SVG_H

#include "ctl/commands/timeline.h"

#include <string>

namespace kest::ctl {

// A whole SVG document, without scripts and without anything to be loaded from elsewhere. It is
// light or dark as its reader prefers, and each mark tells its job and time when pointed at.
std::string TimelineInSvg(const ComingHours &hours);

} // namespace kest::ctl

#endif
