#include "nlu/regex_automaton.h"

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>

namespace rulenlu {
namespace {

constexpr uint32_t kNone = UINT32_MAX;
constexpr uint32_t kUnits = 0x10000;
// More states than rules of ordinary size need; beyond it the automaton is not worth building.
constexpr size_t kMaxNfaStates = 16384;

// Why an automaton is not built; caught in Build.
struct Unsupported {};

// The units that one kChar or kSet node matches, as sorted, merged ranges [first, last].
using Ranges = std::vector<std::pair<uint32_t, uint32_t>>;

Ranges Normalized(const std::vector<std::pair<char16_t, char16_t>>& ranges) {
  Ranges out;
  for (const auto& [first, last] : ranges) {
    if (first <= last) out.emplace_back(first, last);
  }
  std::sort(out.begin(), out.end());
  Ranges merged;
  for (const auto& range : out) {
    if (!merged.empty() && range.first <= merged.back().second + 1) {
      merged.back().second = std::max(merged.back().second, range.second);
    } else {
      merged.push_back(range);
    }
  }
  return merged;
}

// A nondeterministic automaton with empty moves, built from the trees.
class Nfa {
 public:
  enum Assertion : uint8_t { kNoAssertion, kAtBegin, kAtEnd, kAtWordBound, kAtNoWordBound };

  struct State {
    std::vector<uint32_t> empty;  // moves on no unit
    uint32_t atom = kNone;        // moves on a unit of atoms[atom] to `next`
    uint32_t next = kNone;
    Assertion assertion = kNoAssertion;  // `empty` holds only here
    uint32_t accept = kNone;             // the pattern matched when the text ends here
  };

  // With `word_bounds`, \b and \B are kept as assertions; without, they make the pattern
  // unsupported.
  Nfa(size_t max_states, bool word_bounds) : max_states_(max_states), word_bounds_(word_bounds) {}

  // Adds `tree` as pattern `pattern`, reachable from the start state.
  void AddPattern(const RegexTree& tree, uint32_t pattern) {
    tree_ = &tree;
    if (states_.empty()) NewState();  // the start state
    const auto [start, end] = Build(tree.root);
    states_[0].empty.push_back(start);
    states_[end].accept = std::min(states_[end].accept, pattern);
    pattern_starts_.emplace_back(start, pattern);
  }

  // The automaton read backwards, from a match's end to its start: every move reversed, each
  // pattern's accept on the state its matches begin from, assertions where they were. `*ends`
  // gets the states a match may end in, where a backward reading begins.
  Nfa Reversed(std::vector<uint32_t>* ends) const {
    Nfa reversed(max_states_, word_bounds_);
    reversed.atoms_ = atoms_;
    reversed.states_.resize(states_.size());
    for (uint32_t s = 0; s < states_.size(); ++s) {
      const State& state = states_[s];
      reversed.states_[s].assertion = state.assertion;
      for (const uint32_t e : state.empty) reversed.states_[e].empty.push_back(s);
      if (state.atom != kNone) {
        // A fragment's end is entered by one unit at most.
        if (reversed.states_[state.next].atom != kNone) throw Unsupported();
        reversed.states_[state.next].atom = state.atom;
        reversed.states_[state.next].next = s;
      }
      if (state.accept != kNone) ends->push_back(s);
    }
    for (const auto& [start, pattern] : pattern_starts_) {
      reversed.states_[start].accept = std::min(reversed.states_[start].accept, pattern);
    }
    return reversed;
  }

  const std::vector<State>& states() const { return states_; }
  const std::vector<Ranges>& atoms() const { return atoms_; }

 private:
  uint32_t NewState() {
    if (states_.size() == max_states_) throw Unsupported();
    states_.emplace_back();
    return static_cast<uint32_t>(states_.size() - 1);
  }

  uint32_t Atom(Ranges ranges) {
    const auto [it, added] = atom_ids_.emplace(std::move(ranges), atoms_.size());
    if (added) atoms_.push_back(it->first);
    return it->second;
  }

  // A fragment: its start state and its end state, which has no moves yet.
  std::pair<uint32_t, uint32_t> Build(size_t index) {
    const RegexNode& node = tree_->nodes[index];
    switch (node.kind) {
      case RegexNode::kChar:
        return Unit(Atom({{node.unit, node.unit}}));
      case RegexNode::kSet:
        return Unit(Atom(Normalized(tree_->sets[node.index])));
      case RegexNode::kLineBegin:
        return Assert(kAtBegin);
      case RegexNode::kLineEnd:
        return Assert(kAtEnd);
      case RegexNode::kWordBound:
      case RegexNode::kNotWordBound:
        if (!word_bounds_) throw Unsupported();
        return Assert(node.kind == RegexNode::kWordBound ? kAtWordBound : kAtNoWordBound);
      case RegexNode::kGroup:
      case RegexNode::kNoGroup:
        return Build(node.kids[0]);
      case RegexNode::kConcat: {
        const uint32_t start = NewState();
        uint32_t end = start;
        for (const size_t kid : node.kids) {
          const auto [kid_start, kid_end] = Build(kid);
          states_[end].empty.push_back(kid_start);
          end = kid_end;
        }
        return {start, end};
      }
      case RegexNode::kAlt: {
        const uint32_t start = NewState();
        const uint32_t end = NewState();
        for (const size_t kid : node.kids) {
          const auto [kid_start, kid_end] = Build(kid);
          states_[start].empty.push_back(kid_start);
          states_[kid_end].empty.push_back(end);
        }
        return {start, end};
      }
      case RegexNode::kRepeat:
        return Repeat(node);
      default:  // back-references, lookaheads
        throw Unsupported();
    }
  }

  std::pair<uint32_t, uint32_t> Assert(Assertion assertion) {
    const uint32_t start = NewState();
    const uint32_t end = NewState();
    states_[start].assertion = assertion;
    states_[start].empty.push_back(end);
    return {start, end};
  }

  std::pair<uint32_t, uint32_t> Unit(uint32_t atom) {
    const uint32_t start = NewState();
    const uint32_t end = NewState();
    states_[start].atom = atom;
    states_[start].next = end;
    return {start, end};
  }

  std::pair<uint32_t, uint32_t> Repeat(const RegexNode& node) {
    const uint32_t start = NewState();
    uint32_t end = start;
    // Every copy takes states: a count beyond the bound cannot fit anyway.
    if (node.min > max_states_ || (!node.infinite && node.max > max_states_)) throw Unsupported();
    for (uint64_t i = 0; i < node.min; ++i) {
      const auto [kid_start, kid_end] = Build(node.kids[0]);
      states_[end].empty.push_back(kid_start);
      end = kid_end;
    }
    const uint32_t last = NewState();
    if (node.infinite) {
      // end -> loop -> (kid -> loop) | last
      const auto [kid_start, kid_end] = Build(node.kids[0]);
      const uint32_t loop = NewState();
      states_[end].empty.push_back(loop);
      states_[loop].empty.push_back(kid_start);
      states_[loop].empty.push_back(last);
      states_[kid_end].empty.push_back(loop);
      return {start, last};
    }
    for (uint64_t i = node.min; i < node.max; ++i) {
      const auto [kid_start, kid_end] = Build(node.kids[0]);
      states_[end].empty.push_back(kid_start);
      states_[end].empty.push_back(last);
      end = kid_end;
    }
    states_[end].empty.push_back(last);
    return {start, last};
  }

  size_t max_states_;
  bool word_bounds_;
  const RegexTree* tree_ = nullptr;
  std::vector<State> states_;
  std::map<Ranges, uint32_t> atom_ids_;
  std::vector<Ranges> atoms_;
  std::vector<std::pair<uint32_t, uint32_t>> pattern_starts_;  // (state, pattern)
};

// How the atoms divide the units: units that every atom either holds or not alike share a
// class.
struct Partition {
  std::vector<uint32_t> cuts;  // class of units [cuts[i], cuts[i + 1]) is of_piece[i]
  std::vector<uint16_t> of_piece;
  std::vector<std::vector<uint16_t>> atoms;  // per atom, the classes it holds, ascending
  size_t count = 0;

  // The class of some unit of each class.
  std::vector<uint32_t> Representatives() const {
    std::vector<uint32_t> units(count);
    for (size_t p = of_piece.size(); p > 0; --p) units[of_piece[p - 1]] = cuts[p - 1];
    return units;
  }
};

Partition PartitionOf(const std::vector<Ranges>& atoms) {
  Partition partition;
  std::vector<uint32_t>& cuts = partition.cuts;
  cuts = {0, kUnits};
  for (const Ranges& ranges : atoms) {
    for (const auto& [first, last] : ranges) {
      cuts.push_back(first);
      cuts.push_back(last + 1);
    }
  }
  std::sort(cuts.begin(), cuts.end());
  cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
  const size_t pieces = cuts.size() - 1;
  // Per piece, the atoms holding it: pieces with equal lists share a class.
  std::vector<std::vector<uint32_t>> holders(pieces);
  for (uint32_t a = 0; a < atoms.size(); ++a) {
    for (const auto& [first, last] : atoms[a]) {
      const auto piece = std::upper_bound(cuts.begin(), cuts.end(), first) - cuts.begin() - 1;
      for (auto p = static_cast<size_t>(piece); p < pieces && cuts[p] <= last; ++p) {
        holders[p].push_back(a);
      }
    }
  }
  std::map<std::vector<uint32_t>, uint16_t> ids;
  partition.of_piece.resize(pieces);
  for (size_t p = 0; p < pieces; ++p) {
    const auto [it, added] = ids.emplace(holders[p], static_cast<uint16_t>(ids.size()));
    if (added && ids.size() > UINT16_MAX) throw Unsupported();
    partition.of_piece[p] = it->second;
  }
  partition.count = ids.size();
  partition.atoms.resize(atoms.size());
  for (const auto& [holding, id] : ids) {
    for (const uint32_t a : holding) partition.atoms[a].push_back(id);
  }
  for (std::vector<uint16_t>& held : partition.atoms) std::sort(held.begin(), held.end());
  return partition;
}

// Closures of sets of NFA states over their empty moves.
class Closer {
 public:
  // Where the closure stands: whether at the text's start or end, and whether the units before
  // and after are parts of words.
  struct Place {
    bool at_begin = false;
    bool at_end = false;
    bool word_before = false;
    bool word_after = false;
  };

  explicit Closer(const Nfa& nfa) : states_(nfa.states()), seen_(nfa.states().size(), 0) {}

  // `seeds` with every state reachable from them by empty moves whose assertions hold at
  // `place`; sorted when `sorted`.
  std::vector<uint32_t> Close(const std::vector<uint32_t>& seeds, const Place& place,
                              bool sorted = true) {
    ++stamp_;
    std::vector<uint32_t> out;
    out.reserve(2 * seeds.size());
    stack_.clear();  // kept from call to call: most closures need the same room
    for (const uint32_t s : seeds) Visit(s, &out, &stack_);
    while (!stack_.empty()) {
      const Nfa::State& state = states_[stack_.back()];
      stack_.pop_back();
      if (!Holds(state.assertion, place)) continue;
      for (const uint32_t s : state.empty) Visit(s, &out, &stack_);
    }
    if (sorted) std::sort(out.begin(), out.end());
    return out;
  }

 private:
  static bool Holds(Nfa::Assertion assertion, const Place& place) {
    switch (assertion) {
      case Nfa::kAtBegin:
        return place.at_begin;
      case Nfa::kAtEnd:
        return place.at_end;
      case Nfa::kAtWordBound:
        return place.word_before != place.word_after;
      case Nfa::kAtNoWordBound:
        return place.word_before == place.word_after;
      default:
        return true;
    }
  }

  void Visit(uint32_t s, std::vector<uint32_t>* out, std::vector<uint32_t>* stack) {
    if (seen_[s] == stamp_) return;
    seen_[s] = stamp_;
    out->push_back(s);
    stack->push_back(s);
  }

  const std::vector<Nfa::State>& states_;
  std::vector<uint32_t> seen_;
  uint32_t stamp_ = 0;
  std::vector<uint32_t> stack_;
};

}  // namespace

// Fills the automata's private parts.
class AutomatonBuilder {
 public:
  static void SetClasses(const Partition& partition, UnitClasses* classes) {
    classes->count_ = partition.count;
    // Most blocks lie within one piece, all of one class: those are told apart by that class
    // alone, without building the block.
    std::map<uint16_t, uint32_t> uniform_ids;
    std::map<std::vector<uint16_t>, uint32_t> block_ids;
    classes->block_of_.resize(kUnits / 256);
    std::vector<uint16_t> units(256);
    size_t piece = 0;
    for (uint32_t block = 0; block < kUnits / 256; ++block) {
      const uint32_t begin = block * 256;
      while (partition.cuts[piece + 1] <= begin) ++piece;
      const auto next = static_cast<uint32_t>(classes->blocks_.size());
      uint16_t only = partition.of_piece[piece];
      bool uniform = partition.cuts[piece + 1] >= begin + 256;
      if (!uniform) {
        for (uint32_t u = 0; u < 256; ++u) {
          while (partition.cuts[piece + 1] <= begin + u) ++piece;
          units[u] = partition.of_piece[piece];
        }
        uniform = std::all_of(units.begin(), units.end(), [&](uint16_t c) { return c == only; });
      }
      std::pair<uint32_t, bool> id;  // the block's id, and whether it is new
      if (uniform) {
        const auto found = uniform_ids.emplace(only, next);
        id = {found.first->second, found.second};
        if (id.second) units.assign(256, only);
      } else {
        const auto found = block_ids.emplace(units, next);
        id = {found.first->second, found.second};
      }
      classes->block_of_[block] = id.first;
      if (id.second) classes->blocks_.insert(classes->blocks_.end(), units.begin(), units.end());
    }
  }

  static std::optional<RuleAutomaton> Rules(const std::vector<const RegexTree*>& patterns,
                                            size_t max_cells);
  static std::optional<SearchAutomaton> Search(const std::vector<const RegexTree*>& patterns,
                                               size_t max_cells);
};

std::optional<RuleAutomaton> AutomatonBuilder::Rules(const std::vector<const RegexTree*>& patterns,
                                                     size_t max_cells) {
  Nfa nfa(kMaxNfaStates, false);
  for (size_t p = 0; p < patterns.size(); ++p) {
    if (patterns[p] != nullptr) nfa.AddPattern(*patterns[p], static_cast<uint32_t>(p));
  }
  if (nfa.states().empty()) return std::nullopt;
  const Partition partition = PartitionOf(nfa.atoms());
  RuleAutomaton automaton;
  SetClasses(partition, &automaton.classes_);

  // Subset construction: state 0 is the empty set (dead), state 1 the start.
  const std::vector<Nfa::State>& states = nfa.states();
  Closer closer(nfa);
  Closer::Place inside;
  Closer::Place start = inside;
  start.at_begin = true;
  std::vector<std::vector<uint32_t>> sets = {{}, closer.Close({0}, start)};
  std::map<std::vector<uint32_t>, uint32_t> ids = {{{}, RuleAutomaton::kDead}};
  const size_t width = partition.count;
  std::vector<std::vector<uint32_t>> moves(width);
  for (size_t d = 1; d < sets.size(); ++d) {
    if ((d + 1) * width > max_cells) return std::nullopt;
    for (std::vector<uint32_t>& move : moves) move.clear();
    for (const uint32_t s : sets[d]) {
      const Nfa::State& state = states[s];
      if (state.atom == kNone) continue;
      for (const uint16_t c : partition.atoms[state.atom]) moves[c].push_back(state.next);
    }
    for (size_t c = 0; c < width; ++c) {
      std::vector<uint32_t> target = closer.Close(moves[c], inside);
      const auto [it, added] = ids.emplace(target, static_cast<uint32_t>(sets.size()));
      if (added) sets.push_back(std::move(target));
      automaton.next_.push_back(it->second);
    }
  }
  // The dead state's row comes first: it stays dead.
  automaton.next_.insert(automaton.next_.begin(), width, RuleAutomaton::kDead);
  for (uint32_t& to : automaton.next_) to *= static_cast<uint32_t>(width);  // below max_cells
  automaton.start_row_ = RuleAutomaton::kStart * static_cast<uint32_t>(width);
  automaton.accepts_.resize(sets.size(), RuleAutomaton::kNoMatch);
  for (size_t d = 1; d < sets.size(); ++d) {
    Closer::Place end = d == RuleAutomaton::kStart ? start : inside;
    end.at_end = true;
    for (const uint32_t s : closer.Close(sets[d], end)) {
      if (states[s].accept != kNone) {
        automaton.accepts_[d] = std::min<size_t>(automaton.accepts_[d], states[s].accept);
      }
    }
  }
  return automaton;
}

std::optional<SearchAutomaton> AutomatonBuilder::Search(
    const std::vector<const RegexTree*>& patterns, size_t max_cells) {
  if (patterns.empty() || patterns.size() > SearchAutomaton::kMaxPatterns) return std::nullopt;
  Nfa forward(kMaxNfaStates, true);
  for (size_t p = 0; p < patterns.size(); ++p) {
    forward.AddPattern(*patterns[p], static_cast<uint32_t>(p));
  }
  // Read backwards, so that where a match begins is known at that offset.
  std::vector<uint32_t> ends;
  const Nfa nfa = forward.Reversed(&ends);
  std::sort(ends.begin(), ends.end());
  // Word units in classes of their own, so that each class is all word units or none.
  std::vector<Ranges> atoms = nfa.atoms();
  atoms.push_back({{u'0', u'9'}, {u'A', u'Z'}, {u'_', u'_'}, {u'a', u'z'}});
  const Partition partition = PartitionOf(atoms);
  SearchAutomaton automaton;
  SetClasses(partition, &automaton.classes_);
  const size_t width = partition.count;
  std::vector<bool> word_class(width);
  const std::vector<uint32_t> representatives = partition.Representatives();
  for (size_t c = 0; c < width; ++c) {
    word_class[c] = SearchAutomaton::IsWordUnit(static_cast<char16_t>(representatives[c]));
  }

  // A state, at an offset of the text read backwards: the NFA states matches may be in there
  // (their empty moves not yet taken, as assertions depend on the unit before), whether the
  // unit after the offset is part of a word, and whether the offset is the text's end. A match
  // may end at every offset.
  struct State {
    std::vector<uint32_t> set;
    bool word_after;
    bool at_end;
    bool operator<(const State& other) const {
      return std::tie(set, word_after, at_end) <
             std::tie(other.set, other.word_after, other.at_end);
    }
  };
  const std::vector<Nfa::State>& states = nfa.states();
  auto found_in = [&](const std::vector<uint32_t>& closed) {
    uint64_t found = 0;
    for (const uint32_t s : closed) {
      if (states[s].accept != kNone) found |= uint64_t{1} << states[s].accept;
    }
    return found;
  };
  Closer closer(nfa);
  std::vector<State> all = {{ends, false, true}};
  std::map<State, uint32_t> ids = {{all[0], SearchAutomaton::kStart}};
  // The states after a unit that continues no match, as the unit is part of a word or not.
  uint32_t fresh[2];
  for (const bool word_after : {false, true}) {
    const State state{ends, word_after, false};
    fresh[word_after] = ids.emplace(state, static_cast<uint32_t>(all.size())).first->second;
    if (fresh[word_after] == all.size()) all.push_back(state);
  }
  std::vector<std::vector<uint32_t>> moves(width);
  for (size_t d = 0; d < all.size(); ++d) {
    if ((d + 1) * width > max_cells) return std::nullopt;
    // The closure depends on the unit before only through whether it is part of a word.
    uint64_t found[2];
    for (std::vector<uint32_t>& move : moves) move.clear();
    for (const bool word_before : {false, true}) {
      Closer::Place place;
      place.at_end = all[d].at_end;
      place.word_before = word_before;
      place.word_after = all[d].word_after;
      const std::vector<uint32_t> closed = closer.Close(all[d].set, place, false);
      found[word_before] = found_in(closed);
      for (const uint32_t s : closed) {
        if (states[s].atom == kNone) continue;
        for (const uint16_t c : partition.atoms[states[s].atom]) {
          if (word_class[c] == word_before) moves[c].push_back(states[s].next);
        }
      }
    }
    for (size_t c = 0; c < width; ++c) {
      automaton.found_before_.push_back(found[word_class[c]]);
      if (moves[c].empty()) {
        automaton.next_.push_back(fresh[word_class[c]]);
        continue;
      }
      State to{std::move(moves[c]), word_class[c], false};
      to.set.insert(to.set.end(), ends.begin(), ends.end());
      std::sort(to.set.begin(), to.set.end());
      to.set.erase(std::unique(to.set.begin(), to.set.end()), to.set.end());
      const auto [it, added] = ids.emplace(to, static_cast<uint32_t>(all.size()));
      if (added) all.push_back(std::move(to));
      automaton.next_.push_back(it->second);
    }
  }
  for (uint32_t& to : automaton.next_) to *= static_cast<uint32_t>(width);  // rows, as in Rules
  for (const State& state : all) {
    Closer::Place start;
    start.at_begin = true;
    start.at_end = state.at_end;
    start.word_after = state.word_after;
    automaton.found_at_start_.push_back(found_in(closer.Close(state.set, start, false)));
  }
  return automaton;
}

namespace {

// What `build` returns, or nothing when it finds the patterns unsupported.
template <typename Build>
auto UnlessUnsupported(Build&& build) -> decltype(build()) {
  try {
    return build();
  } catch (const Unsupported&) {
    return std::nullopt;
  }
}

}  // namespace

std::optional<RuleAutomaton> RuleAutomaton::Build(const std::vector<const RegexTree*>& patterns,
                                                  size_t max_cells) {
  return UnlessUnsupported([&] { return AutomatonBuilder::Rules(patterns, max_cells); });
}

std::optional<SearchAutomaton> SearchAutomaton::Build(const std::vector<const RegexTree*>& patterns,
                                                      size_t max_cells) {
  return UnlessUnsupported([&] { return AutomatonBuilder::Search(patterns, max_cells); });
}

}  // namespace rulenlu
