// EDID primitives: the byte store, loading from a file, the CEA-861 extension and the walks over
// its data blocks and Short Audio Descriptors. Every read is bounded by the store's 256 bytes,
// whatever the file or the length fields inside it say.
#pragma once

#include <cstddef>

#include "qb_types.h"

namespace edid {

// Size of one EDID block (the base block and every extension).
inline constexpr size_t EDID_BLOCK_SIZE = 128;
// Largest EDID the reader accepts: the base block and one extension.
inline constexpr size_t EDID_MAX_SIZE = 256;

// A byte store of fixed capacity. m_length bytes are valid; bytes beyond m_length are 0.
template <size_t N>
class Array_EDID {
 public:
  Array_EDID() { clear(); }

  void clear() {
    m_length = 0;
    for (size_t i = 0; i < N; ++i) {
      m_data[i] = 0;
    }
  }

  // Replaces the contents with len bytes; false (and the store emptied) when they do not fit.
  bool assign(const qb_u8_t* bytes, size_t len) {
    clear();
    if (len > N || (len > 0 && bytes == nullptr)) {
      return false;
    }
    for (size_t i = 0; i < len; ++i) {
      m_data[i] = bytes[i];
    }
    m_length = len;
    return true;
  }

  static constexpr size_t capacity() { return N; }
  // The byte at index, 0 outside the capacity.
  qb_u8_t at(size_t index) const { return index < N ? m_data[index] : 0; }
  const qb_u8_t* data() const { return m_data; }

  qb_u64_t m_length;
  qb_u8_t m_data[N];
};

// CEA-861 data block tag codes.
enum CEA_Data_Block_Tag : qb_u8_t {
  CEA_DATA_BLOCK_TAG_INVALID = 0,
  CEA_DATA_BLOCK_TAG_AUDIO = 1,
  CEA_DATA_BLOCK_TAG_VIDEO = 2,
  CEA_DATA_BLOCK_TAG_VSDB = 3,
  CEA_DATA_BLOCK_TAG_SAB = 4,
  CEA_DATA_BLOCK_TAG_VESADTC = 5,
  CEA_DATA_BLOCK_TAG_EXTENDED = 7,
};

// One decoded Short Audio Descriptor.
struct SAD {
  qb_u32_t audioFormatCode;  // byte 0 bits 7-3
  qb_u32_t maxChannels;      // byte 0 bits 2-0, plus one
  qb_u32_t sampleRateFlags;  // byte 1
  qb_u32_t byte3;            // byte 2
};

// Decodes the three bytes of a Short Audio Descriptor.
SAD decode_sad(qb_u8_t b0, qb_u8_t b1, qb_u8_t b2);

// The 128 bytes of the CEA-861 extension; data is nullptr when the EDID has none.
struct CEA_Block {
  const qb_u8_t* data;
};

// One data block of the extension: the payload is `length` bytes, all inside the extension.
struct CEA_Data_Block {
  qb_u8_t tag;
  qb_u8_t length;
  const qb_u8_t* payload;
};

// Loads the file at an absolute board path (resolved under the platform root) into store. Prints
// its diagnostics and a hex dump on standard output. False when the file cannot be opened or read
// or holds more than 256 bytes (the store is then empty).
bool LoadEdid(const char* path, Array_EDID<EDID_MAX_SIZE>& store);

// The CEA-861 extension of a 256-byte EDID whose extension count is 1 and whose second block
// carries the CEA tag 0x02; any other EDID has none.
CEA_Block get_cea_block_from_edid(const Array_EDID<EDID_MAX_SIZE>& edid);

// Walks the data block collection of an extension, from offset 4 up to the offset of the detailed
// timings (extension byte 2). Stops at the first block whose header or payload reaches past it.
class CEA_Data_Block_Iterator {
 public:
  explicit CEA_Data_Block_Iterator(CEA_Block block);
  // The next block; false when the collection is exhausted.
  bool next(CEA_Data_Block& out);

 private:
  const qb_u8_t* m_pBlock;
  size_t m_u32Offset;
  size_t m_u32End;
};

// Walks the Short Audio Descriptors of every Audio Data Block of an extension, block after block;
// a trailing remainder of fewer than three bytes in a block is ignored.
class SAD_Iterator {
 public:
  explicit SAD_Iterator(CEA_Block block);
  // The next descriptor; false when none is left.
  bool next(SAD& out);

 private:
  CEA_Data_Block_Iterator m_blocks;
  CEA_Data_Block m_current;
  size_t m_u32Pos;  // offset of the next descriptor in m_current's payload
};

}  // namespace edid

// The loaded EDID of a parser.
using EDID_Data = edid::Array_EDID<edid::EDID_MAX_SIZE>;
