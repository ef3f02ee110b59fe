// The daemon frame's shared state and helpers: board mode, exit flag, command socket descriptor,
// the board-information reader and the init-list walks.
#include "qb_audio_main.h"

#include <json/json.h>
#include <sys/stat.h>

#include <atomic>
#include <exception>
#include <fstream>
#include <iterator>
#include <string>

#include "am_log.h"
#include "am_platform.h"

namespace {

// Run state of the daemon, one instance. Each field is written by one party (start-up, the
// command thread, the shutdown routine) and read by others, hence atomics. exit_flage is 1 once
// the shutdown steps have run.
struct qb_audio_main_ctrl_t {
  std::atomic<qb_s32_t> board_id{QB_BOARD_MODE_UNKNOWN};
  std::atomic<qb_s32_t> fd{0};
  std::atomic<qb_s32_t> exit{0};
  std::atomic<int> exit_flage{0};
};

qb_audio_main_ctrl_t g_main_ctrl;

// The model texts in the order they are tested; the first hit decides.
struct board_mode_match_t {
  const char* text;
  qb_s32_t mode;
};
constexpr board_mode_match_t kBoardModeMatches[] = {
    {"TX-A", QB_BOARD_MODE_TX_A},
    {"RX", QB_BOARD_MODE_RX},
    {"TR-A", QB_BOARD_MODE_TR_A},
    {"TR", QB_BOARD_MODE_TR},
};

// A board-information file larger than this is not a board-information file.
constexpr std::streamsize kBoardInfoMaxBytes = 64 * 1024;

// Reads the whole file into text; false when it is not a regular file, cannot be opened or is
// too large (a FIFO or a device in its place must not block or flood start-up).
bool read_small_file(const std::string& path, std::string& text) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kBoardInfoMaxBytes) {
    return false;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in.is_open()) {
    return false;
  }
  text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return static_cast<std::streamsize>(text.size()) <= kBoardInfoMaxBytes;
}

// Board mode of a model text: the first of "TX-A", "RX", "TR-A", "TR" it contains decides.
int qb_board_mode_from_model(const std::string& model) {
  for (const board_mode_match_t& match : kBoardModeMatches) {
    if (model.find(match.text) != std::string::npos) {
      return match.mode;
    }
  }
  return QB_BOARD_MODE_UNKNOWN;
}

}  // namespace

qb_s32_t audio_board_id_get(void) { return g_main_ctrl.board_id.load(); }
void audio_board_id_set(qb_s32_t board_id) { g_main_ctrl.board_id.store(board_id); }

qb_s32_t audio_exit_get(void) { return g_main_ctrl.exit.load(); }

qb_s32_t audio_cmd_fd_get(void) { return g_main_ctrl.fd.load(); }
void audio_cmd_fd_set(qb_s32_t fd) { g_main_ctrl.fd.store(fd); }

int GetModeFromJsonFile2(void) {
  const std::string path = am_path(QB_BOARD_INFO_FILE);
  std::string text;
  if (!read_small_file(path, text)) {
    AM_LOG_ERROR("open %s fail, board mode unknown", QB_BOARD_INFO_FILE);
    return QB_BOARD_MODE_UNKNOWN;
  }
  Json::Value root;
  bool parsed = false;
  try {
    Json::Reader reader;
    parsed = reader.parse(text, root, false);
  } catch (const std::exception&) {
    parsed = false;  // e.g. nesting too deep
  }
  if (!parsed || !root.isObject()) {
    AM_LOG_ERROR("parse %s fail, board mode unknown", QB_BOARD_INFO_FILE);
    return QB_BOARD_MODE_UNKNOWN;
  }
  const Json::Value& model = root[QB_BOARD_INFO_MODEL_KEY];
  if (!model.isString() || model.asString().empty()) {
    AM_LOG_ERROR("%s: no %s text, board mode unknown", QB_BOARD_INFO_FILE, QB_BOARD_INFO_MODEL_KEY);
    return QB_BOARD_MODE_UNKNOWN;
  }
  return qb_board_mode_from_model(model.asString());
}

void SetLog4cppStatus(int enable) {
  (void)enable;  // every message of this process already goes through log4cpp
}

void qb_init_list_start(const qb_init_fun_list_t* list, int count) {
  if (list == nullptr) {
    return;
  }
  for (int i = 0; i < count; ++i) {
    if (list[i].fun_init != nullptr) {
      (void)list[i].fun_init();
    }
  }
}

int qb_audio_shutdown_steps(const qb_init_fun_list_t* list, int count) {
  int expected = 0;
  if (!g_main_ctrl.exit_flage.compare_exchange_strong(expected, 1)) {
    return 0;  // a later signal does nothing
  }
  AM_LOG_INFO("Terminating Exit...\n");
  g_main_ctrl.exit.store(1);
  // every non-empty fun_uninit, from the last row back to the first
  for (int i = count - 1; list != nullptr && i >= 0; --i) {
    if (list[i].fun_uninit != nullptr) {
      (void)list[i].fun_uninit();
    }
  }
  return 1;
}
