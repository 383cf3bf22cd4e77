#pragma once

#include <gtk/gtk.h>

#include <deque>
#include <functional>
#include <optional>
#include <string>

namespace tamsel {

/// The questions that a page asks, over the page: one at a time, the others wait. A page cannot
/// keep anybody with them: the window goes on, and from a page's third question on there is the
/// choice to be asked no more. Escape is the answer that does no harm. For the main thread.
class PageDialogs {
 public:
  struct Question {
    /// Who asks, and what.
    std::string heading, text;
    /// What the buttons say. Without the second there is nothing to decline.
    std::string accept = "OK", decline = {};
    /// A field to fill in, with what is in it at first.
    std::optional<std::string> field = std::nullopt;
    /// And one for a password.
    bool asksPassword = false;
    /// What it comes to when nobody is asked.
    bool acceptsUnasked = false;
  };
  struct Answer {
    bool isAccepted = false;
    std::string field = {}, password = {};
  };
  /// Is called once, later than `ask` returns unless nobody is asked.
  using OnAnswer = std::function<void(const Answer&)>;

  /// `page` is what the questions are shown over. `onChange` is called when the first of several
  /// opens and when the last has closed.
  PageDialogs(GtkWidget* page, std::function<void()> onChange);
  ~PageDialogs();
  PageDialogs(const PageDialogs&) = delete;
  PageDialogs& operator=(const PageDialogs&) = delete;

  /// The page with what is over it. Owned by this.
  GtkWidget* widget() const { return GTK_WIDGET(overlay_); }

  void ask(Question question, OnAnswer onAnswer);
  bool isOpen() const { return card_ != nullptr; }

  /// Answers all that are open or wait as if nobody were asked.
  void closeAll();
  /// From now on nobody is asked, until `startAnew`.
  void silence() { isSilenced_ = true; }
  /// Another page asks from now on.
  void startAnew();

 private:
  struct Asked {
    Question question;
    OnAnswer onAnswer;
  };

  void show();
  void answer(bool isAccepted);
  void close();
  GtkWidget* makeButtons(const Question& question);
  void listenForEscape(GtkWidget* window);

  GtkOverlay* overlay_;
  std::function<void()> onChange_;
  std::deque<Asked> asked_;
  // What shows the first of them; null if there is none.
  GtkWidget* card_ = nullptr;
  GtkWidget* field_ = nullptr;
  GtkWidget* password_ = nullptr;
  GtkWidget* noMore_ = nullptr;
  GtkEventController* keys_ = nullptr;
  int questions_ = 0;
  bool isSilenced_ = false;
};

}  // namespace tamsel
