#include <glibmm/main.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <gtkmm/box.h>
#include <gtkmm/icontheme.h>
#include <gtkmm/init.h>
#include <gtkmm/label.h>
#include <gtkmm/window.h>

#include <string>

#include "tests/support/AppFakes.h"
#include "ui/Redraw.h"
#include "ui/Symbols.h"
#include "ui/Widgets.h"

namespace tamsel {
namespace {

using test::runUntil;
using testing::EndsWith;

// Before the first widget.
class WidgetTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { Gtk::init_gtkmm_internals(); }
};

class RedrawTest : public WidgetTest {
 protected:
  RedrawTest() {
    window.set_child(label);
    redraw.follow(changes);
  }
  ~RedrawTest() override { window.unset_child(); }

  void show() {
    window.present();
    runUntil([this] { return label.get_mapped(); });
  }
  void emit(int times) {
    for (int i = 0; i < times; ++i) changes.emit();
  }
  // Until everything that is due now is done.
  static void turn() {
    bool isOver = false;
    Glib::signal_idle().connect_once([&isOver] { isOver = true; }, Glib::PRIORITY_LOW);
    runUntil([&isOver] { return isOver; });
  }

  ChangeSignal changes;
  int drawn = 0;
  Gtk::Label label;
  Gtk::Window window;
  Redraw redraw{label, [this] { ++drawn; }};
};

TEST_F(RedrawTest, IsOncePerTurnAndOnlyWhileShown) {
  emit(3);
  turn();
  EXPECT_EQ(drawn, 0);  // not shown yet
  show();
  EXPECT_EQ(drawn, 1);  // before it is seen
  emit(100);
  EXPECT_EQ(drawn, 1);
  turn();
  EXPECT_EQ(drawn, 2);

  emit(1);
  label.set_visible(false);
  turn();
  emit(1);
  turn();
  EXPECT_EQ(drawn, 2);
  label.set_visible();
  EXPECT_EQ(drawn, 3);
  label.set_visible(false);
  label.set_visible();
  EXPECT_EQ(drawn, 3);  // nothing has changed
}

TEST_F(RedrawTest, MayGoBeforeItsSignalWithOneDue) {
  show();
  int other = 0;
  {
    Redraw brief(label, [&other] { ++other; });
    brief.follow(changes);
    brief.schedule();
  }
  emit(1);
  turn();
  EXPECT_EQ(other, 0);
}

TEST_F(WidgetTest, SymbolsAreInTheThemeOrTheProgram) {
  const auto theme = Gtk::IconTheme::get_for_display(Gdk::Display::get_default());
  theme->add_resource_path("/org/tamsel/Tamsel/icons");
  for (const char* symbol : {"safari", "list.bullet", "shield.lefthalf.filled", "magnifyingglass",
                             "pencil.and.list.clipboard", "chevron.left", "chevron.right", "xmark",
                             "arrow.clockwise", "hand.raised.fill", "info.circle"}) {
    EXPECT_TRUE(theme->has_icon(Symbols::icon(symbol))) << symbol;
  }
  EXPECT_THROW((void)Symbols::icon("none"), std::out_of_range);
}

TEST_F(WidgetTest, HostileTextIsText) {
  using namespace std::string_literals;
  EXPECT_EQ(displayable("a\xFF"s + "b\0c"s).raw(), "a\uFFFDb\uFFFDc");
  // A character of two bytes at the place of the cut.
  const std::string shown = displayable("x" + std::string(1 << 20, 'y') + "é").raw();
  EXPECT_LT(shown.size(), 2100);
  EXPECT_THAT(shown, EndsWith("…"));
  std::string wide;
  for (int i = 0; i < 5000; ++i) wide += "é";
  EXPECT_THAT(displayable(wide).raw(), EndsWith("é…"));
  EXPECT_THAT(displayable("x" + wide).raw(), EndsWith("é…"));
  EXPECT_EQ(editable(wide).raw(), wide);
}

}  // namespace
}  // namespace tamsel
