// cacheview-synth: writes a synthetic irradiance map or light cache of the procedural room, seen
// from a camera preset or an explicit view, in any file version. See --help.
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cacheview_version.h"
#include "common/option_words.h"
#include "synth/generator.h"
#include "synth/light_cache.h"
#include "synth/map_output.h"

namespace {

const char kUsage[] =
    "Usage: cacheview-synth [options] <output.lumap | output.lulmap>\n"
    "\n"
    "Writes an irradiance map of a synthetic room (8 x 6 x 3 units, Z up, with boxes, a ball, a\n"
    "ceiling light and a window) as a renderer's irradiance cache would sample it from one\n"
    "camera: samples on the visible surfaces, denser in corners and at contacts. When the\n"
    "output ends in .lulmap (or with --light-cache) it writes a light cache of the same room\n"
    "instead: samples spread evenly over the image, each a sphere whose radius grows with the\n"
    "distance from the camera. The same options and seed always give the same file.\n"
    "\n"
    "Options:\n"
    "  -o, --output FILE     the map file to write (or give it as the last argument)\n"
    "  -n, --count N         number of samples, exactly (default 10000; up to 2147483647)\n"
    "  -F, --format-version V  file format version, hex (0xD0000) or decimal; one of\n"
    "                        0x10000, 0x20000, ... 0xD0000 for an irradiance map (default\n"
    "                        0xD0000), 0x10000 ... 0x60000 for a light cache (default 0x60000).\n"
    "                        The old spelling, --version V or -V V, still works: followed by a\n"
    "                        number it sets the format version\n"
    "  -l, --light-cache     write a light cache whatever the output's name\n"
    "  -s, --seed S          random seed (default 1)\n"
    "  -c, --camera K        camera preset: 0 or 1, two frames of a walk through the room whose\n"
    "                        maps overlap partly (default 0)\n"
    "      --eye X,Y,Z       eye position (replaces the preset's)\n"
    "      --target X,Y,Z    point looked at; its distance is the stored orbit distance\n"
    "      --fov DEGREES     horizontal field of view (default 70)\n"
    "      --image WxH       image proportions (default 640x480); the sample count sets the\n"
    "                        effective resolution\n"
    "      --no-camera       leave the camera out of the header (version 0xD0000 stores it)\n"
    "      --render-ids      set the header's contains-render-IDs flag\n"
    "      --min-rate R      coarsest spacing, 2^-R pixels (default -3)\n"
    "      --max-rate R      finest spacing, 2^-R pixels (default 0)\n"
    "                        (these four shape irradiance maps only; a light cache has no\n"
    "                        header)\n"
    "  -j, --threads N       worker threads (default: one per processor); the output does not\n"
    "                        depend on it\n"
    "  -q, --quiet           print nothing on success\n"
    "  -h, --help            show this text\n"
    "      --version         print the program's version\n"
    "\n"
    "Exit status: 0 on success, 1 when the file cannot be written, 2 for a bad command line.\n";

int usageError(const std::string& message) {
  std::fprintf(stderr, "cacheview-synth: %s\nTry 'cacheview-synth --help'.\n", message.c_str());
  return 2;
}

bool parseInteger(const char* text, long long lo, long long hi, long long& out) {
  if (!text || !*text) return false;
  const bool hex = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  errno = 0;
  char* end = nullptr;
  const long long v = std::strtoll(text, &end, hex ? 16 : 10);
  if (errno != 0 || *end != '\0' || v < lo || v > hi) return false;
  out = v;
  return true;
}

bool parseFloat(const char* text, float& out) {
  if (!text || !*text) return false;
  char* end = nullptr;
  const float v = std::strtof(text, &end);
  if (*end != '\0' || !std::isfinite(v)) return false;
  out = v;
  return true;
}

bool parseVector(const char* text, LUtils::Vector& out) {
  if (!text) return false;
  float v[3];
  const char* p = text;
  for (int i = 0; i < 3; ++i) {
    char* end = nullptr;
    v[i] = std::strtof(p, &end);
    if (end == p || !std::isfinite(v[i])) return false;
    if (i < 2) {
      if (*end != ',') return false;
      p = end + 1;
    } else if (*end != '\0') {
      return false;
    }
  }
  out = {v[0], v[1], v[2]};
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  synth::Params params;
  uint32_t version = 0;  // 0: the newest of the kind written
  int camera = 0;
  bool haveEye = false, haveTarget = false, quiet = false, lightCache = false;
  LUtils::Vector eye, target;
  float fovDegrees = 70.0f;
  const char* output = nullptr;

  for (int i = 1; i < argc; ++i) {
    cvtool::OptionWord word(i, argc, argv);
    const std::string& arg = word.name();
    auto value = [&]() { return word.value(); };
    auto is = [&](const char* s, const char* l) { return arg == l || (s && arg == s); };
    long long n = 0;
    if (is("-h", "--help")) {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (is("-o", "--output")) {
      if (!(output = value())) return usageError("--output needs a file name");
    } else if (is("-n", "--count")) {
      if (!parseInteger(value(), 0, 2147483647LL, n)) {
        return usageError("--count needs a whole number from 0 to 2147483647");
      }
      params.count = static_cast<uint32_t>(n);
    } else if ((arg == "--version" || arg == "-V") &&
               !word.unusedValue() && !(i + 1 < argc && parseInteger(argv[i + 1], 0, 0xFFFFFFFFLL, n))) {
      std::printf("cacheview-synth %s\n", CACHEVIEW_VERSION);
      return 0;
    } else if (is("-F", "--format-version") || is("-V", "--version")) {
      if (!parseInteger(value(), 1, 0xFFFFFFFFLL, n) ||
          !(synth::isWritableVersion(static_cast<uint32_t>(n)) ||
            synth::isLightCacheVersion(static_cast<uint32_t>(n)))) {
        return usageError("--format-version needs one of 0x10000, 0x20000, ... 0xD0000");
      }
      version = static_cast<uint32_t>(n);
    } else if (is("-l", "--light-cache")) {
      lightCache = true;
    } else if (is("-s", "--seed")) {
      if (!parseInteger(value(), 0, INT64_MAX, n)) return usageError("--seed needs a whole number");
      params.seed = static_cast<uint64_t>(n);
    } else if (is("-c", "--camera")) {
      if (!parseInteger(value(), 0, synth::kPresetCount - 1, n)) {
        return usageError("--camera needs a preset number, 0 or 1");
      }
      camera = static_cast<int>(n);
    } else if (is(nullptr, "--eye")) {
      if (!(haveEye = parseVector(value(), eye))) return usageError("--eye needs X,Y,Z");
    } else if (is(nullptr, "--target")) {
      if (!(haveTarget = parseVector(value(), target))) return usageError("--target needs X,Y,Z");
    } else if (is(nullptr, "--fov")) {
      if (!parseFloat(value(), fovDegrees)) return usageError("--fov needs a number of degrees");
    } else if (is(nullptr, "--image")) {
      const char* v = value();
      int w = 0, h = 0;
      char tail = 0;
      if (!v || std::sscanf(v, "%dx%d%c", &w, &h, &tail) != 2) {
        return usageError("--image needs WIDTHxHEIGHT, e.g. 640x480");
      }
      params.imageWidth = w;
      params.imageHeight = h;
    } else if (is(nullptr, "--no-camera")) {
      params.cameraInHeader = false;
    } else if (is(nullptr, "--render-ids")) {
      params.renderIdsInHeader = true;
    } else if (is(nullptr, "--min-rate") || is(nullptr, "--max-rate")) {
      if (!parseInteger(value(), -16, 16, n)) return usageError(arg + " needs a whole number from -16 to 16");
      (arg == "--min-rate" ? params.minRate : params.maxRate) = static_cast<int>(n);
    } else if (is("-j", "--threads")) {
      if (!parseInteger(value(), 1, 256, n)) return usageError("--threads needs a number from 1 to 256");
      params.threads = static_cast<unsigned>(n);
    } else if (is("-q", "--quiet")) {
      quiet = true;
    } else if (!arg.empty() && arg[0] == '-') {
      return usageError("unknown option '" + arg + "'");
    } else if (!output) {
      output = argv[i];
    } else {
      return usageError("more than one output file given");
    }
    if (word.unusedValue()) return usageError("option '" + arg + "' takes no value");
  }
  if (!output) return usageError("no output file given");
  const size_t nameLength = std::strlen(output);
  if (nameLength >= 7 && std::strcmp(output + nameLength - 7, ".lulmap") == 0) lightCache = true;
  if (version == 0) version = lightCache ? LightMap::kVersion6 : 0xD0000;
  if (lightCache && !synth::isLightCacheVersion(version)) {
    return usageError("a light cache's --format-version is one of 0x10000, 0x20000, ... 0x60000");
  }

  params.view = synth::presetView(camera);
  if (haveEye) params.view.eye = eye;
  if (haveTarget) params.view.target = target;
  params.view.fovX = fovDegrees * 3.14159265f / 180.0f;
  const std::string problem = synth::checkParams(params);
  if (!problem.empty()) return usageError(problem);

  std::string message;
  const int written = lightCache ? synth::writeLightCacheFile(output, version, params, message)
                                 : synth::writeMapFile(output, version, params, message);
  if (written != 0) {
    std::fprintf(stderr, "cacheview-synth: %s\n", message.c_str());
    return 1;
  }
  if (!quiet) {
    std::printf("Wrote %u%s samples to \"%s\" (version 0x%X, seed %llu", params.count,
                lightCache ? " light-cache" : "", output, version,
                static_cast<unsigned long long>(params.seed));
    if (lightCache && params.count > 0) {
      std::printf(", sample radius %.4g x the distance from the camera",
                  synth::lightSampleSize(params));
    } else if (params.count > 0) {
      const synth::Plan plan = synth::planFor(params);
      std::printf(", effective resolution %d x %d", plan.effectiveWidth, plan.effectiveHeight);
    }
    std::printf(")\n");
  }
  return 0;
}
