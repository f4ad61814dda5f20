// The subcommands of vesk-camera. Each takes the arguments that follow its
// name (argv[0] is the subcommand's name) and returns the process exit code:
// 0 success, 1 the work itself failed, 2 bad usage or unusable input.
#pragma once

namespace vesk {
namespace camera {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// vesk-camera settings [--as CLASS] [--check] FILE.json
int CmdSettings(int argc, char** argv);

// vesk-camera run SETTINGS.json [--seconds N] [--camera CAMERA.json] [--log-level LEVEL]
//                [--quiet] [--control PATH] [--stats]
int CmdRun(int argc, char** argv);

// vesk-camera ctl PATH 'JSON' (or - to read the request from stdin)
int CmdCtl(int argc, char** argv);

// vesk-camera receive udp://IP:PORT OUTDIR [--seconds N]
int CmdReceive(int argc, char** argv);

}  // namespace camera
}  // namespace vesk
