// The irradiance map interface: a set of irradiance samples with its settings, its file format,
// its spatial index and the irradiance lookup that a renderer (and the incremental merge) calls.
// The order of the virtual operations is part of the interface.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "io/vector.h"
#include "irradiance/irrad_sample.h"
#include "irradiance/irradiance_map_header.h"

class PStream;

namespace LUtils {

class ProgressCallback;
struct ThreadData;
struct ShadeContext;
struct ShadeData;
class ReadIrradianceMapStream;
class WriteIrradianceMapStream;

// Per-sample callback of the map's enumeration: non-zero to go on, zero to stop.
class EnumIrradianceSamplesCallback {
 public:
  virtual ~EnumIrradianceSamplesCallback() = default;
  virtual int process(IrradSample& sample) = 0;
};

// Copies consecutive samples of an enumeration into `out` and stops it once `want` are there:
// how the merges read their source in batches.
class CopySamplesCb final : public EnumIrradianceSamplesCallback {
 public:
  CopySamplesCb(std::vector<IrradSample>& out, size_t want) : out_(out), want_(want) {}
  int process(IrradSample& sample) override {
    out_.push_back(sample);
    return out_.size() < want_ ? 1 : 0;
  }

 private:
  std::vector<IrradSample>& out_;
  size_t want_;
};

// Collects the samples that a spatial query finds.
class StoreCB {
 public:
  virtual ~StoreCB() = default;
  virtual void store(IrradSample& sample) = 0;
};

class IrradianceMap {
 public:
  // Chooses the samples a save writes; count() is written as the file's sample count.
  class SaveCb {
   public:
    virtual ~SaveCb() = default;
    virtual bool accept(const IrradSample& sample) = 0;
    virtual int count() = 0;
  };

  virtual ~IrradianceMap() = default;                                       // 0
  // Frees all samples and the index, resets the counters.
  virtual void clear() = 0;                                                 // 1
  // The number of samples (the enumeration without a callback).
  virtual int numSamples() { return enumerateSamples(0, nullptr); }         // 2
  // The irradiance lookup at a shading point, as a renderer calls it.
  virtual Color irradiance(ThreadData& thread, ShadeContext& context, ShadeData& shade,
                           const Color& color, int flags) = 0;              // 3
  // Builds the spatial index and prepares for insertion: 0 from the command line, 32767 after
  // a load (also precomputes per-sample interpolation data).
  virtual void prepare(int mode) = 0;                                       // 4
  // Loads a file; returns 0 or a file error code (see errorText).
  virtual int loadFromFile(const char* name, int buildIndex, float timeOffset) = 0;  // 5
  // The settings block as read from the file.
  virtual const IrradianceMapHeader* fileHeader() const = 0;               // 6
  // Saves to a named file: -1 null name, -2 open failure, -5 write or close failure.
  virtual int saveToFile(const char* name, SaveCb* saveCb) = 0;            // 7
  // Appends all samples of another map, plainly (0) or incrementally (non-zero).
  virtual int addSamples(IrradianceMap& source, ProgressCallback* progress,
                         int incremental) = 0;                              // 8
  virtual const char* errorText(int code) = 0;                              // 9
  // The working settings (what the information report shows).
  virtual IrradianceMapHeader* header() = 0;                                // 10
  // Calls the callback for the samples from index `first` on; with no callback returns the
  // number of samples minus `first`.
  virtual int enumerateSamples(uint32_t first, EnumIrradianceSamplesCallback* callback) = 0;  // 11
  // Stores every sample whose validity region contains p (the sample kd-tree).
  virtual void querySamples(const Vector& p, StoreCB& store) = 0;           // 12
  virtual ReadIrradianceMapStream* openReadStream() = 0;                    // 13
  virtual void closeReadStream(ReadIrradianceMapStream* stream) = 0;        // 14
  // Only one write stream may exist: a second request yields null.
  virtual WriteIrradianceMapStream* openWriteStream() = 0;                  // 15
  virtual void closeWriteStream(WriteIrradianceMapStream* stream) = 0;      // 16
  // Loads a file into a temporary map and appends its samples with addSamples.
  virtual int loadAndAddFromFile(const char* name, float timeOffset, ProgressCallback* progress,
                                 int incremental) = 0;                      // 17
  virtual void freeSamples() { clear(); }                                   // 18
  // The format version of the last load (0 for a map never loaded).
  virtual uint32_t formatVersion() const = 0;                               // 19
  virtual void setHeader(const IrradianceMapHeader& header) = 0;            // 20
};

// The factory the driver and the viewer use: a new, empty default map, and its disposal (null is
// accepted).
IrradianceMap* newIrradianceMap();
void deleteIrradianceMap(IrradianceMap* map);

}  // namespace LUtils
