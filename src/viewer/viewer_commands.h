// The viewer's commands as plain data: every menu item's identifier, label, kind and help text in
// menu-bar order, and the keys of the canvas that run them. The window builds its menus from this
// table and the canvas asks keyFor... which command a key means, so neither holds a rule itself.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace LUtils {

struct UpAxisMenuText;
struct ViewerSettings;

// Menu item identifiers.
enum CommandId : int {
  kCmdOpen = 0x1001,
  kCmdSave = 0x1002,
  kCmdAdd = 0x1003,
  kCmdIncrementalAdd = 0x1004,
  kCmdProperties = 0x1005,
  kCmdExit = 0x138E,
  kCmdRasterizerMenu = 0x1030,
  kCmdOpenGL = 0x1031,
  kCmdSoftware = 0x1032,
  kCmdMultiThreadedSoftware = 0x1034,
  kCmdBackfaceCulling = 0x1025,
  kCmdDisplayLists = 0x1033,
  kCmdAdaptiveQuality = 0x1021,
  kCmdLowQuality = 0x1022,
  kCmdMediumQuality = 0x1023,
  kCmdHighQuality = 0x1024,
  kCmdUpAxis = 0x1020,
  kCmdShowAxis = 0x1061,
  kCmdViewFromFile = 0x1069,
  kCmdViewCenter = 0x1068,
  kCmdViewReset = 0x1060,
  kCmdViewFront = 0x1064,
  kCmdViewBack = 0x1065,
  kCmdViewLeft = 0x1066,
  kCmdViewRight = 0x1067,
  kCmdViewTop = 0x1062,
  kCmdViewBottom = 0x1063,
  kCmdActivateSelection = 0x1040,
  kCmdSelectionModeMenu = 0x1041,
  kCmdSelectRectangle = 0x1042,
  kCmdSelectPaint = 0x1043,
  kCmdSimilarNormals = 0x1053,
  kCmdSelectionColour = 0x1056,
  kCmdXorRectangle = 0x1055,
  kCmdDepthVisible = 0x1050,
  kCmdDepthFull = 0x1048,
  kCmdDepthSpecified = 0x1049,
  kCmdDepthDisplay = 0x1047,
  kCmdDepthIncrease = 0x1051,
  kCmdDepthDecrease = 0x1052,
  kCmdRadiusDisplay = 0x1044,
  kCmdRadiusIncrease = 0x1045,
  kCmdRadiusDecrease = 0x1046,
  kCmdClearSelection = 0x1054,
  kCmdUndo = 0x1080,
  kCmdRedo = 0x1081,
  kCmdDeleteSelection = 0x1082,
  kCmdAbout = 0x1395,
};

enum class MenuItemKind : uint8_t {
  kNormal,
  kCheck,
  kRadio,
  kSeparator,
  kSubmenu,  // the items up to the matching kEndSubmenu form a submenu with this label
  kEndSubmenu,
};

struct MenuEntry {
  MenuItemKind kind = MenuItemKind::kNormal;
  int id = 0;
  std::string label;  // with the accelerator text after a tab
  std::string help;
};

struct MenuSpec {
  std::string title;
  std::vector<MenuEntry> entries;
};

// The whole menu bar in order. The up-axis item and the depth and radius display items show the
// current values they are given.
std::vector<MenuSpec> menuBar(const UpAxisMenuText& upAxis, const ViewerSettings& settings);

// The display items' labels for a value.
std::string selectionDepthLabel(float depth);
std::string selectionRadiusLabel(int radius);


// What a key on the canvas does.
enum class KeyAction : uint8_t {
  kNone,
  kCommand,  // run the menu command `command`
  kBrighter,
  kDarker,
  kLodPlus,
  kLodMinus,
  kDollyForward,
  kDollyBackward,
  kInspect,  // show the values of the visible sample under the cursor
};

enum class SpecialKey : uint8_t { kNone, kUp, kDown, kDelete, kKeypadPlus, kKeypadMinus };

struct KeyInput {
  char32_t character = 0;  // the typed character (Shift applied), 0 for a special key
  SpecialKey special = SpecialKey::kNone;
  bool shift = false, ctrl = false, alt = false;
};

struct KeyBinding {
  KeyAction action = KeyAction::kNone;
  int command = 0;
  bool fast = false;  // dolly with Shift

  bool operator==(const KeyBinding&) const = default;
};

// The binding of a key: the menu accelerators (single letters and digits, Shift+d, Ctrl+z, Ctrl+y,
// Delete), B and Shift+B, + and - on either keyboard part, and the up and down arrows.
KeyBinding keyBinding(const KeyInput& key);

}  // namespace LUtils
