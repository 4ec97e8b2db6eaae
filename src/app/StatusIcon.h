#pragma once

#include <QIcon>

// The tray icon: a paperclip drawn in the panel's text colour, tinted red while armed.
namespace StatusIcon {

QIcon make(bool armed);

} // namespace StatusIcon
