// rulenlu explain: why a query gets its answer.
#ifndef RULENLU_TOOLS_EXPLAIN_COMMAND_H_
#define RULENLU_TOOLS_EXPLAIN_COMMAND_H_

#include <string>
#include <vector>

namespace rulenlu {

struct ExplainOptions {
  std::string config;
  bool json = false;
  std::vector<std::string> queries;
};

// For each query (the arguments, else each line of stdin): the tags, every combination with its
// rewritten query and what each intent made of it, the candidates ranked best first with their
// ranking keys, a failing stage, and the result exactly as `rulenlu parse` prints it. As text
// for people, or with `json` one JSON document per query and line. Returns 0, kExitFailed when
// the configuration did not load, kExitNoOutput when the output could not be written.
int RunExplain(const ExplainOptions& options);

}  // namespace rulenlu

#endif  // RULENLU_TOOLS_EXPLAIN_COMMAND_H_
