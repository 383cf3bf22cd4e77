#include "browser/DemoPage.h"

#include "state/StarterList.h"

namespace tamsel::DemoPage {
namespace {

void replaceAll(std::string& text, std::string_view name, std::string_view value) {
  for (std::size_t i = text.find(name); i != std::string::npos; i = text.find(name, i)) {
    text.replace(i, name.size(), value);
    i += value.size();
  }
}

}  // namespace

const std::string_view host = Starter::Hosts::demo;

std::string html() {
  std::string page = R"(<!DOCTYPE html>
<html>
<head>
<meta charset="utf-8">
<title>Tamsel demo page</title>
<style>
body { font: 16px system-ui, sans-serif; max-width: 640px; margin: 40px auto; padding: 0 16px; color: #222; }
.box { border: 1px dashed #999; padding: 10px; margin: 10px 0; border-radius: 6px; }
.banner, .ad-banner, .promo-box { background: #fde; padding: 14px; margin: 10px 0; }
</style>
</head>
<body>
<h2>Tamsel demo page</h2>
<p>This page pretends to be <code>DEMO</code>. With the starter list enabled, the pink boxes
should vanish and the blocked-request counter should go up.</p>
<div class="banner">I am a .banner — hidden by <code>##.banner</code></div>
<div class="ad-banner">I am an .ad-banner — hidden</div>
<div class="promo-box">I am a .promo-box — hidden only on DEMO</div>
<div class="box">Normal content stays visible.</div>
<img src="https://ADS/banner.png" width="40" height="40" alt="">
<img src="https://ad.NETWORK/pixel.gif" width="40" height="40" alt="">
<img src="https://ADS/allowed/ok.png" width="40" height="40" alt="">
<script src="https://TAGS/gtag/js?id=G-DEMO"></script>
<script src="https://TRACKER/t.js"></script>
</body>
</html>
)";
  replaceAll(page, "DEMO</", std::string(host) + "</");
  replaceAll(page, "ADS/", std::string(Starter::Hosts::ads) + "/");
  replaceAll(page, "NETWORK/", std::string(Starter::Hosts::adNetwork) + "/");
  replaceAll(page, "TAGS/", std::string(Starter::Hosts::tagManager) + "/");
  replaceAll(page, "TRACKER/", std::string(Starter::Hosts::tracker) + "/");
  return page;
}

}  // namespace tamsel::DemoPage
