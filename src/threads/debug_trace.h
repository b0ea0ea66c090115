// Debug traces: short diagnostic lines for a developer, never shown to users. They are silent by
// default; when CACHEVIEW_DEBUG_LOG names a file, each trace is appended to it, and a test or a
// host can install its own sink instead. Nothing here writes to standard output or error.
#pragma once

#include <functional>

namespace LUtils {

// Receives one formatted trace (at most 511 characters, usually ending in "\n"). Sinks are
// called one at a time, from whichever thread traces.
using DebugTraceSink = std::function<void(const char* text)>;

// Formats a printf-style trace into a 512-byte buffer (longer texts are cut) and hands it to the
// installed sink, or to the default destination when none is installed.
[[gnu::format(printf, 1, 2)]] void debugTrace(const char* format, ...);

// Installs `sink` and returns the sink that was installed before. An empty function restores
// the default destination, which then reads CACHEVIEW_DEBUG_LOG again on the next trace. Safe to
// call while other threads trace.
DebugTraceSink setDebugTraceSink(DebugTraceSink sink);

// Installs a sink for the lifetime of a scope and restores the previous one afterwards.
class ScopedDebugTraceSink {
 public:
  explicit ScopedDebugTraceSink(DebugTraceSink sink)
      : previous_(setDebugTraceSink(std::move(sink))) {}
  ~ScopedDebugTraceSink() { setDebugTraceSink(std::move(previous_)); }
  ScopedDebugTraceSink(const ScopedDebugTraceSink&) = delete;
  ScopedDebugTraceSink& operator=(const ScopedDebugTraceSink&) = delete;

 private:
  DebugTraceSink previous_;
};

}  // namespace LUtils
