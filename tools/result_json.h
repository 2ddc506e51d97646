// The command-line tool's output format: one compact JSON object per result.
#ifndef RULENLU_TOOLS_RESULT_JSON_H_
#define RULENLU_TOOLS_RESULT_JSON_H_

#include <string>

#include "rulenlu/engine_api.h"

namespace rulenlu {

// Writes `result` as
// {"version":N,"intent":"...","text":"...","slots":[{"key":"...","value":"...","start":N,"length":N}]}
// into `out` (replacing its content), without a line end. Strings are copied as they are
// (UTF-8, unchecked); quotes and backslashes are escaped with a backslash, \b \t \n \f \r by
// their letters and other bytes below 0x20 as \u00XX (upper-case hex).
void FormatResultJson(const NluResult& result, std::string* out);

}  // namespace rulenlu

#endif  // RULENLU_TOOLS_RESULT_JSON_H_
