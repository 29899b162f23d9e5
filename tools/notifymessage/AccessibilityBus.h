// Which accessibility bus GTK uses, chosen once after the display has opened
// and before the window is built. Main thread only.
#pragma once

namespace notifymsg {

// Where screen readers find the window. The daemon starts the program without
// a session bus, and GTK looking for one (on X11 too, before the root
// window) warns on every start: on X11 the bus the session announces on its
// root window is taken first; with no bus at all accessibility is off,
// quietly, as nothing could read it.
void ChooseAccessibilityBus();

} // namespace notifymsg
