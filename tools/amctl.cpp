// amctl: command-line control of a running audio_manager (see amctl --help).
#include "amctl.h"

int main(int argc, char** argv) { return amctl_main(argc, argv); }
