// Reading a whole file into memory.
#ifndef RULENLU_BASE_FILE_H_
#define RULENLU_BASE_FILE_H_

#include <string>

namespace rulenlu {

// Returns every byte of the file at `path` (UTF-8; on Windows read in text mode, so CR LF
// arrives as LF). Throws Error, naming the path and the reason, when the file cannot be opened
// or read to its end (a directory included). Keeps no state: any thread may call it.
std::string ReadWholeFile(const std::string& path);

}  // namespace rulenlu

#endif  // RULENLU_BASE_FILE_H_
