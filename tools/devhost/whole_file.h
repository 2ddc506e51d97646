// Crash-safe whole-file replacement, for the development host's state.
//
// Thread-safe: the functions keep no state; concurrent replacements of one file each land
// whole, the last rename winning.
#ifndef RULENLU_TOOLS_DEVHOST_WHOLE_FILE_H_
#define RULENLU_TOOLS_DEVHOST_WHOLE_FILE_H_

#include <string>
#include <string_view>

namespace rulenlu::devhost {

// Marks the temporary files of ReplaceFileAtomically: a temporary for `path` is named `path`
// followed by this character and a unique suffix. Names that must never be taken for a
// temporary simply avoid the character.
inline constexpr char kTempFileMark = '~';

// Makes the file at `path` hold exactly `bytes`. A reader, also after a crash at any moment,
// sees either the previous content or the new one, never a mix. Returns false on any I/O
// error, logged on stderr ("devhost: ..."); the previous content then stays and no temporary
// file is left behind (except after a crash, when a stale temporary may remain beside `path`;
// it never affects `path` itself: see RemoveStaleTemporaries). The directory of `path` must
// exist.
bool ReplaceFileAtomically(const std::string& path, std::string_view bytes);

// Removes every file of `directory` whose name holds kTempFileMark: the temporaries of
// replacements that a crash interrupted. A replacement in progress in `directory` at the same
// moment fails (and says so). A missing directory has none; any other failure is logged on
// stderr and otherwise ignored.
void RemoveStaleTemporaries(const std::string& directory);

// Writes "devhost: <what>" as a line on stderr, through the library's log.
void LogHostFailure(const std::string& what);

}  // namespace rulenlu::devhost

#endif  // RULENLU_TOOLS_DEVHOST_WHOLE_FILE_H_
