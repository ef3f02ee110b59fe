// amctl: the command line of the whole tool: common options, then one sub-command.
#include <cstdio>
#include <string>
#include <vector>

#include "amctl.h"
#include "qb_audio_protocol.h"

namespace {

constexpr int kPortMin = 1;
constexpr int kPortMax = 65535;

// The first word that is neither an option nor an option's value: the sub-command.
bool take_command(int argc, char** argv, std::string* name, std::vector<char*>* rest) {
  bool found = false;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--port" && i + 1 < argc) {
      rest->push_back(argv[i]);
      rest->push_back(argv[++i]);
      continue;
    }
    if (!found && !word.empty() && word[0] != '-') {
      *name = word;
      found = true;
      continue;
    }
    rest->push_back(argv[i]);
  }
  return found;
}

bool take_common(amctl_args_t* args, amctl_options_t* opt, std::string* err) {
  std::string text;
  bool present = false;
  if (!args->value("--port", &text, &present, err)) {
    return false;
  }
  long long port = 0;
  if (present && !amctl_parse_number(text, kPortMin, kPortMax, &port)) {
    *err = "--port '" + text + "': expected a UDP port 1-65535";
    return false;
  }
  opt->port = static_cast<int>(port);
  opt->dry_run = args->flag("--dry-run");
  opt->verbose = args->flag("-v") || args->flag("--verbose");
  opt->help = args->flag("--help") || args->flag("-h");
  return true;
}

int run_table_command(const std::string& name, amctl_args_t* args, const amctl_options_t& opt) {
  qb_s32_t id = 0;
  qb_s32_t op = 0;
  amctl_payload_t payload;
  std::string err;
  if (amctl_build_command(name, args, &id, &op, &payload, &err) != AMCTL_EXIT_OK) {
    std::fprintf(stderr, "amctl %s: %s\n%s", name.c_str(), err.c_str(),
                 amctl_short_usage(name).c_str());
    return AMCTL_EXIT_USAGE;
  }
  amctl_message_t message;
  if (!amctl_encode(id, op, payload, &message)) {
    std::fprintf(stderr, "amctl %s: cannot build the message\n", name.c_str());
    return AMCTL_EXIT_FAIL;
  }
  const int port = opt.port > 0 ? opt.port : QB_AUDIO_CMD_PORT;
  if (opt.dry_run || opt.verbose) {
    std::printf("%s\n", amctl_hex(message.bytes.data(), message.size).c_str());
  }
  if (opt.dry_run) {
    return AMCTL_EXIT_OK;
  }
  if (!amctl_send(message, port)) {
    return AMCTL_EXIT_FAIL;
  }
  if (opt.verbose) {
    std::printf("sent %d bytes to 127.0.0.1:%d\n", message.size, port);
  }
  return AMCTL_EXIT_OK;
}

}  // namespace

int amctl_main(int argc, char** argv) {
  std::string name;
  std::vector<char*> rest;
  const bool have_command = take_command(argc, argv, &name, &rest);
  amctl_args_t args(static_cast<int>(rest.size()), rest.data());
  amctl_options_t opt;
  std::string err;
  if (!take_common(&args, &opt, &err)) {
    std::fprintf(stderr, "amctl: %s\n", err.c_str());
    return AMCTL_EXIT_USAGE;
  }
  if (name == "help") {
    opt.help = true;
    name.clear();
    std::vector<std::string> words;
    if (args.positionals(&words, &err) && !words.empty()) name = words[0];
  }
  if (!have_command || name.empty()) {
    std::fputs(amctl_usage().c_str(), opt.help ? stdout : stderr);
    return opt.help ? AMCTL_EXIT_OK : AMCTL_EXIT_USAGE;
  }
  const std::string usage = amctl_command_usage(name);
  if (usage.empty()) {
    std::fprintf(stderr, "amctl: unknown command '%s' (amctl --help lists the commands)\n",
                 name.c_str());
    return AMCTL_EXIT_USAGE;
  }
  if (opt.help) {
    std::fputs(usage.c_str(), stdout);
    return AMCTL_EXIT_OK;
  }
  if (name == "watch") return amctl_watch(&args, opt);
  if (name == "dump") return amctl_dump(&args, opt);
  if (name == "genlock") return amctl_genlock(&args, opt);
  return run_table_command(name, &args, opt);
}
