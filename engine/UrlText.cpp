#include "engine/UrlText.h"

#include <algorithm>
#include <cstring>

#include "compiler/Unicode.h"

namespace tamsel {

UrlText::UrlText(std::string_view url, DocumentForm form)
    : original_(url), isHardened_(form == DocumentForm::hardened) {
  if (url.size() + padding > buffer_.size()) {
    longBuffer_ = std::make_unique_for_overwrite<char[]>(url.size() + padding);
    lower_ = longBuffer_.get();
  }
  // Written for the compiler to do many bytes at once.
  unsigned char outside = 0;
  const char* from = url.data();
  char* to = lower_;
  for (std::size_t i = 0, size = url.size(); i < size; ++i) {
    const char c = from[i];
    // Printable are the 95 bytes from 0x20 to 0x7E.
    outside |= static_cast<unsigned char>(static_cast<unsigned char>(c - 0x20) >= 95);
    to[i] = Unicode::asciiLower(c);
  }
  printable_ = outside == 0;
  std::memset(lower_ + url.size(), 0, padding);
  findHost();
}

void UrlText::findHost() noexcept {
  std::size_t colon = 0;  // near the beginning, so that a plain loop finds it first
  while (colon < original_.size() && original_[colon] != ':') ++colon;
  if (colon == 0 || colon == original_.size()) return;
  afterColon_ = colon + 1;
  hostBegin_ = original_.substr(afterColon_).starts_with("//") ? afterColon_ + 2 : afterColon_;
  hostEnd_ = std::min(original_.find('/', hostBegin_), original_.size());
}

}  // namespace tamsel
