// The user's drawing options (rasterizer choice, quality, brightness, culling, display lists,
// axis, selection colour) and the user's edits of a map (deleted and selected samples), each
// changed only through calls that tell their listeners, so that whoever caches geometry drops it
// in one place and nowhere else.
#pragma once

#include <bit>
#include <cstdint>
#include <functional>
#include <vector>

#include "io/vector.h"

namespace LUtils {

// A list of listeners told of every change, with what changed. Listeners are called on the
// thread that made the change (the GUI thread in the viewer), in the order they subscribed.
template <class What>
class ChangeNotifier {
 public:
  using Listener = std::function<void(What)>;
  // Returns a handle for unsubscribe.
  int subscribe(Listener listener) {
    listeners_.push_back({next_, std::move(listener)});
    return next_++;
  }
  void unsubscribe(int handle) {
    std::erase_if(listeners_, [handle](const Entry& e) { return e.handle == handle; });
  }
  void notify(What what) const {
    for (const Entry& e : listeners_) e.listener(what);
  }

 private:
  struct Entry {
    int handle;
    Listener listener;
  };
  std::vector<Entry> listeners_;
  int next_ = 1;
};

// The drawing options of one viewer (or of one picture of the render tool). A setter that
// changes a value tells the listeners once; setting the value already held tells nobody.
class DrawOptions {
 public:
  enum class Option {
    Rasterizer,        // use OpenGL / software, multi-threaded software
    Quality,           // segments per disc, adaptive quality, LOD multiplier
    Brightness,
    BackfaceCulling,
    DisplayLists,
    Axis,
    SelectionColour,
  };

  bool useOpenGL() const { return useOpenGL_; }
  bool multiThreadedSoftware() const { return multiThreadedSoftware_; }
  int32_t segmentsPerDisc() const { return segmentsPerDisc_; }  // quality: 6, 10 or 16
  bool adaptiveQuality() const { return adaptiveQuality_; }
  float lodMultiplier() const { return lodMultiplier_; }
  float brightness() const { return brightness_; }
  bool backfaceCulling() const { return backfaceCulling_; }
  bool useDisplayLists() const { return useDisplayLists_; }
  bool showAxis() const { return showAxis_; }
  const Color& selectionColour() const { return selectionColour_; }

  void setUseOpenGL(bool on) { set(useOpenGL_, on, Option::Rasterizer); }
  void setMultiThreadedSoftware(bool on) { set(multiThreadedSoftware_, on, Option::Rasterizer); }
  void setSegmentsPerDisc(int32_t sides) { set(segmentsPerDisc_, sides, Option::Quality); }
  void setAdaptiveQuality(bool on) { set(adaptiveQuality_, on, Option::Quality); }
  void setLodMultiplier(float m) { set(lodMultiplier_, m, Option::Quality); }
  void setBrightness(float b) { set(brightness_, b, Option::Brightness); }
  void setBackfaceCulling(bool on) { set(backfaceCulling_, on, Option::BackfaceCulling); }
  void setUseDisplayLists(bool on) { set(useDisplayLists_, on, Option::DisplayLists); }
  void setShowAxis(bool on) { set(showAxis_, on, Option::Axis); }
  void setSelectionColour(const Color& c) {
    if (c.r == selectionColour_.r && c.g == selectionColour_.g && c.b == selectionColour_.b) return;
    selectionColour_ = c;
    changes_.notify(Option::SelectionColour);
  }

  ChangeNotifier<Option>& changes() { return changes_; }

 private:
  template <class T>
  void set(T& field, T value, Option what) {
    // A NaN brightness (an empty map's average) compares unequal to itself: still one change.
    if (field == value) return;
    field = value;
    changes_.notify(what);
  }

  bool useOpenGL_ = true;
  bool multiThreadedSoftware_ = true;
  int32_t segmentsPerDisc_ = 6;
  bool adaptiveQuality_ = false;
  float lodMultiplier_ = 1.0f;
  float brightness_ = 1.0f;
  bool backfaceCulling_ = false;
  bool useDisplayLists_ = false;
  bool showAxis_ = false;
  Color selectionColour_{1.0f, 0.85f, 0.0f};
  ChangeNotifier<Option> changes_;
};

// One bit per sample index: bit (index mod 8) of byte (index / 8). Indices past the end read as
// clear; setting one grows the set.
class SampleBits {
 public:
  bool test(uint32_t index) const {
    const size_t byte = index / 8;
    return byte < bytes_.size() && (bytes_[byte] & (1u << (index % 8))) != 0;
  }
  void set(uint32_t index) {
    const size_t byte = index / 8;
    if (byte >= bytes_.size()) grow(byte + 1);
    bytes_[byte] = static_cast<uint8_t>(bytes_[byte] | (1u << (index % 8)));
  }
  void reset(uint32_t index) {
    const size_t byte = index / 8;
    if (byte < bytes_.size()) bytes_[byte] = static_cast<uint8_t>(bytes_[byte] & ~(1u << (index % 8)));
  }
  // Sized for `count` samples (count / 8 + 1 bytes), all clear.
  void clear(uint32_t count = 0) { bytes_.assign(count / 8 + 1, 0); }
  bool any() const {
    for (uint8_t b : bytes_) {
      if (b != 0) return true;
    }
    return false;
  }
  uint64_t countSet() const {
    uint64_t n = 0;
    for (uint8_t b : bytes_) n += static_cast<uint64_t>(std::popcount(b));
    return n;
  }
  const std::vector<uint8_t>& bytes() const { return bytes_; }

 private:
  void grow(size_t bytes);
  std::vector<uint8_t> bytes_;
};

// The user's edits of the map in memory: which samples are deleted and which are selected. A
// deleted sample keeps its index, so picking names and both sets stay aligned with the map.
// Every change goes through editDeleted / editSelected (or reset), which tell the listeners once
// per call whatever number of bits the call changed.
class SampleEdits {
 public:
  enum class Change { Deleted, Selected };

  bool deleted(uint32_t index) const { return deleted_.test(index); }
  bool selected(uint32_t index) const { return selected_.test(index); }
  // True once any sample was selected since the selection was last cleared.
  bool hasSelection() const { return hasSelection_; }
  const SampleBits& deletedBits() const { return deleted_; }
  const SampleBits& selectedBits() const { return selected_; }

  // A new map of `count` samples: nothing deleted or selected.
  void reset(uint32_t count) {
    deleted_.clear(count);
    selected_.clear(count);
    hasSelection_ = false;
    changes_.notify(Change::Deleted);
    changes_.notify(Change::Selected);
  }
  template <class F>
  void editDeleted(F&& f) {
    f(deleted_);
    changes_.notify(Change::Deleted);
  }
  // `f` may select and deselect; the selection exists afterwards when any bit is set.
  template <class F>
  void editSelected(F&& f) {
    f(selected_);
    hasSelection_ = selected_.any();
    changes_.notify(Change::Selected);
  }
  void clearSelection() {
    editSelected([](SampleBits& bits) { bits.clear(static_cast<uint32_t>(bits.bytes().size() * 8 - 1)); });
  }

  ChangeNotifier<Change>& changes() { return changes_; }

 private:
  SampleBits deleted_;
  SampleBits selected_;
  bool hasSelection_ = false;
  ChangeNotifier<Change> changes_;
};

}  // namespace LUtils
