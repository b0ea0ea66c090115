// The File menu's work on the maps in memory (gIrradianceMap, gLightMap), without the dialogs:
// what each file dialog asks for, saving without the deleted samples, and adding a map file to
// the one in memory with the console progress the batch tool prints.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>

#include "app/my_progress.h"
#include "render/draw_options.h"
#include "threads/progress_callback.h"

namespace LUtils {

enum class FilePurpose { kOpen = 0, kSave = 1, kAdd = 2 };

// What a file dialog shows and allows.
struct FileDialogSpec {
  const char* title;
  const char* filter;
  bool save;       // a save dialog (else an open dialog whose file must exist)
};
inline constexpr const char* kDefaultMapExtension = "lumap";
FileDialogSpec fileDialogSpec(FilePurpose purpose, bool lightCacheInMemory);

// Saves the map in memory (the light cache when there is one) to `name`, leaving out the
// samples marked in `deleted` (`sampleCount` samples shown). Non-zero on failure, when the old
// file is left as it was.
int saveMapInMemory(const char* name, const SampleBits& deleted, uint32_t sampleCount);

// The console progress of merges (MyProgress, byte for byte as the batch tool prints it), with
// a hook that hears every advance as a percentage and is asked to let a window process its
// messages while the merge runs.
class MergeProgress final : public ProgressCallback {
 public:
  using Hook = std::function<void(const char* title, int percent)>;
  explicit MergeProgress(Hook hook = {}, std::FILE* console = stdout)
      : console_(console), hook_(std::move(hook)) {}
  void setTotal(int32_t total) override { console_.setTotal(total); }
  int32_t getTotal() override { return console_.getTotal(); }
  void setProgress(int32_t done) override;
  int32_t getProgress() override { return console_.getProgress(); }
  void setTitle(const char* title) override { console_.setTitle(title); }
  int wantsMessageProcessing() override { return hook_ ? 1 : 0; }
  void processMessages() override { tell(); }
  void start() override;
  void done() override;

 private:
  void tell();
  MyProgress console_;
  Hook hook_;
};

enum class AddResult {
  kAdded,
  kLightCacheLoadFailed,   // "Error loading file ..." was printed
  kIrradianceLoadFailed,   // the caller shows "Unrecognized irradiance map format."
};

// Adds the map file `name` to the map in memory, plainly or incrementally: a light cache in
// memory takes a light cache (rebuilt first without its deleted samples), an irradiance map an
// irradiance map (likewise rebuilt, with "Rebuilding the map" progress); an incremental add of a
// map too old for it warns on `console` and adds all samples. The irradiance map in memory ends
// prepared under the viewer's reference settings with its own settings back. The caller shows
// the map afresh afterwards (the deleted marks no longer apply). `progress` prints the console
// lines; `console` takes the other texts. `replaced` (optional) hears that a rebuild has put a
// new map in place of the one in memory, before the old one is deleted.
AddResult addMapFile(const char* name, bool incremental, const SampleBits& deleted,
                     MergeProgress& progress, std::FILE* console = stdout,
                     const std::function<void()>& replaced = {});

}  // namespace LUtils
