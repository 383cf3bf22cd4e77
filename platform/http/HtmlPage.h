#pragma once

#include <string_view>

namespace tamsel {

/// Whether a text begins as web pages do, and so is one where a filter list was expected: the
/// site's words for an error, or those of whoever wants a login before they let anything through.
/// Takes any bytes. No line of a filter list begins so.
///
///     <!DOCTYPE html><title>Sign in</title>     is one
///     <!-- x --><html lang="en">                is one
///     ! <html> is all that was there            is none
bool beginsLikeHtml(std::string_view text);

}  // namespace tamsel
