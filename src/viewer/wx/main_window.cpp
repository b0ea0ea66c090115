// The main window: menu bar, status bar, the commands and the open command.
#include "viewer/wx/main_window.h"

#include <dlfcn.h>
#include <wx/filedlg.h>
#include <wx/menu.h>
#include <wx/msgdlg.h>

#include <cstdio>
#include <string>

#include "app/map_files.h"
#include "app/map_report.h"
#include "app/process_state.h"
#include "cacheview_version.h"
#include "irradiance/def_irradiance_map.h"
#include "lightcache/light_map.h"
#include "viewer/wx/gl_canvas.h"

namespace {

const char kTitle[] = "Irradiance map viewer";
const char kOpenTitle[] = "Choose irradiance or light cache file to load";
const char kAllCachesFilter[] =
    "All cache files(*.lumap, *.lulmap)|*.lumap;*.lulmap|Irradiance map (*.lumap)|*.lumap|"
    "Light cache (*.lulmap)|*.lulmap|All files(*.*)|*.*";

// Builds the irradiance map's index under the viewer's reference settings and gives it back its
// own settings.
void prepareForViewer(LUtils::IrradianceMap& map) {
  const IrradianceMapHeader own = *map.header();
  map.setHeader(LUtils::viewerReferenceSettings());
  map.prepare(LUtils::DefIrradianceMap::kPrepareAfterLoad);
  map.setHeader(own);
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
  host.selectionNotInBuild = [this] { notInBuild(); };
  host.selectionSettingsChanged = [this] { updateSelectionLabels(); };
  canvas_ = new CacheViewOpenGLCanvas(this, scene_, std::move(host));
  SetClientSize(800, 600);
  canvas_->createRasterizer();
  Bind(wxEVT_MENU, &CacheViewMainWindow::onMenu, this);
  Bind(wxEVT_CLOSE_WINDOW, &CacheViewMainWindow::onClose, this);
}

void CacheViewMainWindow::buildMenuBar() {
  auto* bar = new wxMenuBar();
  const std::vector<LUtils::MenuSpec> spec =
      LUtils::menuBar(scene_.navigation.upAxisMenuText(), scene_.settings);
  for (const LUtils::MenuSpec& menuSpec : spec) {
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

void CacheViewMainWindow::onClose(wxCloseEvent&) {
  canvas_->releaseRasterizer();
  Destroy();
}

// --- maps

void CacheViewMainWindow::showMapsInMemory() {
  scene_.show({gIrradianceMap, gLightMap}, gRasterizer);
  redraw();
}

bool CacheViewMainWindow::openMap(bool atStartup) {
  std::string name = atStartup ? gMapFileName : "";
  if (name.empty()) {
    const wxString chosen =
        wxFileSelector(kOpenTitle, wxEmptyString, wxEmptyString, "lumap", kAllCachesFilter,
                       wxFD_OPEN | wxFD_FILE_MUST_EXIST, this);
    if (chosen.empty()) return false;
    name = chosen.utf8_string();
  }

  LUtils::IrradianceMap* irradiance = nullptr;
  LightMap* light = nullptr;
  if (loadMapFile(name.c_str(), irradiance, light) != 0) {
    if (!atStartup) wxMessageBox("Unrecognized map format.", kTitle, wxOK, this);
    return false;
  }
  if (irradiance == nullptr) {
    // A light cache is shown; the irradiance map in memory becomes an empty one.
    irradiance = LUtils::newIrradianceMap();
    irradiance->setHeader(LUtils::viewerReferenceSettings());
  }
  prepareForViewer(*irradiance);

  LUtils::IrradianceMap* oldIrradiance = gIrradianceMap;
  LightMap* oldLight = gLightMap;
  gIrradianceMap = irradiance;
  gLightMap = light;
  setMapFileName(name.c_str());
  // The scene lets go of the old maps before they are deleted.
  showMapsInMemory();
  LUtils::deleteIrradianceMap(oldIrradiance);
  delete oldLight;
  updateTitle();
  return true;
}

// --- commands

void CacheViewMainWindow::onMenu(wxCommandEvent& event) {
  runCommand(event.GetId());
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

void CacheViewMainWindow::notInBuild() {
  wxMessageBox(LUtils::kNotInBuildMessage, kTitle, wxOK, this);
}

void CacheViewMainWindow::runCommand(int id) {
  using namespace LUtils;
  if (!commandInBuild(id)) {
    notInBuild();
    return;
  }
  Navigation& nav = scene_.navigation;
  DrawOptions& options = scene_.options;
  SelectionSettings& selection = scene_.settings.selection;
  switch (id) {
    case kCmdOpen:
      openMap(false);
      return;
    case kCmdProperties:
      showProperties();
      return;
    case kCmdExit:
      Close(true);
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
      selection.active = checked(kCmdActivateSelection);
      selection.paint = checked(kCmdSelectPaint);
      nav.setSelectionTool(selection.active,
                           selection.paint ? SelectionShape::kPaint : SelectionShape::kRectangle);
      return;
    case kCmdSimilarNormals:
      selection.similarNormals = checked(id);
      return;
    case kCmdXorRectangle:
      selection.xorRectangle = checked(id);
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
