#include <CLI/CLI.hpp>
#include <csignal>
#include <new>

#include "platform/files/Files.h"
#include "platform/rulestore/RuleListCompiler.h"
#include "tools/tamselc/CheckCommand.h"
#include "tools/tamselc/CompileCommand.h"
#include "tools/tamselc/MatchCommand.h"
#include "tools/tamselc/Output.h"

namespace {

constexpr int failureCode = 2;

int fail(const std::string& message) {
  using namespace tamsel::tamselc;
  writeMessage("tamselc: " + printable(message) + "\n");
  return failureCode;
}

// CLI11 reads an argument in brackets as a list of values. A mark in front of it, which is taken
// off again by `named`, makes it a file name like any other.
constexpr char bracketMark = '\x01';

std::vector<std::string> marked(int argc, char** argv) {
  std::vector<std::string> arguments;
  for (int i = argc - 1; i > 0; --i) {  // the last first, as CLI11 wants them
    std::string argument = argv[i];
    if (argument.starts_with('[')) argument.insert(0, 1, bracketMark);
    arguments.push_back(std::move(argument));
  }
  return arguments;
}

// Takes the mark off a value, and refuses an empty one: an unset variable in somebody's script is
// not to be taken for a wish.
CLI::Validator named() {
  return CLI::Validator(
      [](std::string& value) {
        if (value.starts_with(bracketMark)) value.erase(0, 1);
        return value.empty() ? std::string("the value is empty") : std::string();
      },
      "");
}

int run(int argc, char** argv) {
  using namespace tamsel::tamselc;
  using tamsel::DocumentForm;
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
  compileApp->add_option("LIST", compile.lists, listsHelp)->transform(named())->type_name("");
  compileApp
      ->add_option("-o,--output", compile.output,
                   "Write the document here, in one step; - for standard output")
      ->transform(named())
      ->type_name("FILE");
  compileApp
      ->add_option("--report", compile.report,
                   "Write counts and every skipped line with its reason here, as JSON")
      ->transform(named())
      ->type_name("FILE");

  const auto addHardened = [](CLI::App& command, DocumentForm& form, const std::string& help) {
    command.add_flag_callback(
        "--hardened", [&form] { form = DocumentForm::hardened; }, help);
  };
  compileApp->add_flag("--combine", compile.combine,
                       "Combine rules without loss, in one document; exit code 1 when it is still "
                       "too large");
  CLI::Option* splitOption = compileApp->add_flag(
      "--split", compile.split,
      "Combine rules and write as many documents as it takes, FILE with -1, -2 and so on");
  compileApp
      ->add_option("--limit", compile.limit, "The most rules in a document; 150000 when not given")
      ->needs(splitOption)
      ->check(CLI::PositiveNumber)
      ->type_name("N");

  addHardened(*compileApp, compile.form,
              "Write conditions that no page can fake and hosts that no address can hide");

  MatchCommand match;
  CLI::App* matchApp = app.add_subcommand(
      "match",
      "Tell which rule blocks a request and which exception allows it; exit code 0 when "
      "it is allowed, 1 when it is blocked");
  matchApp->add_option("LIST", match.lists, listsHelp)->transform(named())->type_name("");
  CLI::Option* url = matchApp->add_option("--url", match.url, "The URL of the request")
                         ->transform(named())
                         ->type_name("URL");
  CLI::Option* page =
      matchApp->add_option("--page", match.page, "The URL of the page that makes the request")
          ->transform(named())
          ->type_name("URL");
  CLI::Option* type =
      matchApp
          ->add_option("--type", match.type,
                       "What is requested: document, image, svg-document, script, style-sheet, "
                       "font, media, raw or popup; image when not given")
          ->transform(named())
          ->type_name("TYPE");
  CLI::Option* requests =
      matchApp
          ->add_option("--requests", match.requests,
                       "Answer every line of this file (- for standard input): a URL, a page URL "
                       "or nothing, and a type, separated by tabs")
          ->transform(named())
          ->type_name("FILE");
  requests->excludes(url)->excludes(page)->excludes(type);

  addHardened(*matchApp, match.form, "Answer as the hardened document does");

  CheckCommand check;
  CLI::App* checkApp = app.add_subcommand(
      "check",
      "Compile the lists' document with the real WebKit and tell which rules it refuses, and why; "
      "exit code 0 when it takes all, 1 when it refuses some");
  checkApp->add_option("LIST", check.lists, listsHelp)->transform(named())->type_name("");
  checkApp->add_flag("--combine", check.combine, "Compile the combined document");
  checkApp->add_flag("--json", check.json,
                     "Answer in JSON: counts, seconds and every refused rule with its line, list "
                     "and reason");

  addHardened(*checkApp, check.form, "Compile the hardened document");

  try {
    app.parse(marked(argc, argv));
  } catch (const CLI::Success& success) {
    return app.exit(success);
  } catch (const CLI::ParseError& error) {
    std::string message = error.what();
    if (!message.ends_with('.')) message += '.';
    return fail(message + " tamselc --help tells more.");
  }
  if (*compileApp) return compile.run();
  if (*checkApp) return check.run();
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
  } catch (const tamsel::RuleListCompiler::Failure& failure) {
    const std::string more = failure.detail.empty() ? "" : " It said: \"" + failure.detail + "\".";
    return fail(failure.what() + more);
  } catch (const std::bad_alloc&) {
    return fail("There is not enough memory for this.");
  } catch (const std::exception& error) {
    return fail(std::string("Unexpected error: ") + error.what());
  }
}
