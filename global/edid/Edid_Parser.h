// The EDID reader: loads the attached TV's EDID, validates it and lists the audio formats, channel
// counts, sample rates and sample sizes the TV accepts. A caller constructs a parser, calls init
// with EDID_TV_FILE_PATH and, on a result of 1, copies the list out with getEdidAudioInfo.
#pragma once

#include <pthread.h>

#include <atomic>

#include "Edid_Audio_Info.h"
#include "edid.h"
#include "qb_types.h"

// The TV's EDID as another process of the device writes it (an absolute board path).
inline constexpr const char* EDID_TV_FILE_PATH = "/tmp/tv.edid.bin";
// Room for the path of the loaded file, terminator included.
inline constexpr size_t EDID_FILE_PATH_SIZE = 100;

// EDID version and revision (bytes 18 and 19).
struct EDID_Version {
  qb_u8_t u8Version;
  qb_u8_t u8Reversion;
};

class EdidParser {
 public:
  EdidParser();
  ~EdidParser();
  EdidParser(const EdidParser&) = delete;
  EdidParser& operator=(const EdidParser&) = delete;

  // Loads the file at an absolute board path, validates it and derives the audio list.
  // 1 when a valid EDID was loaded, else 0 (the parser is then not valid and its list empty).
  int init(const char* path);
  // The same from an EDID already in memory; the copy replaces the loaded EDID.
  int init(const EDID_Data& data);
  // Releases the mutex; 0.
  int deinit();

  // Copies the whole list (count and all entries) when the parser is valid; otherwise leaves
  // *info untouched.
  void getEdidAudioInfo(T_Edid_Audio_Info_* info);
  bool isEdidVaild() const { return bIsEdidVaild.load(); }
  // The CEA extension announces basic audio (two-channel LPCM).
  bool isSupportBaseAudio() const { return bIsBaseAudioSupport.load(); }

 private:
  // Validation of the loaded EDID: length, version, header, and every block's checksum.
  bool verifyEdidVaild() const;
  // The per-block part of verifyEdidVaild: byte sum 0 and not 128 equal bytes.
  static bool isEdidBlockVaild(const qb_u8_t* block);
  // Rebuilds tEdidAudioInfo from the Audio Data Blocks of the CEA extension.
  void updateAudoInfo();
  // Everything derived from a valid EDID; called with the mutex held.
  void updateEdidInfo();
  // Shared tail of both init forms; called with the mutex held and edidData loaded.
  int validateAndDerive();
  // Empties the derived data; called with the mutex held.
  void resetDerived();
  bool ensureMutex();

  // Whether EdidParserMutex is initialised.
  std::atomic<bool> bInitFlag;
  char pEdidFilePath[EDID_FILE_PATH_SIZE];
  EDID_Data edidData;
  // The loaded EDID passed validation.
  std::atomic<bool> bIsEdidVaild;
  std::atomic<bool> bIsBaseAudioSupport;
  EDID_Version edidVersion;
  T_Edid_Audio_Info tEdidAudioInfo;
  // Guards pEdidFilePath, edidData, edidVersion and tEdidAudioInfo: held by init for the whole load
  // and derivation and by getEdidAudioInfo while it copies.
  pthread_mutex_t EdidParserMutex;
};
