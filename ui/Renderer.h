#pragma once

namespace tamsel::Renderer {

/// Has the toolkit paint without OpenGL where there is no graphics hardware. By default it uses
/// OpenGL even if that is only imitated by the processor, which takes it ten times as long and
/// keeps all cores busy. The user's own choice, GSK_RENDERER, stands. Call it before there are
/// windows.
void chooseForDisplay();

}  // namespace tamsel::Renderer
