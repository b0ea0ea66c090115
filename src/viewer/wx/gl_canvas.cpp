// The canvas: wx events to navigation and drawing calls, and the frame on the screen.
#include "viewer/wx/gl_canvas.h"

#include <wx/bitmap.h>
#include <wx/dcclient.h>
#include <wx/image.h>
#include <wx/utils.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "app/process_state.h"
#include "render/gl/rasterizer_gl.h"
#include "render/rasterizer_sw.h"
#include "render/sample_drawing.h"

namespace {

constexpr long kStyle = wxWANTS_CHARS | wxFULL_REPAINT_ON_RESIZE;

// Double-buffered RGBA with a depth buffer.
wxGLAttributes windowAttributes() {
  wxGLAttributes attributes;
  attributes.PlatformDefaults().RGBA().DoubleBuffer().Depth(24).EndList();
  return attributes;
}

// After the last camera step, the time until the whole map is drawn again.
constexpr int kSettleMs = 150;

LUtils::MouseInput mouseInput(const wxMouseEvent& e) {
  LUtils::MouseInput in;
  in.x = e.GetX();
  in.y = e.GetY();
  in.left = e.LeftIsDown();
  in.middle = e.MiddleIsDown();
  in.right = e.RightIsDown();
  in.ctrl = e.ControlDown();
  in.shift = e.ShiftDown();
  in.alt = e.AltDown();
  return in;
}

LUtils::SpecialKey specialKey(int code) {
  switch (code) {
    case WXK_UP:
    case WXK_NUMPAD_UP:
      return LUtils::SpecialKey::kUp;
    case WXK_DOWN:
    case WXK_NUMPAD_DOWN:
      return LUtils::SpecialKey::kDown;
    case WXK_DELETE:
    case WXK_NUMPAD_DELETE:
      return LUtils::SpecialKey::kDelete;
    case WXK_NUMPAD_ADD:
      return LUtils::SpecialKey::kKeypadPlus;
    case WXK_NUMPAD_SUBTRACT:
      return LUtils::SpecialKey::kKeypadMinus;
    default:
      return LUtils::SpecialKey::kNone;
  }
}

}  // namespace

CacheViewOpenGLCanvas::CacheViewOpenGLCanvas(wxWindow* parent, LUtils::ViewerScene& scene,
                                             Host host)
    : wxGLCanvas(parent, windowAttributes(), wxID_ANY, wxDefaultPosition, wxDefaultSize, kStyle),
      scene_(scene),
      host_(std::move(host)),
      settleTimer_(this) {
  if (GetHandle() == nullptr) {
    // The display has no such visual (no GLX at all, for one): the same window without OpenGL,
    // which the software rasterizer draws into. The failed OpenGL set-up marked the window as one
    // that paints itself; it is made an ordinary one, painted on exposure, before it is created.
    m_noExpose = false;
    m_nativeSizeEvent = false;
    wxWindow::Create(parent, wxID_ANY, wxDefaultPosition, wxDefaultSize, kStyle);
  } else {
    context_ = std::make_unique<wxGLContext>(this);
    if (!context_->IsOK()) context_.reset();
  }
  SetBackgroundStyle(wxBG_STYLE_PAINT);
  scene_.settings.openGLAvailable = context_ != nullptr;
  if (!scene_.settings.openGLAvailable) {
    scene_.settings.useOpenGL = false;
    std::printf("OpenGL is not available here; using the software renderer\n");
    std::fflush(stdout);
  }

  Bind(wxEVT_PAINT, &CacheViewOpenGLCanvas::onPaint, this);
  Bind(wxEVT_SIZE, &CacheViewOpenGLCanvas::onSize, this);
  Bind(wxEVT_KEY_DOWN, &CacheViewOpenGLCanvas::onKeyDown, this);
  Bind(wxEVT_CHAR, &CacheViewOpenGLCanvas::onChar, this);
  for (const auto type : {wxEVT_LEFT_DOWN, wxEVT_LEFT_UP, wxEVT_MIDDLE_DOWN, wxEVT_MIDDLE_UP,
                          wxEVT_RIGHT_DOWN, wxEVT_RIGHT_UP, wxEVT_MOTION}) {
    Bind(type, &CacheViewOpenGLCanvas::onMouse, this);
  }
  Bind(wxEVT_MOUSEWHEEL, &CacheViewOpenGLCanvas::onWheel, this);
  Bind(wxEVT_MOUSE_CAPTURE_LOST, &CacheViewOpenGLCanvas::onCaptureLost, this);
  Bind(wxEVT_TIMER, &CacheViewOpenGLCanvas::onSettled, this, settleTimer_.GetId());
}

CacheViewOpenGLCanvas::~CacheViewOpenGLCanvas() {
  settleTimer_.Stop();
  if (HasCapture()) ReleaseMouse();
  releaseRasterizer();
}

void CacheViewOpenGLCanvas::releaseRasterizer() {
  // The compiled geometry lives in the context: drop it while the context can be made current.
  if (context_ && gl_ != nullptr && IsShownOnScreen()) SetCurrent(*context_);
  scene_.cache.setRasterizer(nullptr);
}

void CacheViewOpenGLCanvas::createRasterizer() {
  const float farDistance = gRasterizer != nullptr ? gRasterizer->farDistance() : -1.0f;
  releaseRasterizer();
  delete gRasterizer;
  gRasterizer = nullptr;
  gl_ = nullptr;
  sw_ = nullptr;
  if (scene_.settings.useOpenGL && context_) {
    gl_ = new LUtils::RasterizerGL();
    gl_->useWindowContext();
    gRasterizer = gl_;
  } else {
    sw_ = new LUtils::RasterizerSW();
    const unsigned processors = std::max(1u, std::thread::hardware_concurrency());
    sw_->setReplayThreads(scene_.settings.softwareMultiThreaded ? processors : 1u);
    gRasterizer = sw_;
  }
  // The new rasterizer takes the canvas size at its first paint.
  scene_.attachRasterizer(gRasterizer, farDistance);
}

void CacheViewOpenGLCanvas::noteMotion() {
  moving_ = true;
  settleTimer_.StartOnce(kSettleMs);
}

void CacheViewOpenGLCanvas::onSettled(wxTimerEvent&) {
  moving_ = false;
  if (lastStride_ > 1) Refresh(false);
}

// --- painting

void CacheViewOpenGLCanvas::onPaint(wxPaintEvent&) {
  wxPaintDC dc(this);
  if (gRasterizer == nullptr) return;
  const wxSize size = GetClientSize();
  const int width = std::max(size.x, 1);
  const int height = std::max(size.y, 1);

  LUtils::DrawView& view = scene_.view;
  view.sampleStride = moving_ ? LUtils::movingSampleStride(lastFullFrameMs_) : 1u;
  const auto start = std::chrono::steady_clock::now();
  if (gl_ != nullptr) {
    // A context that cannot be made current yet keeps the size for the next paint.
    if (!context_ || !SetCurrent(*context_)) return;
    if (gl_->viewportWidth() != width || gl_->viewportHeight() != height) {
      gl_->setViewportSize(width, height);
    }
    LUtils::drawFrame(*gl_, scene_.drawScene());
    SwapBuffers();
  } else {
    if (sw_->width() != width || sw_->height() != height) sw_->resize(width, height);
    LUtils::drawFrame(*sw_, scene_.drawScene());
    paintSoftwarePicture(dc);
  }
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  lastStride_ = view.sampleStride;
  if (lastStride_ == 1) lastFullFrameMs_ = ms;

  const LUtils::SampleEdits& edits = scene_.edits;
  host_.showStatus(wxString::FromUTF8(LUtils::frameStatusText(
      LUtils::drawnSampleCount(scene_.sampleCount(), edits.deletedBits(), lastStride_),
      edits.deletedBits().countSet(), edits.selectedBits().countSet(), ms)));
}

void CacheViewOpenGLCanvas::paintSoftwarePicture(wxDC& dc) {
  const int width = sw_->width();
  const int height = sw_->height();
  if (width <= 0 || height <= 0) return;
  wxImage image(width, height, false);
  unsigned char* rgb = image.GetData();
  const uint32_t* pixels = sw_->picture();
  const size_t count = static_cast<size_t>(width) * static_cast<size_t>(height);
  // 0xAABBGGRR: red in the lowest byte.
  for (size_t i = 0; i < count; ++i) {
    const uint32_t p = pixels[i];
    rgb[3 * i] = static_cast<unsigned char>(p & 0xFFu);
    rgb[3 * i + 1] = static_cast<unsigned char>((p >> 8) & 0xFFu);
    rgb[3 * i + 2] = static_cast<unsigned char>((p >> 16) & 0xFFu);
  }
  dc.DrawBitmap(wxBitmap(image), 0, 0, false);
}

void CacheViewOpenGLCanvas::onSize(wxSizeEvent& event) {
  const wxSize size = GetClientSize();
  scene_.navigation.setCanvasSize(size.x, size.y);
  Refresh(false);
  event.Skip();
}

// --- keys

bool CacheViewOpenGLCanvas::handleKey(const LUtils::KeyInput& key) {
  const LUtils::KeyBinding binding = LUtils::keyBinding(key);
  switch (binding.action) {
    case LUtils::KeyAction::kNone:
      return false;
    case LUtils::KeyAction::kCommand:
      host_.runCommand(binding.command);
      return true;
    case LUtils::KeyAction::kBrighter:
    case LUtils::KeyAction::kDarker:
      LUtils::brightnessKey(binding.action == LUtils::KeyAction::kDarker, scene_.options);
      break;
    case LUtils::KeyAction::kLodPlus:
    case LUtils::KeyAction::kLodMinus:
      LUtils::lodKey(binding.action == LUtils::KeyAction::kLodPlus, scene_.options);
      break;
    case LUtils::KeyAction::kDollyForward:
    case LUtils::KeyAction::kDollyBackward:
      scene_.navigation.dolly(binding.action == LUtils::KeyAction::kDollyForward, binding.fast);
      noteMotion();
      break;
  }
  Refresh(false);
  return true;
}

void CacheViewOpenGLCanvas::onKeyDown(wxKeyEvent& event) {
  LUtils::KeyInput key;
  key.shift = event.ShiftDown();
  key.ctrl = event.ControlDown();
  key.alt = event.AltDown();
  key.special = specialKey(event.GetKeyCode());
  if (key.special == LUtils::SpecialKey::kNone) {
    // Ctrl+letter: the character event would carry a control code, so take the key here.
    const int code = event.GetKeyCode();
    if (!key.ctrl || code < 'A' || code > 'Z') {
      event.Skip();  // the character event follows
      return;
    }
    key.character = static_cast<char32_t>(code);
  }
  if (!handleKey(key)) event.Skip();
}

void CacheViewOpenGLCanvas::onChar(wxKeyEvent& event) {
  const wxChar c = event.GetUnicodeKey();
  LUtils::KeyInput key;
  key.character = static_cast<char32_t>(c);
  key.shift = event.ShiftDown();
  key.ctrl = event.ControlDown();
  key.alt = event.AltDown();
  if (c == WXK_NONE || !handleKey(key)) event.Skip();
}

// --- mouse

void CacheViewOpenGLCanvas::onMouse(wxMouseEvent& event) {
  LUtils::Navigation& nav = scene_.navigation;
  const LUtils::MouseInput in = mouseInput(event);
  const wxEventType type = event.GetEventType();
  LUtils::MouseResult result = LUtils::MouseResult::kNone;
  if (type == wxEVT_LEFT_DOWN || type == wxEVT_MIDDLE_DOWN || type == wxEVT_RIGHT_DOWN) {
    SetFocus();
    const LUtils::MouseButton button = type == wxEVT_LEFT_DOWN     ? LUtils::MouseButton::kLeft
                                       : type == wxEVT_MIDDLE_DOWN ? LUtils::MouseButton::kMiddle
                                                                   : LUtils::MouseButton::kRight;
    result = nav.buttonDown(button, in);
    if (nav.dragMode() != LUtils::DragMode::kNone && !HasCapture()) CaptureMouse();
  } else if (type == wxEVT_LEFT_UP || type == wxEVT_MIDDLE_UP || type == wxEVT_RIGHT_UP) {
    const LUtils::MouseButton button = type == wxEVT_LEFT_UP     ? LUtils::MouseButton::kLeft
                                       : type == wxEVT_MIDDLE_UP ? LUtils::MouseButton::kMiddle
                                                                 : LUtils::MouseButton::kRight;
    result = nav.buttonUp(button, in);
    if (nav.dragMode() == LUtils::DragMode::kNone && HasCapture()) ReleaseMouse();
  } else if (type == wxEVT_MOTION) {
    result = nav.motion(in);
  }

  switch (result) {
    case LUtils::MouseResult::kRepaint: {
      noteMotion();
      Refresh(false);
      // Past the screen's edge the cursor jumps to the other side and the drag goes on.
      const wxPoint screen = ClientToScreen(event.GetPosition());
      const wxSize display = wxGetDisplaySize();
      if (const auto to = nav.wrapCursor({screen.x, screen.y}, display.x, display.y)) {
        const wxPoint client = ScreenToClient(wxPoint(to->x, to->y));
        WarpPointer(client.x, client.y);
      }
      break;
    }
    case LUtils::MouseResult::kStartRectangle:
    case LUtils::MouseResult::kStartRectangleAfterClearing:
    case LUtils::MouseResult::kStartPaint:
      // Selecting samples is not part of this build: end the gesture and say so.
      nav.buttonUp(LUtils::MouseButton::kLeft, in);
      if (HasCapture()) ReleaseMouse();
      CallAfter([this] { host_.selectionNotInBuild(); });
      break;
    default:
      break;
  }
}

void CacheViewOpenGLCanvas::onWheel(wxMouseEvent& event) {
  const int delta = event.GetWheelDelta();
  const int steps = delta != 0 ? event.GetWheelRotation() / delta : 0;
  if (steps == 0) return;
  LUtils::SelectionSettings& selection = scene_.settings.selection;
  if (event.AltDown()) {
    if (!scene_.settings.useOpenGL || selection.depthMode != 1) return;
    for (int i = 0; i < std::abs(steps); ++i) LUtils::adjustSelectionDepth(selection, steps > 0);
    host_.showStatus(wxString::FromUTF8(LUtils::selectionDepthLabel(selection.specifiedDepth)));
  } else if (selection.paint) {
    const wxSize size = GetClientSize();
    LUtils::wheelPaintRadius(selection, steps, size.x, size.y);
    host_.showStatus(wxString::FromUTF8(LUtils::selectionRadiusLabel(selection.paintRadius)));
  } else {
    return;
  }
  host_.selectionSettingsChanged();
}

void CacheViewOpenGLCanvas::endDrags() {
  LUtils::Navigation& nav = scene_.navigation;
  const LUtils::MouseInput none;
  for (const auto button :
       {LUtils::MouseButton::kLeft, LUtils::MouseButton::kMiddle, LUtils::MouseButton::kRight}) {
    nav.buttonUp(button, none);
  }
}

void CacheViewOpenGLCanvas::onCaptureLost(wxMouseCaptureLostEvent&) {
  endDrags();
}
