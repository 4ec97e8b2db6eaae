#pragma once

#include <QString>

// The Linux meanings of the two access rights a global clip key needs.
namespace InputAccess {

// The folder of the event devices: $VANTREL_INPUT_DIR when set (tests point it at a folder they
// control), else /dev/input.
QString inputDirectory();

// At least one event device in the input folder may be opened for reading
// (usually membership of the "input" group). Opens nothing.
bool keyboardsReadable();

// An X server on $DISPLAY with XInput 2.1 or later, which reports raw key events
// of every X11 client even while another client holds a grab. Connects and disconnects.
bool xinput2Available();

} // namespace InputAccess
