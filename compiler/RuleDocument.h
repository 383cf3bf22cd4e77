#pragma once

#include <span>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "compiler/ByteBuffer.h"
#include "compiler/DocumentForm.h"
#include "compiler/RuleModel.h"

/// The WebKit content-blocker document: one JSON array of rules.
namespace tamsel::RuleDocument {

/// Why a text is not a content-blocker document.
class DecodeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Writes the rules in the order given: member names sorted, "/" not escaped, no white space,
/// absent fields left out. The result is valid UTF-8 whatever the rules hold. Should memory run
/// out it is the empty array "[]".
ByteBuffer encode(std::span<const SourcedRule> rules, DocumentForm form = DocumentForm::plain);
ByteBuffer encode(std::span<const WKRule> rules, DocumentForm form = DocumentForm::plain);

/// Reads a document as `encode` writes it, in any member order and spacing; unknown members are
/// ignored and of a repeated one the last counts. Throws DecodeError, which names the rule.
std::vector<WKRule> decode(std::string_view document);

}  // namespace tamsel::RuleDocument
