#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/RealBrowser.h"

namespace tamsel {
namespace {

using test::RealBrowser;
using test::runUntil;
using testing::ElementsAre;

constexpr const char* hostile = "http://hostile.test/";
constexpr const char* other = "http://other.test/";

// The first widget below this one that passes; null if there is none.
GtkWidget* findWidget(GtkWidget* widget, const std::function<bool(GtkWidget*)>& isIt) {
  if (isIt(widget)) return widget;
  for (GtkWidget* child = gtk_widget_get_first_child(widget); child != nullptr;
       child = gtk_widget_get_next_sibling(child)) {
    if (GtkWidget* found = findWidget(child, isIt)) return found;
  }
  return nullptr;
}

class LeavingTest : public testing::Test {
 protected:
  explicit LeavingTest(const WebKitView::Options& options = RealBrowser::plain())
      : browser("||ads.test^\n", options) {
    browser.sites.pages[other] = {"<title>Other</title>"};
  }

  // The hostile page, as soon as its script runs; before it another, to go back to.
  void show(const std::string& script, const std::string& more = {}) {
    browser.sites.pages[hostile] = {"<title>Hostile</title><img src=http://ads.test/a.png>" + more +
                                    "<script>onload = () => { fetch('/runs'); " + script +
                                    "}</script>"};
    browser.sites.pages["http://hostile.test/runs"] = {"yes"};
    browser.open(other);
    browser.sites.requests.clear();
    model.go(hostile);
    runUntil([this] { return browser.sites.timesRequested("http://hostile.test/runs") > 0; });
  }
  void awaitPage(const std::string& url) {
    runUntil([&] { return *model.addressText == url && !*model.isLoading && !view.isLoading(); });
  }
  GtkWidget* button(const std::string& label) {
    return findWidget(view.widget(), [&](GtkWidget* widget) {
      return GTK_IS_BUTTON(widget) && gtk_button_get_label(GTK_BUTTON(widget)) != nullptr &&
             gtk_button_get_label(GTK_BUTTON(widget)) == label;
    });
  }
  GtkWidget* awaitButton(const std::string& label) {
    runUntil([&] { return button(label) != nullptr; });
    return button(label);
  }
  void press(const std::string& label) { g_signal_emit_by_name(awaitButton(label), "clicked"); }
  std::vector<std::string> texts() {
    std::vector<std::string> found;
    (void)findWidget(view.widget(), [&](GtkWidget* widget) {
      if (GTK_IS_LABEL(widget)) found.emplace_back(gtk_label_get_text(GTK_LABEL(widget)));
      return false;
    });
    return found;
  }
  // Does not wait for it: it may ask something.
  void run(const std::string& script) {
    webkit_web_view_evaluate_javascript(browser.webKit(), script.c_str(), -1, nullptr, nullptr,
                                        nullptr, nullptr, nullptr);
  }

  RealBrowser browser;
  BrowserModel& model = browser.model();
  WebView& view = *model.webView;
};

// Every way out of pages that never end what they do.
TEST_F(LeavingTest, WorksWhateverThePageDoes) {
  for (const std::string body : {"for (;;);", "for (;;) alert('again');",
                                 "setInterval(() => { location = '/?' + Math.random(); }, 0);"}) {
    SCOPED_TRACE(body);
    const auto leave = [&](const std::string& url, const std::function<void()>& way) {
      show(body);
      way();
      awaitPage(url);
      EXPECT_EQ(*model.status, "");
    };
    leave("http://other.test/?", [this] { model.go("http://other.test/?"); });
    leave("https://example.org/", [this] { model.loadDemo(); });
    // A page that goes on and on has itself before it in the history.
    if (!body.starts_with("set")) leave(other, [this] { view.goBack(); });
  }
}

TEST_F(LeavingTest, EndsPagesThatDoNotStop) {
  show("for (;;);");
  view.stopLoading();
  runUntil([this] { return !model.status->empty(); });
  EXPECT_EQ(*model.status, "The page did not stop and was closed. Reload to try again.");
  EXPECT_FALSE(*model.isLoading);
  browser.sites.pages[hostile] = {"<title>Better</title>"};
  view.reload();
  awaitPage(hostile);
  EXPECT_EQ(browser.evaluate("document.title"), "Better");
}

TEST_F(LeavingTest, AsksOneThingAtATimeAndTakesTheAnswer) {
  browser.open(other);
  run("window.answers = [confirm('First?'), prompt('Second?', 'so'), alert('Third')]");
  awaitButton("Cancel");
  EXPECT_THAT(texts(), testing::IsSupersetOf({"other.test says", "First?"}));
  press("OK");
  runUntil([this] { return testing::Matches(testing::Contains("Second?"))(texts()); });
  press("OK");
  runUntil([this] { return testing::Matches(testing::Contains("Third"))(texts()); });
  EXPECT_EQ(button("Cancel"), nullptr);
  GtkWidget* noMore =
      findWidget(view.widget(), [](GtkWidget* w) { return GTK_IS_CHECK_BUTTON(w); });
  ASSERT_NE(noMore, nullptr);
  gtk_check_button_set_active(GTK_CHECK_BUTTON(noMore), TRUE);
  press("OK");
  EXPECT_EQ(browser.evaluate("answers.concat([confirm(), prompt()])"), "true,so,,false,");
  EXPECT_EQ(button("OK"), nullptr);
}

struct ImpatientTest : LeavingTest {
  ImpatientTest()
      : LeavingTest({.timeout = std::chrono::seconds(1), .moduleFolder = TAMSEL_MODULE_PATH}) {}
};

// A person may think about it as long as it takes.
TEST_F(ImpatientTest, WaitsForAPassword) {
  browser.open(other);
  // Of the same site, for which no process has to start in that time.
  const std::string secret = std::string(other) + "secret";
  browser.sites.pages[secret] = {.body = "Denied",
                                 .status = SOUP_STATUS_UNAUTHORIZED,
                                 .headers = {{"WWW-Authenticate", "Basic realm=\"Club\""}}};
  model.go(secret);
  awaitButton("Sign In");
  EXPECT_THAT(texts(), testing::Contains("Sign in to other.test"));
  bool isOver = false;
  g_timeout_add(
      1500,
      [](gpointer flag) -> gboolean {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_REMOVE;
      },
      &isOver);
  runUntil([&isOver] { return isOver; });
  EXPECT_EQ(*model.status, "");
  EXPECT_NE(button("Sign In"), nullptr);
  press("Cancel");
  awaitPage(secret);
  EXPECT_EQ(browser.evaluate("document.body.textContent"), "Denied");
}

// The page that is shown stays, and with it its count.
TEST_F(LeavingTest, StaysWhereThereIsNowhereToGo) {
  browser.sites.pages["http://hostile.test/nothing"] = {.status = SOUP_STATUS_NO_CONTENT};
  browser.sites.pages["http://hostile.test/reset"] = {.status = SOUP_STATUS_RESET_CONTENT};
  browser.sites.pages["http://hostile.test/file"] = {.body = "PK", .type = "application/zip"};
  browser.sites.pages["http://hostile.test/attached"] = {
      .body = "text", .headers = {{"Content-Disposition", "attachment; filename=\"a.html\""}}};
  browser.sites.pages["http://hostile.test/hangs"] = {.hangs = true};
  show("", "<a></a>");
  browser.awaitPage();
  const std::string none = "Tamsel does not download files: ";
  struct Row {
    std::string script, status;
    bool asksTheServer = false;
  };
  for (const Row& row :
       std::vector<Row>{{"location = '/nothing'", "", true},
                        {"location = '/reset'", "", true},
                        {"location = '/file'", none + "file", true},
                        {"location = '/attached'", none + "a.html", true},
                        {"Object.assign(document.links[0] || document.querySelector('a'), "
                         "{ href: '/data', download: 'x.desktop' }).click()",
                         none + "x.desktop"},
                        {"location = 'mailto:a@b.test'", ""},
                        {"open('about:blank')", ""},
                        {"location = '#part'", ""},
                        {"history.pushState({}, '', '/pushed'); history.back()", ""}}) {
    SCOPED_TRACE(row.script);
    browser.sites.pages["http://hostile.test/data"] = {"data"};
    model.status = "";
    bool hasStarted = !row.asksTheServer;
    sigc::connection connection =
        model.objectWillChange.connect([&] { hasStarted = hasStarted || *model.isLoading; });
    run(row.script);
    runUntil([&hasStarted] { return hasStarted; });
    connection.disconnect();
    if (row.status.size() > 1) runUntil([&] { return *model.status == row.status; });
    browser.awaitPage();
    EXPECT_THAT(*model.addressText, testing::StartsWith(hostile));
    EXPECT_FALSE(*model.isLoading);
    EXPECT_THAT(*model.blockedURLs, ElementsAre("http://ads.test/a.png"));
    EXPECT_EQ(browser.evaluate("document.title"), "Hostile");
    EXPECT_EQ(*model.status, row.status);
  }
  model.go("http://hostile.test/hangs");
  runUntil([this] { return browser.sites.hanging.size() == 1 && *model.blockedCount == 0; });
  view.stopLoading();
  browser.awaitPage();
  EXPECT_EQ(*model.blockedCount, 1);
  EXPECT_EQ(*model.addressText, "http://hostile.test/#part");
}

TEST_F(LeavingTest, MovesWithinThePage) {
  show("", "<p id=part>Part</p>");
  browser.awaitPage();
  const std::string part = std::string(hostile) + "#part";
  model.go(part);
  awaitPage(part);
  view.goBack();
  awaitPage(hostile);
  view.goForward();
  awaitPage(part);
  EXPECT_EQ(*model.blockedCount, 1);
  EXPECT_EQ(*model.status, "");
}

TEST_F(LeavingTest, RunsNoScriptThatIsTyped) {
  browser.open(other);
  for (const std::string typed :
       {"javascript://%0adocument.title='run'", "JavaScript://%0adocument.title='run'",
        "java\tscript://%0adocument.title='run'", " javascript://x/%0adocument.title='run'"}) {
    model.go(typed);
    EXPECT_EQ(browser.evaluate("document.title"), "Other") << typed;
    EXPECT_FALSE(*model.isLoading);
  }
  EXPECT_EQ(*model.status, "An address that is a script is not run.");
}

}  // namespace
}  // namespace tamsel
