// rulenlu check: a lint for configuration documents.
#ifndef RULENLU_TOOLS_CHECK_COMMAND_H_
#define RULENLU_TOOLS_CHECK_COMMAND_H_

#include <string>

namespace rulenlu {

// Prints each finding as "FILE:LINE:COLUMN: error: ..." or "...: warning: ...", in document
// order, the position being that of the JSON value at fault (of its member name for an unknown
// or repeated key), then the summary "N errors, M warnings". Returns 0 when there is no error
// and kExitFailed when there is one (a file that cannot be read included).
int RunCheck(const std::string& config_path);

}  // namespace rulenlu

#endif  // RULENLU_TOOLS_CHECK_COMMAND_H_
