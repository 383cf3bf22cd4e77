#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/RealBrowser.h"

namespace tamsel {
namespace {

using test::RealBrowser;
using test::runUntil;
using testing::ElementsAre;
using testing::SizeIs;
using testing::UnorderedElementsAre;

// How a page can request something, each as a function of the address. What is not in the document
// is put at its end.
constexpr const char* kinds = R"js(
  const make = (tag, properties, ...children) => {
    const made = Object.assign(document.createElement(tag), properties);
    made.append(...children);
    return document.documentElement.appendChild(made);
  };
  const svg = (tag, attribute, url) => {
    const made = document.createElementNS('http://www.w3.org/2000/svg', tag);
    made.setAttribute(attribute, url);
    const root = document.createElementNS('http://www.w3.org/2000/svg', 'svg');
    root.append(made);
    document.documentElement.append(root);
  };
  const style = text => make('style', {}, text);
  const styled = (property, url) => { make('p', {}, 'x').style[property] = `url(${url})`; };
  const run = text => make('script', {}, text);
  const module = text => make('script', { type: 'module' }, text);
  const worker = text => new Worker(URL.createObjectURL(new Blob([text])));
  const absolute = url => new URL(url, location).href;
  const kinds = {
    // While it waits, the answers for frames keep all connections: so it is first, and only here.
    'xhr-synchronous': url => {
      if (window !== top) return;
      const xhr = new XMLHttpRequest();
      xhr.open('GET', url, false);
      xhr.send();
    },
    'img.svg': src => make('img', { src }),
    'srcset.svg': srcset => make('img', { srcset }),
    'picture.svg': srcset => make('picture', {}, make('source', { srcset }), make('img')),
    'input.svg': src => make('input', { type: 'image', src }),
    'poster.svg': poster => make('video', { poster }),
    'svg-image.svg': url => svg('image', 'href', url),
    'svg-use.svg': url => svg('use', 'href', url + '#part'),
    'background.svg': url => styled('backgroundImage', url),
    'border.svg': url => styled('borderImageSource', url),
    'mask.svg': url => styled('maskImage', url),
    'font.woff': url => (style(`@font-face { font-family: f; src: url(${url}); }`),
                         styled('fontFamily', ''), make('p', { style: 'font-family: f' }, 'x')),
    'import.css': url => style(`@import '${url}';`),
    'link.css': href => make('link', { rel: 'stylesheet', href }),
    'preload.svg': href => make('link', { rel: 'preload', as: 'image', href }),
    'script.js': src => make('script', { src }),
    'module.js': src => make('script', { type: 'module', src }),
    'dynamic.js': url => module(`import('${absolute(url)}').catch(() => 0)`),
    'iframe.html': src => make('iframe', { src }),
    'object.html': data => make('object', { data }),
    'embed.html': src => make('embed', { src }),
    'form.html': action => {
      const name = 'frame' + action;
      make('iframe', { name });
      make('form', { action, method: 'post', target: name }).submit();
    },
    'video.webm': src => make('video', { preload: 'auto', src }),
    'audio.ogg': src => make('audio', { preload: 'auto', src }),
    'source.webm': src => make('video', { preload: 'auto' }, make('source', { src })),
    'fetch': url => fetch(url),
    'fetch-request': url => fetch(new Request(url)),
    'fetch-url': url => fetch(new URL(url, location)),
    'xhr': url => { const xhr = new XMLHttpRequest(); xhr.open('GET', url); xhr.send(); },
    'beacon': url => navigator.sendBeacon(url),
    'events': url => new EventSource(url),
    'worker-fetch': url => worker(`fetch('${absolute(url)}')`),
    'worker-import.js': url => worker(`importScripts('${absolute(url)}')`),
  };
)js";

// The document asks in each way for something that is blocked, something that is not there, and
// something that is, in this order; or for what is in the folders of these names on the sites.
std::string pageOfKinds(const std::string& context, const std::string& more = {},
                        const std::string& sites =
                            "{ blocked: 'http://other.test', "
                            "missing: 'http://other.test', "
                            "allowed: 'http://other.test' }") {
  return "<!DOCTYPE html><title>Page</title><body><script>" + std::string(kinds) + R"js(
    for (const [kind, request] of Object.entries(kinds)) {
      for (const [what, other] of Object.entries()js" +
         sites + R"js()) {
        try {
          // Of another site: frames of the page's own are not blocked.
          const site = kind === 'svg-use.svg' ? '' : other;
          Promise.resolve(request(`${site}/${what}/)js" +
         context + R"js(/${kind}`)).catch(() => 0);
        } catch {}
      }
    }
  </script>)js" +
         more;
}

class BlockedRequestsTest : public testing::Test {
 protected:
  explicit BlockedRequestsTest(const WebKitView::Options& options = RealBrowser::plain())
      : browser("/blocked/\n||ads.test^\n", options) {
    browser.sites.others = [](const std::string& url) { return answer(url); };
  }

  static test::SiteServer::Answer answer(const std::string& url) {
    const auto isOf = [&url](const char* part) { return url.find(part) != std::string::npos; };
    if (isOf("/missing/")) return {.status = SOUP_STATUS_NOT_FOUND};
    if (isOf(".svg")) {
      return {"<svg xmlns='http://www.w3.org/2000/svg'><g id='part'/></svg>", "image/svg+xml"};
    }
    if (isOf(".css")) return {"p {}", "text/css"};
    if (isOf(".js")) return {"0;", "text/javascript"};
    // As much as is asked for in parts.
    if (isOf(".webm") || isOf(".ogg")) return {std::string(100000, ' '), "video/webm"};
    return {"fine"};
  }

  void show(const std::string& body, const std::string& url = "http://page.test/") {
    browser.sites.pages[url] = {body};
    browser.sites.requests.clear();
    browser.open(url);
  }
  // All that the server was asked for with this in the path.
  std::set<std::string> requested(const std::string& part) const {
    std::set<std::string> found;
    for (const std::string& url : browser.sites.requests) {
      if (url.find(part) != std::string::npos) found.insert(url);
    }
    return found;
  }
  std::set<std::string> blocked() const {
    EXPECT_EQ(*model.blockedCount, model.blockedURLs->size());
    return {model.blockedURLs->begin(), model.blockedURLs->end()};
  }
  void evaluate(const std::string& script) {
    browser.evaluate(script);
    browser.settle();
  }

  RealBrowser browser;
  BrowserModel& model = browser.model();
};

// In the page, in a frame of its site, in one with an origin of its own, and in one without an
// address.
TEST_F(BlockedRequestsTest, OfEveryKindCountOnce) {
  std::string inner = pageOfKinds("text");
  std::string escaped;
  for (const char c : inner)
    escaped += c == '"' ? "&quot;" : c == '&' ? "&amp;" : std::string(1, c);
  browser.sites.pages["http://page.test/frame"] = {pageOfKinds("frame")};
  browser.sites.pages["http://page.test/sandbox"] = {pageOfKinds("sandbox")};
  show(pageOfKinds("page",
                   "<iframe src=/frame></iframe>"
                   "<iframe src=/sandbox sandbox='allow-scripts allow-forms'></iframe>"
                   "<iframe srcdoc=\"" +
                       escaped + "\"></iframe>"));
  // The 33 of each; those of a sandbox, which may not read what its own site sends, too.
  // A `use` of another file is never allowed in a sandbox, and one kind is only in the page.
  runUntil([this] { return requested("/allowed/").size() == 4 * 33 - 1 - 3; });
  browser.settle();

  std::set<std::string> expected;
  for (std::string url : requested("/allowed/")) {
    expected.insert(url.replace(url.find("/allowed/"), 9, "/blocked/"));
  }
  EXPECT_EQ(blocked(), expected);
  EXPECT_THAT(requested("/blocked/"), SizeIs(0));
}

// Addresses that hide their host do not go out to another site, whatever the lists say.
TEST_F(BlockedRequestsTest, GuardHidesNoHost) {
  const std::string sites =
      "{ dotted: 'http://other.test.', dottedPort: 'http://other.test.:8080', "
      "named: 'http://x:y@ads.test', allowed: 'http://other.test' }";
  browser.sites.pages["http://page.test/frame"] = {pageOfKinds("frame", {}, sites)};
  show(pageOfKinds("page", "<iframe src=/frame></iframe>", sites));
  runUntil([this] { return requested("/allowed/").size() == 2 * 33 - 1; });
  browser.settle();
  std::set<std::string> expected;
  for (const std::string& url : requested("//other.test/allowed/")) {
    const std::string rest = url.substr(url.find("/allowed/") + 9);
    expected.insert("http://other.test./dotted/" + rest);
    expected.insert("http://other.test.:8080/dottedPort/" + rest);
  }
  // What scripts ask for across sites loses its user name before anybody looks.
  std::set<std::string> dotted = blocked();
  const std::size_t named = std::erase_if(
      dotted, [](const std::string& url) { return url.find("/named/") != std::string::npos; });
  EXPECT_GT(named, 2 * 20);
  EXPECT_EQ(dotted, expected);
  for (const char* hidden : {"//other.test./", "/named/"}) {
    std::set<std::string> found = requested(hidden);
    std::erase_if(found, [](const std::string& url) {
      return url.find("/svg-use.svg") != std::string::npos;  // of the page's own site
    });
    EXPECT_THAT(found, SizeIs(0));
  }
  const auto verdict =
      browser.app().engine()->evaluate("http://x@other.test/", "http://page.test/", "image");
  ASSERT_TRUE(verdict.block);
  EXPECT_EQ(verdict.block->source, "The address hides its host behind a user name.");

  // Not on a paused site, nor in what a person opens.
  model.setPausedHere(true);
  browser.awaitPage();
  browser.sites.requests.clear();
  evaluate("fetch('http://other.test./x').catch(() => 0)");
  EXPECT_THAT(requested("//other.test./x"), SizeIs(1));
  model.setPausedHere(false);
  browser.awaitPage();
  for (const std::string url : {"http://x:y@other.test/", "http://other.test./"}) {
    browser.open(url);
    EXPECT_EQ(browser.evaluate("document.body.textContent"), "fine") << url;
  }
}

// WebKit asks for the address in the end; the page knows only the first.
TEST_F(BlockedRequestsTest, BehindRedirectionsCountAsThemselves) {
  browser.sites.others = [](const std::string& url) {
    const auto at = url.find("/to/");
    if (at == std::string::npos) return answer(url);
    return test::SiteServer::Answer{.redirect = "http://ads.test/" + url.substr(at + 4)};
  };
  show(R"(<img src='/to/img'><p style='background: url(/to/background)'>x</p>
    <script src='/to/script'></script><link rel=stylesheet href='/to/style'>
    <iframe src='http://other.test/to/frame'></iframe>
    <script>var done = Promise.allSettled([fetch('/to/fetch'), new Promise(onloadend => {
      const xhr = Object.assign(new XMLHttpRequest(), { onloadend });
      xhr.open('GET', '/to/xhr');
      xhr.send();
    })]);</script>)");
  evaluate("done");
  EXPECT_THAT(blocked(), UnorderedElementsAre("http://ads.test/img", "http://ads.test/background",
                                              "http://ads.test/script", "http://ads.test/style",
                                              "http://ads.test/frame", "http://ads.test/fetch",
                                              "http://ads.test/xhr"));
  EXPECT_THAT(requested("//ads.test/"), SizeIs(0));
}

TEST_F(BlockedRequestsTest, CountOnceForAnAddress) {
  show(
      R"(<link rel=preload as=script href=//ads.test/used.js><script src=//ads.test/used.js></script>
    <img src=//ads.test/a.png><img src=//ads.test/a.png#part><img src=//ads.test/a.png?b>
    <iframe src=//ads.test/a.png></iframe>)");
  evaluate("fetch('http://ads.test/a.png#other').catch(() => 0)");
  evaluate("new WebSocket('ws://ads.test/socket') && 0");
  EXPECT_THAT(blocked(), UnorderedElementsAre("http://ads.test/used.js", "http://ads.test/a.png",
                                              "http://ads.test/a.png?b", "ws://ads.test/socket"));
  // The list is full some time, the count is not, and no address is too long to be counted.
  show("");
  evaluate(
      "Promise.all(Array.from({ length: 301 }, (_, i) => "
      "fetch('http://ads.test/' + i).catch(() => 0)))");
  EXPECT_EQ(*model.blockedCount, 301);
  EXPECT_THAT(*model.blockedURLs, SizeIs(300));
  show("");
  evaluate(
      "Promise.all(['a', 'b'].map(end => "
      "fetch('http://ads.test/' + 'x'.repeat(1e6) + end).catch(() => 0)))");
  EXPECT_EQ(*model.blockedCount, 2);
  EXPECT_THAT(*model.blockedURLs, testing::Each(SizeIs(BrowserModel::keptURLLength + 3)));
}

// What the page's own script would report here as blocked was not.
TEST_F(BlockedRequestsTest, AreNotWhatFailsForOtherReasons) {
  browser.app().customRules = "||style.test^$stylesheet\n||raw.test^$xmlhttprequest\n";
  browser.app().rebuild();
  runUntil([this] { return !*browser.app().isCompiling; });
  browser.sites.others = [](const std::string&) {
    return test::SiteServer::Answer{.status = SOUP_STATUS_NOT_FOUND};
  };
  show(
      "<link rel=preload as=image href=http://style.test/><input type=image "
      "src=http://raw.test/><link rel=stylesheet href=http://style.test/style.css>");
  runUntil(
      [this] { return requested("//style.test/").size() + requested("//raw.test/").size() == 2; });
  browser.settle();
  EXPECT_THAT(blocked(), ElementsAre("http://style.test/style.css"));
}

// Pages say what WebKit says, and reach nothing that the program listens to.
TEST_F(BlockedRequestsTest, CannotBeMadeUp) {
  show(R"js(<script>
    const notice = 'Content blocker prevented frame displaying http://page.test/ from loading a '
        + 'resource from http://ads.test/';
    for (const say of ['log', 'info', 'warn', 'error', 'debug', 'trace', 'assert'])
      console[say](notice + 'made-up');
    setTimeout(() => { throw notice + 'thrown'; }, 0);
    Promise.reject(notice + 'rejected');
    for (const name of ['tmBlocked', 'tamsel-channel', 'tamsel-channel-wanted', 'blocked'])
      dispatchEvent(new CustomEvent(name, { detail: 'img http://ads.test/' + name }));
    var done = Promise.all([self.webkit && webkit.messageHandlers &&
        webkit.messageHandlers.tmBlocked, new Promise(end => setTimeout(end, 0))]).then(String);
    document.write(`<iframe src="data:text/html,<img src='http://ads.test/in-data'>${notice}data">`);
  </script>)js");
  EXPECT_EQ(browser.evaluate("done"), ",");
  browser.settle();
  EXPECT_THAT(blocked(), ElementsAre("http://ads.test/in-data"));
}

// Whatever a page does to what it can reach.
TEST_F(BlockedRequestsTest, CannotBeHidden) {
  show(R"(<script>
    for (const type of [EventTarget, Promise, Array, Function, Object, String, Event]) {
      for (const key of Object.getOwnPropertyNames(type.prototype)) {
        if (key !== 'constructor') try { type.prototype[key] = undefined; } catch {}
      }
    }
    console.info = console.log = undefined;
    document.open(); document.write('<img src=http://ads.test/written>'); document.close();
    new Image().src = 'http://ads.test/detached';
  </script>)");
  browser.settle();
  runUntil([this] { return *model.blockedCount >= 2; });
  EXPECT_THAT(blocked(),
              UnorderedElementsAre("http://ads.test/written", "http://ads.test/detached"));
}

TEST_F(BlockedRequestsTest, BelongToThePageThatIsShown) {
  const std::string ad = "<img src=http://ads.test/";
  browser.sites.pages["http://page.test/other"] = {ad + "other>"};
  browser.sites.pages["http://far.test/"] = {ad + "far>"};
  show(ad + "first>");
  EXPECT_THAT(blocked(), ElementsAre("http://ads.test/first"));
  // Thousands are on their way when the page goes, or its process.
  const auto floodAnd = [this](const std::string& more) {
    browser.evaluate(
        "(setTimeout(() => { for (let i = 0; i < 2000; ++i) fetch("
        "'http://ads.test/' + i).catch(() => 0);" +
        more + "}, 0), 0)");
  };
  for (const std::string url : {"http://page.test/other", "http://far.test/"}) {
    const std::string name = url == "http://far.test/" ? "far" : "other";
    floodAnd("location = '" + url + "'");
    runUntil([&] { return *model.addressText == url; });
    browser.awaitPage();
    EXPECT_THAT(blocked(), ElementsAre("http://ads.test/" + name));
    show(ad + "first>");
  }
  floodAnd("");
  webkit_web_view_terminate_web_process(browser.webKit());
  show(ad + "first>");
  EXPECT_THAT(blocked(), ElementsAre("http://ads.test/first"));
}

}  // namespace
}  // namespace tamsel
