#include "browser/ReportingScript.h"

#include <array>
#include <utility>

namespace tamsel::Reporting {

// The two scripts meet before any of the page's runs, in whichever order WebKit starts them: one
// asks, the other answers with the name of an event that nobody can guess. A page can neither
// listen for it nor dispatch it.
const std::string_view script = R"js((() => {
  'use strict';
  if (window.__tmInstalled) return;
  window.__tmInstalled = true;

  // In characters, in reports, and in milliseconds.
  const longest = 8192, atOnce = 50, pause = 20;
  const handler = window.webkit.messageHandlers.tmBlocked;
  const reported = new Set();
  const waiting = [];
  let posted = 0, timer = 0;

  const post = () => {
    while (waiting.length > 0 && posted < atOnce) {
      ++posted;
      handler.postMessage(waiting.shift());
    }
    timer ||= setTimeout(() => {
      timer = posted = 0;
      if (waiting.length > 0) post();
    }, pause);
  };
  const report = (url, type) => {
    const message = { url: url.slice(0, longest), type: type.slice(0, longest) };
    const known = message.type + ' ' + message.url;
    if (reported.has(known)) return;
    reported.add(known);
    waiting.push(message);
    post();
  };

  // The errors of elements do not bubble.
  window.addEventListener('error', ({ target }) => {
    if (!target || target === window) return;
    const url = target.currentSrc || target.src || target.href;
    if (typeof url === 'string' && typeof target.tagName === 'string') {
      report(url, target.tagName.toLowerCase());
    }
  }, true);

  window.addEventListener('tamsel-channel', event => {
    event.preventDefault();
    window.addEventListener(event.detail, ({ detail }) => {
      if (typeof detail !== 'string') return;
      const end = detail.indexOf(' ');
      report(detail.slice(end + 1), detail.slice(0, end));
    });
  }, { once: true });
  window.dispatchEvent(new Event('tamsel-channel-wanted'));
})();
)js";

// It takes what it needs at once, before a page can put something else in its place.
const std::string_view pageScript = R"js((() => {
  'use strict';
  if (window.__tmInstalled) return;
  Object.defineProperty(window, '__tmInstalled', { value: true });

  const { apply } = Reflect;
  const { CustomEvent, URL, WeakMap, XMLHttpRequest } = window;
  const { addEventListener, dispatchEvent } = EventTarget.prototype;
  const { then } = Promise.prototype;
  const { get, set } = WeakMap.prototype;
  const getter = (type, key) => Object.getOwnPropertyDescriptor(type.prototype, key).get;
  const href = getter(URL, 'href');
  const baseURI = getter(Node, 'baseURI');

  const channel = 'tamsel-' + crypto.getRandomValues(new Uint32Array(4)).join('-');
  // What is asked of the settings of an event must not be answered by the page.
  const dispatch = (name, detail) => apply(dispatchEvent, window, [
    new CustomEvent(name, { __proto__: null, detail, cancelable: true })]);
  const tell = () => dispatch('tamsel-channel', channel);
  // Taken, it is the other script's; that may also come later, but before the page's scripts.
  if (tell()) addEventListener.call(window, 'tamsel-channel-wanted', tell, { once: true });

  const pass = (url, type) => {
    try {
      dispatch(channel, type + ' ' + url);
    } catch {}
  };
  // Of a text or a URL; nothing of what might do something when it is read.
  const absolute = url => {
    try {
      return typeof url === 'string'
          ? apply(href, new URL(url, apply(baseURI, document, [])), []) : apply(href, url, []);
    } catch {}
  };

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
        pass(url, 'fetch');
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
              if (url) pass(url, 'xhr');
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
