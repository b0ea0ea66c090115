// Keeps the toolkit's own diagnostics (GTK, GLib and wxWidgets log messages, such as the warning
// about menu accelerator texts it cannot parse) off the user's terminal: they go to the debug
// trace, which writes them to CACHEVIEW_DEBUG_LOG when that names a file and drops them otherwise.
#pragma once

// Routes GLib's log handlers and wxWidgets' log target to the debug trace. Call once, before the
// toolkit starts; undoQuietLogging() removes the wxWidgets log target again.
void installQuietLogging();
void undoQuietLogging();
// Makes the debug trace wxWidgets' log target again (the toolkit's start-up may replace it).
void useQuietToolkitLog();
