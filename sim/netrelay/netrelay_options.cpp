#include "netrelay_options.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace netrelay {

namespace {

bool to_u64(const char* text, uint64_t max, uint64_t* out) {
  if (text == nullptr || *text < '0' || *text > '9') {
    return false;
  }
  char* end = nullptr;
  errno = 0;
  const unsigned long long v = std::strtoull(text, &end, 0);
  if (errno != 0 || *end != '\0' || v > max) {
    return false;
  }
  *out = v;
  return true;
}

bool to_double(const char* text, double lo, double hi, double* out) {
  if (text == nullptr || *text == '\0') {
    return false;
  }
  char* end = nullptr;
  errno = 0;
  const double v = std::strtod(text, &end);
  if (errno != 0 || *end != '\0' || !(v >= lo && v <= hi)) {
    return false;
  }
  *out = v;
  return true;
}

bool is_multicast(const char* text) {
  in_addr a{};
  return inet_pton(AF_INET, text, &a) == 1 && IN_MULTICAST(ntohl(a.s_addr));
}

bool is_ipv4(const char* text) {
  in_addr a{};
  return inet_pton(AF_INET, text, &a) == 1;
}

struct ImpairOption {
  const char* list_name;
  const char* rate_name;
  Impair kind;
};

constexpr ImpairOption kImpairOptions[] = {
    {"--drop", "--drop-rate", Impair::kDrop},
    {"--dup", "--dup-rate", Impair::kDup},
    {"--reorder", "--reorder-rate", Impair::kReorder},
    {"--corrupt", "--corrupt-rate", Impair::kCorrupt},
    {"--truncate", "--truncate-rate", Impair::kTruncate},
};

// Handles one "--name value" pair; returns false with err set when it is not valid.
bool apply(const char* name, const char* value, Options* o, std::string* err) {
  auto bad = [&](const char* what) {
    *err = std::string(name) + ": " + what + " '" + value + "'";
    return false;
  };
  uint64_t u = 0;
  for (const ImpairOption& io : kImpairOptions) {
    if (std::strcmp(name, io.list_name) == 0) {
      return o->plan.list(io.kind).parse(value) ? true : bad("bad index list");
    }
    if (std::strcmp(name, io.rate_name) == 0) {
      double r = 0.0;
      if (!to_double(value, 0.0, 1.0, &r)) {
        return bad("rate must be within 0..1");
      }
      o->plan.set_rate(io.kind, r);
      return true;
    }
  }
  if (std::strcmp(name, "--group") == 0) {
    if (!is_multicast(value)) {
      return bad("not an IPv4 multicast group");
    }
    if (o->group_count == kMaxGroups) {
      return bad("too many groups");
    }
    o->groups[o->group_count++] = value;
  } else if (std::strcmp(name, "--port") == 0) {
    if (!to_u64(value, 65535, &u) || u == 0) {
      return bad("bad port");
    }
    o->port = static_cast<uint16_t>(u);
  } else if (std::strcmp(name, "--in") == 0) {
    o->in.ifname = value;
  } else if (std::strcmp(name, "--in-addr") == 0) {
    if (!is_ipv4(value)) {
      return bad("bad address");
    }
    o->in.addr = value;
  } else if (std::strcmp(name, "--out") == 0 || std::strcmp(name, "--out-addr") == 0) {
    if (o->out_count == kMaxOutputs) {
      return bad("too many outputs");
    }
    Endpoint& e = o->out[o->out_count++];
    if (name[5] == '\0') {
      e.ifname = value;
    } else {
      if (!is_ipv4(value)) {
        return bad("bad address");
      }
      e.addr = value;
    }
  } else if (std::strcmp(name, "--ttl") == 0) {
    if (!to_u64(value, 255, &u) || u == 0) {
      return bad("bad TTL");
    }
    o->ttl = static_cast<int>(u);
  } else if (std::strcmp(name, "--seed") == 0) {
    if (!to_u64(value, UINT64_MAX, &u)) {
      return bad("bad seed");
    }
    o->plan.set_seed(u);
  } else if (std::strcmp(name, "--corrupt-offset") == 0) {
    if (!to_u64(value, 65535, &u)) {
      return bad("bad offset");
    }
    o->corrupt_offset = u;
  } else if (std::strcmp(name, "--corrupt-len") == 0) {
    if (!to_u64(value, 65535, &u) || u == 0) {
      return bad("bad length");
    }
    o->corrupt_length = u;
  } else if (std::strcmp(name, "--truncate-to") == 0) {
    if (!to_u64(value, 65535, &u)) {
      return bad("bad length");
    }
    o->truncate_to = u;
  } else if (std::strcmp(name, "--hold-ms") == 0) {
    if (!to_u64(value, 60000, &u)) {
      return bad("bad time");
    }
    o->hold_ms = static_cast<unsigned>(u);
  } else if (std::strcmp(name, "--count") == 0) {
    if (!to_u64(value, UINT64_MAX, &u)) {
      return bad("bad count");
    }
    o->count = u;
  } else if (std::strcmp(name, "--duration") == 0) {
    if (!to_double(value, 0.0, 1e6, &o->duration_s)) {
      return bad("bad duration");
    }
  } else if (std::strcmp(name, "--ready") == 0) {
    o->ready_file = value;
  } else {
    *err = std::string("unknown option ") + name;
    return false;
  }
  return true;
}

}  // namespace

void print_usage(const char* program) {
  std::printf(
      "usage: %s --group G [--group G]... [--port P] (--in IF | --in-addr A)\n"
      "          (--out IF | --out-addr A)... [impairments] [--count N] [--duration S]\n"
      "\n"
      "Joins the multicast groups on the input interface and sends every datagram received\n"
      "there to the same group and port out of each output interface (loop off).\n"
      "\n"
      "  --group G          IPv4 multicast group to join (up to %zu)\n"
      "  --port P           UDP port (default %u)\n"
      "  --in IF, --in-addr A      input interface, by name or by its IPv4 address\n"
      "  --out IF, --out-addr A    output interface (up to %zu)\n"
      "  --ttl N            multicast TTL of what is sent (default 1)\n"
      "Impairments (LIST: indices from 0 in order of arrival, e.g. 3,7,10-12):\n"
      "  --drop LIST        not forwarded\n"
      "  --dup LIST         sent twice\n"
      "  --reorder LIST     held back and sent after the next datagram (swap with the next);\n"
      "                     sent alone after --hold-ms MS (default 100) without a next one\n"
      "  --corrupt LIST     bytes [--corrupt-offset O, +--corrupt-len L) inverted (0, 4)\n"
      "  --truncate LIST    cut to --truncate-to N bytes (default 16)\n"
      "  --drop-rate R, --dup-rate R, --reorder-rate R, --corrupt-rate R, --truncate-rate R\n"
      "                     probability per datagram, decided by --seed S (default 1)\n"
      "Run control:\n"
      "  --count N          stop after N datagrams    --duration S   stop after S seconds\n"
      "  --ready FILE       created once listening    --trace        one line per datagram\n"
      "\n"
      "On exit and on SIGUSR1 prints one line:\n"
      "netrelay received=N forwarded=N dropped=N duplicated=N reordered=N corrupted=N "
      "truncated=N sent=N send_errors=N ignored=N dropped_bytes=N reordered_bytes=N\n",
      program, kMaxGroups, static_cast<unsigned>(kDefaultPort), kMaxOutputs);
}

int parse_options(int argc, char** argv, Options* opts, std::string* err) {
  for (int i = 1; i < argc; ++i) {
    const char* name = argv[i];
    if (std::strcmp(name, "-h") == 0 || std::strcmp(name, "--help") == 0) {
      print_usage(argv[0]);
      return 1;
    }
    if (std::strcmp(name, "--trace") == 0) {
      opts->trace = true;
      continue;
    }
    if (i + 1 >= argc) {
      *err = std::string(name) + " needs a value";
      return -1;
    }
    if (!apply(name, argv[++i], opts, err)) {
      return -1;
    }
  }
  if (opts->group_count == 0) {
    *err = "at least one --group is needed";
    return -1;
  }
  if (!opts->in.set()) {
    *err = "--in or --in-addr is needed";
    return -1;
  }
  if (opts->out_count == 0) {
    *err = "at least one --out or --out-addr is needed";
    return -1;
  }
  return 0;
}

}  // namespace netrelay
