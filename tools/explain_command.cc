#include "explain_command.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "base/error.h"
#include "base/text.h"
#include "result_json.h"
#include "tool_common.h"

namespace rulenlu {
namespace {

// UTF-8 for display: a lone surrogate (a regex `.` may split a pair) becomes U+FFFD.
std::string Display(std::u16string_view text) {
  try {
    return Utf16ToUtf8(text);
  } catch (const ConversionError&) {
  }
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool pair = i + 1 < text.size() && text[i] >= 0xD800 && text[i] < 0xDC00 &&
                      text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000;
    try {
      AppendUtf16ToUtf8(text.substr(i, pair ? 2 : 1), &out);
    } catch (const ConversionError&) {
      out += "\xEF\xBF\xBD";
    }
    i += pair ? 1 : 0;
  }
  return out;
}

constexpr size_t kNone = SIZE_MAX;

// Everything explain prints about one query.
struct Explained {
  QueryExplanation explanation;
  std::vector<size_t> ranked;  // candidate positions, best first
  std::string result;          // parse's line
  // The winner's position among the candidates; kNone when the query failed or got "unknown".
  size_t winner = kNone;
};

Explained ExplainQuery(const NluEngine& engine, const std::string& query) {
  Explained out;
  out.explanation = engine.Explain(query);
  const std::vector<CandidateScore>& scores = out.explanation.scores;
  out.ranked.resize(scores.size());
  std::iota(out.ranked.begin(), out.ranked.end(), size_t{0});
  std::stable_sort(out.ranked.begin(), out.ranked.end(),
                   [&](size_t a, size_t b) { return Ranker::RanksBefore(scores[a], scores[b]); });
  if (out.explanation.failure.empty() && !out.ranked.empty()) out.winner = out.ranked[0];
  FormatResultJson(engine.Process(query), &out.result);
  return out;
}

std::string SlotsText(const std::vector<SlotMatch>& slots) {
  std::string text;
  for (const SlotMatch& slot : slots) {
    text += (text.empty() ? "" : " ") + slot.key + "=\"" + Display(slot.value) + "\"";
  }
  return text;
}

size_t DisplayWidth(const std::string& text) {
  return static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

// `rows` as lines of columns padded to their widest cell, each line after `indent`.
std::string Table(const std::vector<std::vector<std::string>>& rows, const std::string& indent) {
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], DisplayWidth(row[i]));
  }
  std::string out;
  for (const auto& row : rows) {
    std::string line = indent;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line += std::string(widths[i] - DisplayWidth(row[i]) + 2, ' ');
    }
    out += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
  }
  return out;
}

std::string Text(const std::string& query, const Explained& explained) {
  const QueryExplanation& e = explained.explanation;
  const ParseTrace& trace = e.trace;
  const size_t winning_combination =
      explained.winner != kNone ? trace.candidates[explained.winner].combination : kNone;
  std::string out = "query \"" + query + "\"\n";
  std::vector<std::vector<std::string>> rows;
  for (const SlotMatch& tag : trace.tags) {
    rows.push_back({tag.key, "\"" + Display(tag.value) + "\"", std::to_string(tag.start),
                    std::to_string(tag.length)});
  }
  out += "tags (vocabulary, text, start, length)" + std::string(rows.empty() ? ": none\n" : "\n");
  out += Table(rows, "  ");
  if (!trace.combinations.empty()) out += "combinations, in order (* the winner's)\n";
  for (size_t c = 0; c < trace.combinations.size(); ++c) {
    const ParseTrace::Combination& combination = trace.combinations[c];
    const bool winning = winning_combination == c;
    out += (winning ? "  * #" : "    #") + std::to_string(c + 1) + "  " +
           Display(combination.rewritten) + "\n";
    rows.clear();
    size_t refused = 0;
    for (const ParseTrace::IntentStep& step : combination.intents) {
      if (!step.accepted) {
        ++refused;
        continue;
      }
      const bool won =
          winning && trace.candidates[explained.winner].candidate.intent == step.intent;
      rows.push_back({won ? "*" : " ", step.intent,
                      !step.error.empty() ? "fails: " + step.error
                      : step.rule         ? "rule " + std::to_string(*step.rule + 1) + " matches"
                                          : "no rule matches"});
    }
    out += Table(rows, "      ");
    if (refused == combination.intents.size()) {
      out += "        no intent accepts these tags\n";
    } else if (refused > 0) {
      out += "        " + std::to_string(refused) +
             (refused == 1 ? " other intent does" : " other intents do") +
             " not accept these tags\n";
    }
  }
  rows.clear();
  for (size_t rank = 0; rank < explained.ranked.size(); ++rank) {
    const size_t i = explained.ranked[rank];
    const CandidateScore& score = e.scores[i];
    const ParseTrace::Candidate& candidate = trace.candidates[i];
    rows.push_back({explained.winner == i ? "*" : " ", std::to_string(rank + 1),
                    candidate.candidate.intent, std::to_string(score.totalLength),
                    std::to_string(score.slotCount), std::to_string(score.index + 1),
                    "#" + std::to_string(candidate.combination + 1),
                    SlotsText(candidate.candidate.slots)});
  }
  out += "candidates, best first (rank, intent, covered, slots, found, combination, slots)" +
         std::string(rows.empty() ? ": none\n" : "\n");
  out += Table(rows, "  ");
  if (!e.failure.empty()) out += "failed in the " + e.failure + "\n";
  return out + "result " + explained.result + "\n";
}

template <typename Writer>
void WriteSlot(Writer& writer, const SlotMatch& slot) {
  writer.StartObject();
  writer.Key("key");
  writer.String(slot.key);
  writer.Key("value");
  writer.String(Display(slot.value));
  writer.Key("start");
  writer.Int(slot.start);
  writer.Key("length");
  writer.Int(slot.length);
  writer.EndObject();
}

std::string Json(const std::string& query, const Explained& explained) {
  const QueryExplanation& e = explained.explanation;
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.StartObject();
  writer.Key("query");
  writer.String(query);
  writer.Key("tags");
  writer.StartArray();
  for (const SlotMatch& tag : e.trace.tags) WriteSlot(writer, tag);
  writer.EndArray();
  writer.Key("combinations");
  writer.StartArray();
  for (const ParseTrace::Combination& combination : e.trace.combinations) {
    writer.StartObject();
    writer.Key("tags");  // positions in "tags"
    writer.StartArray();
    for (size_t t : combination.tags) writer.Uint64(t);
    writer.EndArray();
    writer.Key("rewritten");
    writer.String(Display(combination.rewritten));
    // The intents whose slots accept the combination; the others are only counted.
    writer.Key("intents");
    writer.StartArray();
    size_t refused = 0;
    for (const ParseTrace::IntentStep& step : combination.intents) {
      if (!step.accepted) {
        ++refused;
        continue;
      }
      writer.StartObject();
      writer.Key("intent");
      writer.String(step.intent);
      writer.Key("rule");  // index in regexRules of the rule that matches
      step.rule ? writer.Uint64(*step.rule) : writer.Null();
      if (!step.error.empty()) {
        writer.Key("error");
        writer.String(step.error);
      }
      writer.EndObject();
    }
    writer.EndArray();
    writer.Key("notAcceptedBy");
    writer.Uint64(refused);
    writer.EndObject();
  }
  writer.EndArray();
  writer.Key("candidates");  // best first
  writer.StartArray();
  for (size_t i : explained.ranked) {
    const ParseTrace::Candidate& candidate = e.trace.candidates[i];
    writer.StartObject();
    writer.Key("intent");
    writer.String(candidate.candidate.intent);
    writer.Key("slots");
    writer.StartArray();
    for (const SlotMatch& slot : candidate.candidate.slots) WriteSlot(writer, slot);
    writer.EndArray();
    writer.Key("covered");
    writer.Int(e.scores[i].totalLength);
    writer.Key("slotCount");
    writer.Int(e.scores[i].slotCount);
    writer.Key("order");  // position in the order the search found them
    writer.Int(e.scores[i].index);
    writer.Key("combination");
    writer.Uint64(candidate.combination);
    writer.Key("winner");
    writer.Bool(explained.winner == i);
    writer.EndObject();
  }
  writer.EndArray();
  writer.Key("failure");
  e.failure.empty() ? writer.Null() : writer.String(e.failure);
  writer.Key("result");
  writer.RawValue(explained.result.data(), explained.result.size(), rapidjson::kObjectType);
  writer.EndObject();
  return std::string(buffer.GetString(), buffer.GetSize()) + "\n";
}

}  // namespace

int RunExplain(const ExplainOptions& options) {
  InstallToolLogSink(true);
  std::unique_ptr<NluEngine> engine;
  try {
    engine = BuildLocalEngine(options.config);
  } catch (const Error& e) {
    Complain(e.what());
    return kExitFailed;
  }
  bool first = true;
  const bool written = ForEachQuery(options.queries, [&](const std::string& query) {
    const Explained explained = ExplainQuery(*engine, query);
    const std::string separator = options.json || first ? "" : "\n";
    first = false;
    return WriteOut(separator + (options.json ? Json(query, explained) : Text(query, explained)));
  });
  if (!written) {
    Complain("cannot write the explanation to standard output");
    return kExitNoOutput;
  }
  return 0;
}

}  // namespace rulenlu
