// cacheview-stats: what `cacheview -info` prints about a map file, and what users otherwise work
// out by hand: the file's size, the bounding box, ranges and means of radius, colour and time,
// the samples per render ID and the samples that no index can place. See --help.
#include <getopt.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "app/map_files.h"
#include "app/map_report.h"
#include "cacheview_version.h"
#include "common/tool_support.h"
#include "io/placement.h"
#include "irradiance/irradiance_map.h"
#include "lightcache/light_map.h"

namespace {

const char kUsage[] =
    "Usage: cacheview-stats [options] FILE...\n"
    "\n"
    "Describes irradiance maps (.lumap) and light caches (.lulmap): for an irradiance map the\n"
    "report of 'cacheview -load FILE -info -nodisplay', for a light cache its sample count,\n"
    "and for both the file's size, the number of samples that no lookup can place (a position\n"
    "or radius that is not a finite number, or a radius of zero or less), the bounding box of\n"
    "the others, the smallest, largest and mean radius (an irradiance sample's validity\n"
    "radius, a light-cache sample's sphere), colour channel and shutter time (irradiance maps\n"
    "only), and the number of samples per render ID (per id for a light cache). Ranges and\n"
    "means leave out values that are not finite numbers, and the radius and the box leave out\n"
    "the samples that cannot be placed.\n"
    "\n"
    "Options:\n"
    "      --json            print one JSON document with an entry per file instead of text\n"
    "  -q, --quiet           print nothing; the exit status says whether every file loads\n"
    "  -h, --help            show this text\n"
    "      --version         print the program's version\n"
    "\n"
    "A file that does not load is reported on standard error with the reason (\"no such\n"
    "file\", \"a directory\", \"not an irradiance map or light cache\", \"truncated: 999,999 of\n"
    "1,000,000 samples present\"); in JSON its entry holds the reason as \"error\".\n"
    "\n"
    "Exit status: 0 when every file loads, 1 when one or more do not, 2 for a bad command line.\n";

int usageError(const std::string& message) {
  std::fprintf(stderr, "cacheview-stats: %s\nTry 'cacheview-stats --help'.\n", message.c_str());
  return 2;
}

// Smallest, largest and mean of the finite values given.
struct Range {
  double lo = std::numeric_limits<double>::infinity();
  double hi = -std::numeric_limits<double>::infinity();
  double sum = 0.0;
  int64_t count = 0;
  void add(double v) {
    if (!std::isfinite(v)) return;
    lo = std::min(lo, v);
    hi = std::max(hi, v);
    sum += v;
    ++count;
  }
  double mean() const { return count > 0 ? sum / static_cast<double>(count) : NAN; }
};

struct Stats {
  int64_t samples = 0;
  int64_t unplaceable = 0;
  Range axis[3];  // bounding box of the placeable samples
  Range radius;
  Range colour[3];
  Range time;
  bool hasTime = false;
  std::map<int64_t, int64_t> perId;

  void addPlacement(const LUtils::Vector& p, float radiusSquared) {
    ++samples;
    if (!LUtils::placeable(p, radiusSquared)) {
      ++unplaceable;
      return;
    }
    axis[0].add(p.x);
    axis[1].add(p.y);
    axis[2].add(p.z);
    radius.add(std::sqrt(static_cast<double>(radiusSquared)));
  }
  void addColour(const LUtils::Color& c) {
    colour[0].add(c.r);
    colour[1].add(c.g);
    colour[2].add(c.b);
  }
};

Stats irradianceStats(LUtils::IrradianceMap& map) {
  struct Walk : LUtils::EnumIrradianceSamplesCallback {
    Stats stats;
    int process(LUtils::IrradSample& s) override {
      stats.addPlacement(s.position, s.validRadius2);
      stats.addColour(s.decodedColour());
      stats.time.add(s.time);
      ++stats.perId[s.renderId];
      return 1;
    }
  } walk;
  walk.stats.hasTime = true;
  map.enumerateSamples(0, &walk);
  return walk.stats;
}

Stats lightStats(LightMap& cache) {
  Stats stats;
  auto& samples = cache.samples();
  for (size_t b = 0; b < samples.blockCount(); ++b) {
    const LightMapSample* block = samples.block(b);
    for (size_t i = 0; i < samples.blockLength(b); ++i) {
      const LightMapSample& s = block[i];
      stats.addPlacement(s.position, s.radiusSquared);
      stats.addColour(s.colour());
      ++stats.perId[s.id];
    }
  }
  return stats;
}

const char* const kChannels[] = {"red", "green", "blue"};

std::string rangeText(const Range& r) {
  if (r.count == 0) return "none";
  char line[160];
  std::snprintf(line, sizeof line, "min %g, max %g, mean %g", r.lo, r.hi, r.mean());
  return line;
}

// The ids in order of their counts, most samples first.
std::vector<std::pair<int64_t, int64_t>> idsByCount(const Stats& s) {
  std::vector<std::pair<int64_t, int64_t>> ids(s.perId.begin(), s.perId.end());
  std::stable_sort(ids.begin(), ids.end(),
                   [](const auto& a, const auto& b) { return a.second > b.second; });
  return ids;
}

void printText(const std::string& file, int64_t size, bool light, const std::string& report,
               const Stats& s) {
  std::printf("File: %s\n", file.c_str());
  if (size >= 0) {
    std::printf("File size (bytes): %lld\n", static_cast<long long>(size));
  } else {
    std::printf("File size (bytes): unknown (not a regular file)\n");
  }
  std::printf("Kind: %s\n", light ? "light cache" : "irradiance map");
  std::fputs(report.c_str(), stdout);
  std::printf("Samples no index can place: %lld\n", static_cast<long long>(s.unplaceable));
  if (s.axis[0].count > 0) {
    std::printf("Bounding box: (%g, %g, %g) to (%g, %g, %g)\n", s.axis[0].lo, s.axis[1].lo,
                s.axis[2].lo, s.axis[0].hi, s.axis[1].hi, s.axis[2].hi);
  } else {
    std::printf("Bounding box: none\n");
  }
  std::printf("Radius: %s\n", rangeText(s.radius).c_str());
  for (int c = 0; c < 3; ++c) std::printf("Colour %s: %s\n", kChannels[c], rangeText(s.colour[c]).c_str());
  if (s.hasTime) std::printf("Time: %s\n", rangeText(s.time).c_str());
  const auto ids = idsByCount(s);
  std::printf("%s: %zu distinct", light ? "Ids" : "Render IDs", ids.size());
  constexpr size_t kShown = 10;
  for (size_t i = 0; i < ids.size() && i < kShown; ++i) {
    std::printf("%s %lld (%s)", i == 0 ? ";" : ",", static_cast<long long>(ids[i].first),
                groupedCount(ids[i].second).c_str());
  }
  if (ids.size() > kShown) std::printf(", %zu more", ids.size() - kShown);
  std::printf("\n");
}

void rangeJson(cvtool::Json& json, const char* key, const Range& r) {
  json.beginObject(key).integer("count", r.count);
  json.number("min", r.count ? r.lo : NAN).number("max", r.count ? r.hi : NAN).number("mean", r.mean());
  json.endObject();
}

void statsJson(cvtool::Json& json, const IrradianceMapHeader* header, uint32_t version,
               const Stats& s) {
  // A light cache read from a pipe has no version to show: the load does not keep it.
  if (version != 0) {
    json.integer("version", version);
  } else {
    json.null("version");
  }
  json.integer("samples", s.samples);
  if (header) {
    json.integer("sample_size", 84)
        .boolean("time_dependent", header->timeDependence != 0.0f)
        .integer("min_rate", header->minRate)
        .integer("max_rate", header->maxRate)
        .boolean("contains_render_ids", header->containsRenderIds != 0)
        .boolean("supports_animation_blending", header->supportsAnimBlending != 0)
        .integer("calc_pass_interpolation_samples", header->calcPassInterpSamples)
        .boolean("camera", version >= 0xB0000 && (static_cast<uint8_t>(header->cameraFlags) & 1u));
  } else {
    json.integer("sample_size", 120);
  }
  json.integer("unplaceable_samples", s.unplaceable);
  if (s.axis[0].count > 0) {
    json.beginObject("bounding_box");
    json.beginArray("min");
    for (const Range& a : s.axis) json.number(nullptr, a.lo);
    json.endArray().beginArray("max");
    for (const Range& a : s.axis) json.number(nullptr, a.hi);
    json.endArray().endObject();
  } else {
    json.null("bounding_box");
  }
  rangeJson(json, "radius", s.radius);
  json.beginObject("colour");
  for (int c = 0; c < 3; ++c) rangeJson(json, kChannels[c], s.colour[c]);
  json.endObject();
  if (s.hasTime) rangeJson(json, "time", s.time);
  json.beginArray(header ? "render_ids" : "ids");
  for (const auto& [id, count] : s.perId) {
    json.beginObject().integer("id", id).integer("samples", count).endObject();
  }
  json.endArray();
}

struct IrradianceMapDeleter {
  void operator()(LUtils::IrradianceMap* map) const { LUtils::deleteIrradianceMap(map); }
};

}  // namespace

int main(int argc, char** argv) {
  enum { kJson = 256, kVersion };
  static const option kLong[] = {{"json", no_argument, nullptr, kJson},
                                 {"quiet", no_argument, nullptr, 'q'},
                                 {"help", no_argument, nullptr, 'h'},
                                 {"version", no_argument, nullptr, kVersion},
                                 {nullptr, 0, nullptr, 0}};
  bool json = false, quiet = false;
  opterr = 0;
  int c;
  while ((c = getopt_long(argc, argv, "qh", kLong, nullptr)) != -1) {
    switch (c) {
      case kJson: json = true; break;
      case 'q': quiet = true; break;
      case 'h': std::fputs(kUsage, stdout); return 0;
      case kVersion: std::printf("cacheview-stats %s\n", CACHEVIEW_VERSION); return 0;
      default: return usageError(std::string("unknown option '") + argv[optind - 1] + "'");
    }
  }
  if (optind >= argc) return usageError("no map file given");

  cvtool::Json doc;
  doc.beginObject().beginArray("files");
  int status = 0;
  for (int i = optind; i < argc; ++i) {
    const char* name = argv[i];
    LUtils::IrradianceMap* loaded = nullptr;
    LightMap* lightLoaded = nullptr;
    const int error = loadMapFile(name, loaded, lightLoaded);
    std::unique_ptr<LUtils::IrradianceMap, IrradianceMapDeleter> map(loaded);
    std::unique_ptr<LightMap> light(lightLoaded);
    if (error != 0) {
      const std::string reason = loadFailureReason(name, error);
      if (!quiet) std::fprintf(stderr, "cacheview-stats: %s: %s\n", name, reason.c_str());
      if (json) doc.beginObject().string("file", name).string("error", reason).endObject();
      status = 1;
      continue;
    }
    if (quiet) continue;
    const int64_t size = probeMapFile(name).size;
    const Stats stats = light ? lightStats(*light) : irradianceStats(*map);
    if (json) {
      doc.beginObject().string("file", name);
      if (size >= 0) {
        doc.integer("file_size", size);
      } else {
        doc.null("file_size");
      }
      doc.string("kind", light ? "light cache" : "irradiance map");
      if (light) {
        statsJson(doc, nullptr, probeMapFile(name).version, stats);
      } else {
        statsJson(doc, map->header(), map->formatVersion(), stats);
      }
      doc.endObject();
    } else {
      if (i > optind) std::printf("\n");
      std::string report = irradianceMapReport(map.get());
      if (light) {
        const uint32_t version = probeMapFile(name).version;
        char line[64] = "\nFormat version: unknown\n";
        if (version != 0) {
          std::snprintf(line, sizeof line, "\nFormat version: %u (0x%X)\n", version >> 16, version);
        }
        report = lightCacheReport(static_cast<int>(light->sampleCount())) + line;
      }
      printText(name, size, light != nullptr, report, stats);
    }
  }
  doc.endArray().endObject();
  if (json && !quiet) std::fputs(doc.text().c_str(), stdout);
  return status;
}
