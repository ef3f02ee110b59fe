// amctl: drives a running audio_manager on 127.0.0.1 the way cmd_core does. One sub-command per
// row of the daemon's command table sends one TLV datagram {2: {id << 16 | op: payload}} to the
// command socket; "watch" prints the JSON reports and drop events sent to cmd_core, "dump" asks
// the debug pipe for a state dump and "genlock" shows the genlock and packet-loss status files.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "qb_types.h"

// Exit statuses: done, the request failed at run time, bad command line.
inline constexpr int AMCTL_EXIT_OK = 0;
inline constexpr int AMCTL_EXIT_FAIL = 1;
inline constexpr int AMCTL_EXIT_USAGE = 2;

// Largest payload a sub-command builds (the channel information record is 24 bytes).
inline constexpr int AMCTL_PAYLOAD_MAX = 64;
// Largest datagram: outer head, inner head, payload.
inline constexpr int AMCTL_MESSAGE_MAX = 16 + AMCTL_PAYLOAD_MAX;

// Largest datagram "watch" accepts (reports are JSON texts of a few hundred bytes).
inline constexpr int AMCTL_WATCH_BUF_SIZE = 65536;

struct amctl_payload_t {
  std::array<qb_u8_t, AMCTL_PAYLOAD_MAX> bytes{};
  int size = 0;
};

struct amctl_message_t {
  std::array<qb_u8_t, AMCTL_MESSAGE_MAX> bytes{};
  int size = 0;
};

// Options every sub-command accepts.
struct amctl_options_t {
  int port = 0;          // destination (commands) or listening port (watch); 0: the default
  bool dry_run = false;  // print the datagram instead of sending it
  bool verbose = false;  // print the datagram and send it
  bool help = false;
};

// The command line, consumed piece by piece: options are taken out by name, what remains are the
// positional arguments.
class amctl_args_t {
 public:
  amctl_args_t(int argc, char* const* argv);
  // Removes "--name" and reports whether it was there.
  bool flag(const char* name);
  // Removes "--name VALUE" or "--name=VALUE". False with *err set when the value is missing.
  bool value(const char* name, std::string* out, bool* present, std::string* err);
  // The positional words; false with *err set when an unknown option is left.
  bool positionals(std::vector<std::string>* out, std::string* err) const;

 private:
  std::vector<std::string> words_;
};

// ---- text forms of the command fields --------------------------------------------------------
// Port names as the daemon logs them: 0 analog, 1 hdmi, 2 spdif, 3 earc, 4 stream, 5 dsp.
bool amctl_parse_port(const std::string& text, qb_u32_t* out);
// Output-source names: the port names and 6 hdmiDownmix.
bool amctl_parse_source(const std::string& text, qb_u32_t* out);
// Channel ids by dump name ("analog", "earc", "video" or "hdmi", "dsp", "spdif", "nsi1", "nsi3",
// "nsi5", ...) or number.
bool amctl_parse_channel(const std::string& text, qb_s32_t* out);
// Decimal or 0x-hexadecimal number within [min, max].
bool amctl_parse_number(const std::string& text, long long min, long long max, long long* out);
// on/off, yes/no, true/false, 1/0.
bool amctl_parse_onoff(const std::string& text, qb_u32_t* out);
// A MAC address: 12 hex digits, optionally in pairs separated by ':' or '-'. out gets the twelve
// lower-case digits and a terminating NUL.
bool amctl_parse_mac(const std::string& text, char out[13]);
// CEC physical address "a.b.c.d" (one hex digit each) or a number.
bool amctl_parse_cec(const std::string& text, qb_u32_t* out);
// Sample-frequency code of a rate in Hz; false for a rate without a code.
bool amctl_rate_code(long long hz, qb_u8_t* code);

// ---- messages ---------------------------------------------------------------------------------
// {QB_AUDIO_MSG_TYPE_CMD: {id << 16 | op: payload}} into out. False when it does not fit.
bool amctl_encode(qb_s32_t id, qb_s32_t op, const amctl_payload_t& payload, amctl_message_t* out);
// Sends one datagram to 127.0.0.1:port. False (with a message on stderr) on failure.
bool amctl_send(const amctl_message_t& message, int port);
// "02 00 00 00 14 00 ..." (one line).
std::string amctl_hex(const qb_u8_t* data, int size);

// ---- sub-commands -----------------------------------------------------------------------------
// One command-table sub-command: parses its arguments into the payload and the operation.
// Returns AMCTL_EXIT_OK, or AMCTL_EXIT_USAGE with *err set.
int amctl_build_command(const std::string& name, amctl_args_t* args, qb_s32_t* id, qb_s32_t* op,
                        amctl_payload_t* payload, std::string* err);
// True when name is one of the command-table sub-commands.
bool amctl_is_table_command(const std::string& name);
// Usage text of a sub-command (table or tool), or "" when there is none.
std::string amctl_command_usage(const std::string& name);
// The "usage:" lines of a sub-command's usage and a pointer to --help: what a bad command line
// prints with its error.
std::string amctl_short_usage(const std::string& name);
// Usage of the whole tool.
std::string amctl_usage();

// The tool sub-commands; each returns an exit status.
int amctl_watch(amctl_args_t* args, const amctl_options_t& opt);
int amctl_dump(amctl_args_t* args, const amctl_options_t& opt);
int amctl_genlock(amctl_args_t* args, const amctl_options_t& opt);

// Pretty form of one datagram received by "watch": the report or drop event it carries, or a
// hex dump of anything else. raw: the JSON text on one line.
std::string amctl_describe_report(const qb_u8_t* data, int size, bool raw);

// The whole tool: argv[0] is the program name. Returns the exit status.
int amctl_main(int argc, char** argv);
