#include "compiler/NetworkRule.h"

#include <algorithm>
#include <array>

#include "compiler/Hash.h"
#include "compiler/Unicode.h"
#include "compiler/UrlPattern.h"

namespace tamsel::FilterCompiler {
namespace {

// The types that a filter can name. The first seven have resource types of their own and are what
// a filter without type options covers; a frame or a page only becomes a rule for documents.
enum Type : std::uint16_t {
  image = 1 << 0,
  script = 1 << 1,
  stylesheet = 1 << 2,
  font = 1 << 3,
  media = 1 << 4,
  xmlhttprequest = 1 << 5,
  popup = 1 << 6,
  subdocument = 1 << 7,
  document = 1 << 8,
};
constexpr std::uint16_t defaultLogical = (1 << 7) - 1;

struct ResourceType {
  std::uint16_t logical;
  std::string_view name;
};

// What each type is called in the content-blocker format, sorted by that name.
constexpr std::array<ResourceType, 8> wkMap = {{{font, "font"},
                                                {image, "image"},
                                                {media, "media"},
                                                {popup, "popup"},
                                                {xmlhttprequest, "raw"},
                                                {script, "script"},
                                                {stylesheet, "style-sheet"},
                                                {image, "svg-document"}}};

enum class Effect : std::uint8_t { thirdParty, firstParty, matchCase, none, domain, type };

struct Option {
  std::string_view name;
  Effect effect;
  std::uint16_t type = 0;
};

constexpr std::array<Option, 21> optionTable = {{{"third-party", Effect::thirdParty},
                                                 {"domain", Effect::domain},
                                                 {"script", Effect::type, script},
                                                 {"image", Effect::type, image},
                                                 {"xmlhttprequest", Effect::type, xmlhttprequest},
                                                 {"subdocument", Effect::type, subdocument},
                                                 {"popup", Effect::type, popup},
                                                 {"stylesheet", Effect::type, stylesheet},
                                                 {"document", Effect::type, document},
                                                 {"media", Effect::type, media},
                                                 {"font", Effect::type, font},
                                                 {"match-case", Effect::matchCase},
                                                 {"important", Effect::none},
                                                 {"all", Effect::none},
                                                 {"first-party", Effect::firstParty},
                                                 {"3p", Effect::thirdParty},
                                                 {"1p", Effect::firstParty},
                                                 {"css", Effect::type, stylesheet},
                                                 {"xhr", Effect::type, xmlhttprequest},
                                                 {"frame", Effect::type, subdocument},
                                                 {"doc", Effect::type, document}}};

// The lists and names that rules share, made once and never freed.
struct SharedTexts {
  std::array<TextList, defaultLogical + 1> resourceTypes;  // by the set of logical types
  TextList documentType = immortalList({"document"});
  TextList thirdParty = immortalList({"third-party"});
  TextList firstParty = immortalList({"first-party"});
  Text block = Text::immortal("block");
  Text ignorePreviousRules = Text::immortal("ignore-previous-rules");

  static const SharedTexts& get() {
    static const SharedTexts texts;
    return texts;
  }

 private:
  SharedTexts() {
    for (std::size_t set = 1; set < resourceTypes.size(); ++set) {
      std::vector<std::string_view> names;
      for (const ResourceType& type : wkMap) {
        if ((set & type.logical) != 0) names.push_back(type.name);
      }
      resourceTypes[set] = TextList::immortal(names);
    }
  }

  static TextList immortalList(std::initializer_list<std::string_view> names) {
    return TextList::immortal({names.begin(), names.size()});
  }
};

struct SplitLine {
  std::string_view pattern;
  std::string_view options;
};

// The last "$" begins the options, unless it ends the line or stands in a path or an expression.
SplitLine splitOptions(std::string_view line) {
  const std::size_t dollar = line.rfind('$');
  if (dollar == std::string_view::npos || dollar + 1 == line.size()) return {line, {}};
  const std::string_view options = line.substr(dollar + 1);
  if (options.find('/') != std::string_view::npos) return {line, {}};
  return {line.substr(0, dollar), options};
}

bool isRegularExpression(std::string_view pattern) {
  return pattern.size() >= 3 && pattern.front() == '/' && pattern.back() == '/';
}

bool isExpressible(std::string_view expression) {
  constexpr std::array<std::string_view, 5> unsupported = {"|", "(?", R"(\b)", R"(\B)", "{"};
  return Unicode::isAscii(expression) &&
         std::none_of(unsupported.begin(), unsupported.end(), [&](std::string_view text) {
           return expression.find(text) != std::string_view::npos;
         });
}

// The rule for documents that a filter gets beside its main rule.
enum class DocumentRule : std::uint8_t { none, frame, page };

DocumentRule documentRule(std::uint16_t included, std::uint16_t excluded) {
  const bool frameAllowed = (excluded & subdocument) == 0;
  if (included == 0) return frameAllowed ? DocumentRule::frame : DocumentRule::none;
  if ((included & document) != 0 && (excluded & document) == 0) return DocumentRule::page;
  if ((included & subdocument) != 0 && frameAllowed) return DocumentRule::frame;
  return DocumentRule::none;
}

}  // namespace

std::optional<Skip> NetworkConverter::network(std::string_view line, std::string_view source,
                                              const Origin& origin,
                                              std::vector<HashedRule>& rules) {
  const bool exception = line.starts_with("@@");
  if (exception) line.remove_prefix(2);
  const auto [pattern, optionsText] = splitOptions(line);
  if (pattern.empty()) return Skip{"No URL pattern (options only)"};
  if (auto skip = convertUrlFilter(pattern)) return skip;
  Options options;
  if (auto skip = readOptions(optionsText, options)) return skip;
  if (exception && (options.included & document) != 0) {
    return Skip{"Page-level exceptions ($document) are not supported"};
  }

  const std::uint16_t named = options.included == 0 ? defaultLogical : options.included;
  const std::uint16_t logical = defaultLogical & named & ~options.excluded;
  DocumentRule frameOrPage = documentRule(options.included, options.excluded);
  if (frameOrPage == DocumentRule::frame && options.loadType == LoadType::firstParty) {
    frameOrPage = DocumentRule::none;
  }
  if (logical == 0 && frameOrPage == DocumentRule::none) {
    return Skip{"Resource-type options leave nothing to match"};
  }

  const SharedTexts& shared = SharedTexts::get();
  const RuleKind kind = exception ? RuleKind::exception : RuleKind::block;
  SourcedRule rule;
  rule.rule.trigger.urlFilter = pool_.text(filter_);
  if (options.caseSensitive) rule.rule.trigger.caseSensitive = true;
  rule.rule.trigger.ifDomain = std::move(options.domains.ifDomain);
  rule.rule.trigger.unlessDomain = std::move(options.domains.unlessDomain);
  rule.rule.action.type = exception ? shared.ignorePreviousRules : shared.block;
  rule.kind = kind;
  rule.source = pool_.text(source);
  rule.listID = origin.listID;
  rule.listName = origin.listName;
  const std::uint64_t hash = combineHashes(
      hashBytes(filter_, options.domains.hash),
      static_cast<std::uint64_t>(kind) << 1 | static_cast<std::uint64_t>(options.caseSensitive));

  const auto append = [&](SourcedRule made, const TextList& types, std::uint16_t typeSet,
                          LoadType loadType) {
    made.rule.trigger.resourceType = types;
    if (loadType != LoadType::any) {
      made.rule.trigger.loadType =
          loadType == LoadType::thirdParty ? shared.thirdParty : shared.firstParty;
    }
    const auto restriction =
        static_cast<std::uint64_t>(typeSet) << 2 | static_cast<std::uint64_t>(loadType);
    rules.push_back({std::move(made), combineHashes(hash, restriction)});
  };
  if (frameOrPage == DocumentRule::none) {
    append(std::move(rule), shared.resourceTypes[logical], logical, options.loadType);
    return std::nullopt;
  }
  if (logical != 0) append(rule, shared.resourceTypes[logical], logical, options.loadType);
  const bool thirdPartyOnly =
      frameOrPage == DocumentRule::frame && options.loadType == LoadType::any;
  append(std::move(rule), shared.documentType, document,
         thirdPartyOnly ? LoadType::thirdParty : options.loadType);
  return std::nullopt;
}

std::optional<Skip> NetworkConverter::convertUrlFilter(std::string_view pattern) {
  if (isRegularExpression(pattern)) {
    filter_ = pattern.substr(1, pattern.size() - 2);
    if (isExpressible(filter_)) return std::nullopt;
    return Skip{"Regular expression uses syntax WebKit content blockers can't express"};
  }
  if (convertPatternInto(filter_, pattern)) return std::nullopt;
  return Skip{"Pattern is empty, too broad or non-ASCII"};
}

std::optional<Skip> NetworkConverter::readOptions(std::string_view text, Options& options) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(','), text.size());
    const std::string_view piece = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (piece.empty()) continue;
    if (auto skip = readOption(piece, options)) return skip;
  }
  return std::nullopt;
}

std::optional<Skip> NetworkConverter::readOption(std::string_view piece, Options& options) {
  if (Unicode::isAscii(piece)) {
    option_.resize(piece.size());
    std::transform(piece.begin(), piece.end(), option_.begin(), Unicode::asciiLower);
  } else {
    option_ = Unicode::lowercased(piece);
  }
  std::string_view name = option_;
  const bool negated = name.starts_with('~');
  if (negated) name.remove_prefix(1);
  std::string_view value;
  if (const std::size_t equals = name.find('='); equals != std::string_view::npos) {
    value = name.substr(equals + 1);
    name = name.substr(0, equals);
  }

  const auto* option = std::find_if(optionTable.begin(), optionTable.end(),
                                    [name](const Option& entry) { return entry.name == name; });
  if (option == optionTable.end()) return Skip{"Unsupported option $" + std::string(name)};
  switch (option->effect) {
    case Effect::thirdParty:
      options.loadType = negated ? LoadType::firstParty : LoadType::thirdParty;
      break;
    case Effect::firstParty:
      options.loadType = negated ? LoadType::thirdParty : LoadType::firstParty;
      break;
    case Effect::matchCase:
      options.caseSensitive = true;
      break;
    case Effect::none:
      break;
    case Effect::domain: {
      if (value.empty()) return Skip{"domain= option without value"};
      auto parsed = domains_.parseDomains(value, '|');
      if (auto* skip = std::get_if<Skip>(&parsed)) return std::move(*skip);
      options.domains = std::get<DomainLists>(std::move(parsed));
      break;
    }
    case Effect::type:
      (negated ? options.excluded : options.included) |= option->type;
      break;
  }
  return std::nullopt;
}

}  // namespace tamsel::FilterCompiler
