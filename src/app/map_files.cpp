// The kind of a map file by its name and its contents, for -load and the viewer's open command.
#include "app/map_files.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <algorithm>
#include <cctype>
#include <cstring>

#include "io/file_errors.h"
#include "irradiance/irradiance_file.h"
#include "irradiance/irradiance_map_header.h"
#include "lightcache/light_map.h"

namespace {

bool hasLightCacheExtension(const char* name) {
  const char* dot = std::strrchr(name, '.');
  return dot != nullptr && std::strcmp(dot + 1, "lulmap") == 0;
}

}  // namespace

int loadMapFile(const char* name, LUtils::IrradianceMap*& irradiance, LightMap*& light) {
  irradiance = nullptr;
  light = nullptr;
  if (!hasLightCacheExtension(name)) {
    LUtils::IrradianceMap* map = LUtils::newIrradianceMap();
    if (map->loadFromFile(name, 0, 0.0f) == 0) {
      map->setHeader(*map->fileHeader());
      irradiance = map;
      return 0;
    }
    LUtils::deleteIrradianceMap(map);
  }
  auto* cache = new LightMap();
  if (const int error = cache->load(name); error != 0) {
    delete cache;
    return error;
  }
  light = cache;
  return 0;
}

namespace {

bool isIrradianceVersion(uint32_t version) {
  return version >= IrradFormat::kVersionMin && version <= IrradFormat::kVersionCurrent;
}

// The samples a file of `size` bytes holds after `headerBytes`, in whole records.
int64_t recordsIn(int64_t size, int64_t headerBytes, uint32_t recordBytes) {
  if (recordBytes == 0 || size <= headerBytes) return 0;
  return (size - headerBytes) / recordBytes;
}

}  // namespace

MapFileProbe probeMapFile(const char* name) {
  MapFileProbe probe;
  struct stat st;
  if (::stat(name, &st) != 0) {
    probe.openError = errno;
    return probe;
  }
  if (S_ISDIR(st.st_mode)) {
    probe.directory = true;
    return probe;
  }
  // A pipe or a device is not read here: what was read would be missing for the load.
  if (!S_ISREG(st.st_mode)) return probe;
  probe.regular = true;
  probe.size = static_cast<int64_t>(st.st_size);
  std::FILE* file = std::fopen(name, "rb");
  if (!file) {
    probe.openError = errno;
    return probe;
  }
  uint32_t words[3] = {};
  const size_t got = std::fread(words, 4, 3, file);
  std::fclose(file);
  if (got < 1) return probe;
  probe.version = words[0];

  const bool lightByName = hasLightCacheExtension(name);
  const uint32_t lightRecord = LightMap::fileRecordBytes(probe.version);
  if (!lightByName && isIrradianceVersion(probe.version)) {
    probe.kind = MapFileProbe::kIrradianceMap;
    const uint32_t record = IrradFormat::recordSize(probe.version);
    const bool old = probe.version <= IrradFormat::kVersionLastOld;
    const size_t headerWords = old ? 2 : 3;
    probe.headerComplete = got >= headerWords;
    if (!probe.headerComplete) return probe;
    const int64_t headerBytes = old ? 8 : 12 + int64_t{words[2]};
    probe.headerComplete = probe.size >= headerBytes;
    probe.declared = record == 0 ? 0 : int64_t{words[1]};
    probe.present = recordsIn(probe.size, headerBytes, record);
    // A light cache under another name: the irradiance reading fails and the light one holds.
    const bool irradianceWhole = probe.headerComplete && probe.present >= probe.declared;
    if (irradianceWhole || lightRecord == 0 || got < 2) return probe;
    const int64_t lightDeclared = std::max<int64_t>(0, static_cast<int32_t>(words[1]));
    if (recordsIn(probe.size, 8, lightRecord) < lightDeclared) return probe;
    probe.kind = MapFileProbe::kLightCache;
    probe.headerComplete = true;
    probe.declared = probe.present = lightDeclared;
  } else if (lightRecord != 0) {
    probe.kind = MapFileProbe::kLightCache;
    probe.headerComplete = got >= 2;
    if (!probe.headerComplete) return probe;
    probe.declared = std::max<int64_t>(0, static_cast<int32_t>(words[1]));
    probe.present = recordsIn(probe.size, 8, lightRecord);
  }
  return probe;
}

std::string loadFailureReason(const char* name, int loadError) {
  const MapFileProbe probe = probeMapFile(name);
  if (probe.openError == ENOENT) return "no such file";
  if (probe.openError != 0) {
    std::string text = std::strerror(probe.openError);
    if (!text.empty()) text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
  }
  if (probe.directory) return "a directory";
  if (!probe.regular) return "cannot be read as a map (" + std::string(LUtils::fileErrorText(loadError)) + ")";
  if (probe.size == 0) return "an empty file";
  if (probe.kind == MapFileProbe::kUnknown) return "not an irradiance map or light cache";
  const char* kind = probe.kind == MapFileProbe::kLightCache ? "light cache" : "irradiance map";
  if (!probe.headerComplete) return std::string("truncated: the ") + kind + " header is incomplete";
  if (probe.present < probe.declared) {
    return "truncated: " + groupedCount(probe.present) + " of " + groupedCount(probe.declared) +
           " samples present";
  }
  return std::string("cannot be read as an ") + kind + " (" + LUtils::fileErrorText(loadError) +
         ")";
}

std::string groupedCount(int64_t value) {
  const std::string digits = std::to_string(value < 0 ? -value : value);
  std::string text = value < 0 ? "-" : "";
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) text += ',';
    text += digits[i];
  }
  return text;
}
