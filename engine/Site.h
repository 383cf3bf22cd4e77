#pragma once

#include <string>
#include <string_view>

namespace tamsel::Site {

/// The key of the site that a host belongs to, in lower case: the last two labels, or three when
/// the last two are one of a few public suffixes ("b.co.uk" of "a.b.co.uk"). Two hosts are of the
/// same site exactly when their keys are equal.
std::string key(std::string_view host);

/// True when the keys of both hosts, which must be in lower case, are equal. Allocates nothing.
bool isSame(std::string_view lowerCaseHost, std::string_view otherLowerCaseHost) noexcept;

}  // namespace tamsel::Site
