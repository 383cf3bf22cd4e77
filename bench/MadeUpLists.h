#pragma once

#include <cstddef>
#include <string>

namespace tamsel::bench {

/// A filter list of the shape of the large public ones: mostly hosts, some patterns in paths, some
/// element hiding, a little that cannot be expressed. The same for the same arguments.
std::string madeUpList(std::size_t lines, unsigned seed);

/// Requests as lines of URL, page URL and type, a quarter of them to hosts of that list.
std::string madeUpRequests(std::size_t count, unsigned seed);

/// The list followed by `copies` - 1 variants of it that have no rule in common.
std::string multiplied(const std::string& list, std::size_t copies);

}  // namespace tamsel::bench
