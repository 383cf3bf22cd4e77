#pragma once

#include <gtkmm/box.h>
#include <gtkmm/dropdown.h>
#include <gtkmm/entry.h>
#include <gtkmm/image.h>
#include <gtkmm/label.h>
#include <gtkmm/scrolledwindow.h>

#include <string>

#include "engine/Engine.h"
#include "platform/mainloop/Task.h"
#include "state/AppState.h"

namespace tamsel {

/// A rule that decides about a request, and where it comes from.
class RuleRow : public Gtk::Box {
 public:
  RuleRow();

  void show(const std::string& title, const SourcedRule& rule);

 private:
  Gtk::Label* rule_;
  Gtk::Label* origin_;
};

/// The tab with a test of single requests.
class TesterView : public Gtk::Box {
 public:
  explicit TesterView(AppState& app);

  /// Tests this request of this page, and chooses the type under which it is blocked.
  void ask(const std::string& url, const std::string& pageURL);

 private:
  enum class Types { chosen, all };

  Gtk::Widget& makeForm();
  Gtk::Widget& makeResult();
  void start(Types types);
  Task<void> test(Types types);
  void show(const Engine::Verdict& verdict);

  AppState& app_;
  Gtk::Entry url_, page_;
  Gtk::DropDown type_;
  Gtk::Box result_{Gtk::Orientation::VERTICAL, 6};
  Gtk::ScrolledWindow* resultPane_ = nullptr;
  Gtk::Image symbol_;
  Gtk::Label* headline_ = nullptr;
  RuleRow first_, second_;
  Gtk::Label* thirdParty_ = nullptr;
  TaskScope tests_;
};

}  // namespace tamsel
