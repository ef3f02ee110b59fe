// The EDID reader: loading, validation and the audio capability list of the attached sink.
#include "Edid_Parser.h"

#include <cstdio>
#include <cstring>

namespace {

// The fixed eight-byte header of every EDID.
constexpr qb_u8_t EDID_HEADER[] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
// Offsets of the version and revision bytes.
constexpr size_t EDID_VERSION_OFFSET = 18;
constexpr size_t EDID_REVISION_OFFSET = 19;
// The only EDID structure version the reader accepts.
constexpr qb_u8_t EDID_VERSION_1 = 1;
// Byte 3 of the CEA extension: bit 6 announces basic audio.
constexpr size_t CEA_FEATURES_OFFSET = 3;
constexpr qb_u8_t CEA_BASIC_AUDIO_BIT = 0x40;
// Format codes whose third descriptor byte is a maximum bit rate in units of 8 kHz.
constexpr qb_u32_t SAD_BITRATE_FIRST_CODE = ENUM_AC3;
constexpr qb_u32_t SAD_BITRATE_LAST_CODE = ENUM_ATRAC;
constexpr qb_u32_t SAD_BITRATE_UNIT_KHZ = 8;

// Holds a pthread mutex for one scope.
class MutexGuard {
 public:
  explicit MutexGuard(pthread_mutex_t& mutex) : m_mutex(mutex) { pthread_mutex_lock(&m_mutex); }
  ~MutexGuard() { pthread_mutex_unlock(&m_mutex); }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;

 private:
  pthread_mutex_t& m_mutex;
};

// The flag byte of a capability from the descriptor's third byte, by format code.
qb_u32_t audio_bit_flag(const edid::SAD& sad) {
  if (sad.audioFormatCode >= SAD_BITRATE_FIRST_CODE && sad.audioFormatCode <= SAD_BITRATE_LAST_CODE) {
    return sad.byte3 * SAD_BITRATE_UNIT_KHZ;
  }
  if (sad.audioFormatCode == ENUM_RESERVED15) {
    return sad.byte3 >> 3;  // the extension type code
  }
  return sad.byte3;
}

}  // namespace

EdidParser::EdidParser()
    : bInitFlag(false),
      pEdidFilePath{},
      edidData(),
      bIsEdidVaild(false),
      bIsBaseAudioSupport(false),
      edidVersion{0, 0},
      tEdidAudioInfo{},
      EdidParserMutex() {}

// The mutex goes with the parser when deinit was not called.
EdidParser::~EdidParser() { deinit(); }

bool EdidParser::ensureMutex() {
  if (bInitFlag.load()) {
    return true;
  }
  if (pthread_mutex_init(&EdidParserMutex, nullptr) != 0) {
    std::printf("EdidParser Mutex init Failure! ");
    return false;
  }
  bInitFlag.store(true);
  return true;
}

int EdidParser::deinit() {
  if (bInitFlag.exchange(false)) {
    pthread_mutex_destroy(&EdidParserMutex);
  }
  return 0;
}

int EdidParser::init(const char* path) {
  if (!ensureMutex()) {
    return 0;
  }
  MutexGuard guard(EdidParserMutex);
  resetDerived();
  std::memset(pEdidFilePath, 0, sizeof(pEdidFilePath));
  const size_t len = (path != nullptr) ? std::strlen(path) : 0;
  // A path that does not fit the record is refused rather than cut: a cut path names another file.
  if (path == nullptr || len >= sizeof(pEdidFilePath)) {
    edidData.clear();
    std::printf("[ERROR] open file: %s fail !\n", (path != nullptr) ? path : "");
    return 0;
  }
  std::memcpy(pEdidFilePath, path, len);
  if (!edid::LoadEdid(pEdidFilePath, edidData)) {
    return 0;
  }
  return validateAndDerive();
}

int EdidParser::init(const EDID_Data& data) {
  if (!ensureMutex()) {
    return 0;
  }
  MutexGuard guard(EdidParserMutex);
  resetDerived();
  if (data.m_length > EDID_Data::capacity()) {
    edidData.clear();
    std::printf("[ERROR] won't fit in edid");
    return 0;
  }
  edidData.assign(data.m_data, static_cast<size_t>(data.m_length));
  return validateAndDerive();
}

void EdidParser::getEdidAudioInfo(T_Edid_Audio_Info_* info) {
  if (info == nullptr || !bInitFlag.load()) {
    return;
  }
  MutexGuard guard(EdidParserMutex);
  if (bIsEdidVaild.load()) {
    *info = tEdidAudioInfo;
  }
}

void EdidParser::resetDerived() {
  bIsEdidVaild.store(false);
  bIsBaseAudioSupport.store(false);
  edidVersion = EDID_Version{0, 0};
  tEdidAudioInfo = T_Edid_Audio_Info{};
}

int EdidParser::validateAndDerive() {
  if (!verifyEdidVaild()) {
    return 0;
  }
  bIsEdidVaild.store(true);
  updateEdidInfo();
  return 1;
}

bool EdidParser::isEdidBlockVaild(const qb_u8_t* block) {
  qb_u32_t sum = 0;
  bool all_equal = true;
  for (size_t i = 0; i < edid::EDID_BLOCK_SIZE; ++i) {
    sum += block[i];
    all_equal = all_equal && block[i] == block[0];
  }
  return (sum & 0xFF) == 0 && !all_equal;
}

bool EdidParser::verifyEdidVaild() const {
  const qb_u64_t length = edidData.m_length;
  if (length == 0) {
    std::printf("[ERROR] ediddata size is 0 ");
    return false;
  }
  if (length < edid::EDID_BLOCK_SIZE) {
    std::printf("[ERROR] ediddata less than 128 byte ");
    return false;
  }
  if (length > EDID_Data::capacity()) {
    return false;  // the store never holds more; kept so the block loop below stays inside it
  }
  if (edidData.m_data[EDID_VERSION_OFFSET] != EDID_VERSION_1) {
    return false;
  }
  if (std::memcmp(edidData.m_data, EDID_HEADER, sizeof(EDID_HEADER)) != 0) {
    return false;
  }
  if (length % edid::EDID_BLOCK_SIZE != 0) {
    return false;
  }
  for (size_t off = 0; off < length; off += edid::EDID_BLOCK_SIZE) {
    if (!isEdidBlockVaild(edidData.m_data + off)) {
      return false;
    }
  }
  return true;
}

void EdidParser::updateEdidInfo() {
  edidVersion.u8Version = edidData.m_data[EDID_VERSION_OFFSET];
  edidVersion.u8Reversion = edidData.m_data[EDID_REVISION_OFFSET];
  updateAudoInfo();
  const edid::CEA_Block cea = edid::get_cea_block_from_edid(edidData);
  bIsBaseAudioSupport.store(cea.data != nullptr && (cea.data[CEA_FEATURES_OFFSET] & CEA_BASIC_AUDIO_BIT) != 0);
}

void EdidParser::updateAudoInfo() {
  tEdidAudioInfo = T_Edid_Audio_Info{};
  edid::SAD_Iterator sads(edid::get_cea_block_from_edid(edidData));
  edid::SAD sad;
  // Descriptors beyond the tenth, all audio blocks counted together, are dropped: the first ten in EDID order stay.
  while (tEdidAudioInfo.u8AudioInfoNum < EDID_AUDIO_INFO_MAX_NUM && sads.next(sad)) {
    T_Audio_Info& entry = tEdidAudioInfo.ptAudioInfo[tEdidAudioInfo.u8AudioInfoNum];
    entry.eAudioFomat = static_cast<E_Audio_Format>(sad.audioFormatCode);
    entry.eSampleRateFlags = static_cast<E_Audio_Samplerate_Flag>(sad.sampleRateFlags);
    entry.u8MaxChannels = sad.maxChannels;
    entry.u8BitFlag = audio_bit_flag(sad);
    ++tEdidAudioInfo.u8AudioInfoNum;
  }
}
