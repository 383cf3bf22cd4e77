#include "platform/rulestore/CompilerProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <optional>
#include <vector>

#include "platform/rulestore/helper/Protocol.h"

namespace tamsel {
namespace {

using namespace HelperProtocol;

// A reply is a few words. More means that it is not the helper that speaks.
constexpr std::size_t maxReplyLength = std::size_t{1} << 20;

// How long a process whose stream is closed may take to be gone.
constexpr auto graceOfDying = std::chrono::seconds(2);

// A descriptor that putting 0, 1 and 2 in their places cannot hit.
Descriptor aboveStandard(int value) {
  constexpr int firstFree = 3;
  const Descriptor given(value);
  return Descriptor(given ? ::fcntl(given.get(), F_DUPFD_CLOEXEC, firstFree) : -1);
}

struct Ends {
  Descriptor ours, theirs;
};

Ends makeEnds(const std::array<int, 2>& pair) {
  Ends ends{aboveStandard(pair[0]), aboveStandard(pair[1])};
  if (!ends.ours || !ends.theirs) {
    throw CompilerProcess::Died(std::strerror(errno), 0, {});
  }
  (void)::fcntl(ends.ours.get(), F_SETFL, O_NONBLOCK);
  return ends;
}

Ends makeStream() {
  std::array<int, 2> pair{-1, -1};
  (void)::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data());
  return makeEnds(pair);
}

Ends makePipe() {
  std::array<int, 2> pair{-1, -1};
  (void)::pipe2(pair.data(), O_CLOEXEC);
  return makeEnds(pair);
}

// The program is given a signal state of its own, no open file but the standard three, and a
// process group, so that an interrupt from the keyboard is its user's affair.
pid_t spawn(const std::string& helper, const std::string& folder, const std::string& workFolder,
            const Descriptor& stream, const Descriptor& errors) {
  posix_spawn_file_actions_t files;
  ::posix_spawn_file_actions_init(&files);
  ::posix_spawn_file_actions_adddup2(&files, stream.get(), STDIN_FILENO);
  ::posix_spawn_file_actions_adddup2(&files, errors.get(), STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&files, errors.get(), STDERR_FILENO);
  ::posix_spawn_file_actions_addclosefrom_np(&files, STDERR_FILENO + 1);

  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  sigset_t signals;
  ::sigemptyset(&signals);
  ::posix_spawnattr_setsigmask(&attributes, &signals);
  ::sigfillset(&signals);
  ::posix_spawnattr_setsigdefault(&attributes, &signals);
  ::posix_spawnattr_setflags(
      &attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);

  // Nothing of its user's: neither their settings, nor what would have WebKit or the loader of
  // programs do something else.
  std::array<std::string, 4> variables = {"TMPDIR=" + workFolder, "HOME=" + workFolder,
                                          "PATH=/usr/bin:/bin", "LC_ALL=C.UTF-8"};
  std::vector<char*> environment(variables.size() + 1);
  std::transform(variables.begin(), variables.end(), environment.begin(),
                 [](std::string& variable) { return variable.data(); });
  std::string program = helper;
  std::string argument = folder;
  std::array<char*, 3> arguments = {program.data(), argument.data(), nullptr};

  pid_t process = -1;
  const int error = ::posix_spawn(&process, helper.c_str(), &files, &attributes, arguments.data(),
                                  environment.data());
  ::posix_spawn_file_actions_destroy(&files);
  ::posix_spawnattr_destroy(&attributes);
  if (error != 0) throw CompilerProcess::Died(std::strerror(error), 0, {});
  return process;
}

int millisecondsUntil(CompilerProcess::Clock::time_point deadline) {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - CompilerProcess::Clock::now());
  return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, INT_MAX));
}

// Reads what there is, if anything is open, up to `limit` bytes in `to`; what goes beyond is
// dropped. Returns whether there may be more later.
bool readAvailable(const Descriptor& from, std::string& to, std::size_t limit) {
  std::array<char, 65536> buffer;
  while (true) {
    const ssize_t count = ::read(from.get(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno == EAGAIN;
    if (count == 0) return false;
    to.append(buffer.data(), std::min(static_cast<std::size_t>(count), limit - to.size()));
  }
}

// Writes as much as fits. Returns whether the other end is there.
bool writeAvailable(const Descriptor& to, std::vector<std::string_view>& pieces) {
  while (!pieces.empty()) {
    std::string_view& piece = pieces.back();
    const ssize_t count = ::send(to.get(), piece.data(), piece.size(), MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno == EAGAIN;
    piece.remove_prefix(static_cast<std::size_t>(count));
    if (piece.empty()) pieces.pop_back();
  }
  return true;
}

template <typename Record>
std::string_view bytesOf(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

}  // namespace

struct CompilerProcess::Reply {
  Status status;
  std::string text;
  std::string log;
};

CompilerProcess::CompilerProcess(const std::string& helper, const std::string& folder,
                                 const std::string& workFolder)
    : wakeUp_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wakeUp_) throw Died(std::strerror(errno), 0, {});
  Ends stream = makeStream();
  Ends errors = makePipe();
  process_ = spawn(helper, folder, workFolder, stream.theirs, errors.theirs);
  stream_ = std::move(stream.ours);
  errors_ = std::move(errors.ours);
}

CompilerProcess::~CompilerProcess() {
  if (process_ > 0) (void)end({});
}

const std::string& CompilerProcess::webKitVersion(Clock::time_point deadline,
                                                  const std::stop_token& stop) {
  if (webKitVersion_.empty()) {
    Reply reply = exchange({}, deadline, stop);
    if (reply.status != Status::ready) throw Died("it is another program", 0, {});
    webKitVersion_ = std::move(reply.text);
  }
  return webKitVersion_;
}

CompilerProcess::Answer CompilerProcess::compile(const std::string& identifier,
                                                 std::span<const std::string_view> document,
                                                 Clock::time_point deadline,
                                                 const std::stop_token& stop) {
  (void)webKitVersion(deadline, stop);
  Request header{identifier.size(), 0};
  for (const std::string_view piece : document) header.documentLength += piece.size();
  std::vector<std::string_view> request = {bytesOf(header), identifier};
  request.insert(request.end(), document.begin(), document.end());
  Reply reply = exchange(request, deadline, stop);
  return {reply.status == Status::compiled, std::move(reply.text), std::move(reply.log)};
}

CompilerProcess::Reply CompilerProcess::exchange(std::span<const std::string_view> request,
                                                 Clock::time_point deadline,
                                                 const std::stop_token& stop) {
  // The last piece first, so that what is written can be taken off the end.
  std::vector<std::string_view> outgoing(request.rbegin(), request.rend());
  std::erase(outgoing, std::string_view());
  std::string incoming, log;
  const std::stop_callback wakeUp(stop, [this] { (void)::eventfd_write(wakeUp_.get(), 1); });

  bool alive = true;
  while (true) {
    HelperProtocol::Reply header{};
    if (incoming.size() >= sizeof header) {
      std::memcpy(&header, incoming.data(), sizeof header);
      if (header.textLength > maxReplyLength) throw Died("it is another program", 0, {});
      if (incoming.size() == sizeof header + header.textLength) {
        // WebKit had written its complaint before the helper answered.
        (void)readAvailable(errors_, log, maxLogLength);
        return {header.status, incoming.substr(sizeof header), std::move(log)};
      }
    }
    if (!alive) {
      const auto [signal, exitCode] = end(graceOfDying);
      (void)readAvailable(errors_, log, maxLogLength);
      throw Died(signal != 0 ? ::strsignal(signal) : "it ended by itself", signal, std::move(log),
                 exitCode == outOfMemory);
    }

    std::array<pollfd, 3> polled = {
        pollfd{stream_.get(), static_cast<short>(outgoing.empty() ? POLLIN : POLLIN | POLLOUT), 0},
        pollfd{errors_.get(), POLLIN, 0}, pollfd{wakeUp_.get(), POLLIN, 0}};
    const int ready = ::poll(polled.data(), polled.size(), millisecondsUntil(deadline));
    if (ready < 0 && errno == EINTR) continue;
    if (stop.stop_requested()) throw Stopped("stopped");
    if (ready == 0) throw TimedOut("timed out");

    if (polled[1].revents != 0 && !readAvailable(errors_, log, maxLogLength)) errors_.close();
    const bool writable = (polled[0].revents & POLLOUT) != 0;
    alive = !writable || writeAvailable(stream_, outgoing);
    if ((polled[0].revents & ~POLLOUT) != 0) {
      alive = readAvailable(stream_, incoming, sizeof header + maxReplyLength) && alive;
    }
  }
}

CompilerProcess::End CompilerProcess::end(std::chrono::milliseconds grace) {
  if (grace.count() > 0) {
    const Descriptor process(static_cast<int>(::syscall(SYS_pidfd_open, process_, 0)));
    std::array<pollfd, 1> polled = {pollfd{process.get(), POLLIN, 0}};
    (void)::poll(polled.data(), polled.size(), static_cast<int>(grace.count()));
  }
  ::kill(process_, SIGKILL);
  int status = 0;
  pid_t reaped = -1;
  do {
    reaped = ::waitpid(process_, &status, 0);
  } while (reaped < 0 && errno == EINTR);
  process_ = -1;
  if (reaped <= 0) return {0, 0};
  return {WIFSIGNALED(status) ? WTERMSIG(status) : 0, WIFEXITED(status) ? WEXITSTATUS(status) : 0};
}

}  // namespace tamsel
