#pragma once

#include <webkit/webkit.h>

#include <functional>
#include <string>

#include "platform/webview/PageDialogs.h"

/// What WebKit asks on behalf of a page, put to the person.
namespace tamsel::PageQuestions {

/// An alert, a confirmation, a prompt, or whether to leave the page. `onStay` is called when that
/// is declined; WebKit then goes on saying that it loads what was to come.
void ask(PageDialogs& dialogs, WebKitScriptDialog* dialog, const std::string& pageURL,
         std::function<void()> onStay);

/// A name and a password, which are kept until the program ends. Other ways to show who one is are
/// declined.
void ask(PageDialogs& dialogs, WebKitAuthenticationRequest* request);

}  // namespace tamsel::PageQuestions
