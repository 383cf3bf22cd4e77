#include "ui/Dates.h"

#include <unicode/datefmt.h>
#include <unicode/unistr.h>

#include <memory>

namespace tamsel::Dates {
namespace {

constexpr double epoch = 978307200;  // 2001-01-01 in Unix time
constexpr double millisecondsPerSecond = 1000;

}  // namespace

std::string abbreviated(const Date& date) {
  const std::unique_ptr<icu::DateFormat> format(icu::DateFormat::createDateTimeInstance(
      icu::DateFormat::kMedium, icu::DateFormat::kShort, icu::Locale::getDefault()));
  if (format == nullptr) return {};
  icu::UnicodeString text;
  format->format((date.seconds + epoch) * millisecondsPerSecond, text);
  std::string utf8;
  return text.toUTF8String(utf8);
}

}  // namespace tamsel::Dates
