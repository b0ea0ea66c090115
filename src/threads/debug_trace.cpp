#include "threads/debug_trace.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "threads/spinning_mutex.h"

namespace LUtils {
namespace {

constexpr size_t kTraceBufferSize = 512;

struct TraceState {
  SpinningMutex lock;
  DebugTraceSink sink;
  bool logChecked = false;
  std::FILE* log = nullptr;  // the CACHEVIEW_DEBUG_LOG file, opened on the first trace
};

TraceState& traceState() {
  static TraceState* state = new TraceState;  // never destroyed: workers may trace at exit
  return *state;
}

// The default destination: append to the file named by CACHEVIEW_DEBUG_LOG, if any. The file
// stays open and is flushed after every trace so that a crash loses nothing.
void writeDefault(TraceState& state, const char* text) {
  if (!state.logChecked) {
    state.logChecked = true;
    const char* path = std::getenv("CACHEVIEW_DEBUG_LOG");
    if (path && *path) state.log = std::fopen(path, "a");
  }
  if (!state.log) return;
  std::fputs(text, state.log);
  std::fflush(state.log);
}

}  // namespace

void debugTrace(const char* format, ...) {
  char buffer[kTraceBufferSize];
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  if (n < 0) return;

  TraceState& state = traceState();
  std::lock_guard<SpinningMutex> guard(state.lock);
  if (state.sink) {
    state.sink(buffer);
  } else {
    writeDefault(state, buffer);
  }
}

DebugTraceSink setDebugTraceSink(DebugTraceSink sink) {
  TraceState& state = traceState();
  std::lock_guard<SpinningMutex> guard(state.lock);
  std::swap(state.sink, sink);
  if (!state.sink) {
    // Back to the default destination, which looks at CACHEVIEW_DEBUG_LOG afresh.
    if (state.log) std::fclose(state.log);
    state.log = nullptr;
    state.logChecked = false;
  }
  return sink;
}

}  // namespace LUtils
