#include "app/process_state.h"

#include <cstring>

namespace {
// The settings record starts out all zero, not with a map's defaults.
IrradianceMapHeader zeroSettings() {
  IrradianceMapHeader header;
  std::memset(static_cast<void*>(&header), 0, sizeof header);
  return header;
}
}  // namespace

LUtils::IrradianceMap* gIrradianceMap = nullptr;
LightMap* gLightMap = nullptr;
char gMapFileName[kMapFileNameSize] = {};
int32_t gIncremental = 0;
int32_t gOpenAtStartup = 1;
uint8_t gYUp = 0;
LUtils::Vector gWorldUp{0.0f, 0.0f, 1.0f};
LUtils::Vector gViewUp{0.0f, 0.0f, 1.0f};
SelectionRect gSelectionRect;
LUtils::Rasterizer3D* gRasterizer = nullptr;
IrradianceMapHeader gInitialSettings = zeroSettings();

void setMapFileName(const char* name) {
  std::strncpy(gMapFileName, name, kMapFileNameSize - 1);
  gMapFileName[kMapFileNameSize - 1] = '\0';
}
