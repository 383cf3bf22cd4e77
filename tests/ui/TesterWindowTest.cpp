#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/ui/WindowTest.h"

namespace tamsel {
namespace {

using test::AccessibleApp;
using testing::ElementsAre;

constexpr const char* adHost = R"(ads\.example\.com)";

class TesterWindowTest : public test::WindowTest {
 protected:
  TesterWindowTest() {
    showTab("URL Tester");
    await("the tester",
          [this] { return window().find(ATSPI_ROLE_TEXT, "Request URL") != nullptr; });
  }

  // What the result says, once it begins with this.
  std::vector<std::string> result(const std::string& headline) {
    window().act(ATSPI_ROLE_PUSH_BUTTON, "Test");
    std::vector<std::string> labels;
    await(headline, [&] {
      labels = window().labels();
      const auto begin = std::find(labels.begin(), labels.end(), headline);
      labels.erase(labels.begin(), begin);
      return !labels.empty();
    });
    // The note at the foot of every tab.
    labels.pop_back();
    return labels;
  }
};

TEST_F(TesterWindowTest, TellsWhatBlocksAndWhatAllows) {
  EXPECT_EQ(window().textOf("Request URL"), "https://ads.example.com/banner.png");
  EXPECT_EQ(window().textOf("Page URL"), "https://example.org/");
  const std::string from = "from Tamsel Starter List · url-filter ^[^:]+:(//)?([^/]+\\.)?";
  const std::string rule = from + adHost + "[^a-zA-Z0-9_.%-]";
  EXPECT_THAT(result("Would be blocked"),
              ElementsAre("Would be blocked", "Rule: ||ads.example.com^", rule,
                          "Third-party request: yes"));

  window().setText("Request URL", " https://ads.example.com/allowed/ok.png\t");
  EXPECT_THAT(
      result("Allowed by an exception"),
      ElementsAre("Allowed by an exception", "Exception: @@||ads.example.com/allowed/$image",
                  from + adHost + "/allowed/", "Would otherwise be blocked by: ||ads.example.com^",
                  rule, "Third-party request: yes"));

  window().setText("Page URL", "  ");
  window().setText("Request URL", "https://ads.example.com/");
  EXPECT_EQ(result("Would be blocked").back(), "Third-party request: no");

  const std::string allowed = "No network rule matches — request is allowed";
  window().setText("Request URL", "https://example.com/logo.png");
  EXPECT_THAT(result(allowed), ElementsAre(allowed));
}

// The exception is for images only.
TEST_F(TesterWindowTest, AsksForTheTypeThatIsChosen) {
  window().setText("Request URL", "https://ads.example.com/allowed/ok.js");
  (void)result("Allowed by an exception");
  window().tabTo("Type");
  for (const char* key : {"space", "Down", "Return"}) AccessibleApp::press(key);
  await("the type", [this] { return window().labelWithPrefix("script").has_value(); });
  (void)result("Would be blocked");
}

}  // namespace
}  // namespace tamsel
