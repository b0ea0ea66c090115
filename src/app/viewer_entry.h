// The one door from the command-line driver into the viewer: the driver calls runViewer() when
// the command line asks for the window, and nothing else in the batch tool knows the GUI toolkit.
#pragma once

// Enters the GUI toolkit with the process's arguments and returns the process exit status once
// the viewer's message loop has ended (0 whatever the toolkit returned), or 4 at once when no
// window can be opened here (no display). It starts from the process-wide state
// (process_state.h) and deletes gRasterizer, if set, before it returns.
//
// Builds without the viewer link fallback/viewer_unavailable.cpp, which only says so.
int runViewer(int argc, char** argv);
