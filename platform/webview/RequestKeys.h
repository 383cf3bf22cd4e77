#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace tamsel {

/// A set of addresses that were requested. They may be long, and many, so of each only a key is
/// kept: 8 to 32 bytes an address, however long it is.
class RequestKeys {
 public:
  /// So many are remembered; to `insert`, what comes beyond is new each time.
  static constexpr std::size_t most = std::size_t{1} << 22;

  /// The key of an address, which is taken without its fragment: that is not requested. A page that
  /// does not know the seed cannot make two addresses with the same key.
  static std::uint64_t keyOf(std::string_view url, std::uint64_t seed);
  /// A seed that nobody can guess.
  static std::uint64_t makeSeed();

  /// Whether it was not there.
  bool insert(std::uint64_t key);
  void clear();

 private:
  void grow();

  // Open addressing: a key is in the first free slot from where its lowest bits point. A slot with
  // 0 is free.
  std::vector<std::uint64_t> slots_;
  std::size_t size_ = 0;
};

}  // namespace tamsel
