// EDIDs built in memory, for the EDID reader's tests and the tests of what the daemon decides
// from the attached sink.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace am_test {

using EdidBytes = std::vector<uint8_t>;

// Sets the last byte of the 128-byte block at offset so that the block sums to 0.
inline EdidBytes edid_fix_checksum(EdidBytes e, size_t offset) {
  uint32_t sum = 0;
  for (size_t i = offset; i < offset + 127; ++i) sum += e[i];
  e[offset + 127] = static_cast<uint8_t>(256 - (sum & 0xFF));
  return e;
}

// A valid EDID 1.3 base block announcing `extensions` extension blocks.
inline EdidBytes edid_base_block(uint8_t extensions) {
  EdidBytes b = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
  b.resize(128, 0);
  b[18] = 1;
  b[19] = 3;
  b[126] = extensions;
  return edid_fix_checksum(b, 0);
}

// A 256-byte EDID: base block and a CEA-861 extension whose data block collection is `blocks`;
// extension byte 2 is dtd_offset, by default just past the collection.
inline EdidBytes edid_with(const EdidBytes& blocks, int dtd_offset = -1, uint8_t features = 0x40) {
  EdidBytes e = {0x02, 0x03, static_cast<uint8_t>(dtd_offset >= 0 ? dtd_offset : int(4 + blocks.size())), features};
  e.insert(e.end(), blocks.begin(), blocks.begin() + static_cast<long>(std::min<size_t>(blocks.size(), 123)));
  e.resize(128, 0);
  EdidBytes out = edid_base_block(1);
  out.insert(out.end(), e.begin(), e.end());
  return edid_fix_checksum(out, 128);
}

}  // namespace am_test
