#include "ui/ContentView.h"

#include <adwaita.h>

#include "platform/mainloop/Signals.h"
#include "ui/BrowserView.h"
#include "ui/CustomRulesView.h"
#include "ui/ListsView.h"
#include "ui/NoticeBar.h"
#include "ui/RulesView.h"
#include "ui/Symbols.h"
#include "ui/TesterView.h"

namespace tamsel {
namespace {

constexpr const char* title = "Tamsel";
constexpr int padding = 8;

void addTab(AdwViewStack* tabs, Gtk::Widget& view, const char* name, std::string_view symbol) {
  AdwViewStackPage* page = adw_view_stack_add_titled(tabs, view.gobj(), name, name);
  adw_view_stack_page_set_icon_name(page, Symbols::icon(symbol).c_str());
}

// What is not shown stays where it is, which those who cannot see must not notice.
void hideAllBut(GtkWidget* shown, GtkWidget* container) {
  for (GtkWidget* child = gtk_widget_get_first_child(container); child != nullptr;
       child = gtk_widget_get_next_sibling(child)) {
    gtk_accessible_update_state(GTK_ACCESSIBLE(child), GTK_ACCESSIBLE_STATE_HIDDEN, child != shown,
                                -1);
  }
}

void hideOtherTabs(AdwViewStack* tabs) {
  hideAllBut(adw_view_stack_get_visible_child(tabs), GTK_WIDGET(tabs));
}

// The tabs' names are there in several widths, of which the one that fits is shown.
void hideOtherWidths(AdwSqueezer* names) {
  hideAllBut(adw_squeezer_get_visible_child(names), GTK_WIDGET(names));
}

}  // namespace

ContentView::ContentView(AppState& app, BrowserModel& browser)
    : Gtk::Box(Gtk::Orientation::VERTICAL) {
  auto* tabs = ADW_VIEW_STACK(adw_view_stack_new());
  auto* browserView = Gtk::make_managed<BrowserView>(app, browser);
  auto* tester = Gtk::make_managed<TesterView>(app);
  addTab(tabs, *browserView, "Browser", "safari");
  addTab(tabs, *Gtk::make_managed<ListsView>(app), "Lists", "list.bullet");
  addTab(tabs, *Gtk::make_managed<RulesView>(app), "Rules", "shield.lefthalf.filled");
  addTab(tabs, *tester, "URL Tester", "magnifyingglass");
  addTab(tabs, *Gtk::make_managed<CustomRulesView>(app), "Custom Rules",
         "pencil.and.list.clipboard");
  browserView->blockedChosen.connect(
      [tabs, tester](const std::string& url, const std::string& pageURL) {
        adw_view_stack_set_visible_child(tabs, GTK_WIDGET(tester->gobj()));
        tester->ask(url, pageURL);
      });
  hideOtherTabs(tabs);
  connect(
      tabs, "notify::visible-child",
      [](AdwViewStack* stack, GParamSpec*, gpointer) { hideOtherTabs(stack); }, nullptr);

  auto* switcher = ADW_VIEW_SWITCHER_TITLE(adw_view_switcher_title_new());
  adw_view_switcher_title_set_title(switcher, title);
  adw_view_switcher_title_set_stack(switcher, tabs);
  auto* names = ADW_SQUEEZER(gtk_widget_get_first_child(GTK_WIDGET(switcher)));
  hideOtherWidths(names);
  connect(
      names, "notify::visible-child",
      [](AdwSqueezer* squeezer, GParamSpec*, gpointer) { hideOtherWidths(squeezer); }, nullptr);
  auto* header = ADW_HEADER_BAR(adw_header_bar_new());
  adw_header_bar_set_title_widget(header, GTK_WIDGET(switcher));
  adw_header_bar_set_centering_policy(header, ADW_CENTERING_POLICY_STRICT);
  append(*Glib::wrap(GTK_WIDGET(header)));

  append(*Gtk::make_managed<NoticeBar>(app));

  Gtk::Widget* content = Glib::wrap(GTK_WIDGET(tabs));
  content->set_margin(padding);
  content->set_vexpand();
  append(*content);

  // Where the text is too large for the tabs' names above, they are below.
  auto* bar = ADW_VIEW_SWITCHER_BAR(adw_view_switcher_bar_new());
  adw_view_switcher_bar_set_stack(bar, tabs);
  for (const char* property : {"reveal", "visible"}) {
    g_object_bind_property(switcher, "title-visible", bar, property, G_BINDING_SYNC_CREATE);
  }
  append(*Glib::wrap(GTK_WIDGET(bar)));
}

}  // namespace tamsel
