#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/AccessibleApp.h"
#include "tests/support/SiteServer.h"
#include "tests/support/TemporaryFolder.h"

namespace tamsel {
namespace {

using test::AccessibleApp;
using test::waitUntil;
using testing::HasSubstr;

constexpr const char* blocked = " blocked on this page";

// The program itself, used as a person would.
class WindowTest : public testing::Test {
 protected:
  WindowTest() { start(); }
  ~WindowTest() override {
    if (process_ == nullptr) return;
    g_subprocess_force_exit(process_);
    g_subprocess_wait(process_, nullptr, nullptr);
    g_object_unref(process_);
  }

  void start() {
    GSubprocessLauncher* launcher = g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_NONE);
    for (const char* name : {"XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME"}) {
      g_subprocess_launcher_setenv(launcher, name, home_.path().c_str(), TRUE);
    }
    // What the toolkit keeps until the end is not the program's.
    g_subprocess_launcher_setenv(launcher, "ASAN_OPTIONS", "detect_leaks=0", TRUE);
    process_ = g_subprocess_launcher_spawn(launcher, nullptr, TAMSEL_PATH, nullptr);
    g_object_unref(launcher);
    window_ = std::make_unique<AccessibleApp>(process_);
    awaitLabel(" rules active",
               [](const std::string& text) { return !text.empty() && text != "0 rules active"; });
  }

  // Closes the window; the exit code of the program.
  int close() {
    window_->act(ATSPI_ROLE_FRAME, "Tamsel", "window.close");
    window_.reset();
    g_subprocess_wait(process_, nullptr, nullptr);
    const int code =
        g_subprocess_get_if_exited(process_) != FALSE ? g_subprocess_get_exit_status(process_) : -1;
    g_clear_object(&process_);
    return code;
  }

  void awaitLabel(const std::string& suffix, const std::function<bool(const std::string&)>& isIt) {
    std::string last;
    try {
      waitUntil("a label …" + suffix, [&] {
        last = window_->labelWithSuffix(suffix).value_or("");
        return isIt(last);
      });
    } catch (const std::runtime_error& failure) {
      throw std::runtime_error(failure.what() + std::string(" There is “") + last + "”.");
    }
  }
  void awaitCount(const std::string& count) {
    awaitLabel(blocked, [&count](const std::string& text) { return text == count + blocked; });
  }
  // Its beginning.
  void awaitText(const std::string& text) {
    waitUntil(text, [&] { return window_->labelWithPrefix(text).has_value(); });
  }

  void browse(const std::string& url) {
    // A key that comes before the window has the focus is lost.
    waitUntil("the address to be selected", [this] {
      AccessibleApp::press("<Control>l");
      return window_->isFocused("Address");
    });
    AccessibleApp::type(url + "\n");
  }

  std::string state() const {
    std::ifstream file(home_.path() + "/Tamsel/state.json");
    return {std::istreambuf_iterator<char>(file), {}};
  }

  AccessibleApp& window() { return *window_; }
  GSubprocess* process() { return process_; }

 private:
  test::TemporaryFolder home_;
  GSubprocess* process_ = nullptr;
  std::unique_ptr<AccessibleApp> window_;
};

TEST_F(WindowTest, ShowsTheDemoPageAndPausesItsSite) {
  awaitCount("4");
  EXPECT_TRUE(window().find(ATSPI_ROLE_LABEL, "36 rules active"));
  EXPECT_EQ(window().textOf("Address"), "https://example.org/");
  EXPECT_FALSE(window().isSensitive(ATSPI_ROLE_PUSH_BUTTON, "Back"));
  EXPECT_FALSE(window().isSensitive(ATSPI_ROLE_PUSH_BUTTON, "Forward"));

  window().act(ATSPI_ROLE_PUSH_BUTTON, "4 blocked on this page");
  awaitText("https://ads.example.com/banner.png");
  awaitText("https://tracker.example.net/t.js");
  EXPECT_FALSE(window().find(ATSPI_ROLE_LABEL, "https://ads.example.com/allowed/ok.png"));

  window().act(ATSPI_ROLE_CHECK_BOX, "Pause on example.org");
  awaitCount("0");
  awaitText("Nothing blocked yet.");
  EXPECT_THAT(state(), HasSubstr(R"("pausedSites":["example.org"])"));
  window().act(ATSPI_ROLE_CHECK_BOX, "Pause on example.org");
  awaitCount("4");
}

TEST_F(WindowTest, AppliesCustomRules) {
  test::SiteServer sites;
  sites.pages[sites.url() + "/"] = {
      "<title>Page</title><p class=ad>Ad</p><img src='/pictures/a.png'><img src='/other.png'>"};
  window().act(ATSPI_ROLE_PAGE_TAB, "Custom Rules");
  awaitText("Custom rules");
  window().setText("Custom rules", "/pictures/*\n127.0.0.1##.ad\nexample.com##+js(x)\n");
  const std::string none = "Custom list: 0 rules (0 block, 0 exceptions, 0 hide), 0 skipped.";
  EXPECT_TRUE(window().labelWithPrefix(none));  // not yet
  window().act(ATSPI_ROLE_PUSH_BUTTON, "Save & apply");
  awaitText("Custom list: 3 rules (2 block, 0 exceptions, 1 hide), 1 skipped. Examples: ");
  EXPECT_THAT(state(), HasSubstr("127.0.0.1##.ad"));

  window().act(ATSPI_ROLE_PAGE_TAB, "Browser");
  awaitText("39 rules active");
  browse(sites.url() + "/");
  awaitCount("1");
  awaitText("Pause on 127.0.0.1");
  waitUntil("the other picture",
            [&] { return sites.timesRequested(sites.url() + "/other.png") == 1; });
  EXPECT_EQ(sites.timesRequested(sites.url() + "/pictures/a.png"), 0);

  // All of it is there at the next start.
  EXPECT_EQ(close(), 0);
  start();
  awaitText("39 rules active");
  window().act(ATSPI_ROLE_PAGE_TAB, "Custom Rules");
  waitUntil("the rules", [this] {
    return window().textOf("Custom rules") == "/pictures/*\n127.0.0.1##.ad\nexample.com##+js(x)\n";
  });
}

TEST_F(WindowTest, IsUsedByKeyboard) {
  test::SiteServer sites;
  for (const char* path : {"/1", "/2"}) {
    sites.pages[sites.url() + path] = {std::string("<title>Page</title>") + path};
  }
  const auto awaitAddress = [this](const std::string& address) {
    waitUntil(address, [&] {
      return window().textOf("Address") == address &&
             window().find(ATSPI_ROLE_PUSH_BUTTON, "Reload") != nullptr;
    });
  };
  awaitCount("4");
  for (const char* path : {"/1", "/2"}) {
    browse(sites.url() + path);
    awaitAddress(sites.url() + path);
  }
  AccessibleApp::press("<Alt>Left");
  awaitAddress(sites.url() + "/1");
  AccessibleApp::press("<Alt>Right");
  awaitAddress(sites.url() + "/2");
  for (const char* keys : {"<Control>r", "F5"}) {
    const std::size_t before = sites.timesRequested(sites.url() + "/2");
    AccessibleApp::press(keys);
    waitUntil(keys, [&] { return sites.timesRequested(sites.url() + "/2") > before; });
    awaitAddress(sites.url() + "/2");
  }
  window().act(ATSPI_ROLE_PAGE_TAB, "Custom Rules");
  window().setText("Custom rules", "##.ad\n");
  AccessibleApp::press("<Control>s");
  awaitText("Custom list: 1 rules");
}

// The processes below this one that run the program of this name.
std::vector<pid_t> descendants(pid_t parent, const std::string& name) {
  std::vector<pid_t> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::ifstream file(entry.path() / "stat");
    pid_t pid = 0;
    pid_t above = 0;
    std::string program, state;
    if (!(file >> pid) || !std::getline(file.ignore(2), program, ')') ||
        !(file >> state >> above) || above != parent) {
      continue;
    }
    if (program == name.substr(0, program.size())) found.push_back(pid);
    for (const pid_t below : descendants(pid, name)) found.push_back(below);
  }
  return found;
}

TEST_F(WindowTest, SaysWhatWentWrongAndGoesOn) {
  awaitCount("4");
  // Nobody listens there.
  browse("http://127.0.0.1:1025/");
  awaitText("Could not connect");
  EXPECT_EQ(window().textOf("Address"), "https://example.org/");

  window().act(ATSPI_ROLE_PUSH_BUTTON, "Demo page");
  awaitCount("4");
  EXPECT_FALSE(window().labelWithPrefix("Could not connect"));

  const pid_t program = std::stoi(g_subprocess_get_identifier(process()));
  const std::vector<pid_t> pages = descendants(program, "WebKitWebProcess");
  ASSERT_FALSE(pages.empty());
  // The largest has the page; another may wait to be used, and WebKit needs it.
  const auto resident = [](pid_t process) {
    std::size_t all = 0;
    std::size_t inMemory = 0;
    std::ifstream("/proc/" + std::to_string(process) + "/statm") >> all >> inMemory;
    return inMemory;
  };
  ::kill(*std::max_element(
             pages.begin(), pages.end(),
             [&resident](pid_t one, pid_t other) { return resident(one) < resident(other); }),
         SIGKILL);
  awaitText("The page crashed. Reload to try again.");
  window().act(ATSPI_ROLE_PUSH_BUTTON, "Reload");
  awaitCount("4");
  EXPECT_EQ(close(), 0);
}

}  // namespace
}  // namespace tamsel
