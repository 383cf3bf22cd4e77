#include "bench/MadeUpLists.h"

#include <algorithm>
#include <array>
#include <random>
#include <string_view>

namespace tamsel::bench {
namespace {

class Words {
 public:
  explicit Words(unsigned seed) : random_(seed) {}

  std::size_t below(std::size_t limit) { return random_() % limit; }
  bool chance(std::size_t percent) { return below(100) < percent; }

  std::string word(std::size_t shortest, std::size_t longest) {
    static constexpr std::array<std::string_view, 24> syllables = {
        "ad",  "tra", "ck", "ban", "ner", "pi", "xel", "me", "tri", "cs", "po", "pup",
        "off", "er",  "go", "li",  "nk",  "se", "rve", "st", "at",  "ta", "g",  "io"};
    const std::size_t length = shortest + below(longest - shortest + 1);
    std::string text;
    while (text.size() < length) text += syllables[below(syllables.size())];
    return text;
  }

  std::string host() {
    static constexpr std::array<std::string_view, 6> endings = {".com", ".net",  ".org",
                                                                ".io",  ".info", ".co.uk"};
    std::string text = word(6, 14);
    if (chance(15)) text = word(2, 5) + "." + text;
    return text.append(endings[below(endings.size())]);
  }

 private:
  std::mt19937 random_;
};

std::string madeUpLine(Words& words) {
  switch (words.below(20)) {
    case 0:
      return "/" + words.word(3, 8) + "/" + words.word(4, 9) + ".";
    case 1:
      return "-" + words.word(4, 8) + "-" + words.word(3, 6) + "." +
             (words.chance(50) ? "js" : "gif");
    case 2:
      return "@@||" + words.host() + "/" + words.word(4, 8) + "$script,domain=" + words.host();
    case 3:
      return "##." + words.word(6, 14);
    case 4:
      return words.host() + "," + words.host() + "##." + words.word(4, 10);
    case 5:
      return words.chance(80) ? words.host() + "##div[id=\"" + words.word(5, 9) + "\"]"
                              : words.host() + "#?#div:has-text(" + words.word(4, 8) + ")";
    case 6:
      return "||" + words.host() + "/" + words.word(3, 8) + "/*.js";
    default:
      return "||" + words.host() + (words.chance(30) ? "^$third-party" : "^");
  }
}

}  // namespace

std::string madeUpList(std::size_t lines, unsigned seed) {
  Words words(seed);
  std::string list = "! Title: Made up\n";
  for (std::size_t i = 0; i < lines; ++i) list += madeUpLine(words) + "\n";
  return list;
}

std::string madeUpRequests(std::size_t count, unsigned seed) {
  static constexpr std::array<std::string_view, 4> types = {"image", "script", "raw", "document"};
  // The same seed as the list's, so that its words, and some of its hosts, come again.
  Words words(seed);
  std::string requests;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string line = madeUpLine(words);
    std::string host = line.starts_with("||") && words.chance(30)
                           ? line.substr(2, line.find_first_of("^/", 2) - 2)
                           : words.host();
    requests += "https://www." + host + "/" + words.word(3, 9) + "/" + words.word(4, 12) +
                ".js?v=" + std::to_string(words.below(1000)) + "\thttps://" + words.host() + "/\t" +
                std::string(types[words.below(types.size())]) + "\n";
  }
  return requests;
}

std::string multiplied(const std::string& list, std::size_t copies) {
  constexpr std::size_t mostLetters = 4;  // tell up to 16 copies apart
  std::string all = list;
  all.reserve(list.size() * copies);
  for (std::size_t copy = 1; copy < copies; ++copy) {
    std::size_t begin = all.size();
    all += list;
    while (begin < all.size()) {
      const std::size_t end = std::min(all.find('\n', begin), all.size());
      // The first letters of the line's selector or pattern: those that are capitals spell the
      // copy's number in binary. So every copy is as long as the list itself.
      const std::size_t marker = std::string_view(all).substr(begin, end - begin).find("##");
      std::size_t i = marker == std::string_view::npos ? begin : begin + marker;
      for (std::size_t letters = 0; i < end && letters < mostLetters; ++i) {
        if (all[i] < 'a' || all[i] > 'z') continue;
        if ((copy >> letters & 1) != 0) all[i] = static_cast<char>(all[i] - 'a' + 'A');
        ++letters;
      }
      begin = end + 1;
    }
  }
  return all;
}

}  // namespace tamsel::bench
