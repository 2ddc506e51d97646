#include "nlu/regex_automaton.h"

#include <algorithm>
#include <map>
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
  enum Assertion : uint8_t { kNoAssertion, kAtBegin, kAtEnd };

  struct State {
    std::vector<uint32_t> empty;  // moves on no unit
    uint32_t atom = kNone;        // moves on a unit of atoms[atom] to `next`
    uint32_t next = kNone;
    Assertion assertion = kNoAssertion;  // `empty` holds only here
    uint32_t accept = kNone;             // the pattern matched when the text ends here
  };

  explicit Nfa(size_t max_states) : max_states_(max_states) {}

  // Adds `tree` as pattern `pattern`, reachable from the start state.
  void AddPattern(const RegexTree& tree, uint32_t pattern) {
    tree_ = &tree;
    if (states_.empty()) NewState();  // the start state
    const auto [start, end] = Build(tree.root);
    states_[0].empty.push_back(start);
    states_[end].accept = std::min(states_[end].accept, pattern);
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
      case RegexNode::kLineEnd: {
        const uint32_t start = NewState();
        const uint32_t end = NewState();
        states_[start].assertion = node.kind == RegexNode::kLineBegin ? kAtBegin : kAtEnd;
        states_[start].empty.push_back(end);
        return {start, end};
      }
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
      default:  // back-references, word boundaries, lookaheads
        throw Unsupported();
    }
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
  const RegexTree* tree_ = nullptr;
  std::vector<State> states_;
  std::map<Ranges, uint32_t> atom_ids_;
  std::vector<Ranges> atoms_;
};

// The classes of units: units that every atom either holds or not alike share a class.
struct UnitClasses {
  std::vector<uint32_t> cuts;  // class of units [cuts[i], cuts[i + 1]) is of_piece[i]
  std::vector<uint16_t> of_piece;
  std::vector<std::vector<bool>> atoms;  // per atom, per class: whether the atom holds it
  size_t count = 0;
};

UnitClasses ClassesOf(const std::vector<Ranges>& atoms) {
  UnitClasses classes;
  std::vector<uint32_t>& cuts = classes.cuts;
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
  auto piece_of = [&](uint32_t unit) {
    return static_cast<size_t>(std::upper_bound(cuts.begin(), cuts.end(), unit) - cuts.begin() - 1);
  };
  // Per piece, the atoms holding it: pieces with equal lists share a class.
  std::vector<std::vector<uint32_t>> holders(pieces);
  for (uint32_t a = 0; a < atoms.size(); ++a) {
    for (const auto& [first, last] : atoms[a]) {
      for (size_t p = piece_of(first); p < pieces && cuts[p] <= last; ++p) holders[p].push_back(a);
    }
  }
  std::map<std::vector<uint32_t>, uint16_t> ids;
  classes.of_piece.resize(pieces);
  for (size_t p = 0; p < pieces; ++p) {
    const auto [it, added] = ids.emplace(holders[p], static_cast<uint16_t>(ids.size()));
    if (added && ids.size() > UINT16_MAX) throw Unsupported();
    classes.of_piece[p] = it->second;
  }
  classes.count = ids.size();
  classes.atoms.assign(atoms.size(), std::vector<bool>(classes.count, false));
  for (const auto& [holding, id] : ids) {
    for (const uint32_t a : holding) classes.atoms[a][id] = true;
  }
  return classes;
}

// Closures of sets of NFA states over their empty moves.
class Closer {
 public:
  explicit Closer(const Nfa& nfa) : states_(nfa.states()), seen_(nfa.states().size(), 0) {}

  // `seeds` with every state reachable from them by empty moves, sorted; a `^` is passed only
  // when `at_begin`, a `$` only when `at_end`.
  std::vector<uint32_t> Close(const std::vector<uint32_t>& seeds, bool at_begin, bool at_end) {
    ++stamp_;
    std::vector<uint32_t> out;
    std::vector<uint32_t> stack;
    for (const uint32_t s : seeds) Visit(s, &out, &stack);
    while (!stack.empty()) {
      const Nfa::State& state = states_[stack.back()];
      stack.pop_back();
      if ((state.assertion == Nfa::kAtBegin && !at_begin) ||
          (state.assertion == Nfa::kAtEnd && !at_end)) {
        continue;
      }
      for (const uint32_t s : state.empty) Visit(s, &out, &stack);
    }
    std::sort(out.begin(), out.end());
    return out;
  }

 private:
  void Visit(uint32_t s, std::vector<uint32_t>* out, std::vector<uint32_t>* stack) {
    if (seen_[s] == stamp_) return;
    seen_[s] = stamp_;
    out->push_back(s);
    stack->push_back(s);
  }

  const std::vector<Nfa::State>& states_;
  std::vector<uint32_t> seen_;
  uint32_t stamp_ = 0;
};

}  // namespace

std::optional<RuleAutomaton> RuleAutomaton::Build(const std::vector<const RegexTree*>& patterns,
                                                  size_t max_cells) {
  try {
    Nfa nfa(kMaxNfaStates);
    for (size_t p = 0; p < patterns.size(); ++p) {
      if (patterns[p] != nullptr) nfa.AddPattern(*patterns[p], static_cast<uint32_t>(p));
    }
    if (nfa.states().empty()) return std::nullopt;
    const UnitClasses classes = ClassesOf(nfa.atoms());

    RuleAutomaton automaton;
    automaton.classes_ = classes.count;
    // Unit classes by blocks of 256 units, alike blocks stored once.
    std::map<std::vector<uint16_t>, uint32_t> block_ids;
    automaton.block_of_.resize(kUnits / 256);
    size_t piece = 0;
    for (uint32_t block = 0; block < kUnits / 256; ++block) {
      std::vector<uint16_t> units(256);
      for (uint32_t u = 0; u < 256; ++u) {
        while (classes.cuts[piece + 1] <= block * 256 + u) ++piece;
        units[u] = classes.of_piece[piece];
      }
      const auto [it, added] =
          block_ids.emplace(units, static_cast<uint32_t>(automaton.blocks_.size()));
      if (added) automaton.blocks_.insert(automaton.blocks_.end(), units.begin(), units.end());
      automaton.block_of_[block] = it->second;
    }

    // Subset construction: state 0 is the empty set (dead), state 1 the start.
    const std::vector<Nfa::State>& states = nfa.states();
    Closer closer(nfa);
    std::vector<std::vector<uint32_t>> sets = {{}, closer.Close({0}, true, false)};
    std::map<std::vector<uint32_t>, uint32_t> ids = {{{}, kDead}};
    const size_t width = classes.count;
    std::vector<std::vector<uint32_t>> moves(width);
    for (size_t d = 1; d < sets.size(); ++d) {
      if ((d + 1) * width > max_cells) return std::nullopt;
      for (std::vector<uint32_t>& move : moves) move.clear();
      for (const uint32_t s : sets[d]) {
        const Nfa::State& state = states[s];
        if (state.atom == kNone) continue;
        const std::vector<bool>& held = classes.atoms[state.atom];
        for (size_t c = 0; c < width; ++c) {
          if (held[c]) moves[c].push_back(state.next);
        }
      }
      for (size_t c = 0; c < width; ++c) {
        std::vector<uint32_t> target = closer.Close(moves[c], false, false);
        const auto [it, added] = ids.emplace(target, static_cast<uint32_t>(sets.size()));
        if (added) sets.push_back(std::move(target));
        automaton.next_.push_back(it->second);
      }
    }
    // The dead state's row comes first: it stays dead.
    automaton.next_.insert(automaton.next_.begin(), width, kDead);
    automaton.accepts_.resize(sets.size(), kNoMatch);
    for (size_t d = 1; d < sets.size(); ++d) {
      for (const uint32_t s : closer.Close(sets[d], d == kStart, true)) {
        if (states[s].accept != kNone) {
          automaton.accepts_[d] = std::min<size_t>(automaton.accepts_[d], states[s].accept);
        }
      }
    }
    return automaton;
  } catch (const Unsupported&) {
    return std::nullopt;
  }
}

}  // namespace rulenlu
