#pragma once

#include <string>

#include "state/FilterList.h"

/// Points in time as the user's locale writes them.
namespace tamsel::Dates {

/// The abbreviated date and the time without seconds, in the user's time zone.
std::string abbreviated(const Date& date);

}  // namespace tamsel::Dates
