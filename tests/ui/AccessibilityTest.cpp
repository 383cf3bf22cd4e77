#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/ui/WindowTest.h"

namespace tamsel {
namespace {

using test::AccessibleApp;
using testing::ElementsAre;
using testing::IsEmpty;

class AccessibilityTest : public test::WindowTest {
 protected:
  void openTab(const std::string& name, const std::string& text) {
    showTab(name);
    awaitText(text);
  }

  // What Tab leads to from here on, until it is this one again.
  std::vector<std::string> round() {
    std::vector<std::string> names{window().focused()};
    while (names.size() < 30) {
      AccessibleApp::press("Tab");
      std::string next;
      await("the focus to move", [&] {
        next = window().focused();
        return !next.empty() && next != names.back();
      });
      if (next == names.front()) break;
      names.push_back(next);
    }
    return names;
  }
};

TEST_F(AccessibilityTest, EveryTabIsThereOnceAndEveryControlInItHasAName) {
  const std::pair<const char*, const char*> tabs[] = {{"Browser", "36 rules active"},
                                                      {"Lists", "Filter lists"},
                                                      {"Rules", "36 WebKit"},
                                                      {"URL Tester", "URL tester"},
                                                      {"Custom Rules", "Custom list"}};
  for (const auto& [tab, text] : tabs) {
    openTab(tab, text);
    EXPECT_THAT(window().namelessControls(), IsEmpty()) << tab;
    // Not those of other sizes of the window, too.
    int count = 0;
    (void)window().find(ATSPI_ROLE_PAGE_TAB, [&count, tab = tab](const std::string& name) {
      if (name == tab) ++count;
      return false;
    });
    EXPECT_EQ(count, 1) << tab;
  }
  openTab("Lists", "Filter lists");
  window().act(ATSPI_ROLE_PUSH_BUTTON, "Add list…");
  await("the sheet", [this] { return window().find(ATSPI_ROLE_PUSH_BUTTON, "Cancel") != nullptr; });
  EXPECT_THAT(window().namelessControls(), IsEmpty());
}

// The tabs' names, then what is in the tab; in a list that is only read, one line.
TEST_F(AccessibilityTest, TheFocusFollowsReadingOrder) {
  openTab("Rules", "36 WebKit");
  window().tabTo("Custom Rules");
  EXPECT_THAT(round(), ElementsAre("Custom Rules", "Export JSON…", "Tamsel Starter List", "List",
                                   "Filter", "example.net#?#div:has-text(Sponsored)", "Browser",
                                   "Lists", "Rules", "URL Tester"));
  openTab("Lists", "Filter lists");
  window().tabTo("Custom Rules");
  EXPECT_THAT(round(),
              ElementsAre("Custom Rules", "Add list…", "Refresh all", "Tamsel Starter List",
                          "Browser", "Lists", "Rules", "URL Tester"));
}

// One program, one window.
TEST_F(AccessibilityTest, ASecondStartShowsTheFirst) {
  EXPECT_EQ(startAgain(), 0);
  EXPECT_NE(window().find(ATSPI_ROLE_FRAME, "Tamsel"), nullptr);
}

}  // namespace
}  // namespace tamsel
