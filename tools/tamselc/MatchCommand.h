#pragma once

#include <optional>
#include <string>
#include <vector>

#include "compiler/DocumentForm.h"

namespace tamsel::tamselc {

/// `tamselc match`: which rule blocks a request, which exception allows it.
struct MatchCommand {
  std::vector<std::string> lists;
  DocumentForm form = DocumentForm::plain;
  /// The one request to explain; absent when `requests` names a file of them.
  std::optional<std::string> url;
  std::optional<std::string> page;
  std::string type = "image";
  /// A file of requests, "-" for standard input.
  std::optional<std::string> requests;

  /// Returns the exit code: for one request 0 when it is allowed and 1 when it is blocked; for a
  /// file 0, or 2 when a line of it was no request. Throws Files::FileError.
  int run() const;
};

}  // namespace tamsel::tamselc
