#include "state/ListDownload.h"

#include <stdexcept>
#include <utility>

#include "compiler/Unicode.h"
#include "platform/mainloop/Awaiting.h"

namespace tamsel::ListDownload {
namespace {

constexpr unsigned firstGoodStatus = 200;
constexpr unsigned firstBadStatus = 300;

}  // namespace

Task<Text> get(HttpClient& client, std::string url) {
  auto transfer = client.get(std::move(url));
  HttpClient::Response response = co_await transfer;
  if (response.status < firstGoodStatus || response.status >= firstBadStatus) {
    throw std::runtime_error("HTTP " + std::to_string(response.status));
  }
  auto decoding = detached([body = std::move(response.body)]() mutable {
    return Text(Unicode::repaired(std::move(body)));
  });
  co_return co_await decoding;
}

}  // namespace tamsel::ListDownload
