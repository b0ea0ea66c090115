// GLib and wxWidgets messages into the debug trace instead of standard error.
#include "viewer/wx/quiet_logging.h"

#include <glib.h>
#include <wx/debug.h>
#include <wx/log.h>

#include "threads/debug_trace.h"

namespace {

const char* levelName(GLogLevelFlags level) {
  if ((level & G_LOG_LEVEL_ERROR) != 0) return "error";
  if ((level & G_LOG_LEVEL_CRITICAL) != 0) return "critical";
  if ((level & G_LOG_LEVEL_WARNING) != 0) return "warning";
  if ((level & G_LOG_LEVEL_MESSAGE) != 0) return "message";
  if ((level & G_LOG_LEVEL_INFO) != 0) return "info";
  return "debug";
}

void toDebugTrace(const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer) {
  LUtils::debugTrace("[%s] %s: %s\n", domain != nullptr ? domain : "GLib", levelName(level),
                     message != nullptr ? message : "");
}

// Messages logged in GLib's structured form bypass the handlers above.
GLogWriterOutput structuredToDebugTrace(GLogLevelFlags level, const GLogField* fields, gsize count,
                                        gpointer) {
  const char* domain = nullptr;
  const char* message = nullptr;
  for (gsize i = 0; i < count; ++i) {
    if (g_strcmp0(fields[i].key, "GLIB_DOMAIN") == 0 && fields[i].length < 0) {
      domain = static_cast<const char*>(fields[i].value);
    } else if (g_strcmp0(fields[i].key, "MESSAGE") == 0 && fields[i].length < 0) {
      message = static_cast<const char*>(fields[i].value);
    }
  }
  toDebugTrace(domain, level, message, nullptr);
  return G_LOG_WRITER_HANDLED;
}

class DebugTraceLog final : public wxLog {
 protected:
  void DoLogTextAtLevel(wxLogLevel, const wxString& message) override {
    LUtils::debugTrace("[wx] %s\n", static_cast<const char*>(message.utf8_str()));
  }
};

}  // namespace

void installQuietLogging() {
  const auto levels =
      static_cast<GLogLevelFlags>(G_LOG_LEVEL_MASK | G_LOG_FLAG_FATAL | G_LOG_FLAG_RECURSION);
  for (const char* domain : {"Gtk", "Gdk", "GLib", "GLib-GObject", "GLib-GIO", "GdkPixbuf", "Pango",
                             "Atk", "dbind", "atk-bridge", "dconf"}) {
    g_log_set_handler(domain, levels, toDebugTrace, nullptr);
  }
  g_log_set_default_handler(toDebugTrace, nullptr);
  g_log_set_writer_func(structuredToDebugTrace, nullptr, nullptr);
  useQuietToolkitLog();
  // A failed toolkit assertion (a canvas asked for a visual the display lacks) is a trace too,
  // not a dialog.
  wxSetAssertHandler([](const wxString& file, int line, const wxString& func, const wxString& cond,
                        const wxString& message) {
    LUtils::debugTrace(
        "[wx] assertion %s failed in %s (%s:%d): %s\n", static_cast<const char*>(cond.utf8_str()),
        static_cast<const char*>(func.utf8_str()), static_cast<const char*>(file.utf8_str()), line,
        static_cast<const char*>(message.utf8_str()));
  });
}

void useQuietToolkitLog() {
  if (dynamic_cast<DebugTraceLog*>(wxLog::GetActiveTarget()) == nullptr) {
    delete wxLog::SetActiveTarget(new DebugTraceLog);
  }
}

void undoQuietLogging() {
  delete wxLog::SetActiveTarget(nullptr);
}
