#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "engine/Budget.h"

namespace tamsel {

/// A URL in the form that ICU's expressions search; converted when first asked for.
class ExpressionSubject {
 public:
  explicit ExpressionSubject(std::string_view url);
  ~ExpressionSubject();

 private:
  friend class Expressions;
  struct Converted;
  const Converted& converted();

  std::string_view url_;
  std::unique_ptr<Converted> converted_;
};

/// ICU's expressions, each compiled before or when it is first used. Any number of threads may use
/// them at once.
class Expressions {
 public:
  /// Makes room for expressions numbered from 0.
  explicit Expressions(std::size_t count);
  ~Expressions();

  /// Whether the expression with that number matches anywhere in the subject. `pattern` and
  /// `caseSensitive` must be the same for the same number. False for an invalid expression, for one
  /// that is too expensive to compile, and when the budget, which pays for compiling and for
  /// matching, runs out.
  bool matches(std::size_t number, std::string_view pattern, bool caseSensitive,
               ExpressionSubject& subject, Budget& budget) const;

  /// Compiles an expression ahead. Returns the processor time it took, in nanoseconds.
  std::int64_t compileAhead(std::size_t number, std::string_view pattern, bool caseSensitive) const;

  /// Longer expressions never match.
  static constexpr std::size_t maxLength = 16384;
  /// Classes with wide contents, such as [\s\S], take milliseconds each to compile; expressions
  /// with more of them never match.
  static constexpr std::size_t maxWideClassItems = 8;

 private:
  struct Expression;
  static std::unique_ptr<const Expression> compile(std::string_view pattern, bool caseSensitive);
  const Expression& compiled(std::size_t number, std::string_view pattern,
                             bool caseSensitive) const;

  std::size_t count_;
  std::unique_ptr<std::atomic<const Expression*>[]> expressions_;
};

}  // namespace tamsel
