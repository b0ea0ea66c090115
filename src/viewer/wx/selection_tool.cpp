// Selection gestures on the canvas.
#include "viewer/wx/selection_tool.h"

#include <GL/gl.h>
#include <wx/dcclient.h>
#include <wx/image.h>

#include <algorithm>
#include <cstdio>

#include "app/process_state.h"
#include "render/gl/rasterizer_gl.h"
#include "render/rasterizer.h"
#include "viewer/wx/gl_canvas.h"

void SelectionTool::gesture(LUtils::MouseResult result, const LUtils::MouseInput& in) {
  using LUtils::MouseResult;
  const LUtils::SelectionSettings& settings = scene_.settings.selection;
  const LUtils::Pixel start = scene_.navigation.dragStart();
  switch (result) {
    case MouseResult::kStartRectangleAfterClearing:
      scene_.edits.clearSelection();
      canvas_.Refresh(false);
      break;
    case MouseResult::kStartRectangle:
      break;
    case MouseResult::kDragRectangle:
      drawBand(start, {in.x, in.y});
      break;
    case MouseResult::kFinishRectangle:
      select(LUtils::rectangleFromDrag(start.x, start.y, in.x, in.y, settings.paintRadius));
      break;
    case MouseResult::kStartPaint:
    case MouseResult::kPaint:
      // A dab at the press, then one at every new cursor pixel; painting never clears first.
      if (result == MouseResult::kPaint && lastDab_ == LUtils::Pixel{in.x, in.y}) break;
      lastDab_ = {in.x, in.y};
      select(LUtils::paintSquare(in.x, in.y, settings.paintRadius));
      break;
    default:
      break;
  }
}

void SelectionTool::select(const LUtils::PickRect& rect) {
  // A pick draws through the rasterizer: never while a frame is being drawn.
  canvas_.afterFrame([this, rect] {
    if (gRasterizer == nullptr || !canvas_.makeContextCurrent()) return;
    scene_.select(*gRasterizer, rect);
    canvas_.Refresh(false);
    if (gRasterizer->pickOverflowed()) {
      // A rectangle at depth that reaches more samples than the select buffer holds selects
      // nothing: say so, rather than leave the user wondering. The frame goes first, since it
      // shows its own status.
      canvas_.Update();
      canvas_.showStatus(
          "Too many samples under the rectangle at that depth: nothing was selected. Use a "
          "smaller rectangle, or Visible");
    }
  });
}

void SelectionTool::inspect(wxPoint at) {
  canvas_.afterFrame([this, at] {
    if (gRasterizer == nullptr || !canvas_.makeContextCurrent()) return;
    const std::optional<uint32_t> index = scene_.pickVisible(*gRasterizer, at.x, at.y);
    const std::string text =
        index ? scene_.describeSample(*index) : std::string("No sample under the cursor");
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
    // An OpenGL pick drew into the back buffer, which the rubber band copies: the frame is drawn
    // again at once, before the status bar takes the sample's text (a frame shows its own).
    if (canvas_.drawsWithOpenGL()) {
      canvas_.Refresh(false);
      canvas_.Update();
    }
    canvas_.showStatus(wxString::FromUTF8(text));
  });
}

void SelectionTool::drawBand(LUtils::Pixel from, LUtils::Pixel to) {
  if (canvas_.drawingFrame()) return;  // the next motion draws it
  if (canvas_.drawsWithOpenGL()) {
    drawBandGL(from, to);
  } else {
    drawBandSoftware(from, to);
  }
}

// Over the last frame: the back buffer, which holds it, is copied to the front one, and the
// rectangle is drawn there in a pixel-aligned projection, in the selection colour or inverted
// (white with XOR).
void SelectionTool::drawBandGL(LUtils::Pixel from, LUtils::Pixel to) {
  if (!canvas_.makeContextCurrent()) return;
  const wxSize size = canvas_.GetClientSize();
  const int w = std::max(size.x, 1);
  const int h = std::max(size.y, 1);
  glPushAttrib(GL_ALL_ATTRIB_BITS);
  glViewport(0, 0, w, h);
  glMatrixMode(GL_PROJECTION);
  glPushMatrix();
  glLoadIdentity();
  glOrtho(0.0, w, 0.0, h, -1.0, 1.0);
  glMatrixMode(GL_MODELVIEW);
  glPushMatrix();
  glLoadIdentity();
  glDisable(GL_LIGHTING);
  glDisable(GL_DEPTH_TEST);
  glDisable(GL_CULL_FACE);
  glDisable(GL_TEXTURE_2D);

  glReadBuffer(GL_BACK);
  glDrawBuffer(GL_FRONT);
  glRasterPos2i(0, 0);
  glCopyPixels(0, 0, w, h, GL_COLOR);

  // Window pixels have y downward; the projection has it upward. The half pixel puts the
  // outline on pixel centres.
  glTranslatef(0.5f, 0.5f, 0.0f);
  glPolygonMode(GL_FRONT_AND_BACK, GL_LINE);
  if (scene_.settings.selection.xorRectangle) {
    glEnable(GL_COLOR_LOGIC_OP);
    glLogicOp(GL_XOR);
    glColor3f(1.0f, 1.0f, 1.0f);
  } else {
    const LUtils::Color& c = scene_.options.selectionColour();
    glColor3f(c.r, c.g, c.b);
  }
  glRecti(from.x, h - 1 - from.y, to.x, h - 1 - to.y);
  glFlush();

  glDrawBuffer(GL_BACK);
  glPopMatrix();
  glMatrixMode(GL_PROJECTION);
  glPopMatrix();
  glMatrixMode(GL_MODELVIEW);
  glPopAttrib();
  if (auto* gl = dynamic_cast<LUtils::RasterizerGL*>(gRasterizer)) gl->forgetLightingState();
}

// Over the software rasterizer's last picture, in the selection colour or inverted (XOR).
void SelectionTool::drawBandSoftware(LUtils::Pixel from, LUtils::Pixel to) {
  const wxBitmap& picture = canvas_.softwarePicture();
  if (!picture.IsOk()) return;
  wxImage image = picture.ConvertToImage();
  const int w = image.GetWidth();
  const int h = image.GetHeight();
  unsigned char* rgb = image.GetData();
  const bool invert = scene_.settings.selection.xorRectangle;
  const LUtils::Color& c = scene_.options.selectionColour();
  const auto byte = [](float v) {
    return static_cast<unsigned char>(std::clamp(v * 256.0f, 0.0f, 255.0f));
  };
  const unsigned char colour[3] = {byte(c.r), byte(c.g), byte(c.b)};
  const auto plot = [&](int x, int y) {
    if (x < 0 || y < 0 || x >= w || y >= h) return;
    unsigned char* p = rgb + 3 * (static_cast<size_t>(y) * static_cast<size_t>(w) + x);
    for (int k = 0; k < 3; ++k) p[k] = invert ? static_cast<unsigned char>(p[k] ^ 0xFF) : colour[k];
  };
  const int x0 = std::min(from.x, to.x), x1 = std::max(from.x, to.x);
  const int y0 = std::min(from.y, to.y), y1 = std::max(from.y, to.y);
  for (int x = x0; x <= x1; ++x) {
    plot(x, y0);
    if (y1 != y0) plot(x, y1);
  }
  for (int y = y0 + 1; y < y1; ++y) {
    plot(x0, y);
    if (x1 != x0) plot(x1, y);
  }
  wxClientDC dc(&canvas_);
  dc.DrawBitmap(wxBitmap(image), 0, 0, false);
}
