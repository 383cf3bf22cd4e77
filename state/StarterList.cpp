#include "state/StarterList.h"

#include <string>

namespace tamsel::Starter {
namespace {

std::string makeText() {
  const std::string adNetwork(Hosts::adNetwork);
  const std::string ads(Hosts::ads);
  const std::string tracker(Hosts::tracker);
  const std::string demo(Hosts::demo);
  const std::string tagManagerRule = "||" + std::string(Hosts::tagManager) + "^$script";

  return "! Title: " + std::string(name) +
         "\n"
         "! A tiny sample in EasyList / uBlock Origin syntax.\n"
         "\n"
         "! --- Network rules ---\n"
         "||" +
         adNetwork +
         "^\n"
         "||googlesyndication.com^$third-party\n"
         "||googleadservices.com^\n"
         "||google-analytics.com^$script,third-party\n" +
         tagManagerRule +
         "\n"
         "||adnxs.com^$third-party\n"
         "||criteo.com^$third-party\n"
         "||taboola.com^$third-party\n"
         "||scorecardresearch.com^\n"
         "||" +
         ads +
         "^\n"
         "||" +
         tracker +
         "^$image,script\n"
         "||connect.facebook.net^$script,domain=~facebook.com\n"
         "/ads/*\n"
         "/adframe.\n"
         "-banner-ad-\n"
         "/pixel.gif?\n"
         "\n"
         "! --- Exceptions ---\n"
         "@@||" +
         ads +
         "/allowed/$image\n"
         "@@" +
         tagManagerRule +
         ",domain=example.net\n"
         "\n"
         "! --- Cosmetic (element hiding) rules ---\n"
         "##.banner\n"
         "##.ad-banner\n"
         "##.sponsored-post\n"
         "###ad-container\n" +
         demo +
         "##.promo-box\n"
         "news.example.com,blog.example.com##.newsletter-popup\n"
         "\n"
         "! --- Rules WebKit can't express (shown as skipped) ---\n"
         "example.net#?#div:has-text(Sponsored)\n"
         "example.net##+js(abort-on-property-read, adsEnabled)\n"
         "||example.com^$csp=script-src 'none'\n"
         "||example.com/video.mp4$redirect=noopt\n"
         "example.*##.ad-slot\n"
         "example.net#@#.banner";
}

}  // namespace

const Uuid id = *Uuid::parse("11111111-2222-3333-4444-555555555555");
const Uuid customID = *Uuid::parse("99999999-2222-3333-4444-555555555555");

const std::string_view text = [] {
  static const std::string made = makeText();
  return std::string_view(made);
}();

}  // namespace tamsel::Starter
