// The subcommands of tavoctl; each returns the process exit status.
#pragma once

namespace Tavo::Cli {

int WatchCommand(int argc, char** argv);  // argv[0] is "watch"
int DumpCommand(int argc, char** argv);   // argv[0] is "dump"
int TopCommand(int argc, char** argv);    // argv[0] is "top"
int DoctorCommand(int argc, char** argv);  // argv[0] is "doctor"
void PrintWatchHelp(bool toStderr);
void PrintDumpHelp(bool toStderr);
void PrintTopHelp(bool toStderr);
void PrintDoctorHelp(bool toStderr);

}  // namespace Tavo::Cli
