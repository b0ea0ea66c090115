// reference-merge A B C: the work of an incremental merge of two irradiance maps done with the
// reference octree cache, as a program: read both files, build the octree over A, offer B's
// samples in order, write the result to C. bench/whole_programs.py times it against
// `cacheview -incremental -load A -load B -save C -nodisplay`.
#include <cstdio>
#include <memory>

#include "irradiance/def_irradiance_map.h"
#include "octree_cache.h"

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: reference-merge <first.lumap> <second.lumap> <result.lumap>\n");
    return 2;
  }
  auto first = std::make_unique<LUtils::DefIrradianceMap>();
  LUtils::DefIrradianceMap second;
  if (first->loadFromFile(argv[1], 0, 0.0f) != 0 || second.loadFromFile(argv[2], 0, 0.0f) != 0) {
    std::fprintf(stderr, "reference-merge: cannot read the maps\n");
    return 1;
  }
  const IrradianceMapHeader header = *first->header();
  const IrradianceMapHeader fileHeader = *first->fileHeader();
  reference::OctreeCache cache(header);
  cache.reserve(first->samples().size() + second.samples().size());
  for (size_t i = 0; i < first->samples().size(); ++i) cache.add(first->samples()[i]);
  first.reset();
  size_t kept = 0;
  for (size_t i = 0; i < second.samples().size(); ++i) kept += cache.offer(second.samples()[i]);

  LUtils::DefIrradianceMap result;
  result.setHeader(fileHeader);
  for (const LUtils::IrradSample& s : cache.samples()) result.appendSample(s);
  if (result.saveToFile(argv[3], nullptr) != 0) {
    std::fprintf(stderr, "reference-merge: cannot write %s\n", argv[3]);
    return 1;
  }
  std::printf("%zu samples, %zu kept of %zu offered\n", cache.samples().size(), kept,
              static_cast<size_t>(second.samples().size()));
  return 0;
}
