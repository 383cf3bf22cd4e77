#include "browser/ReportingScript.h"

#include <array>
#include <utility>

namespace tamsel::Reporting {

// It takes what it needs at once, before a page can put something else in its place.
const std::string_view script = R"js((() => {
  'use strict';
  if (window.__tmInstalled) return;
  Object.defineProperty(window, '__tmInstalled', { value: true });

  const { apply } = Reflect;
  const { String, URL, WeakMap, XMLHttpRequest } = window;
  const { addEventListener } = EventTarget.prototype;
  const { then } = Promise.prototype;
  const { toLowerCase } = String.prototype;
  const { get, set } = WeakMap.prototype;
  const getter = (type, key) => Object.getOwnPropertyDescriptor(type.prototype, key).get;
  const target = getter(Event, 'target');
  const tagName = getter(Element, 'tagName');
  const href = getter(URL, 'href');
  const baseURI = getter(Node, 'baseURI');
  const handler = window.webkit.messageHandlers.tmBlocked;
  const { postMessage } = handler;

  const post = (url, type) => {
    try {
      apply(postMessage, handler, [{ url: String(url), type }]);
    } catch {}
  };
  // Of a text or a URL; nothing of what might do something when it is read.
  const absolute = url => {
    try {
      return typeof url === 'string'
          ? apply(href, new URL(url, apply(baseURI, document, [])), []) : apply(href, url, []);
    } catch {}
  };

  // The errors of elements do not bubble.
  apply(addEventListener, window, ['error', event => {
    try {
      const element = apply(target, event, []);
      if (!element || element === window) return;
      const name = apply(tagName, element, []);
      const url = element.currentSrc || element.src || element.href;
      if (url) post(url, apply(toLowerCase, name, []));
    } catch {}
  }, true]);

  const pageFetch = window.fetch;
  const pageOpen = XMLHttpRequest.prototype.open;
  const opened = new WeakMap();
  const wrappers = {
    fetch(input) {
      let url;
      try {
        const text = typeof input === 'string' ? input : input && input.url;
        if (typeof text === 'string') url = absolute(text);
      } catch {}
      const promise = apply(pageFetch, this, arguments);
      if (!url) return promise;
      // The page gets what follows from it: to the promise itself, this would be handling it.
      return apply(then, promise, [undefined, error => {
        post(url, 'fetch');
        throw error;
      }]);
    },

    open(method, url) {
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
    },
  };
  if (pageFetch) window.fetch = wrappers.fetch;
  XMLHttpRequest.prototype.open = wrappers.open;
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
