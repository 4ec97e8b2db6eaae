#pragma once

#include <QString>

// Starting Vantrel when the user logs in: the XDG autostart entry
// ~/.config/autostart/vantrel.desktop, owned by the "Start recording when I log in" switch. On
// writes it, off removes it; nothing else writes it. Its Exec is the installed program, never a
// build folder: a copy with nothing installed to point at cannot start at login, and says so.
namespace AutostartEntry {

QString path();

// The program the entry starts: this copy when it runs from an installed release or a system
// folder (a distribution's package), else the release installed for this user, if there is one;
// empty when nothing is installed.
QString installedProgram();

// Writes the entry for installedProgram() (on) or removes it (off). Returns an empty string on
// success, else a sentence for the status line.
QString apply(bool startAtLogin);

// The Exec line's program of the entry on disk; empty when there is none.
QString startedProgram();

} // namespace AutostartEntry
