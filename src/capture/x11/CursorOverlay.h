#pragma once

#include <cstdint>

// Draws the pointer into a grabbed frame. The X server leaves the cursor out of its images (it is
// a sprite on top), so a capture that should show it paints it in from the XFixes cursor image.
namespace CursorOverlay {

// Blends `cursor` (premultiplied ARGB, one uint32 per pixel, row after row) over the BGRA frame
// with its top-left corner at (left, top) in frame pixels; the parts outside the frame are
// clipped. On little-endian machines a BGRA pixel read as uint32 is 0xAARRGGBB, the cursor's own
// layout, so the blend works on whole words.
void blend(uint8_t *frame, int stride, int width, int height, const uint32_t *cursor,
           int cursorWidth, int cursorHeight, int left, int top);

} // namespace CursorOverlay
