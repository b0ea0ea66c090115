// The menu bar table, the display items' labels, and the canvas's key bindings.
#include "viewer/viewer_commands.h"

#include <cstdio>

#include "viewer/navigation.h"
#include "viewer/viewer_state.h"

namespace LUtils {

namespace {

MenuEntry normal(int id, const char* label, const char* help = "") {
  return {MenuItemKind::kNormal, id, label, help};
}
MenuEntry check(int id, const char* label, const char* help = "") {
  return {MenuItemKind::kCheck, id, label, help};
}
MenuEntry radio(int id, const char* label, const char* help = "") {
  return {MenuItemKind::kRadio, id, label, help};
}
MenuEntry separator() {
  return {MenuItemKind::kSeparator, 0, "", ""};
}
MenuEntry submenu(int id, const char* label) {
  return {MenuItemKind::kSubmenu, id, label, ""};
}
MenuEntry endSubmenu() {
  return {MenuItemKind::kEndSubmenu, 0, "", ""};
}

}  // namespace

std::string selectionDepthLabel(float depth) {
  char text[64];
  std::snprintf(text, sizeof text, "Selection Depth: %g", static_cast<double>(depth));
  return text;
}

std::string selectionRadiusLabel(int radius) {
  return "Selection Radius: " + std::to_string(radius);
}

std::vector<MenuSpec> menuBar(const UpAxisMenuText& upAxis, const ViewerSettings& settings) {
  std::vector<MenuSpec> bar;
  bar.push_back(
      {"&File",
       {
           normal(kCmdOpen, "&Open...\to", "Open a new irradiance or light cache from a file"),
           normal(kCmdSave, "&Save...", "Save the irradiance or light cache in memory to a file"),
           normal(kCmdAdd, "&Add...",
                  "Add an irradiance map from a file with the irradiance map in memory"),
           normal(kCmdIncrementalAdd, "&Incremental add...", "Incrementally add an irradiance map"),
           normal(kCmdProperties, "&Properties...\tp",
                  "Show information about the irradiance or light cache in memory"),
           normal(kCmdExit, "&Exit", "Exit the irradiance map viewer"),
       }});
  bar.push_back({"&Rendering",
                 {
                     submenu(kCmdRasterizerMenu, "Rasterizer"),
                     radio(kCmdOpenGL, "OpenGL"),
                     radio(kCmdMultiThreadedSoftware,
                           "Multi-threaded Software (Reduces z-fighting, unstable)"),
                     radio(kCmdSoftware, "Software (Reduces z-fighting)"),
                     endSubmenu(),
                     check(kCmdBackfaceCulling, "Backface Culling\tf"),
                     check(kCmdDisplayLists, "Use Display Lists",
                           "Display lists compile the geometry, making it faster to render, but "
                           "slower to edit"),
                     separator(),
                     check(kCmdAdaptiveQuality, "Adaptive Quality\ta"),
                     radio(kCmdLowQuality, "Low Quality\tl"),
                     radio(kCmdMediumQuality, "Medium Quality\tm"),
                     radio(kCmdHighQuality, "High Quality\th"),
                 }});
  bar.push_back({"&View",
                 {
                     normal(kCmdUpAxis, upAxis.label, upAxis.help),
                     check(kCmdShowAxis, "Show Axis\tx"),
                     separator(),
                     normal(kCmdViewFromFile, "From file"),
                     normal(kCmdViewCenter, "Center\tc"),
                     normal(kCmdViewReset, "Reset\t1"),
                     normal(kCmdViewFront, "Front\t2"),
                     normal(kCmdViewBack, "Back\t3"),
                     normal(kCmdViewLeft, "Left\t4"),
                     normal(kCmdViewRight, "Right\t5"),
                     normal(kCmdViewTop, "Top\t6"),
                     normal(kCmdViewBottom, "Bottom\t7"),
                 }});
  MenuSpec selection{
      "&Selection",
      {
          check(kCmdActivateSelection, "Activate Selection\ts"),
          submenu(kCmdSelectionModeMenu, "Selection Mode"),
          radio(kCmdSelectRectangle, "Rectangle\tr"),
          radio(kCmdSelectPaint, "Paint\tt"),
          endSubmenu(),
          check(kCmdSimilarNormals, "Only with similar normals",
                "Select only samples with normals similar to the average normal "
                "of the selected samples"),
          separator(),
          normal(kCmdSelectionColour, "Color", "Choose a color for the selecttion"),
          check(kCmdXorRectangle, "XOR Rectangle", "Use xor selection rectangle"),
          separator(),
          radio(kCmdDepthVisible, "Visible\tv",
                "Select only the visible samples (fastest when using display lists)"),
          radio(kCmdDepthFull, "Full Depth\td", "Selection will use the full scene depth"),
          radio(kCmdDepthSpecified, "Specified Depth\tShift-d", "Specify the selection depth"),
      }};
  selection.entries.push_back(normal(kCmdDepthDisplay, "", "Displays the current selection depth"));
  selection.entries.back().label = selectionDepthLabel(settings.selection.specifiedDepth);
  selection.entries.push_back(
      normal(kCmdDepthIncrease, "Iccrease Depth \tAlt Mouse Wheel", "Increase Selection Depth"));
  selection.entries.push_back(
      normal(kCmdDepthDecrease, "Decrease Depth \tAlt Mouse Wheel", "Decrease Selection Depth"));
  selection.entries.push_back(separator());
  selection.entries.push_back(
      normal(kCmdRadiusDisplay, "", "Displays the current selection radius"));
  selection.entries.back().label = selectionRadiusLabel(settings.selection.paintRadius);
  selection.entries.push_back(normal(kCmdRadiusIncrease, "Increase Radius \tMouse Wheel"));
  selection.entries.push_back(normal(kCmdRadiusDecrease, "Decrease Radius \tMouse Wheel"));
  selection.entries.push_back(separator());
  selection.entries.push_back(normal(kCmdClearSelection, "Clear Selection"));
  bar.push_back(std::move(selection));
  bar.push_back({"&Edit",
                 {
                     normal(kCmdUndo, "Undo\tCtrl+z"),
                     normal(kCmdRedo, "Redo\tCtrl+y"),
                     separator(),
                     normal(kCmdDeleteSelection, "Delete Selection\tdel"),
                 }});
  bar.push_back({"&Help", {normal(kCmdAbout, "&About", "Show about message")}});
  return bar;
}

KeyBinding keyBinding(const KeyInput& key) {
  const auto command = [](int id) { return KeyBinding{KeyAction::kCommand, id, false}; };
  switch (key.special) {
    case SpecialKey::kUp:
      return {KeyAction::kDollyForward, 0, key.shift};
    case SpecialKey::kDown:
      return {KeyAction::kDollyBackward, 0, key.shift};
    case SpecialKey::kDelete:
      return command(kCmdDeleteSelection);
    case SpecialKey::kKeypadPlus:
      return {KeyAction::kLodPlus, 0, false};
    case SpecialKey::kKeypadMinus:
      return {KeyAction::kLodMinus, 0, false};
    case SpecialKey::kNone:
      break;
  }
  if (key.alt) return {};
  char32_t c = key.character;
  if (key.ctrl) {
    if (c == U'z' || c == U'Z') return command(kCmdUndo);
    if (c == U'y' || c == U'Y') return command(kCmdRedo);
    return {};
  }
  switch (c) {
    case U'B':
      return {KeyAction::kDarker, 0, false};
    case U'b':
      return {KeyAction::kBrighter, 0, false};
    case U'+':
      return {KeyAction::kLodPlus, 0, false};
    case U'-':
      return {KeyAction::kLodMinus, 0, false};
    case U'D':
      return command(kCmdDepthSpecified);
    default:
      break;
  }
  // Other letters answer in either case, as the menu's accelerators do.
  if (c >= U'A' && c <= U'Z') c = c - U'A' + U'a';
  switch (c) {
    case U'o':
      return command(kCmdOpen);
    case U'p':
      return command(kCmdProperties);
    case U'f':
      return command(kCmdBackfaceCulling);
    case U'a':
      return command(kCmdAdaptiveQuality);
    case U'l':
      return command(kCmdLowQuality);
    case U'm':
      return command(kCmdMediumQuality);
    case U'h':
      return command(kCmdHighQuality);
    case U'u':
      return command(kCmdUpAxis);
    case U'x':
      return command(kCmdShowAxis);
    case U'c':
      return command(kCmdViewCenter);
    case U'1':
      return command(kCmdViewReset);
    case U'2':
      return command(kCmdViewFront);
    case U'3':
      return command(kCmdViewBack);
    case U'4':
      return command(kCmdViewLeft);
    case U'5':
      return command(kCmdViewRight);
    case U'6':
      return command(kCmdViewTop);
    case U'7':
      return command(kCmdViewBottom);
    case U's':
      return command(kCmdActivateSelection);
    case U'r':
      return command(kCmdSelectRectangle);
    case U't':
      return command(kCmdSelectPaint);
    case U'v':
      return command(kCmdDepthVisible);
    case U'd':
      return command(kCmdDepthFull);
    case U'i':
      return {KeyAction::kInspect, 0, false};
    default:
      return {};
  }
}

}  // namespace LUtils
