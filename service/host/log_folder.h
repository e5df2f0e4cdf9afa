// The folder of the logs. Any user of the machine may create folders at its place, so an existing
// one may be an attack: a link that redirects the system's writes, or files that are held open.
#pragma once

namespace stewardry {

// Creates the company's folder and the log folder in it, for the system and the administrators
// only. An existing folder of theirs is used, without the foreign files in the log folder; any
// other is renamed (".aside-" and a number after its name) and created again. Returns false, after
// a log line, if that fails, and without one after ten seconds. Sets gLogFolderIsSafe. Requires
// that only the calling thread logs.
bool MakeLogFolder();

}  // namespace stewardry
