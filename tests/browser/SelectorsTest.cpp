#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "compiler/FilterCompiler.h"
#include "platform/dialect/ContentBlockerDialect.h"
#include "tests/support/ExactCopy.h"
#include "tests/support/RealBrowser.h"
#include "tests/support/WebKitRules.h"

// Selectors that the dialect takes, in the real web view: none may keep others from hiding.
//
// TAMSEL_SELECTORS=10000 tries so many random ones instead of a few, some 1,500 in a second, and
// TAMSEL_LISTS=FILE:FILE those of filter lists as well.
namespace tamsel {
namespace {

using namespace std::string_view_literals;
using testing::IsEmpty;

constexpr std::size_t atOnce = 100;

class SelectorsTest : public testing::Test {
 protected:
  SelectorsTest() : store_(webkit_user_content_filter_store_new(folder_.path().c_str())) {
    browser_.sites.others = [this](const std::string&) {
      return test::SiteServer::Answer{.body = page_};
    };
    page_ = "<!DOCTYPE html>" + markers(atOnce);
    browser_.open("http://page.test/");
  }
  ~SelectorsTest() override { g_object_unref(store_); }

  // Those that keep others from hiding. Every selector is in a filter of its own, of which WebKit
  // makes one style rule, between two others that hide markers.
  std::vector<std::string> harmful(std::span<const std::string> selectors) {
    std::vector<std::string> found;
    while (!selectors.empty()) {
      const auto some = selectors.first(std::min(selectors.size(), atOnce));
      selectors = selectors.subspan(some.size());
      for (std::size_t i = 0; i < some.size(); ++i) addFilter(std::to_string(i), some[i]);
      page_ = "<!DOCTYPE html><x-always></x-always>" + markers(some.size());
      browser_.open("http://page.test/");
      const auto visible = nlohmann::json::parse(browser_.evaluate(
          "JSON.stringify([...document.querySelectorAll('x-always, x-marker')].filter(marker =>"
          " getComputedStyle(marker).display != 'none').map(marker => marker.className))"));
      webkit_user_content_manager_remove_all_filters(manager());
      EXPECT_EQ(visible.at(0), "") << "something hides all";
      for (std::size_t i = 1; i < visible.size(); ++i) {
        const std::string& selector = some[std::stoul(visible[i].get<std::string>().substr(1))];
        if (found.empty() || found.back() != selector) found.push_back(selector);
      }
    }
    return found;
  }

  struct Judgement {
    bool isKnown;  // to WebKit, as a selector
    bool matches;  // something in the page, which it would hide
  };
  std::vector<Judgement> judge(const std::vector<std::string>& selectors) {
    const auto answers = nlohmann::json::parse(browser_.evaluate(
        "JSON.stringify(" + nlohmann::json(selectors).dump() +
        ".map(selector => { try { return document.querySelector(selector) ? 2 : 1 }"
        " catch { return 0 } }))"));
    std::vector<Judgement> judgements;
    for (const int answer : answers) judgements.push_back({answer > 0, answer > 1});
    return judgements;
  }

 private:
  // In pairs, "b5" for what stands before the fifth selector and "a5" for what stands after it.
  static std::string markers(std::size_t count) {
    std::string html;
    for (std::size_t i = 0; i < count; ++i) {
      for (const char* side : {"b", "a"}) {
        html += "<x-marker class=" + (side + std::to_string(i)) + "></x-marker>";
      }
    }
    return html;
  }

  WebKitUserContentManager* manager() {
    return webkit_web_view_get_user_content_manager(browser_.webKit());
  }

  void addFilter(const std::string& number, const std::string& selector) {
    const std::string quoted = nlohmann::json(selector).dump();
    const std::string rules =
        test::document({test::hide(".b" + number), test::hide(quoted.substr(1, quoted.size() - 2)),
                        test::hide(".a" + number)});
    struct Saved {
      bool isThere = false;
      WebKitUserContentFilter* filter = nullptr;
    } saved;
    GBytes* bytes = g_bytes_new(rules.data(), rules.size());
    webkit_user_content_filter_store_save(
        store_, number.c_str(), bytes, nullptr,
        [](GObject*, GAsyncResult* result, gpointer data) {
          auto& made = *static_cast<Saved*>(data);
          made.filter = webkit_user_content_filter_store_save_finish(
              WEBKIT_USER_CONTENT_FILTER_STORE(g_async_result_get_source_object(result)), result,
              nullptr);
          made.isThere = true;
        },
        &saved);
    g_bytes_unref(bytes);
    test::runUntil([&saved] { return saved.isThere; });
    // Without a filter nothing is hidden, which is then told.
    if (saved.filter == nullptr) return;
    webkit_user_content_manager_add_filter(manager(), saved.filter);
    webkit_user_content_filter_unref(saved.filter);
  }

  test::RealBrowser browser_;
  const test::TemporaryFolder folder_;
  WebKitUserContentFilterStore* store_;
  std::string page_;
};

std::vector<std::string> words(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

// Most are in ":is()" or the like, where WebKit takes nearly everything.
std::string randomSelector(std::mt19937& random) {
  static const std::vector<std::string> pieces = [] {
    std::vector<std::string> all = words(R"~(
      a div 1 - -- _ é × . .x # #x * | || *|* & ! !important % 1% @ @media @import $ ^ = *= , > + ~
      [ ] [a] [a= [a="]"] ( ) { } {} ; : :: " ' "x" 'x' / /* */ /*'*/ <!-- <!- --> \ \\ \" \' \)
      \26 \0 \000028 :not( :is( :where( :has( :nth-child(2 of :nth-child(2n+1 :hover ::before :host(
      ::slotted( ::part( :lang( :dir( :foo( ::cue( :current( :state( ::highlight( a'b)c' a"b)c"
      url url( URL( url(" url(x) #url( @url( 1url( 1e3url( 1.url( u+1url( u+?url( -url( \75rl( src( 😀
    )~");
    for (const std::string_view piece :
         {" "sv,      "\n"sv,      "\r"sv,           "\r\n"sv,         "\f"sv,
          "\t"sv,     "\x01"sv,    "\x0B"sv,         "\x7F"sv,         "\0"sv,
          "\\\n"sv,   "\\\r\n"sv,  "\\\f"sv,         "\\a\n"sv,        "\\a\r\n"sv,
          " i]"sv,    "url(\n'"sv, "u\\000072 l("sv, "ur\\6C\r\nl("sv, "\uFEFF"sv,
          "\u00A0"sv, "\u2028"sv}) {
      all.emplace_back(piece);
    }
    return all;
  }();
  static const std::vector<std::string> frames = words(R"~(
    … … .x:is(…) :is(…) :is(…) :where(…),.y .x:not(:is(.y,…)) :is([a=…]) :is({…}) :is(url(…))
    :is(:foo(…)) [a="…"] [a='…'i] .x/*…*/ :is(url("…")) .x:has(:is(…))
  )~");
  std::string text;
  for (std::size_t i = 1 + random() % 6; i > 0; --i) text += pieces[random() % pieces.size()];
  for (std::size_t i = random() % 3; i > 0; --i) {
    std::string frame = frames[random() % frames.size()];
    text = frame.replace(frame.find("…"), "…"sv.size(), text);
  }
  return text;
}

// Beyond the random ones.
std::vector<std::string> selectorsOfLists() {
  const char* lists = std::getenv("TAMSEL_LISTS");
  if (lists == nullptr) return {};
  std::set<std::string> selectors;
  std::istringstream names(lists);
  for (std::string name; std::getline(names, name, ':');) {
    std::ifstream file(name);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const FilterCompiler::Input input{{}, {}, text};
    for (const SourcedRule& rule : FilterCompiler::parse({&input, 1}).rules) {
      if (rule.rule.action.selector) selectors.emplace(*rule.rule.action.selector);
    }
  }
  return {selectors.begin(), selectors.end()};
}

TEST_F(SelectorsTest, ThatAreNotClosedKeepOthersFromHiding) {
  const std::vector<std::string> unclosed = {"[a=\"", "div[style*=x", ".x:is(url(a'b)c'))", ".x/*",
                                             ".x\\"};
  EXPECT_EQ(harmful(unclosed), unclosed);
}

TEST_F(SelectorsTest, ThatTheDialectTakesDoNot) {
  const char* count = std::getenv("TAMSEL_SELECTORS");
  std::vector<std::string> selectors = selectorsOfLists();
  const std::size_t wanted = selectors.size() + (count == nullptr ? 1500 : std::stoul(count));
  std::mt19937 random(20240607);
  while (selectors.size() < wanted) {
    std::string selector = randomSelector(random);
    if (!ContentBlockerDialect::refusalOfSelector(test::ExactCopy(selector)))
      selectors.push_back(selector);
  }
  // None may hide the markers itself.
  std::vector<Judgement> judgements = judge(selectors);
  for (std::size_t i = 0; i < selectors.size(); ++i) {
    if (judgements[i].matches) selectors[i].insert(0, "x-none ");
  }
  judgements = judge(selectors);
  std::vector<std::string> tried;
  std::size_t known = 0;
  for (std::size_t i = 0; i < selectors.size(); ++i) {
    if (judgements[i].matches) continue;
    tried.push_back(selectors[i]);
    if (judgements[i].isKnown) ++known;
  }
  RecordProperty("tried", static_cast<int>(tried.size()));
  RecordProperty("known", static_cast<int>(known));
  EXPECT_GE(known, wanted / 2);
  EXPECT_THAT(harmful(tried), IsEmpty());
}

}  // namespace
}  // namespace tamsel
