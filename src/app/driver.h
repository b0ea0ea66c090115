// The command-line driver: runs the batch modes (PTS conversion; load, merge, report and save
// steps in command-line order) or hands over to the viewer, and returns the exit status.
#pragma once

// Exit statuses.
constexpr int kStatusOk = 0;
constexpr int kStatusUsage = 1;      // usage printed: -help alone, an unknown or incomplete option
constexpr int kStatusLoadError = 2;  // a -load file is neither an irradiance map nor a light cache
constexpr int kStatusFailure = 3;    // a failed -save or -convert
// A step needs a capability that this build of cacheview does not have (it says which).
constexpr int kStatusNotInBuild = 4;

// The function that enters the viewer (runViewer in the real program).
using ViewerEntry = int (*)(int argc, char** argv);

// The process entry proper: argv[0] is the program, the options follow. Prints on standard
// output only; the process-wide state (process_state.h) is what the viewer starts from.
int runCacheview(int argc, char** argv, ViewerEntry viewer);

// Prints the usage banner.
void printUsage();
