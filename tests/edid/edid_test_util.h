// Builders for EDIDs in memory and on disk, shared by the EDID tests.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "Edid_Parser.h"
#include "am_test_env.h"
#include "qb_types.h"

namespace edid_test {

using Bytes = std::vector<qb_u8_t>;

// Sets the last byte of the 128-byte block at offset so that the block sums to 0.
inline void fix_checksum(Bytes& edid, size_t offset) {
  qb_u32_t sum = 0;
  for (size_t i = offset; i < offset + 127; ++i) {
    sum += edid[i];
  }
  edid[offset + 127] = static_cast<qb_u8_t>((256 - (sum & 0xFF)) & 0xFF);
}

// A valid EDID 1.3 base block announcing `extensions` extension blocks.
inline Bytes base_block(qb_u8_t extensions) {
  Bytes b(128, 0);
  const qb_u8_t header[] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
  for (size_t i = 0; i < sizeof(header); ++i) {
    b[i] = header[i];
  }
  b[18] = 1;
  b[19] = 3;
  b[126] = extensions;
  fix_checksum(b, 0);
  return b;
}

// A CEA-861 extension (revision 3) whose data block collection is `blocks`; dtd_offset is byte 2,
// by default just past the collection.
inline Bytes cea_block(const Bytes& blocks, int dtd_offset = -1, qb_u8_t features = 0x40) {
  Bytes e(128, 0);
  e[0] = 0x02;
  e[1] = 0x03;
  e[2] = static_cast<qb_u8_t>(dtd_offset >= 0 ? dtd_offset : static_cast<int>(4 + blocks.size()));
  e[3] = features;
  for (size_t i = 0; i < blocks.size() && 4 + i < 127; ++i) {
    e[4 + i] = blocks[i];
  }
  fix_checksum(e, 0);
  return e;
}

// A 256-byte EDID: base block with one extension, followed by `ext`.
inline Bytes edid_with(const Bytes& ext) {
  Bytes e = base_block(1);
  e.insert(e.end(), ext.begin(), ext.end());
  return e;
}

inline EDID_Data to_data(const Bytes& bytes) {
  EDID_Data d;
  d.assign(bytes.data(), bytes.size());
  return d;
}

// Reads a whole file (tests only).
inline Bytes read_file(const std::string& path) {
  const std::string text = am_test::read_file(path);
  return Bytes(text.begin(), text.end());
}

// Writes bytes to a board path under the root (parent folders created).
inline bool write_file(const am_test::TempRoot& root, const std::string& board_path, const Bytes& bytes) {
  return root.write(board_path, std::string(bytes.begin(), bytes.end()));
}

// A record filled with a recognisable pattern, to tell whether a getter wrote it.
inline T_Edid_Audio_Info sentinel_info() {
  T_Edid_Audio_Info info;
  std::memset(&info, 0xA5, sizeof(info));
  return info;
}

}  // namespace edid_test
