// The one way the library reports a failure.
//
// Every fallible operation of the library either returns its complete result or throws an Error
// (or one of its subclasses) whose what() says what failed, in words fit for a log line or a
// tool's message. Errors are caught at a few documented places only: the exported functions
// (which keep their contract towards the host), the pipeline's stage boundaries (which turn a
// failure into the stage's status code and log line) and the start-up (which falls back from
// the cached configuration to the local file). Anything else that is thrown is a defect: it is
// logged where it is caught, never mistaken for an ordinary outcome.
#ifndef RULENLU_BASE_ERROR_H_
#define RULENLU_BASE_ERROR_H_

#include <stdexcept>

namespace rulenlu {

class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Text that cannot be converted between UTF-8 and UTF-16; what() is "bad conversion".
class ConversionError : public Error {
 public:
  ConversionError() : Error("bad conversion") {}
};

}  // namespace rulenlu

#endif  // RULENLU_BASE_ERROR_H_
