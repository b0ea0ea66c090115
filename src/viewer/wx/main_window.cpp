// The main window: menu bar, status bar, the commands and the open command.
#include "viewer/wx/main_window.h"

#include <dlfcn.h>
#include <wx/colordlg.h>
#include <wx/dnd.h>
#include <wx/evtloop.h>
#include <wx/filedlg.h>
#include <wx/menu.h>
#include <wx/msgdlg.h>
#include <wx/thread.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "app/map_files.h"
#include "app/map_report.h"
#include "app/process_state.h"
#include "cacheview_version.h"
#include "irradiance/def_irradiance_map.h"
#include "lightcache/light_map.h"
#include "threads/debug_trace.h"
#include "viewer/wx/gl_canvas.h"

namespace {

const char kTitle[] = "Irradiance map viewer";

// A map file dropped on the window opens as with the open command.
class MapDropTarget final : public wxFileDropTarget {
 public:
  explicit MapDropTarget(CacheViewMainWindow& window) : window_(window) {}
  bool OnDropFiles(wxCoord, wxCoord, const wxArrayString& files) override {
    if (files.empty()) return false;
    // Opened once the drop has finished, not inside the toolkit's drag-and-drop handling.
    window_.CallAfter([w = &window_, name = files[0].utf8_string()] { w->openFile(name); });
    return true;
  }

 private:
  CacheViewMainWindow& window_;
};

// A menu label for the debug trace, with its tab written out.
std::string traceLabel(std::string label) {
  const size_t tab = label.find('\t');
  if (tab != std::string::npos) label.replace(tab, 1, "\\t");
  return label;
}

// GTK gives the exit item, whose identifier is the toolkit's stock one, the stock accelerator
// Ctrl+Q, which "&Exit" does not have. One GTK call takes it off; it is looked up in the GTK the
// toolkit has loaded, so that the build needs no GTK headers.
void removeStockExitAccelerator(wxMenu& menu, wxMenuItem& item) {
  void* gtk = dlopen("libgtk-3.so.0", RTLD_LAZY | RTLD_NOLOAD);
  if (gtk == nullptr) return;
  using RemoveAccelerator = int (*)(void* widget, void* group, unsigned key, unsigned modifiers);
  if (auto* remove =
          reinterpret_cast<RemoveAccelerator>(dlsym(gtk, "gtk_widget_remove_accelerator"))) {
    constexpr unsigned kKeyQ = 0x071;           // GDK_KEY_q
    constexpr unsigned kControlMask = 1u << 2;  // GDK_CONTROL_MASK
    remove(item.GetMenuItem(), menu.m_accel, kKeyQ, kControlMask);
  }
  dlclose(gtk);
}

}  // namespace

CacheViewMainWindow::CacheViewMainWindow(LUtils::ViewerScene& scene)
    : wxFrame(nullptr, wxID_ANY, kTitle), scene_(scene) {
  buildMenuBar();
  CreateStatusBar(1);
  CacheViewOpenGLCanvas::Host host;
  host.runCommand = [this](int id) { runCommandFromKey(id); };
  host.showStatus = [this](const wxString& text) { SetStatusText(text); };
  host.selectionSettingsChanged = [this] { updateSelectionLabels(); };
  canvas_ = new CacheViewOpenGLCanvas(this, scene_, std::move(host));
  SetClientSize(800, 600);
  canvas_->createRasterizer();
  Bind(wxEVT_MENU, &CacheViewMainWindow::onMenu, this);
  Bind(wxEVT_MENU_OPEN, &CacheViewMainWindow::onMenuOpen, this);
  Bind(wxEVT_CLOSE_WINDOW, &CacheViewMainWindow::onClose, this);
  SetDropTarget(new MapDropTarget(*this));
  canvas_->SetDropTarget(new MapDropTarget(*this));
}

void CacheViewMainWindow::buildMenuBar() {
  auto* bar = new wxMenuBar();
  const std::vector<LUtils::MenuSpec> menus =
      LUtils::menuBar(scene_.navigation.upAxisMenuText(), scene_.settings);
  for (const LUtils::MenuSpec& menuSpec : menus) {
    auto* top = new wxMenu();
    wxMenu* menu = top;
    wxMenu* submenu = nullptr;
    const LUtils::MenuEntry* submenuEntry = nullptr;
    for (const LUtils::MenuEntry& entry : menuSpec.entries) {
      const wxString label = wxString::FromUTF8(entry.label);
      const wxString help = wxString::FromUTF8(entry.help);
      switch (entry.kind) {
        case LUtils::MenuItemKind::kNormal: {
          wxMenuItem* item = menu->Append(entry.id, label, help);
          if (entry.id == wxID_EXIT) removeStockExitAccelerator(*menu, *item);
          break;
        }
        case LUtils::MenuItemKind::kCheck:
          menu->AppendCheckItem(entry.id, label, help);
          break;
        case LUtils::MenuItemKind::kRadio:
          menu->AppendRadioItem(entry.id, label, help);
          break;
        case LUtils::MenuItemKind::kSeparator:
          menu->AppendSeparator();
          break;
        case LUtils::MenuItemKind::kSubmenu:
          submenu = new wxMenu();
          submenuEntry = &entry;
          menu = submenu;
          break;
        case LUtils::MenuItemKind::kEndSubmenu:
          top->Append(submenuEntry->id, wxString::FromUTF8(submenuEntry->label), submenu);
          menu = top;
          submenu = nullptr;
          break;
      }
    }
    bar->Append(top, wxString::FromUTF8(menuSpec.title));
  }
  SetMenuBar(bar);
}

bool CacheViewMainWindow::checked(int id) const {
  const wxMenuItem* item = GetMenuBar()->FindItem(id);
  return item != nullptr && item->IsChecked();
}

void CacheViewMainWindow::syncMenus() {
  wxMenuBar* bar = GetMenuBar();
  for (const LUtils::MenuItemState& state :
       LUtils::menuItemStates(scene_.settings, scene_.options)) {
    wxMenuItem* item = bar->FindItem(state.id);
    if (item == nullptr) continue;
    // A radio item is unchecked by checking another of its group.
    if (state.checkable && (item->IsCheck() || state.checked)) item->Check(state.checked);
    item->Enable(state.enabled);
  }
  updateSelectionLabels();
  refreshEditMenu();
}

void CacheViewMainWindow::refreshEditMenu() {
  const LUtils::EditHistory& history = scene_.history;
  std::string undo;
  try {
    undo = history.undoLabel();
  } catch (const std::out_of_range&) {
    // Everything is undone: the history has no edit at its position. The item keeps its plain
    // label and stays enabled; choosing it does nothing (see editCommand).
    undo = "Undo \tCtrl+z";
  }
  const std::string redo = history.redoLabel();
  wxMenuBar* bar = GetMenuBar();
  bar->SetLabel(LUtils::kCmdUndo, wxString::FromUTF8(undo));
  bar->Enable(LUtils::kCmdUndo, history.canUndo());
  bar->SetLabel(LUtils::kCmdRedo, wxString::FromUTF8(redo));
  bar->Enable(LUtils::kCmdRedo, history.canRedo());
  LUtils::debugTrace("edit menu: \"%s\" %s, \"%s\" %s\n", traceLabel(undo).c_str(),
                     history.canUndo() ? "enabled" : "disabled", traceLabel(redo).c_str(),
                     history.canRedo() ? "enabled" : "disabled");
}

void CacheViewMainWindow::onMenuOpen(wxMenuEvent& event) {
  refreshEditMenu();
  event.Skip();
}

void CacheViewMainWindow::updateSelectionLabels() {
  wxMenuBar* bar = GetMenuBar();
  const LUtils::SelectionSettings& s = scene_.settings.selection;
  bar->SetLabel(LUtils::kCmdDepthDisplay,
                wxString::FromUTF8(LUtils::selectionDepthLabel(s.specifiedDepth)));
  bar->SetLabel(LUtils::kCmdRadiusDisplay,
                wxString::FromUTF8(LUtils::selectionRadiusLabel(s.paintRadius)));
}

void CacheViewMainWindow::updateTitle() {
  if (gMapFileName[0] == '\0') {
    SetTitle(kTitle);
  } else {
    SetTitle(wxString(kTitle) + ": " + wxString::FromUTF8(gMapFileName));
  }
}

void CacheViewMainWindow::redraw() {
  canvas_->Refresh(false);
}

void CacheViewMainWindow::onClose(wxCloseEvent& event) {
  if (canvas_->drawingFrame()) {
    // The software frame being drawn reads the scene: the window is asked again after it.
    const bool force = !event.CanVeto();
    if (!force) event.Veto();
    canvas_->afterFrame([this, force] { Close(force); });
    return;
  }
  if (event.CanVeto()) {
    if (merging_) {
      event.Veto();
      return;
    }
    if (scene_.history.modified()) {
      const int answer = wxMessageBox("The map has deleted samples that are not saved. Save it?",
                                      kTitle, wxYES_NO | wxCANCEL | wxICON_QUESTION, this);
      if (answer == wxCANCEL || (answer == wxYES && !saveMap())) {
        event.Veto();
        return;
      }
    }
  }
  canvas_->releaseRasterizer();
  Destroy();
}

// --- maps

void CacheViewMainWindow::showMapsInMemory() {
  scene_.show({gIrradianceMap, gLightMap}, gRasterizer);
  redraw();
}

bool CacheViewMainWindow::chooseFile(LUtils::FilePurpose purpose) {
  const LUtils::FileDialogSpec dialog = LUtils::fileDialogSpec(purpose, gLightMap != nullptr);
  const long style = dialog.save ? wxFD_SAVE : wxFD_OPEN | wxFD_FILE_MUST_EXIST;
  const wxString chosen = wxFileSelector(dialog.title, wxEmptyString, wxEmptyString,
                                         LUtils::kDefaultMapExtension, dialog.filter, style, this);
  if (chosen.empty()) return false;
  setMapFileName(chosen.utf8_string().c_str());
  updateTitle();
  return true;
}

bool CacheViewMainWindow::loadInPlace(const std::string& name) {
  LUtils::IrradianceMap* irradiance = nullptr;
  LightMap* light = nullptr;
  if (loadMapFile(name.c_str(), irradiance, light) != 0) return false;
  if (irradiance == nullptr) {
    // A light cache is shown; the irradiance map in memory becomes an empty one.
    irradiance = LUtils::newIrradianceMap();
    irradiance->setHeader(LUtils::viewerReferenceSettings());
  }
  LUtils::prepareUnderReferenceSettings(*irradiance);

  LUtils::IrradianceMap* oldIrradiance = gIrradianceMap;
  LightMap* oldLight = gLightMap;
  gIrradianceMap = irradiance;
  gLightMap = light;
  // The scene lets go of the old maps before they are deleted; it starts without edits.
  showMapsInMemory();
  LUtils::deleteIrradianceMap(oldIrradiance);
  delete oldLight;
  refreshEditMenu();
  return true;
}

bool CacheViewMainWindow::openMap(bool atStartup) {
  const std::string previous = gMapFileName;
  if (!atStartup || previous.empty()) {
    if (!chooseFile(LUtils::FilePurpose::kOpen)) return false;
  }
  if (!loadInPlace(gMapFileName)) {
    setMapFileName(previous.c_str());
    updateTitle();
    if (!atStartup) wxMessageBox("Unrecognized map format.", kTitle, wxOK, this);
    return false;
  }
  updateTitle();
  return true;
}

bool CacheViewMainWindow::openFile(const std::string& name) {
  if (merging_) return false;
  if (!loadInPlace(name)) {
    wxMessageBox("Unrecognized map format.", kTitle, wxOK, this);
    return false;
  }
  setMapFileName(name.c_str());
  updateTitle();
  return true;
}

bool CacheViewMainWindow::saveMap() {
  const std::string previous = gMapFileName;
  if (!chooseFile(LUtils::FilePurpose::kSave)) return false;
  if (LUtils::saveMapInMemory(gMapFileName, scene_.edits.deletedBits(), scene_.sampleCount()) !=
      0) {
    setMapFileName(previous.c_str());
    updateTitle();
    wxMessageBox("Error saving file.", kTitle, wxOK, this);
    return false;
  }
  scene_.history.setModified(false);
  return true;
}

void CacheViewMainWindow::addMap(bool incremental) {
  const std::string previous = gMapFileName;
  if (!chooseFile(LUtils::FilePurpose::kAdd)) return;
  // The status bar shows the console's percentage, and the window keeps painting while the merge
  // runs: only paint and size events are let through (never input, which could start another
  // command), at most every 50 ms, and never from a merge's worker thread.
  auto lastPump = std::chrono::steady_clock::now();
  LUtils::MergeProgress progress([this, &lastPump](const char* title, int percent) {
    if (!wxThread::IsMain()) return;
    const auto now = std::chrono::steady_clock::now();
    if (percent < 100 && now - lastPump < std::chrono::milliseconds(50)) return;
    lastPump = now;
    wxEventLoopBase* loop = wxEventLoopBase::GetActive();
    if (loop != nullptr && !loop->IsYielding()) loop->YieldFor(wxEVT_CATEGORY_UI);
    SetStatusText(wxString::Format("%s %d%%", wxString::FromUTF8(title), percent));
  });
  merging_ = true;
  const LUtils::AddResult result =
      LUtils::addMapFile(gMapFileName, incremental, scene_.edits.deletedBits(), progress, stdout,
                         [this] { scene_.follow({gIrradianceMap, gLightMap}); });
  merging_ = false;
  if (result != LUtils::AddResult::kAdded) {
    setMapFileName(previous.c_str());
    updateTitle();
    if (result == LUtils::AddResult::kIrradianceLoadFailed) {
      wxMessageBox("Unrecognized irradiance map format.", kTitle, wxOK, this);
    }
    return;
  }
  // The merged map is shown afresh: default or stored view, no edits, an empty history.
  showMapsInMemory();
  refreshEditMenu();
}

void CacheViewMainWindow::chooseSelectionColour() {
  const LUtils::Color& now = scene_.options.selectionColour();
  wxColourData data;
  data.SetColour(wxColour(static_cast<unsigned char>(std::min(255.0f, now.r * 256.0f)),
                          static_cast<unsigned char>(std::min(255.0f, now.g * 256.0f)),
                          static_cast<unsigned char>(std::min(255.0f, now.b * 256.0f))));
  wxColourDialog dialog(this, &data);
  if (dialog.ShowModal() != wxID_OK) return;
  const wxColour c = dialog.GetColourData().GetColour();
  // Components are stored as 0..255 times 1/256: white becomes 0.99609375.
  constexpr float kScale = 0.00390625f;
  scene_.options.setSelectionColour({c.Red() * kScale, c.Green() * kScale, c.Blue() * kScale});
  redraw();
}

void CacheViewMainWindow::editCommand(int id) {
  LUtils::EditHistory& history = scene_.history;
  switch (id) {
    case LUtils::kCmdDeleteSelection:
      history.deleteSelection(scene_.edits, scene_.sampleCount());
      break;
    case LUtils::kCmdUndo:
      try {
        history.undo();
      } catch (const std::out_of_range&) {
        // Once every edit is undone the history has no edit at its position and says so with
        // out_of_range. To the user, Undo then simply does nothing.
      }
      break;
    case LUtils::kCmdRedo:
      history.redo();
      break;
    default:
      return;
  }
  // Deleting and restoring samples drops the compiled geometry by itself (the cache listens).
  refreshEditMenu();
  redraw();
}

// --- commands

void CacheViewMainWindow::onMenu(wxCommandEvent& event) {
  // A command may replace what a software frame being drawn reads: it waits for the frame.
  canvas_->afterFrame([this, id = event.GetId()] { runCommand(id); });
}

void CacheViewMainWindow::runCommandFromKey(int id) {
  wxMenuItem* item = GetMenuBar()->FindItem(id);
  if (item == nullptr || !item->IsEnabled()) return;
  if (item->IsCheck()) {
    item->Check(!item->IsChecked());
  } else if (item->IsRadio()) {
    item->Check(true);
  }
  runCommand(id);
}

void CacheViewMainWindow::runCommand(int id) {
  using namespace LUtils;
  // A command chosen while a merge lets the window paint waits for the merge to end.
  if (merging_) return;
  Navigation& nav = scene_.navigation;
  DrawOptions& options = scene_.options;
  SelectionSettings& selection = scene_.settings.selection;
  switch (id) {
    case kCmdOpen:
      openMap(false);
      return;
    case kCmdSave:
      saveMap();
      return;
    case kCmdAdd:
    case kCmdIncrementalAdd:
      addMap(id == kCmdIncrementalAdd);
      return;
    case kCmdProperties:
      showProperties();
      return;
    case kCmdExit:
      Close(false);  // asks about unsaved deletions, as closing the window does
      return;
    case kCmdAbout:
      showAbout();
      return;

    case kCmdOpenGL:
      switchRasterizer(RasterizerChoice::kOpenGL);
      return;
    case kCmdSoftware:
      switchRasterizer(RasterizerChoice::kSoftware);
      return;
    case kCmdMultiThreadedSoftware:
      switchRasterizer(RasterizerChoice::kMultiThreadedSoftware);
      return;
    // The options tell the compiled geometry themselves when it is out of date.
    case kCmdBackfaceCulling:
      options.setBackfaceCulling(checked(id));
      break;
    case kCmdDisplayLists:
      options.setUseDisplayLists(checked(id));
      break;
    case kCmdAdaptiveQuality:
      options.setAdaptiveQuality(checked(id));
      break;
    case kCmdLowQuality:
      options.setSegmentsPerDisc(6);
      break;
    case kCmdMediumQuality:
      options.setSegmentsPerDisc(10);
      break;
    case kCmdHighQuality:
      options.setSegmentsPerDisc(16);
      break;
    case kCmdShowAxis:
      options.setShowAxis(checked(id));
      break;

    case kCmdUpAxis: {
      const UpAxisMenuText& text = nav.toggleUpAxis();
      gYUp = nav.yUp() ? 1 : 0;
      gWorldUp = gViewUp = nav.worldUp();
      wxMenuItem* item = GetMenuBar()->FindItem(id);
      item->SetItemLabel(wxString::FromUTF8(text.label));
      item->SetHelp(wxString::FromUTF8(text.help));
      break;
    }
    case kCmdViewFromFile:
      nav.fromFile(scene_.storedView());
      break;
    case kCmdViewCenter:
      nav.center();
      break;
    case kCmdViewReset:
      nav.reset();
      break;
    case kCmdViewFront:
      nav.showView(StandardView::kFront);
      break;
    case kCmdViewBack:
      nav.showView(StandardView::kBack);
      break;
    case kCmdViewLeft:
      nav.showView(StandardView::kLeft);
      break;
    case kCmdViewRight:
      nav.showView(StandardView::kRight);
      break;
    case kCmdViewTop:
      nav.showView(StandardView::kTop);
      break;
    case kCmdViewBottom:
      nav.showView(StandardView::kBottom);
      break;

    case kCmdActivateSelection:
    case kCmdSelectRectangle:
    case kCmdSelectPaint:
      selection.activated = checked(kCmdActivateSelection);
      selection.paint = checked(kCmdSelectPaint);
      nav.setSelectionTool(selection.activated,
                           selection.paint ? SelectionShape::kPaint : SelectionShape::kRectangle);
      return;
    case kCmdSimilarNormals:
      selection.similarNormals = checked(id);
      return;
    case kCmdXorRectangle:
      selection.xorRectangle = checked(id);
      return;
    case kCmdSelectionColour:
      chooseSelectionColour();
      return;
    case kCmdClearSelection:
      scene_.edits.clearSelection();
      break;
    case kCmdDeleteSelection:
    case kCmdUndo:
    case kCmdRedo:
      editCommand(id);
      return;
    case kCmdDepthVisible:
      selection.depthMode = 0;
      syncMenus();
      return;
    case kCmdDepthFull:
      selection.depthMode = 2;
      syncMenus();
      return;
    case kCmdDepthSpecified:
      selection.depthMode = 1;
      syncMenus();
      return;
    case kCmdDepthIncrease:
    case kCmdDepthDecrease:
      adjustSelectionDepth(selection, id == kCmdDepthIncrease);
      updateSelectionLabels();
      return;
    case kCmdRadiusIncrease:
    case kCmdRadiusDecrease: {
      const wxSize size = canvas_->GetClientSize();
      adjustPaintRadius(selection, id == kCmdRadiusIncrease, size.x, size.y);
      updateSelectionLabels();
      return;
    }
    default:  // the display items only show their values
      return;
  }
  redraw();
}

void CacheViewMainWindow::switchRasterizer(LUtils::RasterizerChoice choice) {
  const LUtils::RasterizerSwitch result = LUtils::chooseRasterizer(scene_.settings, choice);
  if (result.message != nullptr) {
    std::printf("%s", result.message);
    std::fflush(stdout);
  }
  if (result.recreate) {
    syncMenus();
    canvas_->createRasterizer();
    redraw();
  }
}

void CacheViewMainWindow::showProperties() {
  if (gLightMap != nullptr) {
    wxMessageBox(wxString::FromUTF8(lightCacheReport(static_cast<int>(gLightMap->sampleCount()))),
                 "Light cache properties", wxOK, this);
  } else {
    wxMessageBox(wxString::FromUTF8(irradianceMapReport(gIrradianceMap)),
                 "Irradiance map properties", wxOK, this);
  }
}

void CacheViewMainWindow::showAbout() {
  wxMessageBox("Irradiance map viewer version " CACHEVIEW_VERSION "\nLast updated " __DATE__,
               "About Irradiance map viewer", wxOK, this);
}
