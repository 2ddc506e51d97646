// rulenlu parse: one compact JSON result per query.
#ifndef RULENLU_TOOLS_PARSE_COMMAND_H_
#define RULENLU_TOOLS_PARSE_COMMAND_H_

#include <string>
#include <vector>

namespace rulenlu {

struct ParseOptions {
  std::string config;
  bool quiet = false;
  std::string state;
  double wait_update = 0;
  std::vector<std::string> queries;
};

// Prints one result line per query (the arguments, else each line of stdin). Returns the exit
// status: 0, kExitFailed when the configuration did not load, kExitNoOutput when the results
// could not be written. With a state directory it ends the process itself.
int RunParse(const ParseOptions& options);

}  // namespace rulenlu

#endif  // RULENLU_TOOLS_PARSE_COMMAND_H_
