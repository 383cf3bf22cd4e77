#include "engine/Expressions.h"

#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <ctime>
#include <limits>

namespace tamsel {
namespace {

// The processor time of this thread in nanoseconds; unlike the clock it does not run on while the
// thread waits for its turn.
std::int64_t threadNanoseconds() {
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

icu::UnicodeString toUtf16(std::string_view text) {
  constexpr std::size_t longest = std::numeric_limits<std::int32_t>::max() / 2;
  return icu::UnicodeString::fromUTF8(
      {text.data(), static_cast<std::int32_t>(std::min(text.size(), longest))});
}

// What stands for a large part of Unicode when it is inside a class.
std::size_t countWideClassItems(std::string_view pattern) {
  std::size_t count = 0;
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    if (static_cast<unsigned char>(pattern[i]) >= 0x80) ++count;
    if (i + 1 == pattern.size()) break;
    if (pattern[i] == '[' && pattern[i + 1] == ':') ++count;
    if (pattern[i] != '\\') continue;
    ++i;
    if (std::string_view("dDwWsShHvVpPxuUN").find(pattern[i]) != std::string_view::npos) ++count;
  }
  return count;
}

bool isTooExpensive(std::string_view pattern) {
  return pattern.size() > Expressions::maxLength ||
         (pattern.find('[') != std::string_view::npos &&
          countWideClassItems(pattern) > Expressions::maxWideClassItems);
}

// ICU calls this after every ten thousand steps or so of a match.
UBool U_CALLCONV payForSteps(const void* context, std::int32_t /*steps*/) {
  constexpr std::int64_t nanosecondsPerCall = 100'000;
  return static_cast<Budget*>(const_cast<void*>(context))->spend(nanosecondsPerCall);
}

}  // namespace

struct ExpressionSubject::Converted {
  icu::UnicodeString text;
};

ExpressionSubject::ExpressionSubject(std::string_view url) : url_(url) {}
ExpressionSubject::~ExpressionSubject() = default;

const ExpressionSubject::Converted& ExpressionSubject::converted() {
  if (!converted_) converted_ = std::make_unique<Converted>(Converted{toUtf16(url_)});
  return *converted_;
}

struct Expressions::Expression {
  // Null when the expression is invalid or too expensive.
  std::unique_ptr<const icu::RegexPattern> pattern;
};

Expressions::Expressions(std::size_t count)
    : count_(count), expressions_(std::make_unique<std::atomic<const Expression*>[]>(count)) {}

Expressions::~Expressions() {
  for (std::size_t i = 0; i < count_; ++i) delete expressions_[i].load(std::memory_order_acquire);
}

std::unique_ptr<const Expressions::Expression> Expressions::compile(std::string_view pattern,
                                                                    bool caseSensitive) {
  auto expression = std::make_unique<Expression>();
  if (isTooExpensive(pattern)) return expression;
  UErrorCode status = U_ZERO_ERROR;
  UParseError where{};
  expression->pattern.reset(icu::RegexPattern::compile(
      toUtf16(pattern), caseSensitive ? 0 : static_cast<std::uint32_t>(UREGEX_CASE_INSENSITIVE),
      where, status));
  if (U_FAILURE(status)) expression->pattern.reset();
  return expression;
}

const Expressions::Expression& Expressions::compiled(std::size_t number, std::string_view pattern,
                                                     bool caseSensitive) const {
  const Expression* expression = expressions_[number].load(std::memory_order_acquire);
  if (expression != nullptr) return *expression;
  std::unique_ptr<const Expression> made = compile(pattern, caseSensitive);
  // Of two threads that compile the same expression the first one's is kept.
  if (expressions_[number].compare_exchange_strong(expression, made.get(),
                                                   std::memory_order_acq_rel)) {
    expression = made.release();
  }
  return *expression;
}

std::int64_t Expressions::compileAhead(std::size_t number, std::string_view pattern,
                                       bool caseSensitive) const {
  const std::int64_t start = threadNanoseconds();
  compiled(number, pattern, caseSensitive);
  return threadNanoseconds() - start;
}

bool Expressions::matches(std::size_t number, std::string_view pattern, bool caseSensitive,
                          ExpressionSubject& subject, Budget& budget) const {
  if (budget.isSpent()) return false;
  if (expressions_[number].load(std::memory_order_relaxed) == nullptr) {
    budget.spend(compileAhead(number, pattern, caseSensitive));
  }
  const Expression& expression = compiled(number, pattern, caseSensitive);
  if (!expression.pattern || budget.isSpent()) return false;

  const icu::UnicodeString& text = subject.converted().text;
  budget.spend(text.length() / 4);
  UErrorCode status = U_ZERO_ERROR;
  const std::unique_ptr<icu::RegexMatcher> matcher(expression.pattern->matcher(text, status));
  if (U_FAILURE(status)) return false;
  matcher->setMatchCallback(payForSteps, &budget, status);
  const bool found = matcher->find(status);
  return U_SUCCESS(status) && found;
}

}  // namespace tamsel
