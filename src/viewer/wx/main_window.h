// CacheViewMainWindow: the viewer's frame with its menu bar, its one-field status bar and the
// canvas. It runs the menu commands (chosen in the menus or by key on the canvas) on the viewer
// scene and the process-wide maps.
#pragma once

#include <wx/frame.h>

#include <string>

#include "viewer/file_commands.h"
#include "viewer/viewer_commands.h"
#include "viewer/viewer_scene.h"

class CacheViewOpenGLCanvas;
class wxMenu;
class wxMenuEvent;

class CacheViewMainWindow final : public wxFrame {
 public:
  explicit CacheViewMainWindow(LUtils::ViewerScene& scene);

  CacheViewOpenGLCanvas* canvas() const { return canvas_; }

  // The open command: loads gMapFileName at start-up (the open-file dialog when it is empty), or
  // the file chosen in the dialog from the menu, in place of the maps in memory. False when the
  // dialog was cancelled or the file did not load; from the menu a failure is shown and the maps,
  // the file name and the title stay as they were.
  bool openMap(bool atStartup);
  // Opens `name` as the menu's open command does after its dialog (a file dropped on the window).
  bool openFile(const std::string& name);
  // Shows the maps in memory (gLightMap, else gIrradianceMap) on the canvas.
  void showMapsInMemory();
  // Checks and enables the menu items as the settings say.
  void syncMenus();
  // "Irradiance map viewer", followed by ": " and gMapFileName when there is one.
  void updateTitle();

  // A command by its identifier, as the menu runs it. From a key, check items toggle and radio
  // items become checked first; disabled items do nothing.
  void runCommandFromKey(int id);

 private:
  void buildMenuBar();
  void onMenu(wxCommandEvent& event);
  void onMenuOpen(wxMenuEvent& event);
  void onClose(wxCloseEvent& event);
  void runCommand(int id);
  bool checked(int id) const;
  void switchRasterizer(LUtils::RasterizerChoice choice);

  // The file dialog of a purpose. On confirmation the path goes into gMapFileName and the title;
  // false when cancelled.
  bool chooseFile(LUtils::FilePurpose purpose);
  // Loads `name` in place of the maps in memory; false (and nothing changed) when it does not
  // load.
  bool loadInPlace(const std::string& name);
  // The save command; false when cancelled or failed.
  bool saveMap();
  void addMap(bool incremental);
  void chooseSelectionColour();
  void editCommand(int id);
  // The Undo and Redo items' labels and enabled states, from the history.
  void refreshEditMenu();
  void showProperties();
  void showAbout();
  void updateSelectionLabels();
  void redraw();

  LUtils::ViewerScene& scene_;
  CacheViewOpenGLCanvas* canvas_ = nullptr;
  bool merging_ = false;
};
