// cacheview-render: draws one frame of an irradiance map or a light cache as the viewer shows it,
// through the OpenGL back end (an off-screen context, no display needed) or the software
// rasterizer, and writes the picture as a PNG file. See --help.
#include <GL/gl.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cacheview_version.h"
#include "common/option_words.h"
#include "io/file_errors.h"
#include "io/safe_file.h"
#include "irradiance/def_irradiance_map.h"
#include "irradiance/irradiance_map.h"
#include "lightcache/light_map.h"
#include "render/camera.h"
#include "render/png_writer.h"
#include "render/gl/rasterizer_gl.h"
#include "render/rasterizer_sw.h"
#include "render/sample_drawing.h"
#include "threads/thread_manager.h"

namespace {

using LUtils::Vector;

const char kUsage[] =
    "Usage: cacheview-render [options] <map file> <picture.png>\n"
    "\n"
    "Draws one frame of an irradiance map (.lumap) or a light cache (.lulmap) as the viewer\n"
    "shows it, every sample a flat disc in its colour, and writes the picture as a PNG file.\n"
    "A .lulmap file is read as a light cache; any other file as an irradiance map, or as a\n"
    "light cache when it does not read as one. No display is needed.\n"
    "\n"
    "The view is the camera stored in the map when it has one (and it is a proper camera: a\n"
    "finite position, an orthonormal frame, a field of view below 180 degrees), otherwise a\n"
    "view of the whole map from its front (along +y with Z up, along -z with Y up).\n"
    "\n"
    "Options:\n"
    "  -o, --output FILE       the picture to write (or give it as the last argument); an\n"
    "                          existing file is replaced only once the new picture is complete\n"
    "  -b, --backend B         auto (default), gl or sw: OpenGL in an off-screen context or the\n"
    "                          software rasterizer; auto takes OpenGL when graphics hardware\n"
    "                          draws it, and the software rasterizer, faster than a software\n"
    "                          OpenGL driver, when a software driver would or there is none\n"
    "  -j, --threads N         threads that read a large map and that the software\n"
    "                          rasterizer draws on (default: one per processor; 1 does\n"
    "                          everything on one thread)\n"
    "  -s, --size WxH          picture size in pixels (default 800x600)\n"
    "      --quality Q         low, medium or high: 6, 10 or 16 sides per disc (default low);\n"
    "                          adaptive: 4 to twice the sides of --sides-base, more for near\n"
    "                          and large discs\n"
    "      --sides-base Q      the quality adaptive discs start from: low, medium or high\n"
    "      --lod X             level-of-detail multiplier of adaptive quality, 0.3 to 3\n"
    "                          (default 1; larger values give fewer sides)\n"
    "      --brightness X      colour scale (default: 1 / (2 x the average sample intensity))\n"
    "      --eye X,Y,Z         eye position; with --target it replaces the stored view\n"
    "      --target X,Y,Z      the point looked at\n"
    "      --up y|z            world up axis for the default view and --eye (default z)\n"
    "      --fov DEGREES       horizontal field of view (default: the stored one, else 45)\n"
    "      --default-view      ignore the camera stored in the map\n"
    "      --cull              back-face culling\n"
    "      --axis              draw the axis cross at the origin\n"
    "  -q, --quiet             print nothing on success (-q used to mean --quality; every\n"
    "                          cacheview program now reads it as --quiet)\n"
    "  -h, --help              show this text\n"
    "      --version           print the program's version\n"
    "\n"
    "On success it prints the picture's size, the samples drawn, the view, the renderer that\n"
    "drew it (the OpenGL driver's own name, or the software rasterizer) and the brightness.\n"
    "\n"
    "Exit status: 0 on success, 1 when the map cannot be read, nothing can be drawn or the\n"
    "picture cannot be written, 2 for a bad command line.\n";

constexpr float kPi = 3.14159265f;

int usageError(const std::string& message) {
  std::fprintf(stderr, "cacheview-render: %s\nTry 'cacheview-render --help'.\n", message.c_str());
  return 2;
}

int failure(const std::string& message) {
  std::fprintf(stderr, "cacheview-render: %s\n", message.c_str());
  return 1;
}

// One message for a picture that cannot be written, with the system's reason.
int writeFailure(const std::string& path, int error) {
  return failure("cannot write \"" + path + "\": " +
                 (error != 0 ? std::strerror(error) : "the picture could not be written whole"));
}

bool parseFloat(const char* text, float& out) {
  if (text == nullptr || *text == '\0') return false;
  char* end = nullptr;
  errno = 0;
  const float v = std::strtof(text, &end);
  if (*end != '\0' || errno != 0 || !std::isfinite(v)) return false;
  out = v;
  return true;
}

bool parseCount(const char* text, long lo, long hi, long& out) {
  if (text == nullptr || *text == '\0') return false;
  char* end = nullptr;
  errno = 0;
  const long v = std::strtol(text, &end, 10);
  if (*end != '\0' || errno != 0 || v < lo || v > hi) return false;
  out = v;
  return true;
}

bool finite(const Vector& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

bool parseVector(const char* text, Vector& out) {
  if (text == nullptr) return false;
  float x = 0.0f, y = 0.0f, z = 0.0f;
  char tail = 0;
  if (std::sscanf(text, "%f,%f,%f%c", &x, &y, &z, &tail) != 3) return false;
  out = {x, y, z};
  return finite(out);
}

bool parseSize(const char* text, int& width, int& height) {
  if (text == nullptr) return false;
  int w = 0, h = 0;
  char tail = 0;
  if (std::sscanf(text, "%dx%d%c", &w, &h, &tail) != 2) return false;
  // 16384 x 16384 is as large as an OpenGL implementation is commonly asked to go.
  if (w < 1 || h < 1 || w > 16384 || h > 16384) return false;
  width = w;
  height = h;
  return true;
}

bool parseQuality(const char* text, int& sides) {
  if (text == nullptr) return false;
  const std::string q = text;
  if (q == "low") {
    sides = 6;
  } else if (q == "medium") {
    sides = 10;
  } else if (q == "high") {
    sides = 16;
  } else {
    return false;
  }
  return true;
}

bool endsWith(const std::string& s, const char* suffix) {
  const size_t n = std::strlen(suffix);
  if (s.size() < n) return false;
  for (size_t i = 0; i < n; ++i) {
    const char c = s[s.size() - n + i];
    if ((c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c) != suffix[i]) return false;
  }
  return true;
}

struct IrradianceMapDeleter {
  void operator()(LUtils::IrradianceMap* map) const { LUtils::deleteIrradianceMap(map); }
};

// The map in memory: one of the two kinds.
struct LoadedMap {
  std::unique_ptr<LUtils::IrradianceMap, IrradianceMapDeleter> irradiance;
  std::unique_ptr<LightMap> light;
  LUtils::DrawnMap drawn() const { return {irradiance.get(), light.get()}; }
};

// Loads as the command-line driver does: .lulmap is a light cache, anything else an irradiance
// map or, failing that, a light cache.
// `threads` reads a large map on that many threads (0: one per processor).
bool loadMap(const std::string& name, int threads, LoadedMap& map, std::string& error) {
  int irradianceError = 0;
  if (!endsWith(name, ".lulmap")) {
    auto* irradiance = static_cast<LUtils::DefIrradianceMap*>(LUtils::newIrradianceMap());
    irradiance->setLoadThreads(threads);
    map.irradiance.reset(irradiance);
    irradianceError = map.irradiance->loadFromFile(name.c_str(), 0, 0.0f);
    if (irradianceError == 0) {
      map.irradiance->setHeader(*map.irradiance->fileHeader());
      return true;
    }
    map.irradiance.reset();
  }
  map.light = std::make_unique<LightMap>();
  const int lightError = map.light->load(name.c_str());
  if (lightError == 0) return true;
  map.light.reset();
  if (irradianceError != 0) {
    error = "cannot read \"" + name + "\": not an irradiance map (" +
            LUtils::fileErrorText(irradianceError) + ") nor a light cache (" +
            LUtils::fileErrorText(lightError) + ")";
  } else {
    error = "cannot read light cache \"" + name + "\": " + LUtils::fileErrorText(lightError);
  }
  return false;
}

// A stored view is used only when it can make a picture: a finite position, an orthogonal frame
// of unit axes and a field of view between 0 and 180 degrees.
bool usableStoredView(const LUtils::StoredView& view) {
  if (!std::isfinite(view.position.x) || !std::isfinite(view.position.y) ||
      !std::isfinite(view.position.z)) {
    return false;
  }
  for (const Vector& axis : view.axes) {
    if (!finite(axis) || std::fabs(length(axis) - 1.0f) > 1e-3f) return false;
  }
  if (std::fabs(dot(view.axes[0], view.axes[1])) > 1e-3f ||
      std::fabs(dot(view.axes[1], view.axes[2])) > 1e-3f) {
    return false;
  }
  return view.fieldOfView > 0.0f && view.fieldOfView < kPi;
}

// An up vector for lookAt that is not parallel to the view direction.
Vector upFor(const Vector& forward, const Vector& worldUp) {
  const float f = length(forward);
  if (f > 0.0f && length(cross(forward / f, worldUp)) > 1e-4f) return worldUp;
  return std::fabs(worldUp.x) < 0.5f ? Vector{1, 0, 0} : Vector{0, 1, 0};
}

struct Options {
  std::string input, output;
  enum Backend { kAuto, kOpenGL, kSoftware } backend = kAuto;
  int threads = 0;  // 0: one per processor
  int width = 800, height = 600;
  int sides = 6;
  bool adaptive = false;
  float lod = 1.0f;
  bool haveBrightness = false;
  float brightness = 1.0f;
  bool haveEye = false, haveTarget = false;
  Vector eye, target;
  Vector worldUp{0, 0, 1};
  bool haveFov = false;
  float fovDegrees = 45.0f;
  bool defaultView = false;
  bool cull = false;
  bool axis = false;
  bool quiet = false;
};

// Returns -1 to go on, otherwise the exit status.
int parseOptions(int argc, char** argv, Options& o) {
  std::vector<const char*> files;
  for (int i = 1; i < argc; ++i) {
    cvtool::OptionWord word(i, argc, argv);
    const std::string& arg = word.name();
    auto value = [&]() { return word.value(); };
    auto is = [&](const char* s, const char* l) { return arg == l || (s != nullptr && arg == s); };
    long n = 0;
    if (is("-h", "--help")) {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (is(nullptr, "--version")) {
      std::printf("cacheview-render %s\n", CACHEVIEW_VERSION);
      return 0;
    } else if (is("-o", "--output")) {
      const char* v = value();
      if (v == nullptr) return usageError("--output needs a file name");
      o.output = v;
    } else if (is("-b", "--backend")) {
      const char* v = value();
      const std::string b = v != nullptr ? v : "";
      if (b != "auto" && b != "gl" && b != "sw") return usageError("--backend needs auto, gl or sw");
      o.backend = b == "auto" ? Options::kAuto : b == "gl" ? Options::kOpenGL : Options::kSoftware;
    } else if (is("-j", "--threads")) {
      if (!parseCount(value(), 1, 256, n)) return usageError("--threads needs a number from 1 to 256");
      o.threads = static_cast<int>(n);
    } else if (is("-s", "--size")) {
      if (!parseSize(value(), o.width, o.height)) {
        return usageError("--size needs WIDTHxHEIGHT, each from 1 to 16384, e.g. 800x600");
      }
    } else if (is(nullptr, "--quality")) {
      const char* v = value();
      if (v != nullptr && std::strcmp(v, "adaptive") == 0) {
        o.adaptive = true;
      } else if (!parseQuality(v, o.sides)) {
        return usageError("--quality needs low, medium, high or adaptive");
      }
    } else if (is(nullptr, "--sides-base")) {
      if (!parseQuality(value(), o.sides)) return usageError("--sides-base needs low, medium or high");
    } else if (is(nullptr, "--lod")) {
      if (!parseFloat(value(), o.lod) || o.lod < 0.3f || o.lod > 3.0f) {
        return usageError("--lod needs a number from 0.3 to 3");
      }
    } else if (is(nullptr, "--brightness")) {
      if (!parseFloat(value(), o.brightness) || o.brightness < 0.0f) {
        return usageError("--brightness needs a number of 0 or more");
      }
      o.haveBrightness = true;
    } else if (is(nullptr, "--eye")) {
      if (!(o.haveEye = parseVector(value(), o.eye))) return usageError("--eye needs X,Y,Z");
    } else if (is(nullptr, "--target")) {
      if (!(o.haveTarget = parseVector(value(), o.target))) return usageError("--target needs X,Y,Z");
    } else if (is(nullptr, "--up")) {
      const char* v = value();
      const std::string up = v != nullptr ? v : "";
      if (up != "y" && up != "z") return usageError("--up needs y or z");
      o.worldUp = up == "y" ? Vector{0, 1, 0} : Vector{0, 0, 1};
    } else if (is(nullptr, "--fov")) {
      if (!parseFloat(value(), o.fovDegrees) || o.fovDegrees <= 0.0f || o.fovDegrees >= 180.0f) {
        return usageError("--fov needs a number of degrees between 0 and 180");
      }
      o.haveFov = true;
    } else if (is(nullptr, "--default-view")) {
      o.defaultView = true;
    } else if (is(nullptr, "--cull")) {
      o.cull = true;
    } else if (is(nullptr, "--axis")) {
      o.axis = true;
    } else if (is("-q", "--quiet")) {
      o.quiet = true;
    } else if (arg.size() > 1 && arg[0] == '-') {
      return usageError("unknown option '" + arg + "'");
    } else {
      files.push_back(argv[i]);
    }
    if (word.unusedValue()) return usageError("option '" + arg + "' takes no value");
  }
  if (files.empty()) return usageError("no map file given");
  o.input = files[0];
  if (files.size() > 1) {
    if (!o.output.empty() || files.size() > 2) return usageError("more than one picture file given");
    o.output = files[1];
  }
  if (o.output.empty()) return usageError("no picture file given");
  if (o.haveEye != o.haveTarget) return usageError("--eye and --target go together");
  if (o.haveEye && length(o.target - o.eye) <= 0.0f) {
    return usageError("--eye and --target must be different points");
  }
  return -1;
}

// Sets the camera and returns the far distance: the stored view, the eye and target given, or
// the default view of the whole box [lo, hi].
float setUpView(const Options& o, LUtils::IrradianceMap* irradiance, const Vector& lo,
                const Vector& hi, LUtils::PinholeCamera& camera, const char*& viewName) {
  const float w = static_cast<float>(o.width), h = static_cast<float>(o.height);
  const bool haveBox = lo.x <= hi.x;
  const Vector centre = haveBox ? (lo + hi) * 0.5f : Vector{};
  const float diagonal = haveBox ? length(hi - lo) : 0.0f;
  // A map of one sample (or none) has no extent: the view still needs a scale.
  const float extent = diagonal > 1e-6f ? diagonal : 1.0f;
  float farDistance = 4.0f * extent;
  const float fov = o.fovDegrees * kPi / 180.0f;

  if (o.haveEye) {
    camera.setImage(w, h, fov);
    camera.lookAt(o.eye, o.target, upFor(o.target - o.eye, o.worldUp));
    camera.focalDistance = length(o.target - o.eye);
    viewName = "given eye and target";
    return std::max(farDistance, length(centre - o.eye) + extent);
  }

  if (!o.defaultView && irradiance != nullptr && irradiance->fileHeader() != nullptr &&
      irradiance->fileHeader()->hasCamera()) {
    const LUtils::StoredView view = LUtils::storedViewOf(*irradiance->fileHeader());
    if (usableStoredView(view)) {
      LUtils::setCameraFromStoredView(camera, view, w, h, centre);
      if (o.haveFov) camera.setImage(w, h, fov);
      viewName = "stored in the map";
      return farDistance;
    }
  }

  // The front view: looking along +y (Z up) or -z (Y up) at the middle of the box, from just
  // far enough that the box's near face fits both the width and the height of the picture.
  const bool yUp = o.worldUp.y > 0.5f;
  const Vector direction = yUp ? Vector{0, 0, -1} : Vector{0, 1, 0};
  const Vector side = cross(direction, o.worldUp);
  const Vector half = haveBox && diagonal > 1e-6f ? (hi - lo) * 0.5f : Vector{0.5f, 0.5f, 0.5f};
  auto across = [&](const Vector& axis) {
    return std::fabs(axis.x) * half.x + std::fabs(axis.y) * half.y + std::fabs(axis.z) * half.z;
  };
  // The vertical angle is the horizontal one scaled by the aspect, as the projection does it.
  const float tanH = std::tan(0.5f * fov), tanV = std::tan(0.5f * std::min(fov * h / w, 3.0f));
  const float distance =
      across(direction) + 1.05f * std::max(across(side) / tanH, across(o.worldUp) / tanV);
  camera.setImage(w, h, fov);
  camera.lookAt(centre - direction * distance, centre, o.worldUp);
  camera.focalDistance = distance;
  viewName = "default front view";
  return std::max(farDistance, distance + 2.0f * across(direction));
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (const int status = parseOptions(argc, argv, o); status >= 0) return status;

  LoadedMap map;
  std::string error;
  if (!loadMap(o.input, o.threads, map, error)) return failure(error);
  const LUtils::DrawnMap drawn = map.drawn();

  LUtils::DrawOptions options;
  LUtils::SampleEdits edits;
  LUtils::DrawView view;
  if (o.haveBrightness) {
    LUtils::sceneBounds(drawn, view.sceneMin, view.sceneMax);
    options.setBrightness(o.brightness);
  } else {
    LUtils::boundsAndBrightness(drawn, view.sceneMin, view.sceneMax, options);
    // An empty or black map has no average to scale by.
    if (!std::isfinite(options.brightness())) options.setBrightness(1.0f);
  }
  options.setSegmentsPerDisc(o.sides);
  options.setAdaptiveQuality(o.adaptive);
  options.setLodMultiplier(o.lod);
  options.setBackfaceCulling(o.cull);
  options.setShowAxis(o.axis);

  LUtils::PinholeCamera camera;
  const char* viewName = "";
  const float farDistance =
      setUpView(o, map.irradiance.get(), view.sceneMin, view.sceneMax, camera, viewName);

  // The picture goes to a temporary beside the target, created before the drawing so that an
  // unwritable place fails at once; a failed write or an interrupted run leaves the target as it
  // was and no temporary behind.
  LUtils::SafeFileReplace picture;
  if (picture.begin(o.output.c_str()) != 0) return writeFailure(o.output, errno);

  // The OpenGL context is made first unless the software rasterizer was asked for: whether its
  // driver is graphics hardware decides the automatic choice.
  std::unique_ptr<LUtils::RasterizerGL> gl;
  std::string renderer;
  if (o.backend != Options::kSoftware) {
    gl = std::make_unique<LUtils::RasterizerGL>();
    gl->resize(o.width, o.height);
    if (!gl->hasOffscreenContext()) {
      if (o.backend == Options::kOpenGL) {
        return failure("no off-screen OpenGL context (" + gl->offscreenError() +
                       "); try --backend sw");
      }
      renderer = "; no OpenGL context here: " + gl->offscreenError();
      gl.reset();
    } else {
      gl->makeCurrent();
      const auto* name = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
      const std::string driver = name != nullptr ? name : "unnamed driver";
      if (o.backend == Options::kAuto && gl->softwareRenderer()) {
        renderer = "; OpenGL here is the software driver " + driver;
        gl.reset();
      } else {
        renderer = "OpenGL (" + driver + ")";
      }
    }
  }
  options.setUseOpenGL(gl != nullptr);
  options.setMultiThreadedSoftware(!gl && o.threads != 1);

  std::vector<uint32_t> pixels;  // read back from OpenGL
  LUtils::RasterizerSW sw;        // or drawn by the software rasterizer
  const uint32_t* drawnPixels = nullptr;
  int width = 0, height = 0;
  LUtils::DefThreadManager threads;
  // 0: the manager's own count (LUMORA_NUM_THREADS, else one per processor).
  threads.setThreadCount(o.threads);
  if (gl) {
    gl->setCamera(&camera);
    gl->setFarDistance(farDistance);
    LUtils::drawFrame(*gl, {drawn, &options, &edits, &view, nullptr, nullptr});
    if (!gl->readPixels(pixels, width, height)) return failure("cannot read the OpenGL picture back");
    drawnPixels = pixels.data();
  } else {
    const int count = o.threads == 1 ? 1 : static_cast<int>(threads.threadCount());
    renderer = "the software rasterizer, " + std::to_string(count) +
               (count == 1 ? " thread" : " threads") + renderer;
    sw.resize(o.width, o.height);
    sw.setCamera(&camera);
    sw.setFarDistance(farDistance);
    LUtils::drawFrame(sw, {drawn, &options, &edits, &view, nullptr, &threads});
    width = sw.width();
    height = sw.height();
    drawnPixels = sw.picture();
  }

  errno = 0;
  if (!LUtils::writePng(picture.writePath(), drawnPixels, width, height, &error, &threads,
                        o.threads)) {
    const int reason = errno;
    picture.abandon();
    return writeFailure(o.output, reason);
  }
  if (picture.commit() != 0) return writeFailure(o.output, errno);
  if (!o.quiet) {
    const size_t samples = map.light ? map.light->sampleCount()
                                     : static_cast<size_t>(map.irradiance->numSamples());
    std::printf("Wrote \"%s\": %d x %d, %zu %s samples, %s, drawn by %s, brightness %g\n",
                o.output.c_str(), width, height, samples, map.light ? "light cache" : "irradiance",
                viewName, renderer.c_str(), static_cast<double>(options.brightness()));
  }
  return 0;
}
