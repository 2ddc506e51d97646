#include "check_command.h"

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <algorithm>
#include <initializer_list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/error.h"
#include "base/file.h"
#include "base/json.h"
#include "base/text.h"
#include "json_positions.h"
#include "nlu/regex.h"
#include "nlu/tagger.h"
#include "tool_common.h"

namespace rulenlu {
namespace {

using Value = rapidjson::Value;

struct Finding {
  size_t offset;
  bool error;
  std::string message;
};

std::string Quote(const std::string& name) { return "\"" + name + "\""; }

std::string Name(const Value& name) { return std::string(name.GetString()); }

// Texts on which a regex vocabulary pattern is searched from every offset to find out whether
// it can match empty text: the empty text, and short texts with word boundaries between
// letters, digits, spaces and punctuation. A pattern whose empty match needs some other context
// (a lookahead for a particular word, say) is not caught.
const std::u16string kEmptyMatchProbes[] = {u"", u"a", u"0", u" ", u"a b", u"ab 12, x.y!\n"};

bool CanMatchEmpty(const Regex& regex) {
  for (const std::u16string& probe : kEmptyMatchProbes) {
    const RegexSubject subject(probe);
    for (size_t from = 0; from <= probe.size(); ++from) {
      RegexMatch match;
      try {
        if (regex.Search(subject, from, &match) && match.length == 0) return true;
      } catch (const RegexError&) {
        return false;
      }
    }
  }
  return false;
}

// The vocabulary names that `rule` writes as markers "<name>": text between "<" and ">"
// holding neither, outside bracket expressions; each name once, in order.
std::vector<std::string> RuleMarkers(const std::string& rule) {
  std::vector<std::string> markers;
  for (size_t i = 0; i < rule.size(); ++i) {
    if (rule[i] == '\\') {
      ++i;
    } else if (rule[i] == '[') {
      // A bracket expression: a leading "^" and then a leading "]" are part of it.
      size_t end = i + 1;
      if (end < rule.size() && rule[end] == '^') ++end;
      if (end < rule.size() && rule[end] == ']') ++end;
      end = rule.find(']', end);
      if (end == std::string::npos) break;
      i = end;
    } else if (rule[i] == '<') {
      const size_t end = rule.find_first_of("<>", i + 1);
      if (end == std::string::npos || rule[end] != '>') continue;
      std::string name = rule.substr(i + 1, end - i - 1);
      if (!name.empty() && std::find(markers.begin(), markers.end(), name) == markers.end()) {
        markers.push_back(std::move(name));
      }
      i = end;
    }
  }
  return markers;
}

class Checker {
 public:
  explicit Checker(const std::string& text) : text_(text) {}

  std::vector<Finding> Run() {
    rapidjson::Document doc;
    if (!ParseJsonDocument(text_, &doc)) {
      if (!doc.HasParseError()) {
        Report(0, true,
               "arrays and objects nest more than " + std::to_string(kMaxJsonNesting) +
                   " deep: the engine rejects the document");
      } else {
        Report(doc.GetErrorOffset(), true,
               std::string("JSON does not parse: ") +
                   rapidjson::GetParseError_En(doc.GetParseError()));
      }
      return std::move(findings_);
    }
    const JsonSpot root = ScanJsonSpots(text_.c_str());
    if (!doc.IsObject()) {
      Report(root.offset, true, "the document is not a JSON object: the engine rejects it");
      return std::move(findings_);
    }
    const auto sections =
        Members(doc, root, "the document",
                {"version", "variableEntrys", "regexVocabMap", "vocabMap", "intentMap"});
    if (const auto* version = Section(sections, "version")) {
      if (!version->first->IsInt64()) {
        Report(version->second->offset, false,
               "\"version\" is not an integer: the version counts as 0");
      }
    }
    CheckVariables(Section(sections, "variableEntrys"));
    CheckRegexVocabularies(Section(sections, "regexVocabMap"));
    CheckVocabularies(Section(sections, "vocabMap"));
    CheckIntents(Section(sections, "intentMap"));
    CheckUnusedVocabularies();
    std::stable_sort(findings_.begin(), findings_.end(),
                     [](const Finding& a, const Finding& b) { return a.offset < b.offset; });
    return std::move(findings_);
  }

 private:
  using Member = std::pair<const Value*, const JsonSpot*>;
  using Sections = std::map<std::string, Member>;
  struct NamedMember {
    std::string name;
    Member member;
  };

  void Report(size_t offset, bool error, std::string message) {
    findings_.push_back({offset, error, std::move(message)});
  }

  // The members of `object` that the engine reads, by name: of a repeated name the first, as
  // the engine looks it up. Warns about unknown and repeated names.
  Sections Members(const Value& object, const JsonSpot& spot, const std::string& where,
                   std::initializer_list<const char*> known) {
    Sections found;
    size_t i = 0;
    for (const auto& member : object.GetObject()) {
      const JsonSpot& child = spot.children[i++];
      const std::string name = Name(member.name);
      if (std::find(known.begin(), known.end(), name) == known.end()) {
        Report(child.name_offset, false,
               "unknown key " + Quote(name) + " in " + where + ": ignored");
      } else if (!found.emplace(name, Member{&member.value, &child}).second) {
        Report(child.name_offset, false,
               "key " + Quote(name) + " repeated in " + where + ": ignored, the first one counts");
      }
    }
    return found;
  }

  static const Member* Section(const Sections& sections, const char* name) {
    const auto it = sections.find(name);
    return it == sections.end() ? nullptr : &it->second;
  }

  // The members of the map `section` that the engine keeps: of a repeated name the last, whose
  // value is of the type `is_kind` accepts. Warns about the others.
  template <typename IsKind>
  std::vector<NamedMember> MapEntries(const Member* section, const char* section_name,
                                      const std::string& item, const char* kind, IsKind is_kind) {
    std::vector<NamedMember> entries;
    if (section == nullptr) return entries;
    if (!section->first->IsObject()) {
      Report(section->second->offset, false,
             Quote(section_name) + " is not an object: it is ignored");
      return entries;
    }
    std::map<std::string, size_t> last;
    size_t i = 0;
    for (const auto& member : section->first->GetObject()) last[Name(member.name)] = i++;
    i = 0;
    for (const auto& member : section->first->GetObject()) {
      const JsonSpot& spot = section->second->children[i];
      const std::string name = Name(member.name);
      if (last[name] != i++) {
        Report(spot.name_offset, false,
               item + " " + Quote(name) + " is defined again later: this definition is ignored");
      } else if (!is_kind(member.value)) {
        Report(spot.offset, false, item + " " + Quote(name) + " is not " + kind + ": ignored");
      } else {
        entries.push_back({name, Member{&member.value, &spot}});
      }
    }
    return entries;
  }

  // The string elements of the array `value`, with their spots; warns about the others.
  std::vector<Member> Strings(const Value& array, const JsonSpot& spot, const std::string& item) {
    std::vector<Member> strings;
    size_t i = 0;
    for (const Value& element : array.GetArray()) {
      const JsonSpot& child = spot.children[i++];
      if (element.IsString()) {
        strings.emplace_back(&element, &child);
      } else {
        Report(child.offset, false,
               "element " + std::to_string(i) + " of " + item + " is not a string: ignored");
      }
    }
    return strings;
  }

  // The text of the string `value` as the engine converts it, or nothing after an error.
  std::optional<std::u16string> Wide(const Member& value, const std::string& item) {
    try {
      return Utf8ToUtf16(std::string_view(value.first->GetString()));
    } catch (const ConversionError&) {
      Report(value.second->offset, true,
             item + " is not valid UTF-8: the engine does not load the configuration");
      return std::nullopt;
    }
  }

  void CheckVariables(const Member* section) {
    if (section == nullptr) return;
    if (!section->first->IsArray()) {
      Report(section->second->offset, false,
             "\"variableEntrys\" is not an array: no variable is defined");
      return;
    }
    std::vector<std::string> order;  // every name defined, in document order
    size_t i = 0;
    for (const Value& entry : section->first->GetArray()) {
      const JsonSpot& spot = section->second->children[i++];
      const std::string item = "variable entry " + std::to_string(i);
      if (!entry.IsObject()) {
        Report(spot.offset, false, item + " is not an object: ignored");
        continue;
      }
      const Sections members = Members(entry, spot, item, {"key", "value"});
      const Member* key = Section(members, "key");
      const Member* value = Section(members, "value");
      if (key == nullptr || value == nullptr || !key->first->IsString() ||
          !value->first->IsString()) {
        Report(spot.offset, false, item + " lacks a string \"key\" or \"value\": ignored");
        continue;
      }
      variables_.push_back({Name(*key->first), *value, key->second->offset});
    }
    for (const Variable& variable : variables_) order.push_back(variable.name);

    // Expanded in list order, as the tagger does; a variable that fails stays undefined.
    for (size_t v = 0; v < variables_.size(); ++v) {
      const Variable& variable = variables_[v];
      const std::string item = "variable " + Quote(variable.name);
      const bool repeated =
          expanded_.count(variable.name) != 0 || failed_variables_.count(variable.name) != 0;
      if (repeated) {
        Report(variable.key_offset, false,
               item + " is defined again: the first definition counts (both must expand)");
      }
      std::optional<std::u16string> value = Wide(variable.value, "the value of " + item);
      if (!value) continue;
      std::optional<std::u16string> expansion = Expand(*value, variable.value, item, order, v);
      if (expansion && expansion->empty()) {
        Report(variable.value.second->offset, true,
               item + " has an empty value: every regex vocabulary is switched off");
        expansion.reset();
      }
      if (!expansion) {
        failed_variables_.insert(variable.name);
      } else if (!repeated) {
        expanded_.emplace(variable.name, std::move(*expansion));
      }
    }
  }

  // `text` with its variables expanded, or nothing after an error saying which reference fails.
  // Variables `order[v]` and later are not defined yet for a variable's value.
  std::optional<std::u16string> Expand(const std::u16string& text, const Member& at,
                                       const std::string& item,
                                       const std::vector<std::string>& order, size_t v) {
    ExpansionFailure failure;
    std::optional<std::u16string> expansion = ExpandVariables(text, expanded_, &failure);
    if (expansion) return expansion;
    const std::string& unknown = failure.variable;
    std::string why = "which is not defined";
    if (failure.too_long) {
      why = "whose value makes it longer than " + std::to_string(kMaxRegexPatternLength) + " units";
    } else if (failed_variables_.count(unknown) != 0) {
      why = "whose own value does not expand";
    } else if (std::find(order.begin() + static_cast<ptrdiff_t>(std::min(v, order.size())),
                         order.end(), unknown) != order.end()) {
      why = "which is defined only later";
    }
    Report(at.second->offset, true,
           item + " refers to ${" + unknown + "}, " + why +
               ": every regex vocabulary is switched off");
    return std::nullopt;
  }

  void CheckRegexVocabularies(const Member* section) {
    std::vector<std::string> order;
    for (const Variable& variable : variables_) order.push_back(variable.name);
    for (const NamedMember& entry :
         MapEntries(section, "regexVocabMap", "regex vocabulary", "an array",
                    [](const Value& v) { return v.IsArray(); })) {
      regex_vocabs_[entry.name] = entry.member.second->name_offset;
      const std::string vocabulary = "regex vocabulary " + Quote(entry.name);
      const auto patterns = Strings(*entry.member.first, *entry.member.second, vocabulary);
      for (size_t p = 0; p < patterns.size(); ++p) {
        const std::string item = "pattern " + std::to_string(p + 1) + " of " + vocabulary;
        std::optional<std::u16string> pattern = Wide(patterns[p], item);
        if (!pattern) continue;
        pattern = Expand(*pattern, patterns[p], item, order, order.size());
        if (!pattern) continue;
        if (pattern->empty()) {
          Report(patterns[p].second->offset, true,
                 item + " is empty: every regex vocabulary is switched off");
          continue;
        }
        try {
          const Regex regex(*pattern, RegexGrammar::kEcmaScript);
          if (CanMatchEmpty(regex)) {
            Report(patterns[p].second->offset, true,
                   item + " can match empty text: every query in which it does fails");
          }
        } catch (const RegexError& e) {
          Report(patterns[p].second->offset, true,
                 item + " does not compile (" + e.what() + "): the engine does not start");
        }
      }
    }
  }

  void CheckVocabularies(const Member* section) {
    for (const NamedMember& entry : MapEntries(section, "vocabMap", "vocabulary", "an array",
                                               [](const Value& v) { return v.IsArray(); })) {
      vocabs_[entry.name] = entry.member.second->name_offset;
      const std::string vocabulary = "vocabulary " + Quote(entry.name);
      std::set<std::string> words;
      for (const Member& word : Strings(*entry.member.first, *entry.member.second, vocabulary)) {
        const std::string text = word.first->GetString();
        if (!words.insert(text).second) {
          Report(word.second->offset, false,
                 "word " + Quote(text) + " repeats an earlier word of " + vocabulary);
        }
        Wide(word, "word " + Quote(text) + " of " + vocabulary);
      }
    }
  }

  bool IsVocabulary(const std::string& name) const {
    return vocabs_.count(name) != 0 || regex_vocabs_.count(name) != 0;
  }

  void CheckIntents(const Member* section) {
    for (const NamedMember& entry : MapEntries(section, "intentMap", "intent", "an object",
                                               [](const Value& v) { return v.IsObject(); })) {
      const std::string intent = "intent " + Quote(entry.name);
      const Sections members = Members(*entry.member.first, *entry.member.second, intent,
                                       {"name", "slots", "regexRules", "blackList"});
      if (const Member* name = Section(members, "name"); name && !name->first->IsString()) {
        Report(name->second->offset, false, "\"name\" of " + intent + " is not a string: ignored");
      }
      const std::set<std::string> accepted = CheckSlots(Section(members, "slots"), intent);
      const std::vector<Member> rules =
          StringArray(Section(members, "regexRules"), "regexRules", intent);
      StringArray(Section(members, "blackList"), "blackList", intent);
      if (rules.empty()) {
        Report(entry.member.second->offset, false, intent + " has no rules: it never matches");
      }
      for (size_t r = 0; r < rules.size(); ++r) {
        CheckRule(rules, r, intent, accepted);
      }
    }
  }

  // The string elements of the array member `member` of `intent`, warning about what is not.
  std::vector<Member> StringArray(const Member* member, const char* name,
                                  const std::string& intent) {
    if (member == nullptr) return {};
    const std::string item = Quote(name) + " of " + intent;
    if (!member->first->IsArray()) {
      Report(member->second->offset, false, item + " is not an array: ignored");
      return {};
    }
    return Strings(*member->first, *member->second, item);
  }

  // The vocabularies that the slots accept.
  std::set<std::string> CheckSlots(const Member* slots, const std::string& intent) {
    std::set<std::string> accepted;
    if (slots == nullptr) return accepted;
    if (!slots->first->IsArray()) {
      Report(slots->second->offset, false, "\"slots\" of " + intent + " is not an array: ignored");
      return accepted;
    }
    size_t i = 0;
    for (const Value& slot : slots->first->GetArray()) {
      const JsonSpot& spot = slots->second->children[i++];
      const std::string item = "slot " + std::to_string(i) + " of " + intent;
      if (!slot.IsObject()) {
        Report(spot.offset, false, item + " is not an object: ignored");
        continue;
      }
      const Sections members = Members(slot, spot, item, {"name", "tag"});
      for (const char* key : {"name", "tag"}) {
        const Member* member = Section(members, key);
        if (member != nullptr && !member->first->IsString()) {
          Report(member->second->offset, false,
                 Quote(key) + " of " + item + " is not a string: taken as \"\"");
        }
      }
      const Member* tag = Section(members, "tag");
      const std::string name = tag && tag->first->IsString() ? tag->first->GetString() : "";
      if (tag != nullptr && tag->first->IsString() && !IsVocabulary(name)) {
        Report(tag->second->offset, false,
               "\"tag\" of " + item + " names no vocabulary: " + Quote(name));
      }
      accepted.insert(name);
      accepted_anywhere_.insert(name);
    }
    return accepted;
  }

  void CheckRule(const std::vector<Member>& rules, size_t r, const std::string& intent,
                 const std::set<std::string>& accepted) {
    const Member& rule = rules[r];
    const std::string item = "rule " + std::to_string(r + 1) + " of " + intent;
    const std::string text = rule.first->GetString();
    for (size_t earlier = 0; earlier < r; ++earlier) {
      if (text == rules[earlier].first->GetString()) {
        Report(rule.second->offset, false,
               item + " repeats rule " + std::to_string(earlier + 1) + ": it never adds a match");
        break;
      }
    }
    const std::optional<std::u16string> wide = Wide(rule, item);
    if (!wide) return;
    try {
      const Regex regex(*wide, RegexGrammar::kPosixExtended);
    } catch (const RegexError& e) {
      Report(rule.second->offset, true,
             item + " does not compile (" + e.what() + "): every query that reaches it fails");
    }
    for (const std::string& marker : RuleMarkers(text)) {
      if (!IsVocabulary(marker)) {
        Report(rule.second->offset, true, item + ": <" + marker + "> names no vocabulary");
      } else if (accepted.count(marker) == 0) {
        Report(rule.second->offset, true,
               item + ": <" + marker + "> names a vocabulary that the slots of " + intent +
                   " do not accept: the rule cannot match it");
      }
    }
  }

  void CheckUnusedVocabularies() {
    for (const auto* vocabs : {&vocabs_, &regex_vocabs_}) {
      for (const auto& [name, offset] : *vocabs) {
        if (accepted_anywhere_.count(name) != 0) continue;
        Report(offset, false,
               (vocabs == &vocabs_ ? "vocabulary " : "regex vocabulary ") + Quote(name) +
                   " is accepted by no intent's slots: its tags never reach a rule");
      }
    }
  }

  struct Variable {
    std::string name;
    Member value;
    size_t key_offset;
  };

  const std::string& text_;
  std::vector<Finding> findings_;
  std::vector<Variable> variables_;
  std::map<std::string, std::u16string> expanded_;  // the variables that expand
  std::set<std::string> failed_variables_;
  // The vocabularies the engine keeps, with the offsets of their names.
  std::map<std::string, size_t> vocabs_;
  std::map<std::string, size_t> regex_vocabs_;
  std::set<std::string> accepted_anywhere_;
};

}  // namespace

int RunCheck(const std::string& config_path) {
  InstallToolLogSink(true);
  std::string text;
  try {
    text = ReadWholeFile(config_path);
  } catch (const Error& e) {
    WriteOut(config_path + ": error: " + e.what() + "\n1 error, 0 warnings\n");
    return kExitFailed;
  }
  const std::vector<Finding> findings = Checker(text).Run();
  const LineIndex lines(text);
  std::string out;
  size_t errors = 0;
  for (const Finding& finding : findings) {
    const TextPosition at = lines.At(finding.offset);
    out += config_path + ":" + std::to_string(at.line) + ":" + std::to_string(at.column) +
           (finding.error ? ": error: " : ": warning: ") + finding.message + "\n";
    errors += finding.error ? 1 : 0;
  }
  const size_t warnings = findings.size() - errors;
  out += std::to_string(errors) + (errors == 1 ? " error, " : " errors, ") +
         std::to_string(warnings) + (warnings == 1 ? " warning\n" : " warnings\n");
  if (!WriteOut(out)) {
    Complain("cannot write the findings to standard output");
    return kExitNoOutput;
  }
  return errors == 0 ? 0 : kExitFailed;
}

}  // namespace rulenlu
