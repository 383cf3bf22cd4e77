#include "platform/http/ContentCodings.h"

#include <gio/gio.h>

#include <array>
#include <memory>
#include <string_view>

#include "platform/glib/GObjects.h"
#include "platform/http/HttpClient.h"

namespace tamsel::ContentCodings {
namespace {

// Nobody needs two. Each may take the time that a body of the greatest length takes.
constexpr std::size_t maxCount = 4;

constexpr std::string_view gzipMagic = "\x1F\x8B";

GZlibCompressorFormat formatOf(std::string_view body, const std::string& coding) {
  if (coding == "gzip") return G_ZLIB_COMPRESSOR_FORMAT_GZIP;
  // It has a header of two bytes, which some servers leave out.
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(body[i]); };
  const bool hasHeader =
      body.size() >= 2 && (byte(0) & 0xFU) == 8 && (byte(0) * 256U + byte(1)) % 31 == 0;
  return hasHeader ? G_ZLIB_COMPRESSOR_FORMAT_ZLIB : G_ZLIB_COMPRESSOR_FORMAT_RAW;
}

std::string decodedOnce(std::string_view body, const std::string& coding) {
  const GObjectPtr<GConverter> decoder(
      G_CONVERTER(g_zlib_decompressor_new(formatOf(body, coding))));
  std::string result;
  std::array<char, std::size_t{1} << 16> piece{};
  while (true) {
    gsize read = 0;
    gsize written = 0;
    GError* failure = nullptr;
    const GConverterResult state =
        g_converter_convert(decoder.get(), body.data(), body.size(), piece.data(), piece.size(),
                            G_CONVERTER_INPUT_AT_END, &read, &written, &failure);
    if (state == G_CONVERTER_ERROR) {
      const bool isCut = g_error_matches(failure, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT) != 0;
      g_error_free(failure);
      throw HttpClient::TransportError("The answer's " + coding + " data " +
                                       (isCut ? "has no end." : "is damaged."));
    }
    body.remove_prefix(read);
    if (written > HttpClient::maxBodyLength - result.size()) throw HttpClient::TooLarge();
    result.append(piece.data(), written);
    if (state != G_CONVERTER_FINISHED) continue;
    if (body.empty()) return result;
    // Several gzip files behind one another are one.
    if (coding != "gzip" || !body.starts_with(gzipMagic)) {
      throw HttpClient::TransportError("Behind the answer's " + coding +
                                       " data comes something else.");
    }
    g_converter_reset(decoder.get());
  }
}

}  // namespace

std::vector<std::string> parse(const std::string& header) {
  std::vector<std::string> codings;
  std::string coding;
  for (const char c : header + ',') {
    if (c != ',') {
      if (c != ' ' && c != '\t') coding += static_cast<char>(g_ascii_tolower(c));
      continue;
    }
    if (coding == "x-gzip") coding = "gzip";
    if (!coding.empty() && coding != "identity") {
      if (coding != "gzip" && coding != "deflate") {
        throw HttpClient::TransportError("The answer is in the encoding “" + coding.substr(0, 40) +
                                         "”, which was not asked for.");
      }
      codings.insert(codings.begin(), coding);
    }
    coding.clear();
  }
  if (codings.size() > maxCount) {
    throw HttpClient::TransportError("The answer is encoded too many times.");
  }
  return codings;
}

std::string decoded(std::string body, const std::vector<std::string>& codings) {
  for (const std::string& coding : codings) body = decodedOnce(body, coding);
  return body;
}

}  // namespace tamsel::ContentCodings
