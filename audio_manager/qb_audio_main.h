// The daemon frame: board mode, the process-wide run state (exit flag, command socket), the init
// list record and the shutdown steps shared by main and the tests.
#pragma once

#include "qb_types.h"

// Board modes, chosen from the model text of the board-information file.
inline constexpr qb_s32_t QB_BOARD_MODE_TX_A = 1;
inline constexpr qb_s32_t QB_BOARD_MODE_RX = 2;
inline constexpr qb_s32_t QB_BOARD_MODE_TR_A = 3;
inline constexpr qb_s32_t QB_BOARD_MODE_TR = 4;
inline constexpr qb_s32_t QB_BOARD_MODE_UNKNOWN = -1;

// Board-information file and its model key.
inline constexpr const char* QB_BOARD_INFO_FILE = "/misc/boardInfo.json";
inline constexpr const char* QB_BOARD_INFO_MODEL_KEY = "modelNumber";
// log4cpp property file of the daemon.
inline constexpr const char* QB_AUDIO_LOG_CONF_FILE = "/config/logconf/audio_manager.conf";

// Board mode read at start (QB_BOARD_MODE_*). Safe to call from any thread.
qb_s32_t audio_board_id_get(void);
// Sets the board mode (start-up, and tests).
void audio_board_id_set(qb_s32_t board_id);

// Exit flag of the daemon: 0 while running, 1 once shutdown has begun. Polled by the command and
// debug threads. Safe to call from any thread.
qb_s32_t audio_exit_get(void);

// Descriptor of the command socket; 0 when closed.
qb_s32_t audio_cmd_fd_get(void);
void audio_cmd_fd_set(qb_s32_t fd);

// Reads the board mode from "/misc/boardInfo.json" (key "modelNumber", a non-empty string): the
// first of "TX-A", "RX", "TR-A", "TR" the model text contains decides. QB_BOARD_MODE_UNKNOWN when
// the file is missing, not valid JSON, or the key is absent, empty, not a string or matches no
// board.
int GetModeFromJsonFile2(void);

// Routes the configuration library's own messages through log4cpp (always the case here).
void SetLog4cppStatus(int enable);

// One row of the init list.
typedef struct qb_init_fun_list_t {
  int (*fun_init)(void);    // module start; skipped when empty; result ignored
  int (*fun_uninit)(void);  // module stop; skipped when empty; result ignored
  void (*fun_cb)(void*) = nullptr;  // unused (empty in every row)
  void* param = nullptr;            // unused (empty in every row)
} qb_init_fun_list_t;

// Calls every non-empty fun_init from the first row to the last.
void qb_init_list_start(const qb_init_fun_list_t* list, int count);

// The shutdown steps, once per process: logs "Terminating Exit...", sets the exit flag and stops
// the init list in reverse order. Returns 1 when it ran, 0 when it had already run (later calls
// do nothing). The caller ends the process afterwards.
int qb_audio_shutdown_steps(const qb_init_fun_list_t* list, int count);

// Debug thread entry (the debug request pipe, qb_audio_debug.cpp). Started by main.
void* qb_debug_task(void* arg);
