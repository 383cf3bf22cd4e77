#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/RealBrowser.h"

namespace tamsel {
namespace {

constexpr const char* ownRules =
    "||ads.test^\n||track.example.com^\n||cdn.example.net^$third-party\n||a.b.deep.test^\n"
    "||media.example.com/video/\n||banner.test/ads/*/top.\n||co-op.test^$script,image\n"
    "||widget.test^$domain=news.test\n||widget.test/all^\n||social.test^$domain=~news.test\n"
    "||only.test^$~image,domain=blog.site.co.uk|news.test\n"
    "||never.test^$image,domain=~shop.test|~news.test\n||like.test^$third-party\n"
    "||pixel.test^$image\n||lib.test^$script\n||style.test^$stylesheet\n||stream.test^$media\n"
    "||api.test^$xmlhttprequest\n||type.test^$font\n||frame.test^$subdocument\n||end.test/a.gif|\n"
    "||frame-own.test^$subdocument,~third-party\n||no-image.test^$~image\n||news.test/sponsor^\n"
    "||no-script.test^$~script,~stylesheet,third-party\n||no-frame.test^$~subdocument\n"
    "||case.test/Path/$match-case\n||site.co.uk/promo/$~third-party\n"
    "||shop.test^*/offer.$image,script\n|http://start.test/ad\n/adserver/\n/stats^$~third-party\n"
    "/banner/ads.\n/pagead/*/show?\n/ad-frame^\n-ad-300x250.\n_advert_\n&ad_type=\n?adid=\n"
    "=popunder&\n.com/ads/\n/Sponsor/$match-case\n/ad[0-9]+\\.gif/\n/\\.r[uo]\\/ads\\?/$script\n"
    "/^http:\\/\\/[a-z]+\\.regex\\.test\\/(ad)?s?\\//\n/\\/track(er)?\\/[^\\/]+\\.js$/\n"
    "/promo[a-z]*=/$domain=shop.test\n*/affiliate/*$~image,domain=news.test|shop.test\n"
    "/sync.$xmlhttprequest,third-party\n/font/ad$font\n/preroll/$media\n@@||ads.test/allowed/\n"
    "@@||good.ads.test^\n@@||track.example.com/api/$xmlhttprequest\n@@/adserver/free/\n"
    "@@||banner.test^$domain=shop.test\n@@-ad-300x250.$script\n@@/banner/ads.first^$~third-party\n"
    "@@||social.test/like.$domain=shop.test\n";

// Addresses for what tells none itself.
constexpr const char* ownAddresses[] = {
    "any.test/ad12.gif",       "any.test/ad.gif",  "any.regex.test/ads/", "start.test/ad",
    "any.test/js/track/v1.js", "any.ru/ads?1",     "any.com/ads/",        "any.test/?promos=1",
    "case.test/path/",         "any.test/sponsor/"};

// The files that are named, or else rules of its own.
std::string rules() {
  const char* lists = std::getenv("TAMSEL_LISTS");
  if (lists == nullptr) return ownRules;
  std::string all;
  std::istringstream names(lists);
  for (std::string name; std::getline(names, name, ':');) {
    std::ifstream file(name);
    all.append(std::istreambuf_iterator<char>(file), {}).append("\n");
  }
  return all;
}

// How a page loads something.
struct Way {
  const char *name, *type;
};
constexpr Way ways[] = {{"img", "image"}, {"script", "script"}, {"iframe", "document"},
                        {"xhr", "raw"},   {"video", "media"},   {"link", "style-sheet"},
                        {"fetch", "raw"}, {"font", "font"}};

// The page is complete when its frames are. If one is blocked, nothing happens to it.
constexpr const char* page = R"(<!DOCTYPE html><title>Page</title><script>
  const element = (tag, properties) => new Promise(end => {
    const made = Object.assign(document.createElement(tag), properties);
    document.documentElement.append(Object.assign(made, { onload: end, onerror: end }));
  });
  const ways = {
    iframe: src => { element('iframe', { src }); },
    link: href => element('link', { rel: 'stylesheet', href }),
    fetch: url => fetch(url),
    font: url => new FontFace('any', `url(${url})`).load(),
    xhr: url => new Promise(onloadend => {
      const xhr = Object.assign(new XMLHttpRequest(), { onloadend });
      xhr.send(xhr.open('GET', url));
    }),
  };
  for (const tag of ['img', 'script', 'video']) ways[tag] = src => element(tag, { src });
  var done = Promise.allSettled([)";

// An address that a filter looks meant for, without the scheme; empty if it does not tell one, or
// not as WebKit writes it.
std::string addressFor(std::string_view filter) {
  filter = filter.substr(0, filter.rfind('$'));
  if (filter.starts_with("@@")) filter.remove_prefix(2);
  if (filter.ends_with('|')) filter.remove_suffix(1);
  std::string address(filter.substr(filter.starts_with("||") ? 2 : 0));
  if (!filter.starts_with("||")) address.insert(0, "any.test/");
  std::ranges::replace(address, '*', 'x');
  std::ranges::replace(address, '^', '/');
  if (address.find('/') == std::string::npos) address += '/';
  const std::string host = address.substr(0, address.find('/'));
  const bool isUsual =
      host.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-.") == std::string::npos &&
      host.find('.') != std::string::npos && host.find("..") == std::string::npos &&
      std::isalpha(host.front()) != 0 && std::isalpha(host.back()) != 0 &&
      address.find("/.") == std::string::npos &&
      address.find_first_of("%#\\|\"'`<>{}[] ") == std::string::npos;
  return isUsual ? address : "";
}

// What makes another address of one when it stands around it.
constexpr std::pair<const char*, const char*> variations[] = {
    {"sub.", ""}, {"not", ""}, {"other.test/?", ""}, {"", "x/path.js"}};

using Request = std::pair<Way, std::string>;

class AgreementTest : public testing::Test {
 protected:
  AgreementTest() : browser(rules()), engine(*browser.app().engine()) {
    browser.sites.others = [](const std::string&) { return test::SiteServer::Answer{}; };
    for (const char* address : ownAddresses) targets.emplace_back(address, "");
    for (const auto some : {engine.blocks(), engine.exceptions()}) {
      for (std::size_t i = 0; i < some.size(); ++i) {
        const auto& domains = some[i].rule.trigger.ifDomain;
        if (!domains && i % (some.size() / 600 + 1) != 0) continue;
        const std::string address = addressFor(some[i].source);
        if (!address.empty()) targets.emplace_back(address, domains ? (*domains)[0].substr(1) : "");
      }
    }
  }

  bool isBlocked(const Request& request, const std::string& pageURL) {
    const Engine::Verdict verdict = engine.evaluate(request.second, pageURL, request.first.type);
    return verdict.block && !verdict.exception;
  }

  // Where pages are: on hosts that rules are restricted to, and on some that they are about.
  std::set<std::string> hosts() {
    const std::size_t ofAKind = std::getenv("TAMSEL_LISTS") == nullptr ? 8 : 40;
    std::set<std::string> hosts = {"page.test", "any.test"};
    for (std::size_t i = 0; i < targets.size(); ++i) {
      const auto& [address, domain] = targets[i];
      if (!domain.empty() && hosts.size() < 2 + ofAKind) hosts.insert(domain);
      if (i % (targets.size() / ofAKind) == 0) hosts.insert(address.substr(0, address.find('/')));
    }
    return hosts;
  }

  // Others for each page, in other ways.
  std::vector<Request> requestsOn(const std::string& host, std::size_t pageNumber) {
    std::vector<Request> requests;
    std::set<std::string> known;
    const auto add = [&](const std::string& address, std::size_t number) {
      if (!known.insert(address).second) return;
      requests.emplace_back(ways[number % std::size(ways)], "http://" + address);
    };
    for (std::size_t i = 0; i < targets.size(); ++i) {
      const auto& [address, domain] = targets[i];
      if ((i + pageNumber) % (targets.size() / 128 + 1) != 0 && domain != host) continue;
      add(address, i + pageNumber);
      const auto& [before, after] = variations[i % std::size(variations)];
      if ((i + pageNumber) % 3 == 0) add(before + address + after, i + 2 * pageNumber);
    }
    return requests;
  }

  test::RealBrowser browser;
  const Engine& engine;
  // Addresses and, if their rules are restricted to some, the first page domain.
  std::vector<std::pair<std::string, std::string>> targets;
};

TEST_F(AgreementTest, OfWebKitAndTheEngine) {
  std::vector<std::string> disagreements;
  std::size_t pages = 0, blocked = 0, allowed = 0;
  for (const std::string& host : hosts()) {
    const std::string pageURL = "http://" + host + "/start";
    if (isBlocked({ways[2], pageURL}, pageURL)) continue;
    const std::vector<Request> requests = requestsOn(host, pages++);
    std::string script;
    for (const auto& [way, url] : requests)
      script += "ways." + std::string(way.name) + "('" + url + "'),";
    browser.sites.pages[pageURL] = {.body = page + script + "])</script>"};
    browser.sites.requests.clear();
    browser.open(pageURL);
    browser.evaluate("done");
    browser.settle();
    std::size_t notSent = 0;
    for (const Request& request : requests) {
      const auto& [way, url] = request;
      const bool isExpected = isBlocked(request, pageURL);
      ++(isExpected ? blocked : allowed);
      const bool isSent = browser.sites.timesRequested(url) > 0;
      if (!isSent) ++notSent;
      if (isSent != isExpected) continue;
      disagreements.push_back(url + " by " + way.name + " on " + host +
                              (isExpected ? ": sent" : ": not sent"));
    }
    EXPECT_EQ(*browser.model().blockedCount, notSent) << host;
  }
  RecordProperty("pages", static_cast<int>(pages));
  RecordProperty("requests", static_cast<int>(blocked + allowed));
  EXPECT_THAT(disagreements, testing::IsEmpty());
  EXPECT_GE(pages, 6);
  EXPECT_GE(std::min(blocked, allowed), 150);
}

}  // namespace
}  // namespace tamsel
