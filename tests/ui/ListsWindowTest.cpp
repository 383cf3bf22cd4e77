#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/SiteServer.h"
#include "tests/ui/WindowTest.h"

namespace tamsel {
namespace {

using test::AccessibleApp;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

constexpr const char* starter = "Tamsel Starter List";

class ListsWindowTest : public test::WindowTest {
 protected:
  ListsWindowTest() {
    showTab("Lists");
    awaitText("Filter lists");
  }

  AccessibleApp row(const std::string& list) { return window().within(ATSPI_ROLE_LIST_ITEM, list); }
  bool hasButton(const std::string& list, const std::string& button) {
    return row(list).find(ATSPI_ROLE_PUSH_BUTTON, button) != nullptr;
  }
  // The last of its texts.
  void awaitRow(const std::string& list, const std::string& end) {
    await(list + ": " + end, [&] {
      return window().find(ATSPI_ROLE_LIST_ITEM, list) && row(list).labels().back() == end;
    });
  }

  void openSheet() { window().act(ATSPI_ROLE_PUSH_BUTTON, "Add list…"); }
  bool isSheetOpen() { return window().find(ATSPI_ROLE_PUSH_BUTTON, "Cancel") != nullptr; }
  bool canAdd() { return window().isSensitive(ATSPI_ROLE_PUSH_BUTTON, "Add"); }
  void awaitSheetClosed() {
    await("the sheet to close", [this] { return !isSheetOpen(); });
  }

  void addFromAddress(const std::string& name, const std::string& address) {
    openSheet();
    window().setText("Name", name);
    window().setText("Address of the list", address);
    window().act(ATSPI_ROLE_PUSH_BUTTON, "Add");
  }
};

TEST_F(ListsWindowTest, AddsWhatIsPasted) {
  EXPECT_THAT(row(starter).labels(), ElementsAre(starter, "Bundled starter list", "36 rules"));
  EXPECT_FALSE(hasButton(starter, "Refresh this list"));
  EXPECT_FALSE(hasButton(starter, "Remove list"));

  openSheet();
  EXPECT_EQ(window().textOf("Address of the list"), "https://easylist.to/easylist/easylist.txt");
  EXPECT_TRUE(canAdd());
  window().act(ATSPI_ROLE_PUSH_BUTTON, "Paste text");
  await("nothing to add", [this] { return !canAdd(); });
  window().setText("Text of the list", " \n\n ");
  EXPECT_FALSE(canAdd());
  window().setText("Text of the list", "||banner.example^\n##.ad\nexample.com#@#.ad\n");
  await("something to add", [this] { return canAdd(); });
  window().setText("Name", "Mine");
  window().act(ATSPI_ROLE_PUSH_BUTTON, "Add");
  awaitSheetClosed();

  awaitRow("Mine", "3 rules");
  EXPECT_THAT(row("Mine").labels(), ElementsAre("Mine", "Pasted text", "3 rules"));
  EXPECT_FALSE(hasButton("Mine", "Refresh this list"));
  awaitText("Compiled 39 rules.");

  row("Mine").act(ATSPI_ROLE_CHECK_BOX, "Mine");
  awaitRow("Mine", "off");
  awaitText("Compiled 36 rules.");
  row("Mine").act(ATSPI_ROLE_PUSH_BUTTON, "Remove list");
  await("the row to go", [this] { return !window().find(ATSPI_ROLE_LIST_ITEM, "Mine"); });
  EXPECT_THAT(state(), Not(HasSubstr("banner.example")));
}

TEST_F(ListsWindowTest, AddsWhatAServerHas) {
  test::SiteServer sites;
  const std::string address = sites.url() + "/list.txt";
  // A server that does not know it keeps the sheet open.
  addFromAddress("", address);
  awaitText("Download failed: HTTP 404");
  EXPECT_TRUE(isSheetOpen());
  window().setText("Address of the list", " ");
  EXPECT_TRUE(canAdd());
  window().act(ATSPI_ROLE_PUSH_BUTTON, "Add");
  awaitText("Enter a valid http(s) URL.");
  window().setText("Address of the list", "");
  await("nothing to add", [this] { return !canAdd(); });

  sites.pages[address] = {"! Title: From afar\n||one.example^\n||two.example^\n", "text/plain"};
  window().setText("Address of the list", address);
  window().setText("Name", "From afar");
  // Return is the sheet's "Add".
  window().tabTo("Address of the list");
  AccessibleApp::press("Return");
  awaitSheetClosed();
  awaitRow("From afar", "4 rules");
  // For instance "Nov 23, 2026, 8:05 AM".
  EXPECT_THAT(row("From afar").labels()[1],
              MatchesRegex(".* · updated [A-Z][a-z]+ [0-9]+, 20[0-9]+, [0-9]+:[0-9][0-9].*"));

  // Refreshed, in vain, and without a connection to the sheet.
  sites.pages[address].body += "##.ad\n";
  row("From afar").act(ATSPI_ROLE_PUSH_BUTTON, "Refresh this list");
  awaitRow("From afar", "5 rules");
  sites.pages.erase(address);
  window().act(ATSPI_ROLE_PUSH_BUTTON, "Refresh all");
  awaitText("Last refresh failed: ");
  EXPECT_EQ(row("From afar").labels()[3], "5 rules");

  // The same at the next start.
  const std::vector<std::string> before = row("From afar").labels();
  row(starter).act(ATSPI_ROLE_CHECK_BOX, starter);
  awaitRow(starter, "off");
  EXPECT_EQ(close(), 0);
  start();
  showTab("Lists");
  awaitRow("From afar", "5 rules");
  EXPECT_EQ(row("From afar").labels(), before);
  EXPECT_FALSE(row(starter).isChecked(ATSPI_ROLE_CHECK_BOX, starter));
  EXPECT_TRUE(row("From afar").isChecked(ATSPI_ROLE_CHECK_BOX, "From afar"));
}

TEST_F(ListsWindowTest, GoesOnDownloadingWhenTheSheetIsCancelled) {
  test::SiteServer sites;
  const std::string address = sites.url() + "/list.txt";
  sites.pages[address] = {.body = "||one.example^\n", .hangs = true};
  addFromAddress("Slow", address);
  await("the request", [&] { return sites.timesRequested(address) == 1; });
  EXPECT_FALSE(canAdd());
  window().act(ATSPI_ROLE_PUSH_BUTTON, "Cancel");
  awaitSheetClosed();
  EXPECT_FALSE(window().find(ATSPI_ROLE_LIST_ITEM, "Slow"));
  soup_server_message_unpause(sites.hanging.back());
  awaitRow("Slow", "2 rules");

  // Nothing else can be refreshed meanwhile.
  row("Slow").act(ATSPI_ROLE_PUSH_BUTTON, "Refresh this list");
  await("the request", [&] { return sites.timesRequested(address) == 2; });
  EXPECT_FALSE(window().isSensitive(ATSPI_ROLE_PUSH_BUTTON, "Refresh all"));
  soup_server_message_unpause(sites.hanging.back());
  await("the end", [this] { return window().isSensitive(ATSPI_ROLE_PUSH_BUTTON, "Refresh all"); });
}

}  // namespace
}  // namespace tamsel
