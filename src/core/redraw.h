// Which fields are drawn anew, and when.

#ifndef CORE_REDRAW_H
#define CORE_REDRAW_H

#include <ctime>
#include <string>
#include <vector>

namespace kest {

// The keys of the fields that are drawn anew in the local minute `local`, in the order in which
// they are drawn: in minute 0 of every hour the minute; at 00:00 the hour too, on the 1st the day,
// on 1 January the month, on Mondays the week. None in any other minute.
std::vector<std::string> FieldsToRedraw(const std::tm &local);

} // namespace kest

#endif
