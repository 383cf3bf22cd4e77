#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/RealBrowser.h"

namespace tamsel {
namespace {

using test::RealBrowser;
using test::runUntil;
using testing::ElementsAre;
using testing::UnorderedElementsAreArray;

using Step = std::function<void()>;

// Filtering is paused on paused.test.
constexpr const char* rules = "##.ad\n||ads.test^\n||blocked.$document\n";

std::string page(const std::string& more = {}) {
  return "<title>Page</title><p class=ad>Ad</p><img src='http://ads.test/a.png'>" + more;
}

// Waits for the page that this leads to, or its failure. Counts requests from here on.
void awaitPageAfter(RealBrowser& browser, const Step& step) {
  const BrowserModel& model = browser.model();
  bool hasStarted = false;
  sigc::connection connection = browser.model().objectWillChange.connect(
      [&] { hasStarted = hasStarted || *model.isLoading; });
  browser.sites.requests.clear();
  step();
  runUntil([&hasStarted] { return hasStarted; });
  connection.disconnect();
  browser.awaitPage();
}

// Kills the process below this one, however deep, that runs a page's worker.
void killPage(const std::string& parent = "self") {
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + parent + "/task")) {
    std::string name;
    std::getline(std::ifstream(task.path() / "comm"), name);
    if (name == "WebCore: Worker") kill(std::stoi(parent), SIGKILL);
    std::ifstream children(task.path() / "children");
    for (std::string child; children >> child;) killPage(child);
  }
}

class NavigationTest : public testing::Test {
 protected:
  explicit NavigationTest(const WebKitView::Options& options = RealBrowser::plain())
      : browser(rules, options) {
    for (const char* host : {"paused", "blocked.paused", "free", "other"}) {
      browser.sites.pages[std::string("http://") + host + ".test/"] = {page()};
    }
    browser.sites.pages["http://hangs.test/"] = {.hangs = true};
    browser.app().setPaused("paused.test", true);
  }

  Step loading(const std::string& url) {
    return [=, this] {
      model.go(url);
      awaitAddress(url);
    };
  }
  Step running(const std::string& script) {
    return [=, this] { browser.evaluate("(setTimeout(() => {" + script + "}, 0), 0)"); };
  }
  void awaitAddress(const std::string& url) const {
    runUntil([&] { return *model.addressText == url; });
  }

  // This leads to the page, which is filtered, or in no way where filtering is paused.
  void expectPage(const std::string& url, const Step& step) {
    SCOPED_TRACE(url);
    awaitPageAfter(browser, step);
    const bool isPaused = url.find("paused.test/") != std::string::npos;
    EXPECT_EQ(*model.addressText, url);
    EXPECT_EQ(*model.currentHost, url.substr(7, url.find('/', 7) - 7));
    EXPECT_EQ(*model.status, "");
    EXPECT_EQ(*model.blockedCount, isPaused ? 0 : 1);
    EXPECT_EQ(browser.sites.timesRequested("http://ads.test/a.png"), isPaused ? 1 : 0);
    EXPECT_EQ(browser.evaluate("getComputedStyle(document.querySelector('.ad')).display"),
              isPaused ? "block" : "none");
  }
  // Whether the page that is shown can request now what the rules block.
  bool canRequestAds() {
    browser.evaluate("fetch('http://ads.test/late', { cache: 'no-store' }).catch(() => 0)");
    return browser.sites.timesRequested("http://ads.test/late") > 0;
  }

  RealBrowser browser;
  BrowserModel& model = browser.model();
  WebView& view = *model.webView;
};

TEST_F(NavigationTest, ByAddressAndByScript) {
  const std::string paused = "http://paused.test/", free = "http://free.test/";
  browser.sites.pages["http://free.test/elsewhere"] = {.redirect = paused};
  browser.sites.pages["http://paused.test/elsewhere"] = {.redirect = free};
  for (const auto& url : {free, paused, free}) expectPage(url, loading(url));
  expectPage(paused, loading("http://free.test/elsewhere"));
  expectPage(free, loading("http://paused.test/elsewhere"));
  for (const auto& url : {paused, free}) expectPage(url, running("location = '" + url + "'"));
  expectPage(paused, running("location = 'http://free.test/elsewhere'"));
  expectPage(free, running("location = 'http://paused.test/elsewhere'"));
}

TEST_F(NavigationTest, ByTheBackButton) {
  const Step back = [this] { view.goBack(); };
  for (const std::string url : {"http://free.test/", "http://paused.test/", "http://other.test/"}) {
    expectPage(url, loading(url));
  }
  expectPage("http://paused.test/", back);
  expectPage("http://free.test/", back);
  expectPage("http://paused.test/", [this] { view.goForward(); });
  expectPage("http://free.test/", running("history.back()"));
  EXPECT_TRUE(*model.canGoForward);
  expectPage("http://paused.test/", loading("http://paused.test/"));
  // A page changes its own title and history, and a page of text comes after it.
  browser.evaluate("document.title = 'Other', history.pushState({}, '', '/?other')");
  awaitAddress("http://paused.test/?other");
  runUntil([this] { return *model.pageTitle == "Other"; });
  EXPECT_TRUE(*model.canGoBack);
  awaitPageAfter(browser, [this] { model.loadDemo(); });
  EXPECT_TRUE(*model.canGoBack);
  expectPage("http://paused.test/?other", back);
  view.goBack();
  awaitAddress("http://paused.test/");
}

TEST_F(NavigationTest, ByLinksAndNewWindows) {
  browser.sites.pages["http://free.test/links"] = {
      page("<script>open('http://paused.test/links')</script><a href='http://paused.test/links'>")};
  browser.sites.pages["http://paused.test/links"] = {
      page("<a href='http://free.test/' target=_blank>")};
  // Pages open no windows by themselves.
  expectPage("http://free.test/links", loading("http://free.test/links"));
  EXPECT_EQ(browser.sites.timesRequested("http://paused.test/links"), 0);
  expectPage("http://paused.test/links", running("document.querySelector('a').click()"));
  expectPage("http://free.test/", running("document.querySelector('a').click()"));
  expectPage("http://paused.test/", running("open('http://paused.test/')"));
  expectPage("http://free.test/", running("open('http://free.test/')"));
}

TEST_F(NavigationTest, FramesAreFilteredAsTheirPage) {
  for (const bool isFree : {true, false}) {
    const std::string host = isFree ? "free.test" : "paused.test", url = "http://" + host + "/";
    const std::string frame = isFree ? "http://paused.test/frame" : "http://free.test/frame";
    browser.sites.pages[url] = {page("<iframe src='" + frame + "'></iframe>")};
    browser.sites.pages[frame] = {
        "<p class=ad>Ad</p><img src='http://ads.test/in-frame.png'><script>onload = () => "
        "parent.postMessage(getComputedStyle(document.querySelector('p')).display, '*')</script>"};
    awaitPageAfter(browser, loading(url));
    EXPECT_EQ(browser.evaluate("new Promise(done => { onmessage = message => done(message.data);"
                               " document.querySelector('iframe').src += '?' })"),
              isFree ? "none" : "block");
    EXPECT_EQ(browser.sites.timesRequested("http://ads.test/in-frame.png") > 0, !isFree);
    EXPECT_EQ(*model.currentHost, host);
    browser.settle();
    EXPECT_EQ(*model.blockedCount, isFree ? 2 : 0);
  }
}

TEST_F(NavigationTest, BlockedPages) {
  for (const bool isScript : {false, true}) {
    expectPage("http://free.test/", loading("http://free.test/"));
    awaitPageAfter(browser, [&] {
      isScript ? running("location = 'http://blocked.test/'")() : model.go("http://blocked.test/");
    });
    EXPECT_EQ(*model.status, "The URL was blocked by a content blocker");
    // The page before is still there, and this is one more request that it was not given.
    EXPECT_THAT(*model.blockedURLs, ElementsAre("http://ads.test/a.png", "http://blocked.test/"));
    EXPECT_EQ(*model.blockedCount, 2);
    EXPECT_EQ(*model.addressText, "http://free.test/");
    EXPECT_EQ(browser.evaluate("location.href"), "http://free.test/");
    EXPECT_FALSE(canRequestAds());
    // Where filtering is paused, no page is blocked.
    const std::string url = "http://blocked.paused.test/";
    expectPage(url, [&] {
      isScript ? running("location = '" + url + "'")() : model.go(url);
      awaitAddress(url);
    });
  }
}

TEST_F(NavigationTest, FailuresLeaveThePageBefore) {
  for (const std::string url : {"http://free.test/", "http://paused.test/"}) {
    expectPage(url, loading(url));
    for (const bool isBlocked : {false, true}) {
      awaitPageAfter(browser, [&] {
        if (isBlocked) return model.go("http://blocked.test/");
        loading("http://hangs.test/")();
        view.stopLoading();
      });
      EXPECT_EQ(model.status->empty(), !isBlocked);
      EXPECT_EQ(*model.addressText, url);
      EXPECT_EQ(canRequestAds(), url == "http://paused.test/");
    }
    expectPage("http://other.test/", [&] {
      loading("http://hangs.test/")();
      loading("http://other.test/")();
    });
  }
  // Nobody is there to be asked, nor listens any more.
  webkit_network_session_set_proxy_settings(webkit_web_view_get_network_session(browser.webKit()),
                                            WEBKIT_NETWORK_PROXY_MODE_NO_PROXY, nullptr);
  const std::string refusing = test::SiteServer().url();
  awaitPageAfter(browser, [&] { model.go(refusing); });
  EXPECT_NE(*model.status, "");
  EXPECT_EQ(*model.blockedCount, 1);  // of the page that is still shown
  EXPECT_EQ(*model.addressText, "http://other.test/");
}

TEST_F(NavigationTest, ReloadsWhatCrashed) {
  for (const bool isDemo : {false, true}) {
    if (isDemo) awaitPageAfter(browser, [this] { model.loadDemo(); });
    if (!isDemo) expectPage("http://paused.test/", loading("http://paused.test/"));
    browser.evaluate(
        "new Promise(done => (self.worker = new Worker('data:text/javascript,"
        "postMessage(0)')).onmessage = done)");
    killPage();
    runUntil([this] { return !model.status->empty(); });
    EXPECT_EQ(*model.status, "The page crashed. Reload to try again.");
    awaitPageAfter(browser, [this] { view.reload(); });
    EXPECT_EQ(*model.status, "");
    EXPECT_EQ(*model.addressText, isDemo ? "https://example.org/" : "http://paused.test/");
    EXPECT_EQ(browser.evaluate("document.title"), isDemo ? "Tamsel demo page" : "Page");
    EXPECT_EQ(canRequestAds(), !isDemo);
  }
}

struct SlowSiteTest : NavigationTest {
  SlowSiteTest()
      : NavigationTest({.timeout = std::chrono::seconds(1), .moduleFolder = TAMSEL_MODULE_PATH}) {}
};

// The site is the demo page's, for which no process has to start in that time.
TEST_F(SlowSiteTest, DoesNotAnswer) {
  browser.sites.pages["http://example.org/"] = {page()};
  expectPage("http://example.org/", loading("http://example.org/"));
  browser.sites.pages["http://example.org/hangs"] = {.hangs = true};
  awaitPageAfter(browser, loading("http://example.org/hangs"));
  EXPECT_EQ(*model.status, "The site does not answer.");
  EXPECT_EQ(*model.addressText, "http://example.org/");
}

TEST(StarterList, FiltersTheDemoPage) {
  RealBrowser browser{RealBrowser::FirstStart()};
  BrowserModel& model = browser.model();
  runUntil([&model] { return *model.blockedCount == 4 && !*model.isLoading; });
  for (const bool isFiltered : {false, true}) {
    awaitPageAfter(browser, [&] { model.setPausedHere(!isFiltered); });
    EXPECT_EQ(browser.evaluate("[...document.querySelectorAll('div')].map("
                               "box => getComputedStyle(box).display)"),
              isFiltered ? "none,none,none,block" : "block,block,block,block");
    // Secure sites are asked for a connection.
    EXPECT_GT(browser.sites.timesRequested("http://ads.example.com:443/"), 0);
    EXPECT_EQ(browser.sites.timesRequested("http://tracker.example.net:443/") > 0, !isFiltered);
    EXPECT_EQ(*model.blockedCount, isFiltered ? 4 : 0);
    const std::vector<std::string> blocked = {
        "https://ads.example.com/banner.png", "https://ad.doubleclick.net/pixel.gif",
        "https://googletagmanager.com/gtag/js?id=G-DEMO", "https://tracker.example.net/t.js"};
    EXPECT_THAT(*model.blockedURLs,
                UnorderedElementsAreArray(isFiltered ? blocked : std::vector<std::string>()));
    EXPECT_EQ(*model.addressText, "https://example.org/");
  }
}

// WebKit drops, without a word, what it has not begun to load.
TEST_F(NavigationTest, StopsAtOnce) {
  awaitPageAfter(browser, loading("http://free.test/"));
  model.go("http://paused.test/");
  view.stopLoading();
  runUntil([this] { return !view.isLoading(); });
  EXPECT_EQ(*model.currentHost, "free.test");
  EXPECT_FALSE(canRequestAds());
}

// Where a page once moved in the history, links lead on.
TEST_F(NavigationTest, MovesOnlyWhenItMoves) {
  awaitPageAfter(browser, loading("http://free.test/"));
  for (const char* script :
       {"location = 'http://paused.test/'", "history.back()", "location = 'http://paused.test/'",
        "location = 'http://free.test/'"}) {
    awaitPageAfter(browser, running(script));
  }
  EXPECT_TRUE(*model.canGoBack);
}

}  // namespace
}  // namespace tamsel
