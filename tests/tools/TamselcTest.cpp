#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
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

struct Setting {
  std::string input = {};
  std::string before = "exec ";   // what the shell reads before "tamselc"
  std::string killOnceOpen = {};  // the start of a path; see hasOpen
  int signal = SIGKILL;           // what to kill with
  bool killHelper = false;        // kill the helper that has the file open instead of tamselc
};

std::string read(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void write(const fs::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// Whether the process has a file open that is not empty and whose path begins with `start`.
bool hasOpen(pid_t process, const std::string& start) {
  std::error_code gone;
  fs::directory_iterator open("/proc/" + std::to_string(process) + "/fd", gone);
  for (; open != fs::directory_iterator(); open.increment(gone)) {
    std::error_code closed;
    const std::string path = fs::read_symlink(*open, closed);
    struct stat status {};
    ::stat(open->path().c_str(), &status);
    if (S_ISREG(status.st_mode) && status.st_size > 0 && path.starts_with(start)) return true;
  }
  return false;
}

// The processes that compile for this test: their argument is a folder of it.
std::vector<pid_t> helpers() {
  const std::string name = "/tamsel-rule-compiler\0"s + fs::current_path().parent_path().string();
  std::vector<pid_t> found;
  for (const auto& process : fs::directory_iterator("/proc")) {
    std::ifstream file(process.path() / "cmdline");
    std::string command;
    std::getline(file, command);  // throws nothing when the process has just gone
    if (command.find(name) != std::string::npos) {
      found.push_back(std::stoi(process.path().filename()));
    }
  }
  return found;
}

Outcome shell(const std::string& commands, const Setting& setting) {
  write("../in", setting.input);
  const std::string all = "exec <../in >../out 2>../err; " + commands;
  const pid_t child = ::fork();
  if (child == 0) {
    for (const int signal : {SIGPIPE, SIGXFSZ, SIGINT, SIGTERM, SIGHUP}) {
      std::signal(signal, SIG_DFL);
    }
    ::execl("/bin/sh", "sh", "-c", all.c_str(), nullptr);
    ::_exit(EXIT_FAILURE);
  }
  int state = 0;
  while (::waitpid(child, &state, setting.killOnceOpen.empty() ? 0 : WNOHANG) == 0) {
    std::vector<pid_t> processes = helpers();
    processes.push_back(child);
    for (const pid_t process : processes) {
      if (!hasOpen(process, setting.killOnceOpen)) continue;
      ::kill(setting.killHelper ? process : child, setting.signal);
    }
  }
  return {WIFEXITED(state) ? WEXITSTATUS(state) : -WTERMSIG(state), read("../out"), read("../err")};
}

// The arguments are as the shell takes them, so redirections may follow.
Outcome run(const std::string& arguments, const Setting& setting = {}) {
  return shell(setting.before + "'" TAMSELC_PATH "' " + arguments, setting);
}

// What the working folder holds: for each file its mode, name, link target and content.
std::string contents() {
  return shell("for f in *; do stat -c '%a %N' $f; test -L $f || cat $f; done", {}).out;
}

// What checking keeps and leaves behind: for each file its name and inode.
std::string left() {
  const std::string folders = " -name tamsel -o -name RuleStore -o -name check ";
  return shell("find ../cache ../tmp -mindepth 1 ! '('" + folders +
                   "')' -printf '%f %i\\n' | sort -t. -k2",
               {})
      .out;
}
const std::string keptFiles = "(compiled\\.json [0-9]+\n([0-9a-f-]+\\.rules [0-9]+\n)*)?";

// What is no JSON counts as one rule.
std::size_t ruleCount(const std::string& text) {
  return json::parse(text, nullptr, false).size();
}

// Root may read and replace everything, even a device.
const std::string asNobody =
    ::geteuid() == 0 ? "exec setpriv --reuid 65534 --clear-groups " : "chmod 555 .; exec ";
bool isNobodyAble() {
  return run("--version", {.before = asNobody}).status == 0;
}

class Tamselc : public testing::Test {
 protected:
  void SetUp() override {
    static const std::string parent = testing::TempDir();  // before TMPDIR is another
    std::string path = parent + "tamselc-XXXXXX";
    ASSERT_NE(::mkdtemp(path.data()), nullptr);
    ::umask(022);
    fs::permissions(path, fs::perms(0755));
    for (const char* name : {"/work", "/cache", "/tmp"}) fs::create_directory(path + name);
    fs::permissions(path + "/tmp", fs::perms::all);
    fs::current_path(path + "/work");
    const std::string folder = fs::current_path().parent_path();
    ::setenv("XDG_CACHE_HOME", (folder + "/cache").c_str(), 1);
    ::setenv("TMPDIR", (folder + "/tmp").c_str(), 1);
  }
  void TearDown() override {
    for (const pid_t process : helpers()) ::kill(process, SIGKILL);
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
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"", "new", "644 'new'\n" + document},
      {"seq 9999 >old; chmod 600 old; ", "old", "600 'old'\n" + document},
      {"umask 27; >c; ln -s c b; ln -s b a; ", "a",
       "777 'a' -> 'b'\n777 'b' -> 'c'\n640 'c'\n" + document},
      {"ln -s /proc/self/fd/1 pipe; ", "pipe | cat >../copy", "777 'pipe' -> '/proc/self/fd/1'\n"},
      // Former bugs: a link to what is still to be made, a name as long as names can be.
      {"ln -s new a; ", "a", "777 'a' -> 'new'\n644 'new'\n" + document},
      {"", longest, "644 '" + longest + "'\n" + document},
  };
  for (const auto& [before, output, after] : cases) {
    const Outcome made = run("compile -o " + output, {.before = before + "exec "});
    EXPECT_EQ(made.status, 0) << before << output << made.err;
    EXPECT_EQ(made.out, "") << before << output;
    EXPECT_EQ(contents(), after) << before << output;
    shell("rm *", {});
  }
  EXPECT_EQ(read("../copy"), document);
  if (!isNobodyAble()) GTEST_SKIP() << "Only root can start tamselc here.";
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

const std::string list =
    "||ads.example^\n||cdn.example^$script\n||far.example^$third-party\n"
    "@@||ads.example/ok/$domain=a.example\n0.0.0.0\thosts.example\n";

TEST_F(Tamselc, ExplainsOneRequest) {
  const std::tuple<std::string, int, std::string> cases[] = {
      {"//ads.example/ok/", 1, "Blocked.*first-party.* \\|\\|ads\\.example\\^\n"},
      {"//ads.example/ok/ --page http://a.example/", 0,
       "Allowed.*third-party.* @@\\|\\|ads\\.example/ok/\\$domain=a\\.example\n.* "
       "\\|\\|ads\\.example\\^\n"},
      {"//cdn.example/ --page http://b.cdn.example/", 0, "Allowed.*first-party"},
      {"//cdn.example/ --type script", 1, "Blocked.* \\|\\|cdn\\.example\\^\\$script\n"},
      {"//far.example/ --page http://a.example/", 1, "Blocked.*third-party"},
      {"//x@cdn.example/ --page http://a.example/ --type script", 0, "Allowed.*third-party"},
      {"//x@cdn.example/ --page http://a.example/ --hardened", 1,
       "Blocked.* The address hides its host behind a user name\\.\n.* from Tamsel"},
      {"//x@ads.example/ --hardened", 1, "Blocked.*first-party.* \\|\\|ads\\.example\\^\n"},
  };
  for (const auto& [request, status, words] : cases) {
    const Outcome made = run("match - --url http:" + request, {.input = list});
    EXPECT_EQ(made.status, status) << request;
    EXPECT_EQ(made.err, "") << request;
    EXPECT_THAT(made.out, testing::ContainsRegex(words)) << request;
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
  std::string messages;
  for (const char number : "45678"s) messages += "tamselc: line "s + number + ": [ -~]+\\.\n";
  write("list", list);
  write("requests", good + last);
  const Outcome all = run("match - --requests requests", {.input = list});
  EXPECT_EQ(all.status, 0);
  EXPECT_EQ(all.out + all.err, answers);
  const Outcome some = run("match list --requests -", {.input = good + faulty + last});
  EXPECT_EQ(some.status, 2);
  EXPECT_EQ(some.out, answers);
  EXPECT_THAT(some.err, MatchesRegex(messages));
}

TEST_F(Tamselc, ShowsNoControlCharacters) {
  write("l\x1B[2J\u009B\r\x7F", "/a\x1B\x7F/*\n");
  EXPECT_THAT(run("compile l* >/dev/null").err, MatchesRegex("[ -~\n]*l\\?\\[2J[?]{3}[ -~\n]*"));
  const Outcome made = run("match l* --url 'http://h/a\x1B\x7F/\u009B\n'");
  EXPECT_EQ(made.status, 1) << made.err;
  EXPECT_THAT(made.out, MatchesRegex("[ -~]+http://h/a[?]{2}/[?]{2} [ -~]+\n[ -~]+ /a[?]{2}/\\*\n"
                                     "[ -~]+ l[?]\\[2J[?]{3}[ -~]*\n"));
}

TEST_F(Tamselc, RefusesInOneSentenceAndChangesNothing) {
  const std::string plain = "exec ", fileLimit = "rm -rf ../cache; ulimit -f 2; exec ";
  const std::string noFolder = "export XDG_CACHE_HOME=/proc TMPDIR=/proc; exec ";
  const std::string noReader = "mkfifo ../p 2>/dev/null; exec 3<>../p >../p 3<&-; exec ";
  // After the arguments, and for the shell a comment: what the sentence must name.
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {plain,
       {"#", "bogus #", "compile --bogus #--bogus", "compile -o #-o", "match list #--url",
        "match --url u --requests list #--requests", "match --url u --type 'x\x1B' #x?",
        "compile - list - #tandard input", "match - --requests - #tandard input",
        "check --bogus #--bogus",
        // What cannot be read.
        "compile list missing -o old #missing", "compile '' #", "compile . #\".\"",
        "match missing --url u #missing", "match --requests missing #missing",
        "compile - <&- #tandard input", "check list missing #missing",
        // What cannot be written.
        "compile -o missing/new #missing/new", "compile -o list/below #list/below",
        "compile -o . #\".\"", "compile --report missing/new #missing/new",
        "compile >/dev/full #output", "compile >&- #output", "match --url u >/dev/full #output",
        "check >/dev/full #output", "check >&- #output", "check <&- >&- #output",
        // Former bugs.
        "compile 'no\x1B[2J\nsuch' #no?[2J?such", "compile '[list]' #[list]", "compile '[]' #[]"}},
      {fileLimit,
       {"compile -o old #old", "compile -o new #new", "compile -o /dev/null --report old #old",
        "compile #output", "check #size limit"}},
      {noReader,
       {"compile #output", "match --url u #output", "match --requests - #output", "check #output"}},
      {noFolder, {"check #folder"}},
      {asNobody,
       {"compile secret #secret", "check secret #secret", "match --requests secret #secret",
        "compile -o new #new", "compile -o old #old", "compile -o /dev/full #/dev/full"}},
  };
  for (const char* name : {"list", "old", "secret"}) write(name, "||a.example^\n");
  fs::permissions("secret", fs::perms(0));
  const std::string unchanged = contents();
  for (const auto& [before, commands] : cases) {
    if (before == asNobody && !isNobodyAble()) GTEST_SKIP() << "Only root can start tamselc.";
    for (const std::string& command : commands) {
      const Outcome made = run(command, {.input = "u\t\traw", .before = before});
      EXPECT_EQ(made.status, 2) << command;
      EXPECT_THAT(made.err, MatchesRegex("tamselc: [ -~]+\\.\\)?\n")) << command;
      EXPECT_THAT(made.err, HasSubstr(command.substr(command.rfind('#') + 1))) << command;
      EXPECT_EQ(contents(), unchanged) << command;
      EXPECT_THAT(left(), MatchesRegex(keptFiles)) << command;
    }
  }
}

TEST_F(Tamselc, CompilesWithWebKitOnlyWhatChanged) {
  const std::string oneFilter = "compiled\\.json [0-9]+\n[0-9a-f-]+\\.rules [0-9]+\n";
  const auto check = [](const std::string& text, int rules) {
    const Outcome made = run("check -", {.input = text});
    EXPECT_EQ(made.status, 0) << made.err;
    EXPECT_THAT(made.out, MatchesRegex("Time: [0-9.]+ s\\.\nWebKit takes all " +
                                       std::to_string(rules) + " rules\\.\n"));
    return left();
  };
  const std::string text = "||a.example^$image\n##.x\n";
  const Outcome hardened = run("check - --hardened", {.input = "b.example" + text});
  EXPECT_THAT(hardened.out, HasSubstr("WebKit takes all ")) << hardened.err;
  EXPECT_THAT(run("compile - --hardened", {.input = "b.example##.x"}).out,
              testing::StartsWith(R"([{"action":{"selector":".x","type":"css-display-none"},)"
                                  R"("trigger":{"if-top-url":["^[^:]+://([^/]*[.@])?b\\.)"));
  const std::string kept = check(text, 2);
  EXPECT_THAT(kept, MatchesRegex(oneFilter));
  EXPECT_EQ(check(text, 2), kept);
  json answer = json::parse(run("check - --json", {.input = text}).out, nullptr, false);
  EXPECT_GT(answer["seconds"], 0);
  EXPECT_EQ(answer.erase("seconds"), 1);
  EXPECT_EQ(answer, json({{"rules", 2}, {"accepted", 2}, {"refused", json::array()}}));
  EXPECT_EQ(left(), kept);
  const std::string changed = check(text + "##.y\n", 3);
  EXPECT_THAT(changed, MatchesRegex(oneFilter));
  EXPECT_THAT(kept, Not(HasSubstr(changed.substr(changed.rfind(' ')))));
}

TEST_F(Tamselc, TellsEveryRuleThatWebKitRefuses) {
  using Name = std::pair<std::string, std::string>;  // as it is, and as it is shown
  const Name first = {"l\x1B[2J\u009B", "l?[2J?"}, second = {"other", "other"};
  write(first.first, "/[a-\\xff]/$font\n||a.example^$font\n##[a=\"\n##.ok\n/a(\x7F/$font\n");
  write(second.first, "@@||a.example/ok/$font\n/a..................b/$font\n||b.example^$font\n");
  const std::tuple<Name, Name, std::string> cases[] = {
      {{"/[a-\\xff]/$font", "/[a-\\xff]/$font"}, first, "ASCII"},
      {{"/a(\x7F/$font", "/a(?/$font"}, first, "not well formed"},
      {{"/a..................b/$font", "/a..................b/$font"}, second, "wide classes"},
      {{"##[a=\"", "##[a=\""}, first, "quotation"},
  };
  const Outcome answered = run("check l* other --json");
  EXPECT_EQ(answered.status, 1) << answered.err;
  const json answer = json::parse(answered.out, nullptr, false);
  EXPECT_EQ(answer["rules"], 8);
  EXPECT_EQ(answer["accepted"], 4);
  ASSERT_EQ(answer["refused"].size(), std::size(cases));
  std::string text;
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const auto& [line, name, words] = cases[i];
    const json& refused = answer["refused"][i];
    const std::string reason = refused.value("reason", "");
    EXPECT_THAT(reason, HasSubstr(words));
    EXPECT_EQ(refused, json({{"line", line.first}, {"list", name.first}, {"reason", reason}}));
    text +=
        "Refused: " + line.second + "\n  List:   " + name.second + "\n  Reason: " + reason + "\n";
  }
  const Outcome made = run("check l* other");
  EXPECT_EQ(made.status, 1) << made.err;
  EXPECT_EQ(made.out.substr(0, made.out.find("Time: ")), text + "\n");
  EXPECT_THAT(made.out, testing::EndsWith(" s.\nWebKit refuses 4 of 8 rules.\n"));
  EXPECT_THAT(left(), MatchesRegex(keptFiles));
}

TEST_F(Tamselc, HandsOverNoMoreThanWebKitTakes) {
  // The last line is refused, so the verdict tells whether it was among what is handed over.
  for (const int good : {149999, 150000}) {
    const Setting setting = {.before = "(seq -f '##.a%.0f' " + std::to_string(good) +
                                       "; echo '##[a=\"') | "};
    const bool all = good == 149999;
    const Outcome compiled = run("compile -", setting);
    EXPECT_EQ(ruleCount(compiled.out), good + 1) << compiled.err;
    EXPECT_EQ(compiled.status, all ? 0 : 1);
    EXPECT_EQ(compiled.err.find("no more than 150000") == std::string::npos, all);
    const Outcome made = run("check -", setting);
    EXPECT_EQ(made.status, 1);
    EXPECT_EQ(made.err, all ? ""
                            : "Only the first 150000 of 150001 rules are handed over: "
                              "WebKit takes no more.\n");
    EXPECT_THAT(made.out, testing::EndsWith(all ? "WebKit refuses 1 of 150000 rules.\n"
                                                : "WebKit takes all 150000 rules.\n"));
  }
}

TEST_F(Tamselc, CombinesRulesAndDividesThem) {
  const Setting setting = {.input = "||a.test^\n||b.test^\n||c.test^\n@@/ok^$image\n##.x\n##.y\n"};
  const Outcome combined = run("compile - --combine", setting);
  EXPECT_EQ(combined.status, 0);
  EXPECT_EQ(ruleCount(combined.out), 3 + 1 + 1 + 2);
  EXPECT_THAT(combined.err, HasSubstr("\n9 rules in "));
  EXPECT_THAT(combined.err, HasSubstr("\nCombined they are 7.\n"));

  const Outcome divided = run("compile - --split --limit 4 -o rules.json", setting);
  EXPECT_EQ(divided.status, 0) << divided.err;
  EXPECT_THAT(divided.err, HasSubstr("Combined they are 7, in 3 documents.\n"));
  std::vector<std::size_t> counts;
  for (const char* file : {"rules-1.json", "rules-2.json", "rules-3.json"}) {
    counts.push_back(static_cast<std::size_t>(ruleCount(read(file))));
  }
  // Two blocks, the step and the exception; one of them less, and a hiding rule; the other.
  EXPECT_THAT(counts, testing::ElementsAre(4, 4, 1));
  EXPECT_EQ(run("compile - --split --limit 2 -o rules.json", setting).status, 2);
  EXPECT_EQ(run("compile - --split", setting).status, 2);

  const Outcome checked =
      run("check - --combine", {.input = "/a(b/$image\n||a.test^\n/a(b/$script\n"});
  EXPECT_EQ(checked.status, 1);
  EXPECT_THAT(checked.out, HasSubstr("Refused: /a(b/$script\n"));
  EXPECT_THAT(checked.out, HasSubstr("WebKit refuses 2 of 4 rules.\n"));
}

TEST_F(Tamselc, LeavesNothingBehindWhenInterrupted) {
  // WebKit takes a second for the short list, and for the long one several in two helpers.
  for (const auto& [name, count] : {std::pair{"short", "5000"}, {"long", "40000"}}) {
    shell("seq -f '/%.0f[a-z]*q.$image' "s + count + " >" + name, {});
  }
  const std::string work = fs::current_path().parent_path() / "cache/tamsel/RuleStore/check/work-";
  EXPECT_EQ(run("check").status, 0);
  const std::string kept = left();
  // The last is the system when memory runs out: it ends a helper.
  const std::pair<int, int> cases[] = {
      {SIGINT, -SIGINT}, {SIGTERM, -SIGTERM}, {SIGHUP, -SIGHUP}, {SIGKILL, 2}};
  for (const auto& [signal, status] : cases) {
    const Outcome made = run(
        "check long", {.killOnceOpen = work, .signal = signal, .killHelper = signal == SIGKILL});
    EXPECT_EQ(made.status, status);
    EXPECT_THAT(made.err, MatchesRegex(status == 2 ? "tamselc: [ -~]+killed[ -~]+\\.\n" : ""))
        << signal;
    EXPECT_THAT(helpers(), testing::IsEmpty()) << signal;
    EXPECT_EQ(left(), kept) << signal;
  }
  // The helpers do not finish what nobody waits for any more, and the next run tidies up.
  EXPECT_EQ(run("check long", {.killOnceOpen = work}).status, -SIGKILL);
  while (!helpers().empty()) std::this_thread::yield();
  EXPECT_THAT(left(), testing::AllOf(HasSubstr("work-"), Not(HasSubstr("List-check"))));
  EXPECT_EQ(run("check").status, 0);
  EXPECT_EQ(left(), kept);
  // Shells start what runs in the background so that an interrupt leaves it alone.
  const Setting background = {
      .before = "trap '' INT; exec ", .killOnceOpen = work, .signal = SIGINT};
  EXPECT_EQ(run("check short", background).status, 0);
}

TEST_F(Tamselc, SaysWhatKeepsTheHelperFromWork) {
  fs::create_directory("../alone");
  fs::copy_file(TAMSELC_PATH, "../alone/tamselc");
  const std::string helper = "../alone/tamsel-rule-compiler";
  const std::pair<std::string, std::string> cases[] = {
      {"", "No such file"},
      {"exit 3", "ended by itself"},
      {"kill -KILL $$", "killed"},
      {"echo garbage garbage garbage >&0; while :; do :; done", "another program"},
      // It knows how to begin.
      {R"(printf '\0\0\0\0\0\0\0\0\3\0\0\0\0\0\0\0abc' >&0)", "ended by itself"},
  };
  for (const auto& [script, words] : cases) {
    if (!script.empty()) write(helper, "#!/bin/sh\n" + script + "\n");
    const Outcome made = shell("chmod -f 755 ../alone/*; exec ../alone/tamselc check", {});
    EXPECT_EQ(made.status, 2) << script << made.out;
    EXPECT_THAT(made.err, MatchesRegex("tamselc: [ -~]+" + words + "[ -~]*\\.\n")) << script;
    EXPECT_THAT(helpers(), testing::IsEmpty()) << script;
    EXPECT_EQ(left(), "") << script;
  }
}

TEST_F(Tamselc, ChecksWithoutACacheFolder) {
  write("file", "");
  fs::create_directory("../home");
  const std::string cases[] = {
      "export XDG_CACHE_HOME=$PWD/file; exec ",
      "export XDG_CACHE_HOME=/proc; exec ",
      "unset XDG_CACHE_HOME; export HOME=$PWD/../home; exec ",
      "chmod 555 ../cache; " + asNobody,
      "unset XDG_CACHE_HOME HOME; " + asNobody,
  };
  for (const std::string& before : cases) {
    if (before.ends_with(asNobody) && !isNobodyAble()) GTEST_SKIP() << "Only root can start it.";
    const Outcome made = run("check", {.before = before});
    EXPECT_EQ(made.status, 0) << before << made.err;
    EXPECT_THAT(made.out, HasSubstr("WebKit takes all ")) << before;
    EXPECT_EQ(left(), "") << before;
    EXPECT_EQ(contents(), "644 'file'\n") << before;
  }
  EXPECT_TRUE(fs::exists("../home/.cache/tamsel/RuleStore/check/compiled.json"));
}

}  // namespace
}  // namespace tamsel
