// The timeline as an SVG image.

#ifndef CTL_DISPLAY_TIMELINE_SVG_H
#define CTL_DISPLAY_TIMELINE_SVG_H

#include "ctl/display/timeline.h"

#include <string>

namespace kest::ctl {

// A complete SVG document without scripts and external references. It follows the light or dark
// preference of the viewer, and shows the job and time of each mark as a tooltip.
std::string TimelineInSvg(const TimelineData &data);

} // namespace kest::ctl

#endif
