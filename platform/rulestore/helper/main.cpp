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
#include <sys/stat.h>
#include <unistd.h>
#include <webkit/webkit.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

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

void limit(__rlimit_resource resource, rlim_t most) {
  rlimit limits{};
  if (::getrlimit(resource, &limits) != 0) return;
  limits.rlim_cur = limits.rlim_max = std::min({most, limits.rlim_cur, limits.rlim_max});
  ::setrlimit(resource, &limits);
}

// Whatever a list does to WebKit, this process is the one to pay, and it ends with its store.
void confine() {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  constexpr int background = 5;
  (void)::nice(background);
  constexpr rlim_t seconds = 600;  // several times what a compilation may last
  constexpr rlim_t fileLength = rlim_t{2} << 30;
  limit(RLIMIT_CORE, 0);
  limit(RLIMIT_CPU, seconds);
  limit(RLIMIT_FSIZE, fileLength);
  std::ofstream("/proc/self/oom_score_adj") << 1000;
  ::umask(S_IRWXG | S_IRWXO);
}

// Ends the process when it takes up too much memory. The system's own limits do not serve: they
// count what WebKit only reserves, which is a hundred times more. On a thread, since WebKit keeps
// the main loop waiting.
void watchMemory() {
  constexpr std::size_t mostMemory = std::size_t{4} << 30;
  constexpr std::size_t share = 3;  // the most of the machine's memory
  constexpr auto step = std::chrono::milliseconds(50);
  const auto pageSize = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  const auto machine = static_cast<std::size_t>(::sysconf(_SC_PHYS_PAGES)) * pageSize;
  const std::size_t most = std::min(mostMemory, machine / share);
  while (true) {
    std::size_t pages = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    if (resident * pageSize > most) end(outOfMemory);
    std::this_thread::sleep_for(step);
  }
}

// WebKit leaves the work files of what it refuses behind.
void removeWorkFiles() {
  const char* folder = std::getenv("TMPDIR");
  if (folder == nullptr) return;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), last; !error && entry != last;
       entry.increment(error)) {
    std::error_code ignored;
    std::filesystem::remove(entry->path(), ignored);
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

int main(int argc, char** argv) try {
  if (argc != 2) end(EXIT_FAILURE);
  confine();
  WebKitUserContentFilterStore* store = webkit_user_content_filter_store_new(argv[1]);
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  std::thread(watchMemory).detach();
  reply(Status::ready, std::to_string(webkit_get_major_version()) + "." +
                           std::to_string(webkit_get_minor_version()) + "." +
                           std::to_string(webkit_get_micro_version()));
  while (true) answerRequest(store, loop);
} catch (const std::bad_alloc&) {
  end(outOfMemory);
} catch (const std::exception&) {
  end(EXIT_FAILURE);
}
