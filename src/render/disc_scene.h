// A synthetic scene of oriented discs (a furnished room) and a plain disc drawer, for the
// rasterizer tests, the benchmarks and pictures made without a map file.
#pragma once

#include <cstdint>
#include <vector>

#include "io/vector.h"

namespace LUtils {

class PinholeCamera;
class Rasterizer3D;

struct Disc {
  Vector position;
  Vector normal;
  float radius;
  Color colour;
};

// A closed room 10 x 6 x 10 (floor at y = 0) with a box and a ball, covered by about `count`
// discs facing into the room (outwards on the furniture); the same seed gives the same scene.
// Disc radii are `radiusScale` times the spacing of the discs: from about 0.7 on, neighbours
// overlap and close the surfaces; below 0.35 no two discs touch.
std::vector<Disc> makeRoomScene(uint32_t count, uint32_t seed = 1, float radiusScale = 0.75f);

// A view from inside the room towards its back wall, for an image of width x height pixels.
void lookIntoRoom(PinholeCamera& camera, int width, int height);

// Draws each disc as a regular polygon of `sides` sides in the plane perpendicular to its normal:
// in its colour, or with index colours (index = firstIndex + position in the array) for picking.
// A disc the rasterizer knows to lie between pixel centres is not made, as the viewer does.
void drawDiscs(Rasterizer3D& rasterizer, const Disc* discs, size_t count, int sides,
               bool indexColours = false, uint32_t firstIndex = 0);

}  // namespace LUtils
