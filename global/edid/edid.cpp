// EDID primitives: file loading with its hex dump, the CEA-861 extension and the bounded walks
// over its data blocks and Short Audio Descriptors.
#include "edid.h"

#include <cstdio>
#include <memory>

#include "am_platform.h"

namespace edid {

namespace {

// Extension tag of a CEA-861 extension block (its byte 0).
constexpr qb_u8_t CEA_EXTENSION_TAG = 0x02;
// Offset of the extension count in the base block.
constexpr size_t EDID_EXTENSION_COUNT_OFFSET = 126;
// Offset of the detailed-timing start in a CEA extension.
constexpr size_t CEA_DTD_OFFSET_OFFSET = 2;
// The data block collection starts after the four-byte extension header.
constexpr size_t CEA_DATA_BLOCK_START = 4;
// The last byte of an extension is its checksum, never part of a data block.
constexpr size_t CEA_CHECKSUM_OFFSET = EDID_BLOCK_SIZE - 1;
// Bytes of one Short Audio Descriptor.
constexpr size_t SAD_SIZE = 3;
// A longest board path under the root.
constexpr size_t EDID_PATH_BUF_SIZE = 4096;
// Bytes per line of the hex dump.
constexpr size_t EDID_DUMP_LINE = 16;

struct FileCloser {
  void operator()(FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

void dump_edid(const Array_EDID<EDID_MAX_SIZE>& store) {
  std::printf("[INFO] EIDI data start\n");
  for (size_t i = 0; i < store.m_length; ++i) {
    if (i % EDID_DUMP_LINE == 0) {
      std::printf("\r\n");
    }
    std::printf("0x%02x,", store.m_data[i]);
  }
  std::printf("\n[INFO] EIDI data end\n ");
}

}  // namespace

SAD decode_sad(qb_u8_t b0, qb_u8_t b1, qb_u8_t b2) {
  SAD sad;
  sad.audioFormatCode = static_cast<qb_u32_t>(b0 >> 3);
  sad.maxChannels = static_cast<qb_u32_t>(b0 & 0x07) + 1;
  sad.sampleRateFlags = b1;
  sad.byte3 = b2;
  return sad;
}

bool LoadEdid(const char* path, Array_EDID<EDID_MAX_SIZE>& store) {
  store.clear();
  const char* shown = (path != nullptr) ? path : "";
  char resolved[EDID_PATH_BUF_SIZE];
  FilePtr file;
  if (path != nullptr && am_path_buf(path, resolved, sizeof(resolved)) != nullptr) {
    file.reset(std::fopen(resolved, "rbe"));
  }
  if (!file) {
    std::printf("[ERROR] open file: %s fail !\n", shown);
    return false;
  }
  // One byte more than fits is enough to tell an oversized file; nothing beyond it is read.
  qb_u8_t buf[EDID_MAX_SIZE + 1];
  size_t total = 0;
  while (total < sizeof(buf)) {
    const size_t got = std::fread(buf + total, 1, sizeof(buf) - total, file.get());
    if (got == 0) {
      break;
    }
    total += got;
  }
  if (std::ferror(file.get()) != 0) {
    std::printf("[ERROR] read file: %s fail !\n", shown);
    return false;
  }
  if (total > EDID_MAX_SIZE) {
    std::printf("[ERROR] won't fit in edid");
    return false;
  }
  store.assign(buf, total);
  dump_edid(store);
  return true;
}

CEA_Block get_cea_block_from_edid(const Array_EDID<EDID_MAX_SIZE>& edid) {
  CEA_Block block{nullptr};
  if (edid.m_length != EDID_MAX_SIZE) {
    return block;
  }
  if (edid.m_data[EDID_EXTENSION_COUNT_OFFSET] != 1 || edid.m_data[EDID_BLOCK_SIZE] != CEA_EXTENSION_TAG) {
    return block;
  }
  block.data = edid.m_data + EDID_BLOCK_SIZE;
  return block;
}

CEA_Data_Block_Iterator::CEA_Data_Block_Iterator(CEA_Block block)
    : m_pBlock(block.data), m_u32Offset(CEA_DATA_BLOCK_START), m_u32End(0) {
  if (m_pBlock != nullptr) {
    const size_t dtd_offset = m_pBlock[CEA_DTD_OFFSET_OFFSET];
    // A detailed-timing offset past the checksum byte ends the collection at the checksum byte.
    m_u32End = (dtd_offset < CEA_CHECKSUM_OFFSET) ? dtd_offset : CEA_CHECKSUM_OFFSET;
  }
}

bool CEA_Data_Block_Iterator::next(CEA_Data_Block& out) {
  if (m_pBlock == nullptr || m_u32Offset >= m_u32End) {
    return false;
  }
  const qb_u8_t header = m_pBlock[m_u32Offset];
  const size_t length = header & 0x1F;
  if (m_u32Offset + 1 + length > m_u32End) {
    m_u32Offset = m_u32End;  // a block reaching past the collection ends the walk
    return false;
  }
  out.tag = static_cast<qb_u8_t>(header >> 5);
  out.length = static_cast<qb_u8_t>(length);
  out.payload = m_pBlock + m_u32Offset + 1;
  m_u32Offset += 1 + length;
  return true;
}

SAD_Iterator::SAD_Iterator(CEA_Block block) : m_blocks(block), m_current{CEA_DATA_BLOCK_TAG_INVALID, 0, nullptr}, m_u32Pos(0) {}

bool SAD_Iterator::next(SAD& out) {
  for (;;) {
    if (m_current.payload != nullptr && m_u32Pos + SAD_SIZE <= m_current.length) {
      const qb_u8_t* sad = m_current.payload + m_u32Pos;
      out = decode_sad(sad[0], sad[1], sad[2]);
      m_u32Pos += SAD_SIZE;
      return true;
    }
    CEA_Data_Block block;
    do {
      if (!m_blocks.next(block)) {
        m_current.payload = nullptr;
        return false;
      }
    } while (block.tag != CEA_DATA_BLOCK_TAG_AUDIO);
    m_current = block;
    m_u32Pos = 0;
  }
}

}  // namespace edid
