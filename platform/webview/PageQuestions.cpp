#include "platform/webview/PageQuestions.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <utility>

#include "platform/glib/GObjects.h"
#include "platform/http/Address.h"

namespace tamsel::PageQuestions {
namespace {

PageDialogs::Question questionOf(WebKitScriptDialog* dialog, const std::string& pageURL) {
  const WebKitScriptDialogType type = webkit_script_dialog_get_dialog_type(dialog);
  if (type == WEBKIT_SCRIPT_DIALOG_BEFORE_UNLOAD_CONFIRM) {
    return {.heading = "Leave this page?",
            .text = "What you have entered there may be lost.",
            .accept = "Leave",
            .decline = "Stay",
            .acceptsUnasked = true};
  }
  const std::optional<Address> address = Address::parse(pageURL);
  const std::string who = address && !address->host.empty() ? address->host : "This page";
  PageDialogs::Question question{.heading = who + " says",
                                 .text = text(webkit_script_dialog_get_message(dialog))};
  if (type != WEBKIT_SCRIPT_DIALOG_ALERT) question.decline = "Cancel";
  if (type == WEBKIT_SCRIPT_DIALOG_PROMPT) {
    question.field = text(webkit_script_dialog_prompt_get_default_text(dialog));
  }
  return question;
}

void give(WebKitScriptDialog* dialog, const PageDialogs::Answer& answer) {
  switch (webkit_script_dialog_get_dialog_type(dialog)) {
    case WEBKIT_SCRIPT_DIALOG_ALERT:
      break;
    case WEBKIT_SCRIPT_DIALOG_PROMPT:
      if (answer.isAccepted) webkit_script_dialog_prompt_set_text(dialog, answer.field.c_str());
      break;
    case WEBKIT_SCRIPT_DIALOG_CONFIRM:
    case WEBKIT_SCRIPT_DIALOG_BEFORE_UNLOAD_CONFIRM:
      webkit_script_dialog_confirm_set_confirmed(dialog, answer.isAccepted ? TRUE : FALSE);
      break;
  }
}

PageDialogs::Question questionOf(WebKitAuthenticationRequest* request) {
  const guint port = webkit_authentication_request_get_port(request);
  const bool isProxy = webkit_authentication_request_is_for_proxy(request) != FALSE;
  const std::string realm = text(webkit_authentication_request_get_realm(request));
  PageDialogs::Question question{.heading = "Sign in to ",
                                 .text = realm.empty() ? "" : "The site says: " + realm,
                                 .accept = "Sign In",
                                 .decline = "Cancel",
                                 .field = "",
                                 .asksPassword = true};
  if (isProxy) question.heading += "the proxy ";
  question.heading += text(webkit_authentication_request_get_host(request));
  if (port != 0) question.heading += ":" + std::to_string(port);
  if (webkit_authentication_request_is_retry(request) != FALSE) {
    question.text.insert(0, "That was not accepted. ");
  }
  return question;
}

}  // namespace

void ask(PageDialogs& dialogs, WebKitScriptDialog* dialog, const std::string& pageURL,
         std::function<void()> onStay) {
  const std::shared_ptr<WebKitScriptDialog> kept(webkit_script_dialog_ref(dialog),
                                                 webkit_script_dialog_unref);
  // WebKit closes it by itself while it asks, and does not bear that somebody else does.
  const auto closes = std::make_shared<bool>(false);
  dialogs.ask(questionOf(dialog, pageURL),
              [kept, closes, onStay = std::move(onStay)](const PageDialogs::Answer& answer) {
                give(kept.get(), answer);
                if (*closes) webkit_script_dialog_close(kept.get());
                const bool asksToLeave = webkit_script_dialog_get_dialog_type(kept.get()) ==
                                         WEBKIT_SCRIPT_DIALOG_BEFORE_UNLOAD_CONFIRM;
                if (asksToLeave && !answer.isAccepted) onStay();
              });
  *closes = true;
}

void ask(PageDialogs& dialogs, WebKitAuthenticationRequest* request) {
  constexpr std::array byPassword = {
      WEBKIT_AUTHENTICATION_SCHEME_DEFAULT, WEBKIT_AUTHENTICATION_SCHEME_HTTP_BASIC,
      WEBKIT_AUTHENTICATION_SCHEME_HTTP_DIGEST, WEBKIT_AUTHENTICATION_SCHEME_NTLM};
  const WebKitAuthenticationScheme scheme = webkit_authentication_request_get_scheme(request);
  if (std::find(byPassword.begin(), byPassword.end(), scheme) == byPassword.end()) {
    return webkit_authentication_request_cancel(request);
  }
  const std::shared_ptr<WebKitAuthenticationRequest> kept(
      WEBKIT_AUTHENTICATION_REQUEST(g_object_ref(request)), g_object_unref);
  dialogs.ask(questionOf(request), [kept](const PageDialogs::Answer& answer) {
    // Without one, the site shows what it has for strangers.
    if (!answer.isAccepted) return webkit_authentication_request_authenticate(kept.get(), nullptr);
    WebKitCredential* credential = webkit_credential_new(
        answer.field.c_str(), answer.password.c_str(), WEBKIT_CREDENTIAL_PERSISTENCE_FOR_SESSION);
    webkit_authentication_request_authenticate(kept.get(), credential);
    webkit_credential_free(credential);
  });
}

}  // namespace tamsel::PageQuestions
