#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

// These tests start the real tamselc from a shell, in a folder of their own.
namespace tamsel {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using nlohmann::json;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

struct Outcome {
  int status;  // the exit code, or minus the signal that ended the process
  std::string out, err;
};

// Asked with the process and a descriptor that shares the position in its standard input.
using Moment = std::function<bool(pid_t, int)>;

struct Start {
  std::string input = {};
  std::string before = "exec ";  // what stands before "tamselc" in the shell command
  Moment isTimeToKill = {};
};

std::string read(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void write(const fs::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// The arguments are as the shell takes them, so a redirection or a comment may follow.
Outcome run(const std::string& arguments, const Start& start = {}) {
  const std::string command = start.before + "'" TAMSELC_PATH "' " + arguments;
  write("../in", start.input);
  constexpr int fresh = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  const int files[] = {::open("../in", O_RDONLY | O_CLOEXEC), ::open("../out", fresh, 0600),
                       ::open("../err", fresh, 0600)};
  const pid_t child = ::fork();
  if (child == 0) {
    for (int i = 0; i < 3; ++i) ::dup2(files[i], i);
    std::signal(SIGPIPE, SIG_DFL);
    std::signal(SIGXFSZ, SIG_DFL);
    ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    ::_exit(EXIT_FAILURE);
  }
  int state = 0;
  while (::waitpid(child, &state, start.isTimeToKill ? WNOHANG : 0) == 0) {
    if (start.isTimeToKill(child, files[0])) ::kill(child, SIGKILL);
  }
  for (const int file : files) ::close(file);
  return {WIFEXITED(state) ? WEXITSTATUS(state) : -WTERMSIG(state), read("../out"), read("../err")};
}

// Before a command that may not write into the working folder or replace a device.
const std::string asNobody =
    ::geteuid() == 0 ? "exec setpriv --reuid 65534 --clear-groups " : "chmod 555 .; exec ";

bool canRunAsNobody() {
  return run("--version", {.before = asNobody}).status == 0;
}

// The files of the working folder: "MODE PATH: CONTENT", or "PATH -> TARGET" of a link.
std::set<std::string> contents() {
  std::set<std::string> result;
  for (const auto& entry : fs::directory_iterator(".")) {
    std::ostringstream text;
    const std::string name = entry.path().filename();
    if (entry.is_symlink()) {
      text << name << " -> " << fs::read_symlink(entry).string();
    } else {
      text << std::oct << static_cast<unsigned>(entry.status().permissions()) << ' ' << name << ": "
           << read(entry);
    }
    result.insert(text.str());
  }
  return result;
}

// The largest number when the document is no JSON.
std::size_t ruleCount(const std::string& document) {
  if (!json::accept(document)) return std::string::npos;
  std::size_t count = 0, at = 0;
  for (; (at = document.find("\"trigger\":", at)) != std::string::npos; ++at) ++count;
  return count;
}

std::string rules(std::size_t count) {
  std::string list;
  while (count-- > 0) list += "||h" + std::to_string(count) + ".example^$image\n";
  return list;
}

class Tamselc : public testing::Test {
 protected:
  void SetUp() override {
    std::string path = testing::TempDir() + "tamselc-XXXXXX";
    ASSERT_NE(::mkdtemp(path.data()), nullptr);
    ::umask(022);
    fs::permissions(path, fs::perms(0755));
    fs::create_directory(path + "/work");
    fs::current_path(path + "/work");
  }
  void TearDown() override {
    fs::permissions(".", fs::perms(0755));
    const fs::path folder = fs::current_path().parent_path();
    fs::current_path("/");
    fs::remove_all(folder);
  }
};

TEST_F(Tamselc, WritesTheDocumentWhereAsked) {
  const auto [status, document, table] = run("compile");
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ruleCount(document), 36);
  EXPECT_THAT(table, testing::ContainsRegex("Tamsel Starter List +28 +2 +6 +6\n"));

  const std::string longest(255, 'n');
  const std::tuple<std::string, std::string, std::set<std::string>> cases[] = {
      {"", "new", {"644 new: " + document}},
      {"seq 9999 >old; chmod 600 old; ", "old", {"600 old: " + document}},
      {"umask 27; >o; ln -s o a; ln -s a b; ", "b", {"640 o: " + document, "a -> o", "b -> a"}},
      // Former bugs: a link to what is still to be made, a name as long as names can be.
      {"ln -s new a; ", "a", {"644 new: " + document, "a -> new"}},
      {"", longest, {"644 " + longest + ": " + document}},
  };
  for (const auto& [before, output, after] : cases) {
    const Outcome made = run("compile -o " + output, {.before = before + "exec "});
    EXPECT_EQ(made.status, 0) << before << output << made.err;
    EXPECT_EQ(made.out, "") << before << output;
    EXPECT_EQ(contents(), after) << before << output;
    for (const auto& entry : fs::directory_iterator(".")) fs::remove(entry);
  }
  // What is no regular file is written to as it is.
  const std::string link = "ln -s /proc/self/fd/1 pipe; ";
  EXPECT_EQ(run("compile -o pipe | cat", {.before = link}).out, document);
  EXPECT_EQ(contents(), std::set{"pipe -> /proc/self/fd/1"s});
  if (!canRunAsNobody()) GTEST_SKIP() << "Only root can run tamselc, and could harm a device.";
  EXPECT_EQ(run("compile -o /dev/null", {.before = asNobody}).status, 0);
}

TEST_F(Tamselc, ReportsEveryListAndSkippedLine) {
  write("z", "\uFEFF||a.example^$image\n@@||a.example/ok/$image\n##.x\na.example#@#.x\n");
  write("b\xFF", "##.b\xFF\n##.\xED\xA0\x80\n");
  // Standard input is a pipe here; and what an earlier list has made already does not count.
  const Outcome made = run("compile z - b\xFF --report report",
                           {.before = "printf '||a.example^$image\\r\\n##.y' | "});
  EXPECT_EQ(made.status, 0) << made.err;
  EXPECT_EQ(ruleCount(made.out), 4);
  const json expected = json::parse(R"({
    "rules": 4,
    "lists": [
      {"name": "z", "block": 1, "exception": 1, "cosmetic": 1, "skipped": 1},
      {"name": "-", "block": 0, "exception": 0, "cosmetic": 1, "skipped": 0},
      {"name": "b\uFFFD", "block": 0, "exception": 0, "cosmetic": 0, "skipped": 2}],
    "skipped": [
      {"line": "a.example#@#.x", "list": "z",
       "reason": "Cosmetic exception (#@#) can't target a single selector in WebKit"},
      {"line": "##.b\uFFFD", "list": "b\uFFFD", "reason": "Non-ASCII selector"},
      {"line": "##.\uFFFD\uFFFD\uFFFD", "list": "b\uFFFD", "reason": "Non-ASCII selector"}]})");
  EXPECT_EQ(json::parse(read("report"), nullptr, false), expected);
}

TEST_F(Tamselc, WarnsWhenWebKitWouldRefuseTheDocument) {
  const std::string warning = "no more than 150000";
  const std::string most = rules(150000);
  EXPECT_THAT(run("compile - >/dev/null", {.input = most}).err, Not(HasSubstr(warning)));
  const Outcome made = run("compile -", {.input = most + "||a.example^$image"});
  EXPECT_EQ(made.status, 0);
  EXPECT_THAT(made.err, HasSubstr(warning));
  EXPECT_EQ(ruleCount(made.out), 150001);
}

TEST_F(Tamselc, SurvivesHostileLists) {
  const std::string huge(std::size_t{10} << 20, 'a'), open(10000, '('), close(10000, ')');
  const std::string parts[] = {"", "a", "|", "@@", "$", "##", "//", "\r", "\0"s, "\xFF", "*"};
  std::string small;
  for (std::size_t i = 0; i < 300000; ++i) small += parts[i % std::size(parts)] + "\n";
  const std::pair<const char*, std::string> cases[] = {
      {"NUL", "||a\0b.example^\n\0##.a\0b\n"s},
      {"long host", "||" + huge + "^$image"},
      {"long selector", "##" + huge},
      {"short lines", small},
      {"surrogates", "||a\xED\xA0\x80.example^\n##.\xED\xBF\xBF\n/\xED\xB0\x80\xED\xA0\x80/"},
      {"nested", "/" + open + "a" + close + "/\n/" + open + "/\n##" + open},
  };
  for (const auto& [what, text] : cases) {
    const Start start{.input = text + "\n/last-line.$image"};
    const Outcome made = run("compile -", start);
    EXPECT_EQ(made.status, 0) << what << made.err;
    EXPECT_NE(ruleCount(made.out), std::string::npos) << what;
    EXPECT_NE(made.out.find(R"("url-filter":"/last-line\\.")"), std::string::npos) << what;
    const Outcome matched = run("match - --url x:/last-line.", start);
    EXPECT_EQ(matched.status, 1) << what << matched.err;
    EXPECT_EQ(matched.err, "") << what;
  }
}

const std::string list =
    "||ads.example^\n||cdn.example^$script\n||far.example^$third-party\n"
    "@@||ads.example/ok/$domain=a.example\n0.0.0.0\thosts.example\n";

TEST_F(Tamselc, ExplainsOneRequest) {
  const std::tuple<std::string, int, std::string, std::string> cases[] = {
      {"//ads.example/", 1, " ||ads.example^\n", "first-party"},
      {"//ads.example/ok/", 1, " ||ads.example^\n", "first-party"},
      {"//ads.example/ok/ --page http://a.example/", 0, " @@||ads.example/ok/$domain=a.example\n",
       "third-party"},
      {"//cdn.example/", 0, "", "first-party"},
      {"//cdn.example/ --type script", 1, " ||cdn.example^$script\n", "first-party"},
      {"//far.example/ --page http://b.far.example/", 0, "", "first-party"},
      {"//far.example/ --page http://a.example/", 1, " ||far.example^$third-party\n",
       "third-party"},
  };
  for (const auto& [request, status, rule, party] : cases) {
    const Outcome made = run("match - --url http:" + request, {.input = list});
    EXPECT_EQ(made.status, status) << request;
    EXPECT_EQ(made.err, "") << request;
    for (const std::string& words : {status == 0 ? "Allowed"s : "Blocked"s, rule, party}) {
      EXPECT_THAT(made.out, HasSubstr(words)) << request;
    }
  }
}

TEST_F(Tamselc, AnswersManyRequests) {
  const std::string good =
      "http://ads.example/\t\timage\n\nhttp://hosts.example/\thttp://a.b/\traw\n";
  const std::string faulty = "no tabs\n\t\timage\nu\t\timages\x1B[2J\nu\t\timage\tmore\nu\timage\n";
  const std::string last = "http://ads.example/ok/\thttp://a.example/\tfont";  // and no line end
  const std::string answers =
      "http://ads.example/\t||ads.example^\t\tfirst\n"
      "http://hosts.example/\t0.0.0.0 hosts.example\t\tthird\n"
      "http://ads.example/ok/\t||ads.example^\t@@||ads.example/ok/$domain=a.example\tthird\n";
  write("list", list);
  for (const bool faults : {false, true}) {
    const std::string requests = good + (faults ? faulty : "") + last;
    std::string messages;
    for (int number = 4; faults && number <= 8; ++number) {
      messages += "tamselc: line " + std::to_string(number) + ": [ -~]+\\.\n";
    }
    write("requests", requests);
    for (const Outcome& made : {run("match list --requests -", {.input = requests}),
                                run("match - --requests requests", {.input = list})}) {
      EXPECT_EQ(made.status, faults ? 2 : 0);
      EXPECT_EQ(made.out, answers);
      EXPECT_THAT(made.err, MatchesRegex(messages));
    }
  }
}

TEST_F(Tamselc, ShowsNoControlCharacters) {
  write("l\x1B[2J\u009B\r\x7F", "/a\x1B\x7F/*\n");
  EXPECT_THAT(run("compile l* >/dev/null").err, MatchesRegex("[ -~\n]*l.\\[2J[ -~\n]*"));
  const Outcome made = run("match l* --url 'http://h/a\x1B\x7F/\u009B\n'");
  EXPECT_EQ(made.status, 1) << made.err;
  EXPECT_THAT(made.out, MatchesRegex("[ -~\n]+"));
  for (const char* shown : {"http://h/a??\x2F?? ", " /a??\x2F*\n", " l?[2J???"}) {
    EXPECT_THAT(made.out, HasSubstr(shown));
  }
}

TEST_F(Tamselc, RefusesInOneSentenceAndChangesNothing) {
  const std::string plain = "exec ", small = "ulimit -f 2; exec ";
  const std::string noReader = "mkfifo ../p 2>/dev/null; exec 3<>../p >../p 3<&-; exec ";
  // After the arguments, and for the shell a comment: what the sentence must name.
  const std::pair<std::string, std::vector<std::string>> groups[] = {
      // The command line.
      {plain,
       {"#", "bogus #", "compile --bogus #--bogus", "compile -o #-o", "match list #--url",
        "match --url u --requests list #--requests", "match --url u --type 'x\x1B' #x?",
        "compile - list - #tandard input", "match - --requests - #tandard input"}},
      // What cannot be read.
      {plain,
       {"compile list missing -o old #missing", "compile '' #", "compile . #\".\"",
        "match missing --url u #missing", "match --requests missing #missing",
        "match --requests . #\".\"", "compile - <&- #tandard input"}},
      {asNobody, {"compile secret #secret", "match --requests secret #secret"}},
      // What cannot be written.
      {plain,
       {"compile -o missing/new #missing/new", "compile -o list/below #list/below",
        "compile -o . #\".\"", "compile --report missing/new #missing/new",
        "compile >/dev/full #output", "compile >&- #output", "match --url u >/dev/full #output"}},
      {asNobody, {"compile -o new #new", "compile -o old #old", "compile -o /dev/full #/dev/full"}},
      {small,
       {"compile -o old #old", "compile -o new #new", "compile --report old #old",
        "compile #output"}},
      {noReader, {"compile #output", "match --url u #output", "match --requests - #output"}},
      // Former bugs.
      {plain,
       {"compile 'no\x1B[2J\nsuch' #no?[2J?such", "compile '[list]' #[list]", "compile '[]' #[]"}},
  };
  for (const char* name : {"list", "old", "secret"}) write(name, "||a.example^\n");
  fs::permissions("secret", fs::perms(0));
  const auto unchanged = contents();
  const bool skipsNobody = !canRunAsNobody();
  for (const auto& [before, commands] : groups) {
    for (const std::string& command : commands) {
      if (skipsNobody && before == asNobody) continue;
      const Outcome made = run(command, {.input = "u\t\traw", .before = before});
      fs::permissions(".", fs::perms(0755));
      EXPECT_EQ(made.status, 2) << command;
      EXPECT_THAT(made.err, MatchesRegex("tamselc: [ -~]+\\.\\)?\n")) << command;
      EXPECT_THAT(made.err, HasSubstr(command.substr(command.rfind('#') + 1))) << command;
      EXPECT_EQ(contents(), unchanged) << command;
    }
  }
  if (skipsNobody) GTEST_SKIP() << "Only root can run tamselc, and no permissions stop root.";
}

TEST_F(Tamselc, LeavesTheOldFileOrTheNewOneWhenKilled) {
  const int nameless = ::open(".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
  if (nameless < 0) GTEST_SKIP() << "The file system has no files without a name.";
  ::close(nameless);
  const auto isWriting = [folder = fs::current_path().string()](pid_t process, int) {
    std::error_code gone;
    const std::string open = "/proc/" + std::to_string(process) + "/fd";
    for (const auto& file : fs::directory_iterator(open, gone)) {
      struct stat status {};
      const bool hasBytes = ::stat(file.path().c_str(), &status) == 0 && status.st_size > 0;
      if (hasBytes && fs::read_symlink(file, gone).string().starts_with(folder)) return true;
    }
    return false;
  };
  const std::pair<std::string, Moment> moments[] = {
      {"at once", [](pid_t, int) { return true; }},
      {"reading", [](pid_t, int input) { return ::lseek(input, 0, SEEK_CUR) > 0; }},
      {"writing", isWriting},
      {"never", [](pid_t, int) { return false; }},
  };
  const std::string text = rules(50000), document = run("compile -", {.input = text}).out;
  for (const auto& [moment, isTimeToKill] : moments) {
    write("file", "old");
    const Outcome made = run("compile - -o file", {.input = text, .isTimeToKill = isTimeToKill});
    const std::set<std::string> left = contents();
    const bool isOld = left == std::set{"644 file: old"s} && made.status == -SIGKILL;
    EXPECT_TRUE(isOld || left == std::set{"644 file: " + document}) << moment << made.status;
  }
}

}  // namespace
}  // namespace tamsel
