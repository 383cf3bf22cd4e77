#include "ui/App.h"

#include <adwaita.h>
#include <gtkmm/cssprovider.h>
#include <gtkmm/stylecontext.h>

#include <utility>

#include "browser/BrowserModel.h"
#include "platform/webview/WebKitView.h"
#include "ui/ContentView.h"

namespace tamsel {
namespace {

constexpr const char* applicationId = "org.tamsel.Tamsel";
constexpr const char* styles = "/org/tamsel/Tamsel/style.css";
constexpr const char* title = "Tamsel";
constexpr int minWidth = 820;
constexpr int minHeight = 560;
constexpr int firstWidth = 1040;
constexpr int firstHeight = 780;

}  // namespace

Glib::RefPtr<TamselApp> TamselApp::create() {
  return Glib::make_refptr_for_instance<TamselApp>(new TamselApp());
}

TamselApp::TamselApp() : Gtk::Application(applicationId) {}

TamselApp::~TamselApp() = default;

void TamselApp::on_startup() {
  Gtk::Application::on_startup();
  adw_init();
  const auto provider = Gtk::CssProvider::create();
  provider->load_from_resource(styles);
  Gtk::StyleContext::add_provider_for_display(Gdk::Display::get_default(), provider,
                                              GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
}

void TamselApp::on_activate() {
  if (Gtk::Window* window = get_active_window()) {
    window->present();
    return;
  }
  openWindow();
}

void TamselApp::openWindow() {
  ruleListStore_ = std::make_unique<WebKitRuleListStore>();
  httpClient_ = std::make_unique<SoupHttpClient>();
  savePanel_ = std::make_unique<GtkSavePanel>([this] {
    Gtk::Window* window = get_active_window();
    return window == nullptr ? nullptr : window->gobj();
  });
  auto newBrowser = std::make_unique<BrowserModel>(std::make_unique<WebKitView>());
  BrowserModel& browser = *newBrowser;
  app_ = std::make_unique<AppState>(AppState::Platform{
      .supportDir = AppState::userSupportDir(),
      .ruleListStore = *ruleListStore_,
      .httpClient = *httpClient_,
      .savePanel = *savePanel_,
      .browser = std::move(newBrowser),
  });

  auto* window = GTK_WINDOW(adw_application_window_new(gobj()));
  gtk_window_set_title(window, title);
  gtk_window_set_default_size(window, firstWidth, firstHeight);
  gtk_widget_set_size_request(GTK_WIDGET(window), minWidth, minHeight);
  auto* content = Gtk::make_managed<ContentView>(*app_, browser);
  adw_application_window_set_content(ADW_APPLICATION_WINDOW(window), GTK_WIDGET(content->gobj()));
  gtk_window_present(window);
}

void TamselApp::on_shutdown() {
  // The window first: its views show what goes next.
  for (Gtk::Window* window : get_windows()) gtk_window_destroy(window->gobj());
  app_.reset();
  Gtk::Application::on_shutdown();
}

}  // namespace tamsel
