#pragma once

#include <array>
#include <optional>
#include <string_view>

#include "compiler/RuleModel.h"

namespace tamsel::HostGuard {

/// Those of Hardening::guard, as rules of the list "Tamsel".
const std::array<SourcedRule, 2>& rules();

/// The one that the URL meets. They are for third parties, which the caller sees to.
std::optional<SourcedRule> ruleAgainst(std::string_view url);

}  // namespace tamsel::HostGuard
