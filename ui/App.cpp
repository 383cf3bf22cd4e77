#include "ui/App.h"

#include <adwaita.h>
#include <glibmm/exceptionhandler.h>
#include <gtkmm/applicationwindow.h>
#include <gtkmm/cssprovider.h>
#include <gtkmm/stylecontext.h>

#include <utility>

#include "browser/BrowserModel.h"
#include "platform/files/Files.h"
#include "platform/mainloop/Uncaught.h"
#include "platform/webview/WebKitView.h"
#include "ui/ContentView.h"
#include "ui/Renderer.h"

namespace tamsel {
namespace {

constexpr const char* applicationId = "org.tamsel.Tamsel";
constexpr const char* styles = "/org/tamsel/Tamsel/style.css";
constexpr const char* title = "Tamsel";
constexpr int minWidth = 820;
constexpr int minHeight = 560;
constexpr int firstWidth = 1040;
constexpr int firstHeight = 780;

// A window of libadwaita's, for gtkmm.
class AppWindow : public Gtk::ApplicationWindow {
 public:
  AppWindow()
      : Gtk::ApplicationWindow(
            GTK_APPLICATION_WINDOW(g_object_new(ADW_TYPE_APPLICATION_WINDOW, nullptr))) {}

  void setContent(Gtk::Widget& content) {
    adw_application_window_set_content(ADW_APPLICATION_WINDOW(gobj()), content.gobj());
  }
};

}  // namespace

Glib::RefPtr<TamselApp> TamselApp::create() {
  return Glib::make_refptr_for_instance<TamselApp>(new TamselApp());
}

TamselApp::TamselApp() : Gtk::Application(applicationId) {}

TamselApp::~TamselApp() = default;

void TamselApp::on_startup() {
  Gtk::Application::on_startup();
  Glib::add_exception_handler([] { Uncaught::tell(std::current_exception()); });
  adw_init();
  Renderer::chooseForDisplay();
  gtk_window_set_default_icon_name(applicationId);
  const auto provider = Gtk::CssProvider::create();
  provider->load_from_resource(styles);
  Gtk::StyleContext::add_provider_for_display(Gdk::Display::get_default(), provider,
                                              GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
}

void TamselApp::on_activate() {
  if (window_ == nullptr) openWindow();
  window_->present();
}

void TamselApp::openWindow() {
  ruleListStore_ = std::make_unique<WebKitRuleListStore>();
  httpClient_ = std::make_unique<SoupHttpClient>();
  savePanel_ = std::make_unique<GtkSavePanel>(
      [this] { return window_ == nullptr ? nullptr : window_->gobj(); });
  const std::string supportDir = AppState::userSupportDir();
  const std::string cacheDir = std::string(g_get_user_cache_dir()) + "/Tamsel";
  (void)Files::makePrivateFolder(supportDir);
  (void)Files::makePrivateFolder(cacheDir);
  WebKitNetworkSession* session =
      WebKitView::makeSession(supportDir + "/Browser", cacheDir + "/Browser");
  auto newBrowser = std::make_unique<BrowserModel>(
      std::make_unique<WebKitView>(WebKitView::Options{.session = session}));
  g_object_unref(session);
  BrowserModel& browser = *newBrowser;
  app_ = std::make_unique<AppState>(AppState::Platform{
      .supportDir = supportDir,
      .ruleListStore = *ruleListStore_,
      .httpClient = *httpClient_,
      .savePanel = *savePanel_,
      .browser = std::move(newBrowser),
  });

  auto window = std::make_unique<AppWindow>();
  add_window(*window);
  window->set_title(title);
  window->set_default_size(firstWidth, firstHeight);
  window->set_size_request(minWidth, minHeight);
  window->setContent(*Gtk::make_managed<ContentView>(*app_, browser));
  window_ = std::move(window);
}

void TamselApp::on_shutdown() {
  // The window first: its views show what goes next.
  window_.reset();
  app_.reset();
  Gtk::Application::on_shutdown();
}

}  // namespace tamsel
