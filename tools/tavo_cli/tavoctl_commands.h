// The subcommands of tavoctl; each returns the process exit status.
#pragma once

namespace Tavo::Cli {

int WatchCommand(int argc, char** argv);  // argv[0] is "watch"
int DumpCommand(int argc, char** argv);   // argv[0] is "dump"
int TopCommand(int argc, char** argv);    // argv[0] is "top"
int WaitCommand(int argc, char** argv);   // argv[0] is "wait"
int DoctorCommand(int argc, char** argv);  // argv[0] is "doctor"

}  // namespace Tavo::Cli
