#pragma once

#include <gtkmm/application.h>
#include <gtkmm/window.h>

#include <memory>

#include "platform/http/SoupHttpClient.h"
#include "platform/rulestore/WebKitRuleListStore.h"
#include "platform/savepanel/GtkSavePanel.h"
#include "state/AppState.h"

namespace tamsel {

/// The program: the one application state, in one window. A second start brings the window to the
/// front; closing it ends the program.
class TamselApp : public Gtk::Application {
 public:
  static Glib::RefPtr<TamselApp> create();
  ~TamselApp() override;

  /// Null before the start and after the end.
  AppState* app() const { return app_.get(); }

 protected:
  TamselApp();
  void on_startup() override;
  void on_activate() override;
  void on_shutdown() override;

 private:
  void openWindow();

  // In this order: what is below stands on what is above.
  std::unique_ptr<WebKitRuleListStore> ruleListStore_;
  std::unique_ptr<SoupHttpClient> httpClient_;
  std::unique_ptr<GtkSavePanel> savePanel_;
  std::unique_ptr<AppState> app_;
  std::unique_ptr<Gtk::Window> window_;
};

}  // namespace tamsel
