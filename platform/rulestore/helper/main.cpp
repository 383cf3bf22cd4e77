// Compiles content-blocker documents with WebKit for the rule store, which starts this program
// beside itself: WebKit's compiler can abort, run for minutes, and hold a main loop for half a
// second, and none of that must happen to a program with a window.
//
//     tamsel-rule-compiler FOLDER
//
// Standard input is a stream socket that speaks HelperProtocol. Compiled documents go to FOLDER,
// WebKit's work files to $TMPDIR, which is this process's own and is kept empty.

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <webkit/webkit.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/rulestore/helper/Protocol.h"

namespace {

using namespace tamsel::HelperProtocol;

constexpr int stream = STDIN_FILENO;

[[noreturn]] void end(int code) {
  ::_exit(code);  // nothing here is worth tidying up, and WebKit's threads may be at work
}

// Ends the process when the store has gone.
void receive(void* bytes, std::size_t count) {
  char* to = static_cast<char*>(bytes);
  while (count > 0) {
    const ssize_t received = ::recv(stream, to, count, MSG_WAITALL);
    if (received <= 0) end(received == 0 ? EXIT_SUCCESS : EXIT_FAILURE);
    to += received;
    count -= static_cast<std::size_t>(received);
  }
}

void send(const void* bytes, std::size_t count) {
  const char* from = static_cast<const char*>(bytes);
  while (count > 0) {
    const ssize_t sent = ::send(stream, from, count, MSG_NOSIGNAL);
    if (sent < 0) end(EXIT_FAILURE);
    from += sent;
    count -= static_cast<std::size_t>(sent);
  }
}

void reply(Status status, const std::string& text) {
  const Reply header{status, text.size()};
  send(&header, sizeof header);
  send(text.data(), text.size());
}

// Whatever a list does to WebKit, this process is the one to pay, and it ends with its store.
void confine() {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  constexpr int background = 5;
  (void)::nice(background);
  const rlimit none{0, 0};
  ::setrlimit(RLIMIT_CORE, &none);
  std::ofstream("/proc/self/oom_score_adj") << 1000;
}

// Ends the process when it takes up too much memory. The system's own limits do not serve: they
// count what WebKit only reserves, which is a hundred times more.
gboolean watchMemory(gpointer) {
  constexpr std::size_t mostMemory = std::size_t{4} << 30;
  std::size_t pages = 0;
  std::size_t resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  if (resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)) > mostMemory) std::abort();
  return G_SOURCE_CONTINUE;
}

// WebKit leaves the work files of what it refuses behind.
void removeWorkFiles() {
  const char* folder = std::getenv("TMPDIR");
  if (folder == nullptr) return;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    std::filesystem::remove(entry, error);
  }
}

struct Answer {
  GMainLoop* loop;
  GError* error = nullptr;
};

void onSaved(GObject* store, GAsyncResult* result, gpointer data) {
  Answer& answer = *static_cast<Answer*>(data);
  if (WebKitUserContentFilter* filter = webkit_user_content_filter_store_save_finish(
          WEBKIT_USER_CONTENT_FILTER_STORE(store), result, &answer.error)) {
    webkit_user_content_filter_unref(filter);
  }
  g_main_loop_quit(answer.loop);
}

void answerRequest(WebKitUserContentFilterStore* store, GMainLoop* loop) {
  Request request{};
  receive(&request, sizeof request);
  std::string identifier(request.identifierLength, '\0');
  receive(identifier.data(), identifier.size());
  void* bytes = g_try_malloc(request.documentLength);
  if (bytes == nullptr) end(EXIT_FAILURE);
  receive(bytes, request.documentLength);
  GBytes* document = g_bytes_new_take(bytes, request.documentLength);

  Answer answer{loop};
  webkit_user_content_filter_store_save(store, identifier.c_str(), document, nullptr, onSaved,
                                        &answer);
  g_bytes_unref(document);
  g_main_loop_run(loop);
  if (answer.error == nullptr) return reply(Status::compiled, "");
  removeWorkFiles();
  reply(Status::refused, answer.error->message);
  g_error_free(answer.error);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) end(EXIT_FAILURE);
  confine();
  WebKitUserContentFilterStore* store = webkit_user_content_filter_store_new(argv[1]);
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  constexpr guint milliseconds = 100;
  g_timeout_add(milliseconds, watchMemory, nullptr);
  reply(Status::ready, std::to_string(webkit_get_major_version()) + "." +
                           std::to_string(webkit_get_minor_version()) + "." +
                           std::to_string(webkit_get_micro_version()));
  while (true) answerRequest(store, loop);
}
