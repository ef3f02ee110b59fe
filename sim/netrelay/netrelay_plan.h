// What the relay does to each datagram: chosen by index lists ("3,7,10-12", indices count the
// forwarded-or-not datagrams from 0 in order of arrival) or by seeded rates. A rate decision
// depends only on (seed, kind, index), so the same seed always picks the same datagrams.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace netrelay {

// One kind of impairment.
enum class Impair : unsigned { kDrop = 0, kDup, kReorder, kCorrupt, kTruncate, kCount };

inline constexpr size_t kImpairKinds = static_cast<size_t>(Impair::kCount);

// A sorted set of inclusive index ranges, built once at start.
class IndexList {
 public:
  // Parses "3,7,10-12" (empty text: empty list). Returns false on malformed text.
  bool parse(const char* text);
  bool contains(uint64_t index) const;
  bool empty() const { return ranges_.empty(); }

 private:
  struct Range {
    uint64_t first;
    uint64_t last;
  };
  std::vector<Range> ranges_;  // sorted by first, merged, no overlaps
};

// The decision for one datagram.
struct Action {
  bool drop = false;
  bool dup = false;
  bool reorder = false;
  bool corrupt = false;
  bool truncate = false;
};

class Plan {
 public:
  IndexList& list(Impair kind) { return lists_[static_cast<size_t>(kind)]; }
  // Probability in [0, 1] that a datagram gets this impairment, on top of its list.
  void set_rate(Impair kind, double rate) { rates_[static_cast<size_t>(kind)] = rate; }
  void set_seed(uint64_t seed) { seed_ = seed; }

  // A dropped datagram gets no other impairment.
  Action decide(uint64_t index) const;

  // Uniform draw in [0, 1) for (seed, kind, index); exposed for tests.
  double draw(Impair kind, uint64_t index) const;

 private:
  bool chosen(Impair kind, uint64_t index) const;

  IndexList lists_[kImpairKinds];
  double rates_[kImpairKinds] = {};
  uint64_t seed_ = 1;
};

// Corruption: every byte in [offset, offset + length) that lies inside the datagram is inverted.
void corrupt_bytes(uint8_t* data, size_t size, size_t offset, size_t length);

}  // namespace netrelay
