#include "platform/savepanel/GtkSavePanel.h"

#include <gtk/gtk.h>

#include <memory>

#include "platform/mainloop/Awaiting.h"
#include "platform/mainloop/Uncaught.h"

namespace tamsel {
namespace {

using Answer = std::function<void(std::optional<std::string>)>;

void onResponse(GtkNativeDialog* dialog, int response, Answer* answer) {
  std::optional<std::string> path;
  if (response == GTK_RESPONSE_ACCEPT) {
    GFile* file = gtk_file_chooser_get_file(GTK_FILE_CHOOSER(dialog));
    if (char* chosen = g_file_get_path(file)) {
      path = chosen;
      g_free(chosen);
    }
    g_object_unref(file);
  }
  g_object_unref(dialog);
  Uncaught::guard([&] { (*answer)(std::move(path)); });
}

}  // namespace

Task<std::optional<std::string>> GtkSavePanel::ask(Question question) {
  auto asking = answerOf<std::optional<std::string>>([this, &question](Answer answer) {
    // The desktop's dialogue has no place for a message but its title.
    GtkFileChooserNative* dialog = gtk_file_chooser_native_new(
        question.message.c_str(), parent_(), GTK_FILE_CHOOSER_ACTION_SAVE, "Save", "Cancel");
    gtk_native_dialog_set_modal(GTK_NATIVE_DIALOG(dialog), TRUE);
    auto* chooser = GTK_FILE_CHOOSER(dialog);
    gtk_file_chooser_set_current_name(chooser, question.fileName.c_str());
    GtkFileFilter* filter = gtk_file_filter_new();
    gtk_file_filter_add_mime_type(filter, question.mediaType.c_str());
    char* description = g_content_type_get_description(question.mediaType.c_str());
    gtk_file_filter_set_name(filter, description);
    g_free(description);
    gtk_file_chooser_add_filter(chooser, filter);
    g_object_unref(filter);
    g_signal_connect_data(
        dialog, "response", G_CALLBACK(onResponse), new Answer(std::move(answer)),
        [](gpointer data, GClosure*) { delete static_cast<Answer*>(data); }, G_CONNECT_DEFAULT);
    gtk_native_dialog_show(GTK_NATIVE_DIALOG(dialog));
  });
  co_return co_await asking;
}

}  // namespace tamsel
