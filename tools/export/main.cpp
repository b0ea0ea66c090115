// cacheview-export: writes the samples of an irradiance map or a light cache as a PLY point
// cloud. See --help.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "app/map_files.h"
#include "cacheview_version.h"
#include "io/file_errors.h"
#include "io/safe_file.h"
#include "lightcache/light_map.h"
#include "ply_export.h"

namespace {

const char kUsage[] =
    "Usage: cacheview-export [options] <map file> <output.ply>\n"
    "\n"
    "Writes every sample of an irradiance map (.lumap) or a light cache (.lulmap) as one vertex\n"
    "of a PLY point cloud (binary little-endian unless --ascii): position, normal, the decoded\n"
    "colour as three floats (scalar_colour_r, _g, _b), the colour as the viewer draws it as\n"
    "8-bit red, green and blue, and the drawn radius (scalar_radius); for an irradiance map\n"
    "also scalar_render_id, scalar_time and scalar_flags, for a light cache scalar_id.\n"
    "A .lulmap file is read as a light cache; any other file as an irradiance map, or as a\n"
    "light cache when it does not read as one. An existing output file is replaced only once\n"
    "the new one is complete.\n"
    "\n"
    "Options:\n"
    "  -a, --ascii             write ASCII PLY instead of binary\n"
    "  -b, --brightness X      scale of the 8-bit colours (default: as the viewer,\n"
    "                          1 / (2 x the average sample intensity))\n"
    "  -o, --output FILE       the PLY file to write (or give it as the last argument)\n"
    "  -q, --quiet             print nothing on success\n"
    "      --version           print the program's version and exit\n"
    "  -h, --help              show this text\n"
    "\n"
    "Exit status: 0 on success, 1 when the map cannot be read or the PLY file cannot be\n"
    "written, 2 for a bad command line.\n";

int usageError(const std::string& message) {
  std::fprintf(stderr, "cacheview-export: %s\nTry 'cacheview-export --help'.\n", message.c_str());
  return 2;
}

int failure(const std::string& message) {
  std::fprintf(stderr, "cacheview-export: %s\n", message.c_str());
  return 1;
}

struct Options {
  std::string input, output;
  ply::ExportOptions ply;
  bool quiet = false;
};

// 0 to go on, else the exit status (after --help or --version, or for a bad command line).
int parse(int argc, char** argv, Options& o, bool& done) {
  std::string positional[2];
  int positionals = 0;
  bool optionsEnd = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    if (optionsEnd || arg.empty() || arg[0] != '-' || arg == "-") {
      if (positionals == 2) return usageError("too many arguments");
      positional[positionals++] = arg;
    } else if (arg == "--") {
      optionsEnd = true;
    } else if (arg == "-h" || arg == "--help") {
      std::fputs(kUsage, stdout);
      done = true;
      return 0;
    } else if (arg == "--version") {
      std::printf("cacheview-export %s\n", CACHEVIEW_VERSION);
      done = true;
      return 0;
    } else if (arg == "-a" || arg == "--ascii") {
      o.ply.encoding = ply::Encoding::Ascii;
    } else if (arg == "-q" || arg == "--quiet") {
      o.quiet = true;
    } else if (arg == "-o" || arg == "--output") {
      const char* v = value();
      if (v == nullptr) return usageError("option " + arg + " needs a file name");
      o.output = v;
    } else if (arg == "-b" || arg == "--brightness") {
      const char* v = value();
      char* end = nullptr;
      const float b = v != nullptr ? std::strtof(v, &end) : 0.0f;
      if (v == nullptr || *v == '\0' || *end != '\0' || !std::isfinite(b) || b < 0.0f) {
        return usageError("option " + arg + " needs a number of at least 0");
      }
      o.ply.brightness = b;
    } else {
      return usageError("unknown option " + arg);
    }
  }
  if (positionals == 0) return usageError("no map file given");
  o.input = positional[0];
  if (positionals == 2) {
    if (!o.output.empty()) return usageError("the output is given twice");
    o.output = positional[1];
  }
  if (o.output.empty()) return usageError("no output file given");
  return 0;
}

bool endsWith(const std::string& s, const char* tail) {
  const size_t n = std::strlen(tail);
  return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  bool done = false;
  if (const int status = parse(argc, argv, o, done); status != 0 || done) return status;

  LUtils::IrradianceMap* irradiance = nullptr;
  LightMap* light = nullptr;
  if (const int error = loadMapFile(o.input.c_str(), irradiance, light); error != 0) {
    const char* kind = endsWith(o.input, ".lulmap") ? "light cache" : "map";
    return failure("cannot read " + std::string(kind) + " \"" + o.input +
                   "\": " + LUtils::fileErrorText(error));
  }
  std::unique_ptr<LightMap> ownedLight(light);
  struct IrradianceDeleter {
    void operator()(LUtils::IrradianceMap* m) const { LUtils::deleteIrradianceMap(m); }
  };
  std::unique_ptr<LUtils::IrradianceMap, IrradianceDeleter> ownedIrradiance(irradiance);
  const LUtils::DrawnMap map{irradiance, light};
  o.ply.comment = "cacheview-export " CACHEVIEW_VERSION ": " +
                  std::string(light != nullptr ? "light cache " : "irradiance map ") + o.input;

  LUtils::SafeFileReplace target;
  if (target.begin(o.output.c_str()) != 0) {
    return failure("cannot create \"" + o.output + "\": " + std::strerror(errno));
  }
  std::FILE* out = std::fopen(target.writePath().c_str(), "wb");
  if (out == nullptr) {
    return failure("cannot create \"" + o.output + "\": " + std::strerror(errno));
  }
  const int64_t written = ply::writePly(out, map, o.ply);
  const bool closed = std::fclose(out) == 0;
  if (written < 0 || !closed || target.commit() != 0) {
    target.abandon();
    return failure("cannot write \"" + o.output + "\"");
  }
  if (!o.quiet) {
    std::printf("Wrote %lld samples of the %s \"%s\" to \"%s\".\n",
                static_cast<long long>(written), light != nullptr ? "light cache" : "irradiance map",
                o.input.c_str(), o.output.c_str());
  }
  return 0;
}
