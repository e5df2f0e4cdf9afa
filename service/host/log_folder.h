// The folder of the logs. Every user of the machine may make folders where it lies, so one that
// is there already may be a trap: a link that leads the system's writes elsewhere, or files that
// their owner holds open.
#pragma once

namespace stewardry {

// Makes the company's folder and the log folder in it, for the system and the administrators alone.
// What is there is used if it is theirs, less the files in it that are not; otherwise it is renamed
// (".aside-" and a number behind its name) and created again. False, after a log line, if that
// can't be done, or not within some seconds; gLogFolderIsSafe is set accordingly. While the process
// has one thread that logs.
bool MakeLogFolder();

}  // namespace stewardry
