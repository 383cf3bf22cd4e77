#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/AccessibleApp.h"
#include "tests/support/SiteServer.h"
#include "tests/ui/WindowTest.h"

namespace tamsel {
namespace {

using test::AccessibleApp;
using testing::HasSubstr;
using testing::IsEmpty;

class BrowserWindowTest : public test::WindowTest {
 protected:
  static constexpr const char* blockedButton = "4 blocked on this page";

  void editAddress() {
    // A key that comes before the window has the focus is lost.
    await("the address to be selected", [this] {
      AccessibleApp::press("<Control>l");
      return window().focused() == "Address";
    });
  }
  void browse(const std::string& url) {
    editAddress();
    AccessibleApp::type(url + "\n");
  }
  // Of a page that is complete.
  void awaitAddress(const std::string& address) {
    await(address, [&] {
      return window().textOf("Address") == address &&
             window().find(ATSPI_ROLE_PUSH_BUTTON, "Reload") != nullptr;
    });
  }

  // What was blocked on the demo page, once a line has the focus.
  std::vector<std::string> openBlocked() {
    awaitCount("4");
    editAddress();
    window().act(ATSPI_ROLE_PUSH_BUTTON, blockedButton);
    await("a line", [this] { return window().focused().starts_with("https://"); });
    std::vector<std::string> lines = window().labels();
    std::erase_if(lines, [](const std::string& text) { return !text.starts_with("https://"); });
    return lines;
  }
  // What has the focus after this key.
  std::string pressed(const std::string& key, const std::string& before) {
    EXPECT_EQ(window().focused(), before);
    AccessibleApp::press(key);
    std::string now;
    await("the focus to move", [&] {
      now = window().focused();
      return !now.empty() && now != before;
    });
    return now;
  }
};

TEST_F(BrowserWindowTest, ShowsTheDemoPageAndPausesItsSite) {
  awaitCount("4");
  EXPECT_TRUE(window().find(ATSPI_ROLE_LABEL, "36 rules active"));
  EXPECT_EQ(window().textOf("Address"), "https://example.org/");
  EXPECT_FALSE(window().isSensitive(ATSPI_ROLE_PUSH_BUTTON, "Back"));
  EXPECT_FALSE(window().isSensitive(ATSPI_ROLE_PUSH_BUTTON, "Forward"));

  window().act(ATSPI_ROLE_PUSH_BUTTON, "4 blocked on this page");
  awaitText("https://ads.example.com/banner.png");
  awaitText("https://tracker.example.net/t.js");
  EXPECT_FALSE(window().find(ATSPI_ROLE_LABEL, "https://ads.example.com/allowed/ok.png"));

  window().act(ATSPI_ROLE_CHECK_BOX, "Pause on example.org");
  awaitCount("0");
  awaitText("Nothing blocked yet.");
  EXPECT_THAT(state(), HasSubstr(R"("pausedSites":["example.org"])"));
  window().act(ATSPI_ROLE_CHECK_BOX, "Pause on example.org");
  awaitCount("4");
}

// The exact type: the request is blocked as a script only.
TEST_F(BrowserWindowTest, TestsTheBlockedRequestThatIsChosen) {
  const std::string url = "https://googletagmanager.com/gtag/js?id=G-DEMO";
  std::string line = openBlocked().front();
  while (line != url) line = pressed("Down", line);
  AccessibleApp::press("Return");
  awaitText("Would be blocked");
  EXPECT_EQ(window().textOf("Request URL"), url);
  EXPECT_EQ(window().textOf("Page URL"), "https://example.org/");
  EXPECT_TRUE(window().find(ATSPI_ROLE_LABEL, "script"));
  EXPECT_TRUE(window().find(ATSPI_ROLE_LABEL, "Rule: ||googletagmanager.com^$script"));
}

TEST_F(BrowserWindowTest, CopiesBlockedRequests) {
  const auto expectCopied = [this](const std::string& text) {
    AccessibleApp::press("Tab");
    await("the button", [this] { return window().focused() == blockedButton; });
    editAddress();
    AccessibleApp::press("<Control>v");
    await(text, [&] { return window().textOf("Address") == text; });
  };
  const std::vector<std::string> lines = openBlocked();
  AccessibleApp::press("<Control>c");
  expectCopied(lines.front());

  openBlocked();
  pressed("Down", lines.at(0));
  pressed("Menu", lines.at(1));
  EXPECT_THAT(window().namelessControls(), IsEmpty());
  pressed("Return", "Copy");
  expectCopied(lines.at(1));

  openBlocked();
  pressed("Menu", lines.at(1));
  pressed("Down", "Copy");
  pressed("Return", "Copy All");
  expectCopied(lines.at(0) + "\n" + lines.at(1) + "\n" + lines.at(2) + "\n" + lines.at(3));
}

TEST_F(BrowserWindowTest, AppliesCustomRules) {
  test::SiteServer sites;
  sites.pages[sites.url() + "/"] = {
      "<title>Page</title><p class=ad>Ad</p><img src='/pictures/a.png'><img src='/other.png'>"};
  showTab("Custom Rules");
  awaitText("Custom rules");
  window().setText("Custom rules", "/pictures/*\n127.0.0.1##.ad\nexample.com##+js(x)\n");
  const std::string none = "Custom list: 0 rules (0 block, 0 exceptions, 0 hide), 0 skipped.";
  EXPECT_TRUE(window().labelWithPrefix(none));  // not yet
  window().act(ATSPI_ROLE_PUSH_BUTTON, "Save & apply");
  awaitText("Custom list: 3 rules (2 block, 0 exceptions, 1 hide), 1 skipped. Examples: ");
  EXPECT_THAT(state(), HasSubstr("127.0.0.1##.ad"));

  showTab("Browser");
  awaitText("39 rules active");
  browse(sites.url() + "/");
  awaitCount("1");
  awaitText("Pause on 127.0.0.1");
  await("the other picture", [&] { return sites.timesRequested(sites.url() + "/other.png") == 1; });
  EXPECT_EQ(sites.timesRequested(sites.url() + "/pictures/a.png"), 0);

  // All of it is there at the next start.
  EXPECT_EQ(close(), 0);
  start();
  awaitText("39 rules active");
  showTab("Custom Rules");
  await("the rules", [this] {
    return window().textOf("Custom rules") == "/pictures/*\n127.0.0.1##.ad\nexample.com##+js(x)\n";
  });
}

TEST_F(BrowserWindowTest, IsUsedByKeyboard) {
  test::SiteServer sites;
  for (const char* path : {"/1", "/2"}) {
    sites.pages[sites.url() + path] = {std::string("<title>Page</title>") + path};
  }
  awaitCount("4");
  for (const char* path : {"/1", "/2"}) {
    browse(sites.url() + path);
    awaitAddress(sites.url() + path);
  }
  AccessibleApp::press("<Alt>Left");
  awaitAddress(sites.url() + "/1");
  AccessibleApp::press("<Alt>Right");
  awaitAddress(sites.url() + "/2");
  for (const std::string keys : {"<Control>r", "F5", "the button"}) {
    const std::size_t before = sites.timesRequested(sites.url() + "/2");
    const bool isButton = keys == "the button";
    isButton ? window().act(ATSPI_ROLE_PUSH_BUTTON, "Reload") : AccessibleApp::press(keys);
    await(keys, [&] { return sites.timesRequested(sites.url() + "/2") > before; });
    awaitAddress(sites.url() + "/2");
  }
  showTab("Custom Rules");
  window().setText("Custom rules", "##.ad\n");
  AccessibleApp::press("<Control>s");
  awaitText("Custom list: 1 rules");
}

TEST_F(BrowserWindowTest, SaysWhatWentWrongAndGoesOn) {
  awaitCount("4");
  // Nobody listens there.
  browse("http://127.0.0.1:1025/");
  awaitText("Could not connect");
  EXPECT_EQ(window().textOf("Address"), "https://example.org/");

  window().act(ATSPI_ROLE_PUSH_BUTTON, "Demo page");
  await("the words to go", [this] { return !window().labelWithPrefix("Could not connect"); });
  awaitCount("4");
}

// By keyboard alone. The page knows that it is used when somebody types into it.
TEST_F(BrowserWindowTest, AnswersPagesOrLeavesThem) {
  test::SiteServer sites;
  sites.pages[sites.url() + "/"] = {
      "<title>Page</title><input autofocus oninput=\"fetch('/typed')\"><script>"
      "onbeforeunload = event => { event.preventDefault(); return ''; }</script>"};
  std::string cookies;
  sites.pages[sites.url() + "/cookies"] = {"<script>fetch('/cookie?' + document.cookie)</script>"};
  sites.others = [&cookies](const std::string& url) {
    if (const auto start = url.find("/cookie?"); start != std::string::npos) {
      cookies = url.substr(start + 8);
    }
    return test::SiteServer::Answer();
  };
  sites.pages[sites.url() + "/endless"] = {"<script>for (;;) alert('Again')</script>"};
  sites.pages[sites.url() + "/other"] = {.body = "<title>Other</title>",
                                         .headers = {{"Set-Cookie", "kept=here; Max-Age=1000"}}};
  awaitCount("4");
  browse(sites.url() + "/");
  awaitAddress(sites.url() + "/");

  window().tabTo("Pause on 127.0.0.1");
  AccessibleApp::press("Tab");
  AccessibleApp::type("x");
  await("what is typed", [&] { return sites.timesRequested(sites.url() + "/typed") > 0; });
  // Who has typed an address has the focus there.
  browse(sites.url() + "/other");
  awaitText("Leave this page?");
  AccessibleApp::press("Escape");
  await("the dialogue to go", [this] { return !window().labelWithPrefix("Leave this page?"); });
  awaitAddress(sites.url() + "/");
  // Who insists is not asked again.
  browse(sites.url() + "/other");
  awaitText("Leave this page?");
  window().tabTo("Leave");
  browse(sites.url() + "/other");
  awaitAddress(sites.url() + "/other");
  EXPECT_FALSE(window().labelWithPrefix("Leave this page?"));

  // A page that asks on and on does not keep the window. What a site keeps is there the next time.
  browse(sites.url() + "/endless");
  awaitText("Again");
  EXPECT_EQ(close(), 0);
  start();
  awaitCount("4");
  browse(sites.url() + "/cookies");
  await("the cookie", [&] { return cookies == "kept=here"; });
}

}  // namespace
}  // namespace tamsel
