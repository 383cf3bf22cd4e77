#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "browser/ReportingScript.h"
#include "tests/support/RealBrowser.h"

namespace tamsel {
namespace {

using testing::ElementsAre;
using testing::SizeIs;
using testing::UnorderedElementsAre;

// Each host only for one way of loading, so that a report as another type comes to nothing.
constexpr const char* rules =
    "||image.test^$image\n||script.test^$script\n||style.test^$stylesheet\n||media.test^$media\n"
    "||raw.test^$xmlhttprequest\n||frame.test^$subdocument\n/adpath/$xmlhttprequest\n"
    "@@||image.test/ok^\n/end.gif|\n";

// What the pages here are made with; a page is done when `done` is.
constexpr const char* tools = R"(<!DOCTYPE html><title>Page</title><script>var done;
  const element = (tag, src, parent = document.documentElement) => new Promise(end => {
    const made = Object.assign(document.createElement(tag), { src });
    made.onload = made.onerror = () => end(tag);
    parent.append(made);
  });
  const request = (...urls) => new Promise(end => {
    const xhr = new XMLHttpRequest();
    for (const url of urls) xhr.open('GET', url);
    xhr.onloadend = () => end(xhr.status === 200 ? xhr.responseText : 'failed');
    xhr.send();
  });
  const got = async promise => {
    try { return await (await promise).text(); } catch (error) { return error.name; }
  };
  const thrown = call => {
    try { return call(new XMLHttpRequest()); } catch (error) { return error.name; }
  };
  const unhandled = make => new Promise(end => {
    onunhandledrejection = event => end(event.promise === promise && event.reason.name);
    const promise = make();
  });
  const requestAll = async interfere => {
    const { then } = Promise.prototype;
    const ask = interfere(() => { throw new Error('none'); }) || (url => fetch(url));
    const made = [got(ask('http://raw.test/fetch')), request('http://raw.test/xhr'),
                  element('img', 'http://image.test/'), got(ask('/data')), request('/data')];
    // At once: WebKit itself needs it to answer a script of the test's.
    Promise.prototype.then = then;
    return (await Promise.all(made)).join(' ');
  };
</script>)";

// Without the module that tells what WebKit has blocked.
class ReportingTest : public testing::Test {
 protected:
  ReportingTest() : browser(rules, {.moduleFolder = ""}) {
    browser.sites.pages["http://page.test/data"] = {.body = "fine"};
    show("");
  }

  std::string evaluate(const std::string& expression) {
    std::string result = browser.evaluate(expression);
    browser.settle();
    return result;
  }
  // What `done` comes to on a page with this in it.
  std::string show(const std::string& body, const std::string& policy = "") {
    browser.sites.pages["http://page.test/"] = {.body = tools + body,
                                                .headers = {{"Content-Security-Policy", policy}}};
    browser.sites.requests.clear();
    browser.open("http://page.test/");
    return evaluate("done");
  }
  const std::vector<std::string>& blocked() {
    EXPECT_EQ(*browser.model().blockedCount, browser.model().blockedURLs->size());
    return *browser.model().blockedURLs;
  }

  test::RealBrowser browser;
};

TEST_F(ReportingTest, CountsWhatIsBlockedByItsTypeAndNothingElse) {
  browser.sites.pages["http://inner.test/"] = {
      .body = "<script src=//script.test/inner></script><iframe src=//inmost.test></iframe>"};
  browser.sites.pages["http://inmost.test/"] = {.body = "<img src=//image.test/inmost>"};
  show(R"(<img src=http://image.test/img><img src=http://image.test/img>
    <img srcset='http://image.test/srcset 1x'><script src=http://script.test/script></script>
    <link rel=stylesheet href=http://style.test/link><iframe src=http://frame.test/></iframe>
    <iframe src=http://inner.test/></iframe><video id=media></video><script>done = Promise.all([
      element('video', 'http://media.test/video'), element('audio', 'http://media.test/audio'),
      element('source', 'http://media.test/source', media), got(fetch('http://raw.test/fetch')),
      got(fetch(new Request('http://raw.test/request'))), got(fetch('adpath/fetch')),
      got(fetch(new URL('http://raw.test/not-reported'))), request('http://raw.test/xhr'),
      request('adpath/xhr'), request('http://raw.test/not-sent', 'http://raw.test/sent'),
      // What is allowed, and fails for other reasons.
      element('img', 'http://image.test/ok/'), element('img', 'http://other.test/missing'),
      element('script', '/missing'), element('video', '/missing'),
      got(fetch('http://other.test/refused')), request('http://other.test/refused'),
    ])</script>)");
  EXPECT_THAT(
      blocked(),
      UnorderedElementsAre(
          "http://image.test/img", "http://image.test/srcset", "http://image.test/inmost",
          "http://script.test/script", "http://script.test/inner", "http://style.test/link",
          "http://media.test/video", "http://media.test/audio", "http://media.test/source",
          "http://raw.test/fetch", "http://page.test/adpath/fetch", "http://raw.test/request",
          "http://raw.test/xhr", "http://page.test/adpath/xhr", "http://raw.test/sent"));
  EXPECT_THAT(browser.sites.requests,
              testing::Each(testing::ContainsRegex("//(page|in.*|other).test/[a-z]*$|/ok/$")));
  EXPECT_EQ(browser.sites.timesRequested("http://image.test/ok/"), 1);
}

TEST_F(ReportingTest, CountsOnPagesThatInterfere) {
  // NOLINTBEGIN(bugprone-suspicious-missing-comma)
  const std::vector<std::string> interferences = {
      "const own = fetch; fetch = function () { return own.apply(this, arguments); }",
      "const own = fetch; fetch = (...input) => own(new Request(...input))",
      "const own = fetch; fetch = fails; return own",
      "x = XMLHttpRequest.prototype; o = x.open; x.open = function (...i) { o.apply(this, i) }",
      "webkit = null; delete window.webkit",
      "CustomEvent = Event = dispatchEvent = EventTarget.prototype.dispatchEvent = fails",
      "for (const key of ['bubbles', 'cancelable', 'composed', 'detail'])"
      "  Object.defineProperty(Object.prototype, key, { get: fails, configurable: true })",
      "addEventListener('tamsel-channel', fails); dispatchEvent(new "
      "Event('tamsel-channel-wanted'))",
      "Promise.prototype.then = EventTarget.prototype.addEventListener = fails",
      "String = text => /^http/.test(text) ? 'other' : text;"
      "URL = WeakMap = WeakMap.prototype.get = WeakMap.prototype.set = fails",
      "Object.defineProperty(URL.prototype, 'href', { get: fails })",
      "Reflect.apply = Function.prototype.apply = Function.prototype.call = fails",
      "Object.prototype.url = Object.prototype.type = 'x'",
      "onerror = fails; addEventListener('error', e => {"
      "  e.stopImmediatePropagation(e.target.onerror()); }, true)",
      "[XMLHttpRequest.prototype, Event.prototype, window.document].map(Object.freeze)",
  };
  // NOLINTEND(bugprone-suspicious-missing-comma)
  // Each on a page of its own, before this page requests something in every way.
  for (const std::string& body : interferences) {
    SCOPED_TRACE(body);
    EXPECT_EQ(show("<script>done = requestAll(fails => {" + body + "})</script>"),
              "TypeError failed img fine fine");
    EXPECT_THAT(blocked(), UnorderedElementsAre("http://image.test/", "http://raw.test/fetch",
                                                "http://raw.test/xhr"));
  }
}

TEST_F(ReportingTest, CountsWherePagesMayRunNoScript) {
  for (const char* policy : {"script-src 'none'", "default-src 'self'"}) {
    show("<img src=http://image.test/>", policy);
    EXPECT_EQ(evaluate("typeof done"), "undefined") << policy;
    EXPECT_THAT(blocked(), ElementsAre("http://image.test/")) << policy;
  }
}

// Of a relative URL the base counts, of a fragment nothing.
TEST_F(ReportingTest, CountsWhatIsOutOfTheOrdinary) {
  for (const char* page : {"<img src=/end.gif#fragment>",
                           "<base href=/adpath/><script>done = got(fetch('x'))</script>",
                           "<base href=/adpath/><script>done = request('x')</script>",
                           "<iframe srcdoc='<script>parent.done = "
                           "fetch(`/adpath/`).catch(Object)</script>'></iframe>"}) {
    show(page);
    EXPECT_THAT(blocked(), SizeIs(1)) << page;
  }
}

TEST_F(ReportingTest, LeavesPagesWhatTheySee) {
  EXPECT_EQ(evaluate("unhandled(() => fetch('http://raw.test/'))"), "TypeError");
  // What is handled raises nothing before.
  EXPECT_EQ(evaluate("unhandled(() => fetch('//raw.test/').catch(() => x))"), "ReferenceError");
  EXPECT_EQ(evaluate("Promise.all([fetch('/data'), fetch(new Request('/data')), fetch(),"
                     "  fetch(new URL('/data', location)), fetch({ toString: () => '/data' }),"
                     "  fetch('http://['), fetch.call({}, '/data'),"
                     "  fetch('/data', { signal: AbortSignal.abort() })].map(got))"),
            "fine,fine,TypeError,fine,fine,TypeError,TypeError,AbortError");
  EXPECT_EQ(evaluate("[x => x.open(), x => x.open('GET'), x => x.open('GET', Symbol()),"
                     "  x => x.open('GET', { toString() { throw new RangeError(); } }),"
                     "  x => x.open.call({}, 'GET', '/'), x => x.open('GET', 'http://['),"
                     "  x => x.open('B D', '/'), x => x.open('TRACE', '/'),"
                     "  x => x.open('GET', 'http://raw.test/', false) || x.send()].map(thrown)"),
            "TypeError,TypeError,TypeError,RangeError,TypeError,SyntaxError,SyntaxError,"
            "SecurityError,NetworkError");
  EXPECT_EQ(evaluate("[fetch.length, XMLHttpRequest.prototype.open.length]"), "1,2");
  // Installed again, it changes nothing.
  evaluate("own = [fetch, XMLHttpRequest.prototype.open]");
  evaluate("(() => {" + std::string(Reporting::pageScript) + "})()");
  EXPECT_EQ(evaluate("own[0] === fetch && own[1] === XMLHttpRequest.prototype.open"), "true");
}

TEST_F(ReportingTest, LeavesNoTrace) {
  EXPECT_EQ(evaluate("(i => thrown(x => x.open('GET', { toString: () => ++i })) || i)(0)"), "1");
  EXPECT_EQ(evaluate("[fetch, XMLHttpRequest.prototype.open].some(f => f.prototype)"), "false");
  EXPECT_EQ(evaluate("Object.keys(window).filter(name => /^__/.test(name)).length"), "0");
}

// What posts runs in a world of the program's own, but what it posts comes from pages.
TEST_F(ReportingTest, TakesMessagesOfOneShape) {
  EXPECT_EQ(browser.evaluate(R"((() => {
      const url = 'http://raw.test/', type = 'xhr';
      return [
        7, url, null, [url, type], {}, { type }, { url }, Object.assign([], { url, type }),
        { url, type: 7 }, { url: { url }, type }, { url: '\ud800', type: '' }, { url, type },
        { url: url + '#part', type },
      ].map(message => webkit.messageHandlers.tmBlocked.postMessage(message)).length; })())",
                             WebProcess::world),
            "13");
  browser.settle();
  EXPECT_THAT(blocked(), ElementsAre("http://raw.test/"));
}

TEST_F(ReportingTest, LetsManyReportsWaitInThePage) {
  evaluate("Promise.all([...Array(301)].map((_, i) => element('img', 'http://image.test/' + i)))");
  test::runUntil([this] { return *browser.model().blockedCount == 301; });
  EXPECT_THAT(*browser.model().blockedURLs, SizeIs(300));
}

TEST_F(ReportingTest, CountsNothingOnPausedHosts) {
  for (const bool isPaused : {true, false}) {
    browser.app().setPaused("page.test", isPaused);
    show("<img src=http://image.test/>");
    EXPECT_THAT(blocked(), SizeIs(isPaused ? 0 : 1));
    EXPECT_EQ(browser.sites.timesRequested("http://image.test/"), isPaused ? 1 : 0);
  }
}

}  // namespace
}  // namespace tamsel
