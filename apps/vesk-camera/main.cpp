// vesk-camera: the host process of libvesk_encoder. main() only picks the
// subcommand named by the first argument and hands it the rest.
#include <cstdio>
#include <cstring>

#include "commands.h"

namespace {

using vesk::camera::kExitOk;
using vesk::camera::kExitUsage;

struct command_t {
  const char* name;
  const char* summary;
  int (*run)(int argc, char** argv);
};

const command_t kCommands[] = {
    {"run", "run the encoder on a settings file (the main job)", vesk::camera::CmdRun},
    {"settings", "print a settings file as the library normalises it, or --check it",
     vesk::camera::CmdSettings},
    {"receive", "receive a vesk stream over UDP and write what it carries", vesk::camera::CmdReceive},
    {"ctl", "send one request to a running host's control socket (run --control)", vesk::camera::CmdCtl},
};

void PrintUsage(FILE* out) {
  fprintf(out,
          "Usage: vesk-camera COMMAND [ARGUMENTS...]\n"
          "       vesk-camera --help\n"
          "\n"
          "The host process of libvesk_encoder. It runs the encoder on the virtual\n"
          "camera (or the camera's own driver) from a JSON settings file; see\n"
          "examples/ for settings files.\n"
          "\n"
          "Commands:\n");
  for (const command_t& command : kCommands) {
    fprintf(out, "  %-10s %s\n", command.name, command.summary);
  }
  fprintf(out, "\nRun 'vesk-camera COMMAND --help' for the arguments of a command.\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    PrintUsage(stderr);
    return kExitUsage;
  }
  const char* name = argv[1];
  if (strcmp(name, "--help") == 0 || strcmp(name, "-h") == 0 || strcmp(name, "help") == 0) {
    PrintUsage(stdout);
    return kExitOk;
  }
  for (const command_t& command : kCommands) {
    if (strcmp(name, command.name) == 0) return command.run(argc - 1, argv + 1);
  }
  fprintf(stderr, "vesk-camera: unknown command '%s' (see vesk-camera --help)\n", name);
  return kExitUsage;
}
