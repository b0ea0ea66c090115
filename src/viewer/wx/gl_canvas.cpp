// The canvas: wx events to navigation and drawing calls, and the frame on the screen.
#include "viewer/wx/gl_canvas.h"

#include <GL/gl.h>
#include <wx/app.h>
#include <wx/dcclient.h>
#include <wx/evtloop.h>
#include <wx/image.h>
#include <wx/thread.h>
#include <wx/utils.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "app/process_state.h"
#include "render/gl/rasterizer_gl.h"
#include "render/rasterizer_sw.h"
#include "render/sample_drawing.h"
#include "viewer/wx/selection_tool.h"

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

// The software rasterizer's picture (0xAABBGGRR: red in the lowest byte) as a bitmap.
wxBitmap softwareBitmap(const LUtils::RasterizerSW& sw) {
  const int width = sw.width();
  const int height = sw.height();
  if (width <= 0 || height <= 0) return wxBitmap();
  wxImage image(width, height, false);
  unsigned char* rgb = image.GetData();
  const uint32_t* pixels = sw.picture();
  const size_t count = static_cast<size_t>(width) * static_cast<size_t>(height);
  for (size_t i = 0; i < count; ++i) {
    const uint32_t p = pixels[i];
    rgb[3 * i] = static_cast<unsigned char>(p & 0xFFu);
    rgb[3 * i + 1] = static_cast<unsigned char>((p >> 8) & 0xFFu);
    rgb[3 * i + 2] = static_cast<unsigned char>((p >> 16) & 0xFFu);
  }
  return wxBitmap(image);
}

}  // namespace

void CanvasWaitSink::processMessages() {
  // Only the main thread's loop handles events, and a wait inside a yield does not yield again.
  wxEventLoopBase* loop = wxEventLoopBase::GetActive();
  if (loop == nullptr || !wxThread::IsMain() || loop->IsYielding()) return;
  // A frame waits for its workers many times (once per run of samples); handling events at
  // most every 20 ms keeps the window responsive without making the frame pay for each wait.
  const auto now = std::chrono::steady_clock::now();
  if (now - lastEvents_ < std::chrono::milliseconds(20)) return;
  loop->YieldFor(wxEVT_CATEGORY_UI | wxEVT_CATEGORY_USER_INPUT);
  lastEvents_ = std::chrono::steady_clock::now();
}

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
  selection_ = std::make_unique<SelectionTool>(*this, scene_);
  scene_.waitSink = &waitSink_;
  if (const char* log = std::getenv("CACHEVIEW_FRAME_LOG"); log != nullptr && log[0] != '\0') {
    frameLog_ = std::fopen(log, "a");
  }
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
  scene_.waitSink = nullptr;
  if (frameLog_ != nullptr) std::fclose(frameLog_);
}

bool CacheViewOpenGLCanvas::makeContextCurrent() {
  // The software rasterizer draws into memory: there is nothing to make current.
  if (gl_ == nullptr) return true;
  return context_ && SetCurrent(*context_);
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
  softwarePicture_ = wxBitmap();
  frameWanted_ = true;
  if (scene_.settings.useOpenGL && context_) {
    gl_ = new LUtils::RasterizerGL();
    gl_->useWindowContext();
    gRasterizer = gl_;
  } else {
    sw_ = new LUtils::RasterizerSW();
    gRasterizer = sw_;
  }
  // The new rasterizer takes the canvas size at its first paint.
  scene_.attachRasterizer(gRasterizer, farDistance);
}

void CacheViewOpenGLCanvas::noteMotion() {
  movingFrames_.motion();
  settleTimer_.StartOnce(kSettleMs);
}

void CacheViewOpenGLCanvas::onSettled(wxTimerEvent&) {
  movingFrames_.settled();
  if (movingFrames_.needsFullFrame()) Refresh(false);
}

// --- painting

void CacheViewOpenGLCanvas::Refresh(bool eraseBackground, const wxRect* rect) {
  frameWanted_ = true;
  wxGLCanvas::Refresh(eraseBackground, rect);
}

void CacheViewOpenGLCanvas::afterFrame(std::function<void()> action) {
  if (drawing_) {
    deferred_.push_back(std::move(action));
  } else {
    action();
  }
}

void CacheViewOpenGLCanvas::runDeferred() {
  // An action may run a dialog, whose loop may draw a frame and defer more: those run after it.
  while (!deferred_.empty() && !drawing_) {
    std::vector<std::function<void()>> actions;
    actions.swap(deferred_);
    for (std::function<void()>& action : actions) action();
  }
}

void CacheViewOpenGLCanvas::onPaint(wxPaintEvent&) {
  wxPaintDC dc(this);
  if (gRasterizer == nullptr) return;
  if (sw_ != nullptr) {
    // The software frame is drawn outside the paint; this shows the last one finished.
    const wxSize size = GetClientSize();
    const bool stale = frameWanted_ || !softwarePicture_.IsOk() ||
                       softwarePicture_.GetWidth() != size.x ||
                       softwarePicture_.GetHeight() != size.y;
    if (softwarePicture_.IsOk()) dc.DrawBitmap(softwarePicture_, 0, 0, false);
    if (stale && !drawing_ && !softwareQueued_) {
      softwareQueued_ = true;
      CallAfter([this] { drawSoftwareFrame(); });
    }
    return;
  }
  if (drawing_) return;  // cannot happen: OpenGL frames do not wait for the workers

  const wxSize size = GetClientSize();
  const int width = std::max(size.x, 1);
  const int height = std::max(size.y, 1);
  // A context that cannot be made current yet keeps the size for the next paint.
  if (!context_ || !SetCurrent(*context_)) return;
  if (!frameWanted_ && keptFrame_.width == width && keptFrame_.height == height) {
    showKeptFrame();
    return;
  }
  drawing_ = true;
  frameWanted_ = false;
  LUtils::DrawView& view = scene_.view;
  view.sampleStride = movingFrames_.stride();
  const auto start = std::chrono::steady_clock::now();
  if (gl_->viewportWidth() != width || gl_->viewportHeight() != height) {
    gl_->setViewportSize(width, height);
  }
  LUtils::drawFrame(*gl_, scene_.drawScene());
  const bool keep = view.sampleStride == 1 &&
                    std::chrono::steady_clock::now() - start > std::chrono::milliseconds(50);
  keptFrame_.width = keptFrame_.height = 0;
  if (keep) {
    keptFrame_.rgba.resize(static_cast<size_t>(width) * static_cast<size_t>(height) * 4);
    glReadBuffer(GL_BACK);
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, keptFrame_.rgba.data());
    keptFrame_.width = width;
    keptFrame_.height = height;
  }
  SwapBuffers();
  if (frameLog_ != nullptr) glFinish();  // the time logged is the frame's, not its submission's
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  drawing_ = false;
  finishFrame(scene_.options.useDisplayLists() ? "gl-lists" : "gl", ms);
}

void CacheViewOpenGLCanvas::showKeptFrame() {
  glPushAttrib(GL_ALL_ATTRIB_BITS);
  glDisable(GL_DEPTH_TEST);
  glDisable(GL_LIGHTING);
  glDisable(GL_TEXTURE_2D);
  glDisable(GL_BLEND);
  glDisable(GL_COLOR_LOGIC_OP);
  glDrawBuffer(GL_BACK);
  glViewport(0, 0, keptFrame_.width, keptFrame_.height);
  glMatrixMode(GL_PROJECTION);
  glPushMatrix();
  glLoadIdentity();
  glOrtho(0.0, keptFrame_.width, 0.0, keptFrame_.height, -1.0, 1.0);
  glMatrixMode(GL_MODELVIEW);
  glPushMatrix();
  glLoadIdentity();
  glRasterPos2i(0, 0);
  glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
  glDrawPixels(keptFrame_.width, keptFrame_.height, GL_RGBA, GL_UNSIGNED_BYTE,
               keptFrame_.rgba.data());
  glPopMatrix();
  glMatrixMode(GL_PROJECTION);
  glPopMatrix();
  glMatrixMode(GL_MODELVIEW);
  glPopAttrib();
  if (gl_ != nullptr) gl_->forgetLightingState();
  SwapBuffers();
}

void CacheViewOpenGLCanvas::drawSoftwareFrame() {
  softwareQueued_ = false;
  if (drawing_ || sw_ == nullptr) return;
  const wxSize size = GetClientSize();
  const int width = std::max(size.x, 1);
  const int height = std::max(size.y, 1);
  drawing_ = true;
  frameWanted_ = false;
  LUtils::RasterizerSW* sw = sw_;
  LUtils::DrawView& view = scene_.view;
  view.sampleStride = movingFrames_.stride();
  const auto start = std::chrono::steady_clock::now();
  if (sw->width() != width || sw->height() != height) sw->resize(width, height);
  // Events are handled while the workers draw (the wait sink): a motion there moves the camera,
  // which this frame has already taken, and asks for the next frame.
  LUtils::drawFrame(*sw, scene_.drawScene());
  softwarePicture_ = softwareBitmap(*sw);
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  drawing_ = false;
  finishFrame(scene_.options.multiThreadedSoftware() ? "sw-threads" : "sw", ms);
  // The paint shows the picture, and draws the next frame when one was asked for meanwhile.
  wxGLCanvas::Refresh(false);
  runDeferred();
}

void CacheViewOpenGLCanvas::finishFrame(const char* kind, double ms) {
  lastStride_ = scene_.view.sampleStride;
  movingFrames_.frameDrawn(lastStride_, ms);
  // The motion ended while this reduced frame was on its way: the whole map follows.
  if (movingFrames_.needsFullFrame()) Refresh(false);
  const LUtils::SampleEdits& edits = scene_.edits;
  const uint64_t drawn =
      LUtils::drawnSampleCount(scene_.sampleCount(), edits.deletedBits(), lastStride_);
  if (frameLog_ != nullptr) {
    std::fprintf(frameLog_, "%s %u %llu %.3f\n", kind, lastStride_,
                 static_cast<unsigned long long>(drawn), ms);
    std::fflush(frameLog_);
  }
  host_.showStatus(wxString::FromUTF8(LUtils::frameStatusText(
      drawn, edits.deletedBits().countSet(), edits.selectedBits().countSet(), ms)));
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
      afterFrame([this, id = binding.command] { host_.runCommand(id); });
      return true;
    // The workers read the options: they change between frames.
    case LUtils::KeyAction::kBrighter:
    case LUtils::KeyAction::kDarker:
      afterFrame([this, darker = binding.action == LUtils::KeyAction::kDarker] {
        LUtils::brightnessKey(darker, scene_.options);
        Refresh(false);
      });
      return true;
    case LUtils::KeyAction::kLodPlus:
    case LUtils::KeyAction::kLodMinus:
      afterFrame([this, plus = binding.action == LUtils::KeyAction::kLodPlus] {
        LUtils::lodKey(plus, scene_.options);
        Refresh(false);
      });
      return true;
    case LUtils::KeyAction::kDollyForward:
    case LUtils::KeyAction::kDollyBackward:
      scene_.navigation.dolly(binding.action == LUtils::KeyAction::kDollyForward, binding.fast);
      noteMotion();
      break;
    case LUtils::KeyAction::kInspect:
      selection_->inspect(ScreenToClient(wxGetMousePosition()));
      return true;
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
    case LUtils::MouseResult::kNone:
      break;
    default:  // the rubber band, the paint brush and their picks
      selection_->gesture(result, in);
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
    selection.wheelRadius(steps, size.x, size.y);
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
