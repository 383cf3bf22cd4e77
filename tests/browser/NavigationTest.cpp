#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/RealBrowser.h"

namespace tamsel {
namespace {

using test::RealBrowser;
using test::runUntil;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* rules = "##.ad\n||ads.test^\n||blocked.test^\n";

std::string page(const std::string& more = {}) {
  return "<!DOCTYPE html><title>Page</title><p class=ad>Ad</p><p class=text>Text</p>"
         "<img src='http://ads.test/a.png'>" +
         more;
}

class NavigationTest : public testing::Test {
 protected:
  NavigationTest() : browser(rules) {
    for (const char* host : {"paused.test", "free.test", "other.test"}) {
      browser.sites.pages[std::string("http://") + host + "/"] = {page()};
    }
    browser.app().setPaused("paused.test", true);
  }

  bool isHidden() {
    return browser.evaluate("getComputedStyle(document.querySelector('.ad')).display") == "none";
  }
  // Whether the page that is shown was filtered, or in no way.
  testing::AssertionResult isFiltered(bool expected) {
    browser.settle();
    const bool isBlocked = *browser.model().blockedCount == 1;
    const bool wasRequested = browser.sites.timesRequested("http://ads.test/a.png") > 0;
    browser.sites.requests.clear();
    if (isHidden() == expected && isBlocked == expected && wasRequested != expected) {
      return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "hidden: " << isHidden() << ", counted: " << isBlocked
                                       << ", requested: " << wasRequested;
  }

  // Waits for the page after this script has run.
  void navigate(const std::string& script) {
    browser.evaluate("(setTimeout(() => {" + script + "}, 0), 0)");
    runUntil([this] { return *browser.model().isLoading; });
    browser.awaitPage();
  }

  RealBrowser browser;
};

TEST_F(NavigationTest, ByAddress) {
  browser.open("http://free.test/");
  EXPECT_TRUE(isFiltered(true));
  browser.open("http://paused.test/");
  EXPECT_TRUE(isFiltered(false));
  browser.open("http://free.test/");
  EXPECT_TRUE(isFiltered(true));
}

TEST_F(NavigationTest, ByScript) {
  browser.open("http://free.test/");
  EXPECT_TRUE(isFiltered(true));
  navigate("location = 'http://paused.test/'");
  EXPECT_EQ(*browser.model().currentHost, "paused.test");
  EXPECT_TRUE(isFiltered(false));
  navigate("location = 'http://free.test/'");
  EXPECT_TRUE(isFiltered(true));
}

TEST_F(NavigationTest, ByRedirection) {
  browser.sites.pages["http://free.test/to-paused"] = {.redirect = "http://paused.test/"};
  browser.sites.pages["http://paused.test/to-free"] = {.redirect = "http://free.test/"};
  browser.open("http://free.test/to-paused");
  EXPECT_TRUE(isFiltered(false));
  browser.open("http://paused.test/to-free");
  EXPECT_TRUE(isFiltered(true));
  navigate("location = 'http://free.test/to-paused'");
  EXPECT_TRUE(isFiltered(false));
  navigate("location = 'http://paused.test/to-free'");
  EXPECT_TRUE(isFiltered(true));
}

TEST_F(NavigationTest, ByTheBackButton) {
  browser.open("http://free.test/");
  browser.open("http://paused.test/");
  browser.open("http://other.test/");
  browser.sites.requests.clear();
  const auto go = [this](auto step) {
    step();
    runUntil([this] { return *browser.model().isLoading; });
    browser.awaitPage();
  };
  WebView& view = *browser.model().webView;
  go([&] { view.goBack(); });
  EXPECT_EQ(*browser.model().addressText, "http://paused.test/");
  EXPECT_TRUE(isFiltered(false));
  go([&] { view.goBack(); });
  EXPECT_EQ(*browser.model().addressText, "http://free.test/");
  EXPECT_TRUE(isFiltered(true));
  EXPECT_TRUE(*browser.model().canGoForward);
  go([&] { view.goForward(); });
  EXPECT_TRUE(isFiltered(false));
  navigate("history.back()");
  EXPECT_EQ(*browser.model().addressText, "http://free.test/");
  EXPECT_TRUE(isFiltered(true));
}

}  // namespace
}  // namespace tamsel
