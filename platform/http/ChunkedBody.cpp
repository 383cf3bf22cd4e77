#include "platform/http/ChunkedBody.h"

#include <charconv>

#include "platform/http/HttpClient.h"

namespace tamsel {
namespace {

// A size with its extensions, which nobody uses, or a line of the trailer.
constexpr std::size_t maxLineLength = std::size_t{16} << 10;
constexpr std::size_t maxTrailerLength = std::size_t{64} << 10;

[[noreturn]] void refuse(const char* why) {
  throw HttpClient::TransportError(std::string("The answer was damaged on its way: ") + why + '.');
}

// Of the line before a chunk.
std::size_t sizeIn(std::string_view line) {
  const std::string_view digits = line.substr(0, line.find_first_of("; \t"));
  std::size_t size = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), size, 16);
  if (error == std::errc::invalid_argument || end != digits.data() + digits.size()) {
    refuse("a chunk has no size");
  }
  if (error == std::errc::result_out_of_range) throw HttpClient::TooLarge();
  return size;
}

}  // namespace

void ChunkedBody::append(std::string_view bytes) {
  while (!bytes.empty() && !isComplete()) {
    if (expected_ == Expected::content) {
      const std::string_view piece = bytes.substr(0, missing_);
      content_ += piece;
      missing_ -= piece.size();
      bytes.remove_prefix(piece.size());
      if (missing_ == 0) expected_ = Expected::endOfContent;
      continue;
    }
    const std::size_t lineFeed = bytes.find('\n');
    line_ += bytes.substr(0, lineFeed);
    if (line_.size() > maxLineLength) refuse("a line between its chunks is too long");
    if (lineFeed == std::string_view::npos) return;
    bytes.remove_prefix(lineFeed + 1);
    if (line_.ends_with('\r')) line_.pop_back();
    readLine(line_);
    line_.clear();
  }
}

void ChunkedBody::readLine(std::string_view line) {
  switch (expected_) {
    case Expected::size:
      missing_ = sizeIn(line);
      if (missing_ > HttpClient::maxBodyLength - content_.size()) throw HttpClient::TooLarge();
      expected_ = missing_ == 0 ? Expected::trailer : Expected::content;
      return;
    case Expected::endOfContent:
      if (!line.empty()) refuse("a chunk is longer than its size");
      expected_ = Expected::size;
      return;
    case Expected::trailer:
      trailerLength_ += line.size();
      if (trailerLength_ > maxTrailerLength) refuse("its trailer is too long");
      if (line.empty()) expected_ = Expected::nothing;
      return;
    case Expected::content:
    case Expected::nothing:
      return;
  }
}

}  // namespace tamsel
