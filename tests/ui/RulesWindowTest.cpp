#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/SiteServer.h"
#include "tests/ui/WindowTest.h"

namespace tamsel {
namespace {

using nlohmann::json;
using test::AccessibleApp;
using testing::ElementsAre;
using testing::ElementsAreArray;

constexpr const char* starter = "Tamsel Starter List";
constexpr const char* note = "Over WebKit's 150000 rule limit — extra rules were dropped.";

class RulesWindowTest : public test::WindowTest {
 protected:
  void addAsText(const std::string& name, const std::string& text) {
    showTab("Lists");
    awaitText("Filter lists");
    window().act(ATSPI_ROLE_PUSH_BUTTON, "Add list…");
    window().act(ATSPI_ROLE_PUSH_BUTTON, "Paste text");
    window().setText("Name", name);
    window().setText("Text of the list", text);
    await("something to add",
          [this] { return window().isSensitive(ATSPI_ROLE_PUSH_BUTTON, "Add"); });
    window().act(ATSPI_ROLE_PUSH_BUTTON, "Add");
    await("the list", [&] { return window().find(ATSPI_ROLE_LIST_ITEM, name) != nullptr; });
    awaitText("Compiled ");
  }

  std::vector<std::string> counts(const std::string& list) {
    return window().within(ATSPI_ROLE_TABLE_ROW, list).labels();
  }
  void awaitSkipped(int count) {
    const std::string title = "Skipped as unsupported (" + std::to_string(count) + ")";
    await(title, [&] { return window().find(ATSPI_ROLE_LABEL, title) != nullptr; });
  }
  std::vector<std::string> skipped() {
    return window().within(ATSPI_ROLE_TABLE, "Skipped lines").labels();
  }
  // By its place among the choices.
  void pick(int choice) {
    window().tabTo("List");
    for (const char* key : {"space", "Home"}) AccessibleApp::press(key);
    for (int i = 0; i < choice; ++i) AccessibleApp::press("Down");
    AccessibleApp::press("Return");
  }
};

TEST_F(RulesWindowTest, CountsAndExportsWhatTheCommandLineDoes) {
  const std::string pasted = "||one.example^\n@@||one.example/ok^\n##.ad\nx##+js(a)\n*##.b\n";
  const std::string custom = "||two.example^$image\n||three.example^$csp=x\n##.c\n";
  addAsText("Pasted", pasted);
  showTab("Custom Rules");
  awaitText("Custom list: 0 rules");
  window().setText("Custom rules", custom);
  window().act(ATSPI_ROLE_PUSH_BUTTON, "Save & apply");
  awaitText("Custom list: 2 rules");

  const json saved = json::parse(state());
  write("starter", saved["lists"][0]["text"].get<std::string>());
  write("pasted", pasted);
  write("custom", custom);
  const std::string in = "cd '" + path("") + "' && ";
  ASSERT_EQ(std::system((in + TAMSELC_PATH +
                         " compile starter pasted custom -o expected --report report 2>log")
                            .c_str()),
            0);
  const json report = json::parse(read("report"));
  showTab("Rules");
  awaitText(std::to_string(report["rules"].get<int>()) +
            " WebKit content-blocker rules compiled from enabled lists");
  const std::vector<std::string> names{starter, "Pasted", "Custom rules"};
  for (std::size_t i = 0; i < names.size(); ++i) {
    const json& list = report["lists"][i];
    std::vector<std::string> row{names[i]};
    for (const char* kind : {"block", "exception", "cosmetic"}) row.push_back(list[kind].dump());
    row.push_back(std::to_string(list["block"].get<int>() + list["exception"].get<int>() +
                                 list["cosmetic"].get<int>()));
    row.push_back(list["skipped"].dump());
    EXPECT_THAT(counts(names[i]), ElementsAreArray(row));
  }

  // The desktop's own dialogue, which proposes a name.
  window().act(ATSPI_ROLE_PUSH_BUTTON, "Export JSON…");
  EXPECT_EQ(window().textOf("Name:"), "Tamsel-content-blocker.json");
  window().setText("Name:", path("exported.json"));
  // The toolkit says the name of the dialogue's button twice.
  window().act(ATSPI_ROLE_PUSH_BUTTON, "Save Save");
  await("the file", [&] { return read("exported.json") == read("expected"); });
  showTab("Lists");
  awaitText("Exported 43 rules to exported.json.");
}

TEST_F(RulesWindowTest, SearchesTheSkippedLines) {
  showTab("Rules");
  awaitSkipped(6);
  window().setText("Filter", "SCRIPTLET");  // in a reason
  awaitSkipped(1);
  EXPECT_THAT(skipped(), ElementsAre("example.net##+js(abort-on-property-read, adsEnabled)",
                                     "Scriptlet injection is not supported — Tamsel Starter List"));
  window().setText("Filter", "VIDEO.mp4$Redirect");  // in a line
  awaitSkipped(1);
  window().setText("Filter", " nothing ");
  awaitSkipped(0);
  EXPECT_THAT(skipped(), ElementsAre());
  window().setText("Filter", "");
  awaitSkipped(6);

  std::string lines;
  for (int i = 0; i < 3000; ++i) lines += "a" + std::to_string(i) + ".example##+js(x)\n";
  addAsText("Long", lines);
  showTab("Rules");
  awaitSkipped(3006);
  window().setText("Filter", "a29");
  awaitSkipped(111);
  pick(1);
  awaitSkipped(0);
  window().setText("Filter", "");
  awaitSkipped(6);
  pick(2);
  awaitSkipped(3000);

  // Its lines go with it, and no other list's come in their place.
  showTab("Lists");
  window().within(ATSPI_ROLE_LIST_ITEM, "Long").act(ATSPI_ROLE_PUSH_BUTTON, "Remove list");
  awaitText("Compiled 36 rules.");
  showTab("Rules");
  awaitSkipped(0);
  pick(0);
  awaitSkipped(6);
}

TEST_F(RulesWindowTest, SaysWhenThereAreTooManyRules) {
  test::SiteServer sites;
  const std::string address = sites.url() + "/list.txt";
  std::string text;
  for (int i = 0; i < 150001 - 36; ++i) text += "##.a" + std::to_string(i) + "\n";
  sites.pages[address] = {text, "text/plain"};
  showTab("Rules");
  awaitText("36 WebKit");
  EXPECT_FALSE(window().labelWithPrefix(note));
  showTab("Lists");
  window().act(ATSPI_ROLE_PUSH_BUTTON, "Add list…");
  window().setText("Address of the list", address);
  window().act(ATSPI_ROLE_PUSH_BUTTON, "Add");
  showTab("Rules");
  awaitText("150000 WebKit content-blocker rules");
  EXPECT_TRUE(window().labelWithPrefix(note));
}

}  // namespace
}  // namespace tamsel
