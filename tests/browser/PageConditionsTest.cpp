#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/RealBrowser.h"

// Which page a page is, and which host an address leads to, are told by nobody but the real ones:
// WebKit, the engine and the plain truth agree.
namespace tamsel {
namespace {

using test::RealBrowser;

// Under each condition a block rule, an exception and element hiding.
constexpr const char* rules =
    "/in-block?$domain=good.test\n/not-block?$domain=~good.test\n"
    "/in-allow?\n@@/in-allow?$domain=good.test\n/not-allow?\n@@/not-allow?$domain=~good.test\n"
    "good.test##.in-hide\n~good.test##.not-hide\n";

constexpr const char* page = R"(<!DOCTYPE html><title>Page</title>
  <p class=in-hide>x</p><p class=not-hide>x</p><script>
  const names = ['in-block', 'not-block', 'in-allow', 'not-allow'];
  const ask = async () => (await Promise.all(names.map(
    name => fetch(`http://other.test/${name}?`).then(() => name + ' ', () => ' ')))).join('');
  const hidden = () => ['in-hide', 'not-hide'].filter(
    name => getComputedStyle(document.querySelector('.' + name)).display === 'none').join(' ');
</script>)";

class PageConditionsTest : public testing::Test {
 protected:
  PageConditionsTest() {
    browser.sites.others = [](const std::string& url) {
      return test::SiteServer::Answer{url.find("other.test") == std::string::npos ? page : "fine"};
    };
  }

  // What is allowed and what is hidden, by WebKit, which must agree with the engine.
  std::string effects() {
    const std::string allowed = browser.evaluate("ask()");
    std::string byEngine;
    for (const std::string name : {"in-block", "not-block", "in-allow", "not-allow"}) {
      const auto verdict = browser.app().engine()->evaluate("http://other.test/" + name + "?",
                                                            browser.model().webView->url(), "raw");
      const bool isAllowed = !verdict.block || verdict.exception;
      byEngine += (isAllowed ? name : "") + " ";
    }
    EXPECT_EQ(allowed, byEngine) << browser.model().webView->url();
    return allowed + ", " + browser.evaluate("hidden()");
  }
  static std::string effectsOn(bool isGood) {
    return isGood ? " not-block in-allow  , in-hide" : "in-block   not-allow , not-hide";
  }

  RealBrowser browser{rules};
};

TEST_F(PageConditionsTest, NoPageIsAnother) {
  // As they are typed, and whether they lead to good.test or below.
  const std::pair<std::string, bool> hosts[] = {
      {"good.test", true},
      {"sub.good.test", true},
      {"GOOD.test", true},
      {"good.test:8080", true},
      {"good.test.", true},
      {"good.test.:8080", true},
      {"user:pw@good.test", true},
      {"evil.test@sub.good.test", true},
      {"notgood.test", false},
      {"good.test.evil.test", false},
      {"good.test-evil.test", false},
      {"good-test.evil.test", false},
      {"xn--gd-fka.test", false},
      {"evil.test", false},
      {"evil.test.", false},
      {"good.test:x@evil.test", false},
      {"good.test:80@evil.test", false},
      {"good.test.@evil.test:8080", false},
  };
  for (const auto& [host, isGood] : hosts) {
    for (const char* rest : {"/", "/?x=http://good.test/", "/#http://good.test/",
                             "/http://good.test/", "/x.good.test/", "/?.good.test/@good.test/"}) {
      browser.open("http://" + host + rest);
      EXPECT_EQ(effects(), effectsOn(isGood)) << host << rest;
    }
  }
}

TEST_F(PageConditionsTest, NoPageBecomesAnother) {
  browser.open("http://evil.test/");
  for (const char* script :
       {"location.hash = 'http://good.test/'", "history.pushState(0, '', '/?http://good.test/')",
        "history.replaceState(0, '', '/#http://x@good.test/')"}) {
    browser.evaluate(script);
    EXPECT_EQ(effects(), effectsOn(false)) << script;
  }
}

// What stays open, as docs/hardened.md has it.
TEST_F(PageConditionsTest, PathsAreNotDecoded) {
  browser.open("http://evil.test/");
  EXPECT_EQ(browser.evaluate("fetch('http://other.test/%69n-allow?').then(() => 'out', String)"),
            "out");
}

// Host rules on their own site, where an address may hide its host.
TEST_F(PageConditionsTest, HostsOfOnesOwnSiteAreSeen) {
  browser.app().customRules = "||ads.own.test^\n/all?\n@@||good.own.test^";
  browser.app().rebuild();
  test::runUntil([this] { return !*browser.app().isCompiling; });
  browser.open("http://own.test/");
  const std::pair<std::string, bool> addresses[] = {
      {"http://ads.own.test/", false},
      {"http://x.ads.own.test/", false},
      {"http://x@ads.own.test/", false},
      {"http://x:y@ads.own.test/", false},
      {"http://x.@ads.own.test/", false},
      {"http://ads.own.test:8080/", false},
      {"http://badads.own.test/", true},
      {"http://x@own.test/", true},
      {"http://good.own.test/all?", true},
      {"http://x@good.own.test/all?", true},
      {"http://good.own.test:80@own.test/all?", false},
      {"http://good.own.test:x@own.test/all?", false},
      {"http://good.own.test:8080/all?", true},
  };
  for (const auto& [url, isAllowed] : addresses) {
    browser.sites.requests.clear();
    browser.evaluate(
        "new Promise(end => Object.assign(new Image(), { onload: end, onerror: end, "
        "src: '" +
        url + "' }))");
    EXPECT_EQ(!browser.sites.requests.empty(), isAllowed) << url;
    const auto verdict = browser.app().engine()->evaluate(url, "http://own.test/", "image");
    EXPECT_EQ(!verdict.block || verdict.exception, isAllowed) << url;
  }
}

}  // namespace
}  // namespace tamsel
