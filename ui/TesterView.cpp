#include "ui/TesterView.h"

#include <gtkmm/button.h>
#include <gtkmm/stringlist.h>
#include <gtkmm/window.h>

#include <array>
#include <optional>
#include <vector>

#include "compiler/Unicode.h"
#include "platform/mainloop/Awaiting.h"
#include "state/StarterList.h"
#include "ui/SafariNote.h"
#include "ui/Symbols.h"
#include "ui/Widgets.h"

namespace tamsel {
namespace {

constexpr int padding = 12;
constexpr int typeWidth = 190;
constexpr std::array typeNames{"image", "script", "style-sheet", "font",
                               "raw",   "media",  "document",    "popup"};

struct Headline {
  const char* text;
  std::string_view symbol;
  bool isBlocked;
};

bool isBlocked(const Engine::Verdict& verdict) {
  return verdict.block && !verdict.exception;
}

Headline headline(const Engine::Verdict& verdict) {
  if (!verdict.block) {
    return {"No network rule matches — request is allowed", "checkmark.circle", false};
  }
  if (isBlocked(verdict)) return {"Would be blocked", "xmark.octagon.fill", true};
  return {"Allowed by an exception", "checkmark.circle.fill", false};
}

struct Answer {
  Engine::Verdict verdict;
  // Of the names above.
  guint type;
};

// Under the first type that is blocked; if there is none, the first that only an exception allows;
// else the one that is chosen.
Answer answerForAllTypes(const Engine& engine, std::string_view url,
                         std::optional<std::string_view> page, guint chosen) {
  std::optional<Answer> allowed;
  for (guint type = 0; type < typeNames.size(); ++type) {
    Answer answer{engine.evaluate(url, page, typeNames.at(type)), type};
    if (isBlocked(answer.verdict)) return answer;
    if (answer.verdict.block && !allowed) allowed = std::move(answer);
  }
  if (allowed) return std::move(*allowed);
  return {engine.evaluate(url, page, typeNames.at(chosen)), chosen};
}

}  // namespace

RuleRow::RuleRow()
    : Gtk::Box(Gtk::Orientation::VERTICAL, 1),
      rule_(makeLabel("", TextStyle::monospace)),
      origin_(makeLabel("", TextStyle::captionSecondary)) {
  for (Gtk::Label* label : {rule_, origin_}) {
    wrapAnywhere(*label);
    label->set_selectable();
    append(*label);
  }
}

void RuleRow::show(const std::string& title, const SourcedRule& rule) {
  setText(*rule_, title + ": " + displayable(rule.source.view()));
  setText(*origin_, "from " + displayable(rule.listName.view()) + " · url-filter " +
                        displayable(rule.rule.trigger.urlFilter.view()));
}

TesterView::TesterView(AppState& app) : Gtk::Box(Gtk::Orientation::VERTICAL, 10), app_(app) {
  set_margin(padding);
  append(*makeLabel("URL tester", TextStyle::title));
  Gtk::Label* caption = makeLabel(
      "Type a request URL to see which network rule would block it (or which exception allows it).",
      TextStyle::captionSecondary);
  caption->set_wrap();
  append(*caption);
  append(makeForm());
  append(makeResult());
  append(*Gtk::make_managed<SafariNote>());
}

Gtk::Widget& TesterView::makeForm() {
  auto* form = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::VERTICAL, 10);
  const auto prepare = [this](Gtk::Entry& entry, const char* placeholder, const char* name,
                              const std::string& text) {
    entry.set_placeholder_text(placeholder);
    entry.set_text(text);
    entry.set_hexpand();
    entry.set_input_purpose(Gtk::InputPurpose::URL);
    setAccessibleName(entry, name);
    entry.signal_activate().connect([this] { start(Types::chosen); });
  };
  prepare(url_, "Request URL", "Request URL",
          "https://" + std::string(Starter::Hosts::ads) + "/banner.png");
  prepare(page_, "Page URL it is loaded from (optional)", "Page URL",
          "https://" + std::string(Starter::Hosts::demo) + "/");
  form->append(url_);

  auto* row = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 8);
  row->append(page_);
  Gtk::Label* label = makeLabel("Type", TextStyle::body);
  row->append(*label);
  type_.set_model(Gtk::StringList::create({typeNames.begin(), typeNames.end()}));
  type_.set_size_request(typeWidth, -1);
  setLabel(type_, *label);
  row->append(type_);
  auto* button = Gtk::make_managed<Gtk::Button>("Test");
  button->add_css_class("suggested-action");
  button->signal_clicked().connect([this] { start(Types::chosen); });
  // Of the window, but only while this tab is shown.
  const auto makeDefault = [button](Gtk::Widget* widget) {
    auto* window = dynamic_cast<Gtk::Window*>(button->get_root());
    if (window == nullptr) return;
    if (widget == nullptr) return window->unset_default_widget();
    window->set_default_widget(*widget);
  };
  button->signal_map().connect([button, makeDefault] { makeDefault(button); });
  button->signal_unmap().connect([makeDefault] { makeDefault(nullptr); });
  row->append(*button);
  form->append(*row);
  return *form;
}

Gtk::Widget& TesterView::makeResult() {
  auto* title = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, 8);
  title->append(symbol_);
  headline_ = makeLabel("", TextStyle::heading);
  headline_->set_wrap();
  title->append(*headline_);
  result_.append(*title);
  result_.append(first_);
  result_.append(second_);
  thirdParty_ = makeLabel("", TextStyle::captionSecondary);
  result_.append(*thirdParty_);
  result_.set_valign(Gtk::Align::START);
  result_.add_css_class("card");
  result_.add_css_class("result");

  // An expression can be longer than the window is high.
  auto* room = Gtk::make_managed<Gtk::Box>();
  room->set_vexpand();
  resultPane_ = makeScrolled(result_, "Result");
  resultPane_->set_hexpand();
  resultPane_->set_visible(false);
  room->append(*resultPane_);
  return *room;
}

void TesterView::ask(const std::string& url, const std::string& pageURL) {
  url_.set_text(editable(url));
  page_.set_text(editable(pageURL));
  // What is shown is about another request.
  resultPane_->set_visible(false);
  start(Types::all);
}

void TesterView::start(Types types) {
  tests_.add(test(types));
}

Task<void> TesterView::test(Types types) {
  std::shared_ptr<const Engine> engine = app_.engine();
  if (engine == nullptr) co_return;
  auto evaluating = detached([engine = std::move(engine),
                              url = std::string(Unicode::stripped(url_.get_text().raw())),
                              page = std::string(Unicode::stripped(page_.get_text().raw())),
                              chosen = type_.get_selected(), types] {
    const auto pageURL = page.empty() ? std::nullopt : std::optional<std::string_view>(page);
    if (types == Types::all) return answerForAllTypes(*engine, url, pageURL, chosen);
    return Answer{engine->evaluate(url, pageURL, typeNames.at(chosen)), chosen};
  });
  const Answer answer = co_await evaluating;
  if (types == Types::all) type_.set_selected(answer.type);
  show(answer.verdict);
}

void TesterView::show(const Engine::Verdict& verdict) {
  const auto [text, symbol, isBlocked] = headline(verdict);
  setText(*headline_, text);
  symbol_.set_from_icon_name(Symbols::icon(symbol));
  for (Gtk::Widget* widget : std::array<Gtk::Widget*, 2>{headline_, &symbol_}) {
    setClass(*widget, "error", isBlocked);
    setClass(*widget, "success", !isBlocked);
  }

  first_.set_visible(verdict.block.has_value());
  second_.set_visible(verdict.block && verdict.exception);
  if (verdict.block && verdict.exception) {
    first_.show("Exception", *verdict.exception);
    second_.show("Would otherwise be blocked by", *verdict.block);
  } else if (verdict.block) {
    first_.show("Rule", *verdict.block);
  }
  thirdParty_->set_visible(verdict.block.has_value());
  setText(*thirdParty_, std::string("Third-party request: ") + (verdict.thirdParty ? "yes" : "no"));
  resultPane_->set_visible();
}

}  // namespace tamsel
