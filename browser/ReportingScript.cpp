#include "browser/ReportingScript.h"

#include <array>
#include <utility>

namespace tamsel::Reporting {

// It takes what it needs at once, before a page can put something else in its place.
const std::string_view script = R"js((() => {
  'use strict';
  if (window.__tmInstalled) return;
  window.__tmInstalled = true;

  const { apply } = Reflect;
  const { String, URL, XMLHttpRequest } = window;
  const { addEventListener } = EventTarget.prototype;
  const { then } = Promise.prototype;
  const handler = window.webkit.messageHandlers.tmBlocked;
  const { postMessage } = handler;

  const post = (url, type) => {
    try {
      apply(postMessage, handler, [{ url: String(url), type }]);
    } catch {}
  };
  const absolute = url => {
    try {
      return new URL(url, location.href).href;
    } catch {}
  };

  // The errors of elements do not bubble.
  addEventListener.call(window, 'error', event => {
    const element = event.target;
    if (!element || element === window || !element.tagName) return;
    const url = element.currentSrc || element.src || element.href;
    if (url) post(url, String(element.tagName).toLowerCase());
  }, true);

  const pageFetch = window.fetch;
  if (pageFetch) {
    window.fetch = function fetch(input) {
      let url;
      try {
        url = typeof input === 'string' ? input : input && input.url;
        if (typeof url === 'string') url = absolute(url);
      } catch {}
      const promise = apply(pageFetch, this, arguments);
      if (!url) return promise;
      // The page gets what follows from it: to the promise itself, this would be handling it.
      return apply(then, promise, [undefined, error => {
        post(url, 'fetch');
        throw error;
      }]);
    };
  }

  const pageOpen = XMLHttpRequest.prototype.open;
  const opened = new WeakMap();
  const { get, set } = WeakMap.prototype;
  XMLHttpRequest.prototype.open = function open(method, url) {
    if (arguments.length >= 2) {
      try {
        const isNew = apply(get, opened, [this]) === undefined;
        apply(set, opened, [this, { url: absolute(url) }]);
        if (isNew) {
          apply(addEventListener, this, ['error', () => {
            const { url } = apply(get, opened, [this]);
            if (url) post(url, 'xhr');
          }]);
        }
      } catch {}
    }
    return apply(pageOpen, this, arguments);
  };
})();
)js";

std::string_view resourceType(std::string_view messageType) {
  using namespace std::string_view_literals;
  static constexpr std::array types{
      std::pair{"img"sv, "image"sv},        std::pair{"script"sv, "script"sv},
      std::pair{"link"sv, "style-sheet"sv}, std::pair{"iframe"sv, "document"sv},
      std::pair{"frame"sv, "document"sv},   std::pair{"video"sv, "media"sv},
      std::pair{"audio"sv, "media"sv},      std::pair{"source"sv, "media"sv},
  };
  for (const auto& [messages, resources] : types) {
    if (messages == messageType) return resources;
  }
  return "raw";
}

}  // namespace tamsel::Reporting
