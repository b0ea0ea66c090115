#include "synth/light_cache.h"

#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "io/file_errors.h"
#include "io/safe_file.h"
#include "synth/sampling.h"
#include "synth/scene.h"

namespace synth {

namespace {

using detail::Rng;

constexpr uint64_t kLightStream = 0x11c4e000000ull;  // chunk streams of light caches start here
constexpr uint32_t kChunkSamples = 8192;             // samples per independently seeded chunk
// How many times over the spheres of the samples cover the image, on average.
constexpr float kImageCover = 8.0f;
constexpr float kPi = 3.14159265f;

uint32_t floatWord(float f) {
  return std::bit_cast<uint32_t>(f);
}

void setValue(uint32_t (&words)[4], const LUtils::Color& c) {
  words[0] = floatWord(c.r);
  words[1] = floatWord(c.g);
  words[2] = floatWord(c.b);
  words[3] = floatWord(1.0f);  // the weight: one path
}

void generateChunk(const Params& p, const detail::Frame& frame, float size, uint64_t chunk,
                   uint32_t count, std::vector<LightMapSample>& out) {
  const Scene& scene = Scene::room();
  out.clear();
  Rng rng(p.seed, kLightStream + chunk);
  while (out.size() < count) {
    const float u = rng.uniform(), v = rng.uniform();
    const Vector dir = LUtils::normalizeNewton(frame.direction(u, v));
    const Hit h = scene.trace(frame.eye, dir);
    if (h.kind != HitKind::kSurface) continue;
    const float harmonic = detail::harmonicDistance(scene, h.point, h.normal, rng);
    const detail::Lighting light = detail::lightingAt(scene, h.point, h.normal, harmonic, rng);

    LightMapSample s{};
    s.position = h.point;
    s.normal = s.normalB = h.normal;
    const float radius = size * h.t;
    s.radiusSquared = radius * radius;
    setValue(s.valueA, light.total());
    setValue(s.valueB, light.direct());
    s.id = static_cast<uint32_t>(h.object);
    const float ray[6] = {dir.x, dir.y, dir.z, h.t, u, v};
    for (int i = 0; i < 6; ++i) s.extra[i] = floatWord(ray[i]);
    s.aux[0] = static_cast<uint32_t>(chunk + 1);
    s.aux[1] = static_cast<uint32_t>(out.size() + 1);
    out.push_back(s);
  }
}

// Generates the samples chunk by chunk, handing each chunk to `deliver` in order.
template <typename Deliver>
int64_t generateChunks(const Params& params, Deliver deliver) {
  if (!checkParams(params).empty()) return -1;
  if (params.count == 0) return 0;
  const detail::Frame frame = detail::makeFrame(params);
  const float size = lightSampleSize(params);
  // The camera must see some surface, or no sample could ever be made.
  bool sees = false;
  for (int i = 0; i < 64 && !sees; ++i) {
    const float u = (static_cast<float>(i % 8) + 0.5f) / 8.0f;
    const float v = (static_cast<float>(i / 8) + 0.5f) / 8.0f;
    sees = Scene::room().trace(frame.eye, LUtils::normalizeNewton(frame.direction(u, v))).kind ==
           HitKind::kSurface;
  }
  if (!sees) return -1;

  const uint64_t chunks = (uint64_t{params.count} + kChunkSamples - 1) / kChunkSamples;
  int64_t delivered = 0;
  detail::runChunks<LightMapSample>(
      chunks, params.threads, kChunkSamples,
      [&](uint64_t c, std::vector<LightMapSample>& out) {
        const auto n = static_cast<uint32_t>(
            std::min<uint64_t>(kChunkSamples, params.count - c * kChunkSamples));
        generateChunk(params, frame, size, c, n, out);
      },
      [&](const std::vector<LightMapSample>& out) {
        if (!deliver(out)) return false;
        delivered += static_cast<int64_t>(out.size());
        return true;
      });
  return delivered;
}

// Copies n words of the sample, from word `from`, into the record from word `to`.
void putWords(unsigned char* record, int to, const LightMapSample& s, int from, int n) {
  std::memcpy(record + 4 * to, reinterpret_cast<const unsigned char*>(&s) + 4 * from,
              4 * size_t(n));
}

}  // namespace

bool isLightCacheVersion(uint32_t version) {
  return lightRecordBytes(version) != 0;
}

size_t lightRecordBytes(uint32_t version) {
  switch (version) {
    case LightMap::kVersion1:
      return 44;
    case LightMap::kVersion2:
      return 60;
    case LightMap::kVersion3:
      return 72;
    case LightMap::kVersion4:
      return 80;
    case LightMap::kVersion5:
    case LightMap::kVersion6:
      return 120;
    default:
      return 0;
  }
}

float lightSampleSize(const Params& params) {
  if (params.count == 0) return 0.0f;
  const float area = detail::makeFrame(params).imageArea();
  return std::sqrt(kImageCover * area / (kPi * static_cast<float>(params.count)));
}

int64_t generateLightCache(const Params& params, std::vector<LightMapSample>& out) {
  if (checkParams(params).empty()) out.reserve(out.size() + params.count);
  return generateChunks(params, [&](const std::vector<LightMapSample>& chunk) {
    out.insert(out.end(), chunk.begin(), chunk.end());
    return true;
  });
}

int64_t generateLightCache(const Params& params, LightMap& map) {
  const int64_t n = generateChunks(params, [&](const std::vector<LightMapSample>& chunk) {
    for (const LightMapSample& s : chunk) {
      LightMapSample* slot = map.insertSample();
      if (!slot) return false;
      *slot = s;
    }
    return true;
  });
  map.rebuildTree();
  return n == static_cast<int64_t>(params.count) ? n : -1;
}

void encodeLightRecord(const LightMapSample& s, uint32_t version, unsigned char* record) {
  std::memset(record, 0, lightRecordBytes(version));
  putWords(record, 0, s, 0, 7);  // position, normal, radiusSquared
  switch (version) {
    case LightMap::kVersion1:
    case LightMap::kVersion2:
      putWords(record, 7, s, 14, 4);  // one value group; the rest of a version 2 record is unused
      break;
    case LightMap::kVersion3:
    case LightMap::kVersion4:
      putWords(record, 7, s, 14, 11);  // valueA, valueB, normalB
      break;
    case LightMap::kVersion5:
      putWords(record, 14, s, 14, 11);
      putWords(record, 28, s, 28, 1);
      break;
    default:  // the newest version: the memory layout, alignment words zero
      putWords(record, 8, s, 8, 17);
      putWords(record, 26, s, 26, 3);
      break;
  }
}

int writeLightCacheFile(const char* path, uint32_t version, const Params& params,
                        std::string& message) {
  message.clear();
  if (!isLightCacheVersion(version)) {
    message = "unsupported light-cache version (use 0x10000, 0x20000, ... 0x60000)";
    return -1;
  }
  message = checkParams(params);
  if (!message.empty()) return -1;

  LUtils::SafeFileReplace replace;
  std::FILE* f = nullptr;
  if (replace.begin(path) != 0 || !(f = std::fopen(replace.writePath().c_str(), "wb"))) {
    message = std::string("cannot open \"") + path + "\" for writing: " + std::strerror(errno);
    return LUtils::kFileOpenError;
  }
  std::setvbuf(f, nullptr, _IOFBF, 1 << 20);
  const uint32_t header[2] = {version, params.count};
  bool ok = std::fwrite(header, 4, 2, f) == 2;
  const size_t bytes = lightRecordBytes(version);
  std::vector<unsigned char> records;
  const int64_t n = generateChunks(params, [&](const std::vector<LightMapSample>& chunk) {
    records.resize(chunk.size() * bytes);
    for (size_t i = 0; i < chunk.size(); ++i)
      encodeLightRecord(chunk[i], version, &records[i * bytes]);
    ok = ok && std::fwrite(records.data(), 1, records.size(), f) == records.size();
    return ok;
  });
  // Closing writes out the buffer. No fsync: these are test data.
  ok = std::fclose(f) == 0 && ok;
  int result = LUtils::kFileOk;
  if (!ok) {
    result = LUtils::kFileWriteError;
  } else if (n != static_cast<int64_t>(params.count)) {
    message = "the camera sees no surface of the room";
    result = -1;
  } else {
    result = replace.commit();
  }
  if (result != LUtils::kFileOk) {
    replace.abandon();
    if (message.empty()) {
      message = std::string("cannot write \"") + path + "\": " + LUtils::fileErrorText(result);
    }
  }
  return result;
}

}  // namespace synth
