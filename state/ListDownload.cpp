#include "state/ListDownload.h"

#include <stdexcept>
#include <utility>

#include "compiler/Unicode.h"
#include "platform/http/HtmlPage.h"
#include "platform/mainloop/Awaiting.h"

namespace tamsel::ListDownload {
namespace {

constexpr unsigned firstGoodStatus = 200;
constexpr unsigned firstBadStatus = 300;
constexpr unsigned noContent = 204;
constexpr unsigned resetContent = 205;
constexpr const char* pageInstead =
    "The answer is a web page and no filter list, perhaps because the network asks for a login.";

}  // namespace

Task<Text> get(HttpClient& client, std::string url) {
  auto transfer = client.get(std::move(url));
  HttpClient::Response response = co_await transfer;
  if (response.status < firstGoodStatus || response.status >= firstBadStatus) {
    throw std::runtime_error("HTTP " + std::to_string(response.status));
  }
  if (response.status == noContent || response.status == resetContent) {
    throw std::runtime_error("The server has no list to send (HTTP " +
                             std::to_string(response.status) + ").");
  }
  if (beginsLikeHtml(response.body)) throw std::runtime_error(pageInstead);
  auto decoding = detached([body = std::move(response.body)]() mutable {
    return Text(Unicode::repaired(std::move(body)));
  });
  co_return co_await decoding;
}

}  // namespace tamsel::ListDownload
