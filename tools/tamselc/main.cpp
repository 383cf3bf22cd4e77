#include <CLI/CLI.hpp>
#include <csignal>
#include <new>

#include "platform/files/Files.h"
#include "tools/tamselc/CompileCommand.h"
#include "tools/tamselc/MatchCommand.h"
#include "tools/tamselc/Output.h"

namespace {

constexpr int failureCode = 2;

int fail(const std::string& message) {
  tamsel::tamselc::writeMessage("tamselc: " + message + "\n");
  return failureCode;
}

int run(int argc, char** argv) {
  using namespace tamsel::tamselc;
  CLI::App app("Turns ad-blocking filter lists into WebKit content-blocker rules.", "tamselc");
  app.set_version_flag("--version", "tamselc " TAMSEL_VERSION);
  app.set_help_flag("-h,--help", "Print this help");
  app.require_subcommand(1);
  app.failure_message(CLI::FailureMessage::simple);

  CompileCommand compile;
  CLI::App* compileApp = app.add_subcommand(
      "compile",
      "Write the content-blocker document of the lists, and a table of what became of "
      "them on standard error");
  const std::string listsHelp =
      "Filter lists, - for standard input; the built-in starter list when none is given";
  compileApp->add_option("LIST", compile.lists, listsHelp)->type_name("");
  compileApp->add_option("-o,--output", compile.output, "Write the document here, in one step")
      ->type_name("FILE");
  compileApp
      ->add_option("--report", compile.report,
                   "Write counts and every skipped line with its reason here, as JSON")
      ->type_name("FILE");

  MatchCommand match;
  CLI::App* matchApp = app.add_subcommand(
      "match",
      "Tell which rule blocks a request and which exception allows it; exit code 0 when "
      "it is allowed, 1 when it is blocked");
  matchApp->add_option("LIST", match.lists, listsHelp)->type_name("");
  CLI::Option* url =
      matchApp->add_option("--url", match.url, "The URL of the request")->type_name("URL");
  CLI::Option* page =
      matchApp->add_option("--page", match.page, "The URL of the page that makes the request")
          ->type_name("URL");
  CLI::Option* type =
      matchApp
          ->add_option("--type", match.type,
                       "What is requested: document, image, svg-document, script, style-sheet, "
                       "font, media, raw or popup; image when not given")
          ->type_name("TYPE");
  CLI::Option* requests =
      matchApp
          ->add_option("--requests", match.requests,
                       "Answer every line of this file (- for standard input): a URL, a page URL "
                       "or nothing, and a type, separated by tabs")
          ->type_name("FILE");
  requests->excludes(url)->excludes(page)->excludes(type);

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {
    return app.exit(success);
  } catch (const CLI::ParseError& error) {
    return fail(std::string(error.what()) + " (tamselc --help tells more.)");
  }
  if (*compileApp) return compile.run();
  if (!match.url && !match.requests) {
    return fail("Nothing to match: name a request with --url or a file of them with --requests.");
  }
  return match.run();
}

}  // namespace

int main(int argc, char** argv) {
  // A reader that goes away, and a file-size limit, are errors to report and not a silent death.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  try {
    return run(argc, argv);
  } catch (const tamsel::Files::FileError& error) {
    return fail(error.what());
  } catch (const std::bad_alloc&) {
    return fail("There is not enough memory for this.");
  } catch (const std::exception& error) {
    return fail(std::string("Unexpected error: ") + error.what());
  }
}
