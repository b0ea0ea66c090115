// The viewer's command table, key bindings and settings rules.
#include "viewer/viewer_state.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

#include "render/draw_options.h"
#include "viewer/navigation.h"
#include "viewer/viewer_commands.h"

namespace LUtils {
namespace {

std::map<int, MenuItemState> statesById(const ViewerSettings& s, const DrawOptions& o) {
  std::map<int, MenuItemState> byId;
  for (const MenuItemState& state : menuItemStates(s, o)) byId[state.id] = state;
  return byId;
}

// The key a menu label's accelerator text names, or nothing for texts that name no key.
std::optional<KeyInput> keyOfAccelerator(const std::string& label) {
  const size_t tab = label.find('\t');
  if (tab == std::string::npos) return std::nullopt;
  const std::string accel = label.substr(tab + 1);
  KeyInput key;
  if (accel == "Shift-d") {
    key.character = U'D';
    key.shift = true;
  } else if (accel.rfind("Ctrl+", 0) == 0 && accel.size() == 6) {
    key.character = static_cast<char32_t>(accel[5]);
    key.ctrl = true;
  } else if (accel == "del") {
    key.special = SpecialKey::kDelete;
  } else if (accel.size() == 1) {
    key.character = static_cast<char32_t>(accel[0]);
  } else {
    return std::nullopt;  // the mouse wheel
  }
  return key;
}

TEST(ViewerCommands, EveryAcceleratorShownInTheMenusIsAKeyOfTheCanvasForThatItem) {
  ViewerSettings settings;
  std::set<int> ids;
  int accelerators = 0;
  for (const UpAxisMenuText* upAxis : {&kOfferYUp, &kOfferZUp}) {
    ids.clear();
    for (const MenuSpec& menu : menuBar(*upAxis, settings)) {
      for (const MenuEntry& entry : menu.entries) {
        if (entry.kind == MenuItemKind::kSeparator || entry.kind == MenuItemKind::kEndSubmenu) {
          continue;
        }
        EXPECT_TRUE(ids.insert(entry.id).second) << "identifier used twice: " << entry.id;
        const std::optional<KeyInput> key = keyOfAccelerator(entry.label);
        if (!key) continue;
        ++accelerators;
        EXPECT_EQ(keyBinding(*key), (KeyBinding{KeyAction::kCommand, entry.id, false}))
            << entry.label;
      }
    }
  }
  EXPECT_EQ(ids.size(), 48u);  // every item and both submenus
  EXPECT_EQ(accelerators, 2 * 26);
  // Shift changes what B does; letters answer in either case; the arrows dolly, fast with Shift.
  EXPECT_EQ(keyBinding({U'b'}).action, KeyAction::kBrighter);
  EXPECT_EQ(keyBinding({U'B', SpecialKey::kNone, true}).action, KeyAction::kDarker);
  EXPECT_EQ(keyBinding({U'O', SpecialKey::kNone, true}).command, kCmdOpen);
  EXPECT_EQ(keyBinding({U'+', SpecialKey::kNone, true}).action, KeyAction::kLodPlus);
  EXPECT_EQ(keyBinding({0, SpecialKey::kKeypadMinus}).action, KeyAction::kLodMinus);
  EXPECT_EQ(keyBinding({0, SpecialKey::kUp, true}),
            (KeyBinding{KeyAction::kDollyForward, 0, true}));
  EXPECT_EQ(keyBinding({U'o', SpecialKey::kNone, false, false, true}).action, KeyAction::kNone);
  EXPECT_EQ(keyBinding({U'q'}).action, KeyAction::kNone);
}

TEST(ViewerCommands, DisplayItemsShowTheCurrentValues) {
  ViewerSettings settings;
  adjustSelectionDepth(settings.selection, false);
  adjustPaintRadius(settings.selection, true, 800, 600);
  std::map<int, std::string> labels;
  for (const MenuSpec& menu : menuBar(kOfferZUp, settings)) {
    for (const MenuEntry& entry : menu.entries) labels[entry.id] = entry.label;
  }
  EXPECT_EQ(labels[kCmdDepthDisplay], "Selection Depth: 0.8");
  EXPECT_EQ(labels[kCmdRadiusDisplay], "Selection Radius: 6");
  EXPECT_EQ(labels[kCmdUpAxis], "Make the Z axis point up.\tu");
}

TEST(ViewerState, RasterizerCommandsSwitchPrintAndFollowTheDepthRules) {
  ViewerSettings s;
  DrawOptions options;
  s.selection.depthMode = 2;
  EXPECT_FALSE(chooseRasterizer(s, RasterizerChoice::kOpenGL).recreate);  // already in use

  RasterizerSwitch r = chooseRasterizer(s, RasterizerChoice::kMultiThreadedSoftware);
  EXPECT_TRUE(r.recreate);
  EXPECT_STREQ(r.message, "Using software renderer\n");
  EXPECT_EQ(s.selection.depthMode, 0);
  auto states = statesById(s, options);
  EXPECT_TRUE(states[kCmdMultiThreadedSoftware].checked);
  EXPECT_TRUE(states[kCmdDepthVisible].checked);
  EXPECT_FALSE(states[kCmdDepthFull].enabled);
  EXPECT_FALSE(states[kCmdDepthSpecified].enabled);
  EXPECT_FALSE(states[kCmdDepthIncrease].enabled);

  // Between the two software kinds only the flag for the next switch changes.
  r = chooseRasterizer(s, RasterizerChoice::kSoftware);
  EXPECT_FALSE(r.recreate);
  EXPECT_EQ(r.message, nullptr);
  EXPECT_FALSE(s.softwareMultiThreaded);

  r = chooseRasterizer(s, RasterizerChoice::kOpenGL);
  EXPECT_TRUE(r.recreate);
  EXPECT_STREQ(r.message, "Using OpenGL renderer\n");
  s.selection.depthMode = 1;
  states = statesById(s, options);
  EXPECT_TRUE(states[kCmdOpenGL].checked);
  EXPECT_TRUE(states[kCmdDepthSpecified].checked);
  EXPECT_TRUE(states[kCmdDepthIncrease].enabled);
  EXPECT_TRUE(states[kCmdDepthDecrease].enabled);
  EXPECT_TRUE(states[kCmdLowQuality].checked);

  // Without an OpenGL context the OpenGL item is disabled and choosing it does nothing.
  chooseRasterizer(s, RasterizerChoice::kSoftware);
  s.openGLAvailable = false;
  EXPECT_FALSE(chooseRasterizer(s, RasterizerChoice::kOpenGL).recreate);
  EXPECT_FALSE(statesById(s, options)[kCmdOpenGL].enabled);
}

TEST(ViewerState, PaintRadiusStaysWithinHalfTheCanvas) {
  SelectionSettings s;
  s.paintRadius = 8;
  adjustPaintRadius(s, true, 20, 30);  // largest 20 / 2 - 1 = 9
  adjustPaintRadius(s, true, 20, 30);
  EXPECT_EQ(s.paintRadius, 9);
  s.wheelRadius(-100, 20, 30);
  EXPECT_EQ(s.paintRadius, 0);
  adjustPaintRadius(s, false, 20, 30);
  EXPECT_EQ(s.paintRadius, 0);
  s.wheelRadius(3, 20, 30);
  EXPECT_EQ(s.paintRadius, 3);
}

TEST(ViewerState, MovingFramesDrawAFixedSubsetSizedToTheBudget) {
  MovingFrames frames;
  frames.motion();
  EXPECT_EQ(frames.stride(), 1u);  // no frame timed yet
  frames.settled();
  frames.frameDrawn(1, 40.0);
  frames.motion();
  EXPECT_EQ(frames.stride(), 1u);  // the full frame fits
  frames.settled();
  EXPECT_EQ(frames.stride(), 1u);

  // 1000 ms of which 30 are fixed, aiming at 32 ms: the first motion guesses ceil(1000 / 32) =
  // 32 from the full frame alone, and its first reduced frame (30 + 970 / 32 ms) corrects it
  // once: the samples get max(32 - 30, 32 / 4) = 8 ms, ceil(970 / 8) = 122.
  const auto reduced = [](uint32_t k) { return 30.0 + 970.0 / k; };
  frames.frameDrawn(1, 1000.0);
  frames.motion();
  EXPECT_EQ(frames.stride(), 32u);
  frames.frameDrawn(32, reduced(32));
  EXPECT_EQ(frames.stride(), 122u);
  frames.frameDrawn(122, reduced(122));  // within the motion the stride stays
  frames.motion();
  EXPECT_EQ(frames.stride(), 122u);
  frames.frameDrawn(122, reduced(122));
  frames.settled();
  EXPECT_EQ(frames.stride(), 1u);
  EXPECT_TRUE(frames.needsFullFrame());
  frames.frameDrawn(1, 1000.0);
  EXPECT_FALSE(frames.needsFullFrame());
  frames.motion();  // the next motion starts with the model
  EXPECT_EQ(frames.stride(), 122u);
  // The motion settles before the frame that shows it: that frame is still reduced, and the
  // full one follows.
  frames.settled();
  EXPECT_EQ(frames.stride(), 122u);
  frames.frameDrawn(122, reduced(122));
  EXPECT_TRUE(frames.needsFullFrame());
  EXPECT_EQ(frames.stride(), 1u);
  frames.frameDrawn(1, 1000.0);
  EXPECT_FALSE(frames.needsFullFrame());

  // A fixed part above the aim: the samples still get a quarter of it, ceil(955 / 8) = 120.
  frames.frameDrawn(35, 45.0 + 955.0 / 35.0);
  frames.frameDrawn(1, 1000.0);
  frames.motion();
  EXPECT_EQ(frames.stride(), 120u);

  // The count drawn matches a brute-force walk over the indices a strided frame visits.
  SampleBits deleted;
  deleted.clear(1000);
  for (uint32_t i = 0; i < 1000; i += 7) deleted.set(i);
  for (uint32_t stride : {1u, 2u, 3u, 25u, 999u, 1000u, 5000u}) {
    for (uint32_t count : {0u, 1u, 999u, 1000u}) {
      uint64_t expected = 0;
      for (uint32_t i = 0; i < count; i += stride) expected += deleted.test(i) ? 0 : 1;
      EXPECT_EQ(drawnSampleCount(count, deleted, stride), expected) << stride << " " << count;
    }
  }
  SampleBits none;
  EXPECT_EQ(drawnSampleCount(10, none, 3), 4u);
  EXPECT_EQ(frameStatusText(4, 0, 2, 12.4), "4 drawn / 0 deleted / 2 selected, 12 ms");
}

}  // namespace
}  // namespace LUtils
