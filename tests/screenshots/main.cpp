// Starts the program with filter lists and takes a picture of each of its tabs, as somebody would
// see them who has used it a little.

#include <gio/gio.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "tests/support/AccessibleApp.h"
#include "tests/support/Picture.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using tamsel::test::AccessibleApp;
using tamsel::test::savePicture;
using tamsel::test::waitUntil;

constexpr const char* customRules =
    "! What I do not want to see\n"
    "||ads.example.com^$third-party\n"
    "example.com##.newsletter\n"
    "@@||cdn.example.com^\n"
    "example.org##+js(set-constant, showAds, false)\n";

// As the program would have downloaded it.
json listOf(const fs::path& path, int number) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path.string());
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  const std::string title = "! Title: ";
  const std::size_t begin = text.find(title);
  const std::string name =
      begin == std::string::npos
          ? path.stem().string()
          : text.substr(begin + title.size(),
                        text.find_first_of("\r\n", begin) - begin - title.size());
  constexpr double morning = 816249000;  // 2026-11-13 in seconds since 2001
  return {{"id", "00000000-0000-4000-8000-00000000000" + std::to_string(number)},
          {"name", name},
          {"url", "https://easylist.to/easylist/" + path.filename().string()},
          {"text", text},
          {"enabled", true},
          {"isBuiltIn", false},
          {"updated", morning}};
}

void await(const AccessibleApp& app, const std::string& text) {
  waitUntil(text, [&] { return app.labelWithPrefix(text).has_value(); });
}

void show(const AccessibleApp& app, const char* tab, const std::string& text) {
  app.act(ATSPI_ROLE_PAGE_TAB, tab);
  await(app, text);
}

void takePictures(const std::string& program, const fs::path& folder, const fs::path& home) {
  g_setenv("XDG_DATA_HOME", home.c_str(), TRUE);
  GError* error = nullptr;
  GSubprocess* process =
      g_subprocess_new(G_SUBPROCESS_FLAGS_NONE, &error, program.c_str(), nullptr);
  if (process == nullptr) throw std::runtime_error(error->message);
  const AccessibleApp app(process);
  const auto picture = [&folder](const char* name, const char* title = "Tamsel") {
    savePicture(title, folder / (std::string(name) + ".png"));
  };

  waitUntil("the page", [&app] {
    const auto count = app.labelWithSuffix(" blocked on this page");
    return count && !count->starts_with("0");
  });
  picture("browser");
  show(app, "Lists", "Compiled ");
  picture("lists");
  app.act(ATSPI_ROLE_PUSH_BUTTON, "Add list…");
  picture("add-list", "Add a filter list");
  app.act(ATSPI_ROLE_PUSH_BUTTON, "Cancel");
  show(app, "Rules", "Skipped as unsupported");
  picture("rules");
  show(app, "URL Tester", "URL tester");
  app.setText("Request URL", "https://ads.example.com/allowed/ok.png");
  app.act(ATSPI_ROLE_PUSH_BUTTON, "Test");
  await(app, "Allowed by an exception");
  picture("url-tester");
  show(app, "Custom Rules", "Custom list: ");
  picture("custom-rules");

  app.act(ATSPI_ROLE_FRAME, "Tamsel", "window.close");
  if (g_subprocess_wait_check(process, nullptr, &error) == FALSE) {
    throw std::runtime_error(error->message);
  }
  g_object_unref(process);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "Usage: tamsel_screenshots PROGRAM FOLDER HOME [LIST...]\n");
    return 2;
  }
  try {
    json lists = json::array();
    for (int i = 4; i < argc; ++i) lists.push_back(listOf(argv[i], i - 4));
    const fs::path home = argv[3];
    fs::create_directories(home / "Tamsel");
    std::ofstream(home / "Tamsel" / "state.json")
        << json{{"lists", lists}, {"customRules", customRules}, {"pausedSites", json::array()}};
    takePictures(argv[1], argv[2], home);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "tamsel_screenshots: %s\n", failure.what());
    return 1;
  }
}
