// The kind of a map file by its name and its contents, for -load and the viewer's open command.
#include "app/map_files.h"

#include <cstring>

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
