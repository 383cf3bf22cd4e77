#pragma once

#include <optional>
#include <string_view>

#include "compiler/RuleModel.h"

namespace tamsel::HostGuard {

/// The rule of Hardening::guard that the URL meets, as one of the list "Tamsel". They are for third
/// parties, which the caller sees to.
std::optional<SourcedRule> ruleAgainst(std::string_view url);

}  // namespace tamsel::HostGuard
