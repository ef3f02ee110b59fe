#include "netrelay_plan.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace netrelay {

namespace {

// Largest index accepted in a list; far beyond any test run.
constexpr uint64_t kIndexMax = 1ULL << 40;

bool parse_index(const char* text, const char** end, uint64_t* out) {
  if (*text < '0' || *text > '9') {
    return false;
  }
  char* stop = nullptr;
  errno = 0;
  const unsigned long long value = std::strtoull(text, &stop, 10);
  if (errno != 0 || value > kIndexMax) {
    return false;
  }
  *end = stop;
  *out = value;
  return true;
}

uint64_t splitmix64(uint64_t x) {
  x += 0x9E3779B97F4A7C15ULL;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
  return x ^ (x >> 31);
}

}  // namespace

bool IndexList::parse(const char* text) {
  ranges_.clear();
  if (text == nullptr) {
    return false;
  }
  const char* p = text;
  while (*p != '\0') {
    Range r{};
    if (!parse_index(p, &p, &r.first)) {
      return false;
    }
    r.last = r.first;
    if (*p == '-') {
      if (!parse_index(p + 1, &p, &r.last) || r.last < r.first) {
        return false;
      }
    }
    ranges_.push_back(r);
    if (*p == ',') {
      ++p;
      if (*p == '\0') {
        return false;
      }
    } else if (*p != '\0') {
      return false;
    }
  }
  std::sort(ranges_.begin(), ranges_.end(),
            [](const Range& a, const Range& b) { return a.first < b.first; });
  std::vector<Range> merged;
  for (const Range& r : ranges_) {
    if (!merged.empty() && r.first <= merged.back().last + 1) {
      merged.back().last = std::max(merged.back().last, r.last);
    } else {
      merged.push_back(r);
    }
  }
  ranges_.swap(merged);
  return true;
}

bool IndexList::contains(uint64_t index) const {
  // First range whose end is at or after index; it holds index when it also starts before it.
  auto it = std::lower_bound(ranges_.begin(), ranges_.end(), index,
                             [](const Range& r, uint64_t i) { return r.last < i; });
  return it != ranges_.end() && it->first <= index;
}

double Plan::draw(Impair kind, uint64_t index) const {
  const uint64_t k = static_cast<uint64_t>(kind) + 1;
  const uint64_t h = splitmix64(splitmix64(seed_ ^ (k * 0xD1B54A32D192ED03ULL)) ^ index);
  return static_cast<double>(h >> 11) * (1.0 / 9007199254740992.0);  // 53 bits -> [0, 1)
}

bool Plan::chosen(Impair kind, uint64_t index) const {
  const size_t k = static_cast<size_t>(kind);
  if (lists_[k].contains(index)) {
    return true;
  }
  return rates_[k] > 0.0 && draw(kind, index) < rates_[k];
}

Action Plan::decide(uint64_t index) const {
  Action a;
  a.drop = chosen(Impair::kDrop, index);
  if (a.drop) {
    return a;
  }
  a.dup = chosen(Impair::kDup, index);
  a.reorder = chosen(Impair::kReorder, index);
  a.corrupt = chosen(Impair::kCorrupt, index);
  a.truncate = chosen(Impair::kTruncate, index);
  return a;
}

void corrupt_bytes(uint8_t* data, size_t size, size_t offset, size_t length) {
  if (data == nullptr || offset >= size) {
    return;
  }
  const size_t end = (length > size - offset) ? size : offset + length;
  for (size_t i = offset; i < end; ++i) {
    data[i] = static_cast<uint8_t>(~data[i]);
  }
}

}  // namespace netrelay
