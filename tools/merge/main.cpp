// cacheview-merge: merges the irradiance maps or light caches of a render's frames into one file,
// for render-farm scripts: any number of inputs, damaged ones skipped on request with the reason,
// progress that suits a terminal or a log, and a summary per input and in total. See --help.
#include <getopt.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "app/map_files.h"
#include "app/map_merge.h"
#include "cacheview_version.h"
#include "common/tool_support.h"
#include "irradiance/irradiance_map.h"
#include "lightcache/light_map.h"
#include "lightcache/light_merge.h"
#include "threads/heap_policy.h"
#include "threads/thread_manager.h"

namespace {

const char kUsage[] =
    "Usage: cacheview-merge [options] -o OUTPUT INPUT...\n"
    "\n"
    "Merges irradiance maps (.lumap) or light caches (.lulmap), not both kinds at once, into\n"
    "OUTPUT. The result is the file that 'cacheview [-incremental] -load INPUT1 -load INPUT2 ...\n"
    "-save OUTPUT -nodisplay' writes for the same inputs.\n"
    "\n"
    "Merge order: the inputs are merged in the order given (a shell glob gives them sorted by\n"
    "name). The first input that loads is the base and keeps all its samples and its settings;\n"
    "each later input is added to everything merged before it. With --incremental a later\n"
    "sample is kept only where the samples before it do not already cover its place, so the\n"
    "result depends on the order: put the frame that matters most first. Irradiance maps older\n"
    "than version 0xD0000 store no camera and are always added whole.\n"
    "\n"
    "Options:\n"
    "  -o, --output FILE     the merged file to write (replaced only once it is complete)\n"
    "  -i, --incremental     keep only the samples that add information\n"
    "  -j, --threads N       look samples up on N threads in an incremental merge (default:\n"
    "                        LUMORA_NUM_THREADS, else one per processor); the output does not\n"
    "                        depend on N\n"
    "  -k, --keep-going      skip an input that does not load, say why, and go on; the exit\n"
    "                        status then says that inputs were skipped\n"
    "      --json            print the summary as JSON on standard output instead of text\n"
    "  -q, --quiet           print no progress and no summary, only errors\n"
    "  -h, --help            show this text\n"
    "      --version         print the program's version\n"
    "\n"
    "Progress goes to standard output: a live line on a terminal, otherwise one line per tenth\n"
    "of each input's merge with the counts and the time taken. Errors go to standard error.\n"
    "\n"
    "Exit status: 0 when every input was merged and the output written, 1 when an input does\n"
    "not load (without --keep-going), no input loads, or the output cannot be written (an\n"
    "existing OUTPUT is then left as it was), 2 for a bad command line, 3 when the output was\n"
    "written but --keep-going skipped inputs.\n";

constexpr int kExitOk = 0, kExitFailure = 1, kExitUsage = 2, kExitSkipped = 3;

int usageError(const std::string& message) {
  std::fprintf(stderr, "cacheview-merge: %s\nTry 'cacheview-merge --help'.\n", message.c_str());
  return kExitUsage;
}

void error(const std::string& message) {
  std::fprintf(stderr, "cacheview-merge: %s\n", message.c_str());
}

struct Options {
  std::string output;
  std::vector<std::string> inputs;
  bool incremental = false;
  bool keepGoing = false;
  bool json = false;
  bool quiet = false;
  int threads = 0;  // 0: the thread manager's count
};

// A decimal count from lo to hi.
bool parseCount(const char* text, long lo, long hi, int& out) {
  if (!text || !*text) return false;
  char* end = nullptr;
  errno = 0;
  const long v = std::strtol(text, &end, 10);
  if (*end != '\0' || errno != 0 || v < lo || v > hi) return false;
  out = static_cast<int>(v);
  return true;
}

// Returns -1 to go on, otherwise the exit status.
int parseOptions(int argc, char** argv, Options& o) {
  enum { kJson = 256, kVersion };
  static const option kLong[] = {
      {"output", required_argument, nullptr, 'o'}, {"incremental", no_argument, nullptr, 'i'},
      {"keep-going", no_argument, nullptr, 'k'},   {"json", no_argument, nullptr, kJson},
      {"threads", required_argument, nullptr, 'j'},
      {"quiet", no_argument, nullptr, 'q'},        {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, kVersion}, {nullptr, 0, nullptr, 0}};
  opterr = 0;
  int c;
  while ((c = getopt_long(argc, argv, ":o:ij:kqh", kLong, nullptr)) != -1) {
    switch (c) {
      case 'o': o.output = optarg; break;
      case 'i': o.incremental = true; break;
      case 'k': o.keepGoing = true; break;
      case 'j':
        if (!parseCount(optarg, 1, 256, o.threads)) {
          return usageError("--threads needs a number from 1 to 256");
        }
        break;
      case 'q': o.quiet = true; break;
      case kJson: o.json = true; break;
      case 'h': std::fputs(kUsage, stdout); return kExitOk;
      case kVersion: std::printf("cacheview-merge %s\n", CACHEVIEW_VERSION); return kExitOk;
      case ':': return usageError(std::string("option '") + argv[optind - 1] + "' needs a value");
      default: return usageError(std::string("unknown option '") + argv[optind - 1] + "'");
    }
  }
  for (int i = optind; i < argc; ++i) o.inputs.emplace_back(argv[i]);
  if (o.output.empty()) return usageError("no output file given (-o OUTPUT)");
  if (o.inputs.empty()) return usageError("no input files given");
  return -1;
}

const char* kindWord(bool light) { return light ? "light cache" : "irradiance map"; }

// What happened to one input.
struct InputResult {
  std::string file;
  bool merged = false;
  std::string reason;  // why it was skipped
  bool light = false;
  bool wholeAdd = false;  // an old irradiance map added whole in an incremental merge
  int64_t offered = 0, kept = 0;
  double seconds = 0.0;
};

struct Totals {
  int merged = 0, skipped = 0;
  int64_t offered = 0, kept = 0, written = 0, bytes = 0;
  double seconds = 0.0;
};

class Merge {
 public:
  explicit Merge(const Options& o) : o_(o) {}
  ~Merge() {
    LUtils::deleteIrradianceMap(irradiance_);
    delete light_;
  }
  Merge(const Merge&) = delete;
  Merge& operator=(const Merge&) = delete;

  // Loads and merges one input. False when it does not load or is of the other kind (`result`
  // says why); the maps merged so far are untouched then.
  bool add(InputResult& result) {
    const cvtool::Stopwatch clock;
    const char* name = result.file.c_str();
    LUtils::IrradianceMap* map = nullptr;
    LightMap* cache = nullptr;
    if (const int status = loadMapFile(name, map, cache); status != 0) {
      result.reason = loadFailureReason(name, status);
      return false;
    }
    result.light = cache != nullptr;
    if (haveBase() && result.light != light_kind()) {
      result.reason = std::string("a ") + kindWord(result.light) + ", but the inputs before it are " +
                      kindWord(light_kind()) + "s";
      LUtils::deleteIrradianceMap(map);
      delete cache;
      return false;
    }
    cvtool::StepProgress progress(o_.quiet || o_.json ? nullptr : stdout,
                                  cvtool::isTerminal(stdout), result.file);
    if (cache) {
      result.offered = static_cast<int64_t>(cache->sampleCount());
      if (!light_) {
        light_ = cache;
        result.kept = result.offered;
      } else {
        LightMergeCounts counts;
        progress.setTitle(o_.incremental ? "incrementally adding" : "adding");
        mergeLightMaps(*light_, cache, o_.incremental ? 1 : 0, &counts, &progress);
        result.kept = static_cast<int64_t>(counts.added);
      }
    } else {
      result.offered = map->numSamples();
      if (!irradiance_) {
        irradiance_ = map;
        result.kept = result.offered;
      } else {
        int incremental = o_.incremental ? 1 : 0;
        if (incremental && !supportsIncrementalAdd(*map)) {
          incremental = 0;
          result.wholeAdd = true;
        }
        progress.setTitle(incremental ? "incrementally adding" : "adding");
        const int64_t before = irradiance_->numSamples();
        mergeIrradianceMap(*irradiance_, map, incremental, prepared_, &progress);
        result.kept = irradiance_->numSamples() - before;
      }
    }
    result.merged = true;
    result.seconds = clock.seconds();
    return true;
  }

  bool haveBase() const { return irradiance_ || light_; }
  bool light_kind() const { return light_ != nullptr; }

  int64_t samples() const {
    if (light_) return static_cast<int64_t>(light_->sampleCount());
    return irradiance_ ? irradiance_->numSamples() : 0;
  }

  // Writes the merge; the system's reason in `why` when it fails.
  bool save(const std::string& output, std::string& why) {
    errno = 0;
    const int status = light_ ? light_->save(output.c_str(), nullptr)
                              : irradiance_->saveToFile(output.c_str(), nullptr);
    if (status == 0) return true;
    why = errno != 0 ? std::strerror(errno) : "the file cannot be written";
    return false;
  }

 private:
  const Options& o_;
  LUtils::IrradianceMap* irradiance_ = nullptr;
  LightMap* light_ = nullptr;
  bool prepared_ = false;
};

void printInputLine(const InputResult& r) {
  if (!r.merged) {
    std::printf("%s: skipped: %s\n", r.file.c_str(), r.reason.c_str());
    return;
  }
  std::printf("%s: %s, %s samples: %s kept, %s discarded%s (%.2f s)\n", r.file.c_str(),
              kindWord(r.light), groupedCount(r.offered).c_str(), groupedCount(r.kept).c_str(),
              groupedCount(r.offered - r.kept).c_str(),
              r.wholeAdd ? ", added whole: its version stores no camera" : "", r.seconds);
  std::fflush(stdout);
}

std::string jsonSummary(const Options& o, const std::vector<InputResult>& results,
                        const Totals& t, bool written, bool light, int status) {
  cvtool::Json json;
  json.beginObject();
  json.string("output", o.output).boolean("written", written);
  if (t.merged > 0) {
    json.string("kind", kindWord(light));
  } else {
    json.null("kind");
  }
  json.boolean("incremental", o.incremental).boolean("keep_going", o.keepGoing);
  json.beginArray("inputs");
  for (const InputResult& r : results) {
    json.beginObject().string("file", r.file).boolean("merged", r.merged);
    if (r.merged) {
      json.integer("samples_offered", r.offered)
          .integer("samples_kept", r.kept)
          .integer("samples_discarded", r.offered - r.kept)
          .boolean("added_whole", r.wholeAdd)
          .number("seconds", r.seconds);
    } else {
      json.string("reason", r.reason);
    }
    json.endObject();
  }
  json.endArray();
  json.beginObject("total")
      .integer("inputs", static_cast<int64_t>(results.size()))
      .integer("merged", t.merged)
      .integer("skipped", t.skipped)
      .integer("samples_offered", t.offered)
      .integer("samples_kept", t.kept)
      .integer("samples_discarded", t.offered - t.kept)
      .integer("samples_written", written ? t.written : 0)
      .integer("bytes_written", written ? t.bytes : 0)
      .number("seconds", t.seconds)
      .endObject();
  json.integer("exit_status", status);
  json.endObject();
  return json.text();
}

}  // namespace

int main(int argc, char** argv) {
  LUtils::keepLargeBlocksMapped();
  Options o;
  if (const int status = parseOptions(argc, argv, o); status >= 0) return status;
  if (o.threads > 0) LUtils::mergeThreadManager().setThreadCount(o.threads);
  const cvtool::Stopwatch clock;
  const bool text = !o.quiet && !o.json;

  // Every input is looked at before the work starts: without --keep-going a missing or damaged
  // frame fails the run at once rather than after the frames before it were merged.
  std::vector<InputResult> results(o.inputs.size());
  bool anyBad = false;
  for (size_t i = 0; i < o.inputs.size(); ++i) {
    results[i].file = o.inputs[i];
    const MapFileProbe probe = probeMapFile(o.inputs[i].c_str());
    // A pipe or device is left to the load, which reads it once.
    const bool bad = probe.openError != 0 || probe.directory ||
                     (probe.regular && (probe.size == 0 || probe.kind == MapFileProbe::kUnknown ||
                                        !probe.headerComplete || probe.present < probe.declared));
    if (!bad) continue;
    results[i].reason = loadFailureReason(o.inputs[i].c_str(), 0);
    if (!o.keepGoing) {
      error(o.inputs[i] + ": " + results[i].reason);
      anyBad = true;
    }
  }
  if (anyBad) {
    error("nothing written (--keep-going skips the inputs that do not load)");
    return kExitFailure;
  }

  Merge merge(o);
  Totals totals;
  for (InputResult& r : results) {
    if (r.reason.empty() && merge.add(r)) {
      ++totals.merged;
      totals.offered += r.offered;
      totals.kept += r.kept;
    } else {
      error(r.file + ": " + r.reason + (o.keepGoing ? "; skipped" : ""));
      if (!o.keepGoing) {
        error("nothing written");
        return kExitFailure;
      }
      ++totals.skipped;
    }
    if (text) printInputLine(r);
  }

  int status = totals.skipped > 0 ? kExitSkipped : kExitOk;
  bool written = false;
  if (!merge.haveBase()) {
    error("no input loaded; nothing written");
    status = kExitFailure;
  } else {
    std::string why;
    written = merge.save(o.output, why);
    if (!written) {
      error("cannot write \"" + o.output + "\": " + why);
      status = kExitFailure;
    } else {
      totals.written = merge.samples();
      struct stat st;
      if (::stat(o.output.c_str(), &st) == 0) totals.bytes = static_cast<int64_t>(st.st_size);
    }
  }
  totals.seconds = clock.seconds();

  if (o.json) {
    std::fputs(jsonSummary(o, results, totals, written, merge.light_kind(), status).c_str(), stdout);
  } else if (text) {
    std::printf("Merged %d of %zu inputs%s: %s samples offered, %s kept, %s discarded",
                totals.merged, results.size(), o.incremental ? " incrementally" : "",
                groupedCount(totals.offered).c_str(), groupedCount(totals.kept).c_str(),
                groupedCount(totals.offered - totals.kept).c_str());
    if (written) {
      std::printf("; wrote %s samples (%s bytes) to \"%s\"", groupedCount(totals.written).c_str(),
                  groupedCount(totals.bytes).c_str(), o.output.c_str());
    }
    std::printf(" in %.2f s\n", totals.seconds);
  }
  return status;
}
