// LinearSolver: the Cassowary tableau.
//
// Every constraint becomes one row `basic = constant + sum(coefficient *
// parametric)`; rows live in slots that keep their index across pivots, and
// each symbol keeps the list of slots whose row mentions it (its column), so a
// substitution touches only the rows that hold the symbol. Symbols are dense
// integers; a row is a vector of terms sorted by symbol.
//
// Symbol kinds: external (a caller's variable, unrestricted), slack (>= 0,
// the marker of an inequality), error (>= 0, the weighted violation of a
// preferred constraint) and dummy (= 0, the marker of a required equality).
//
// The objective is the sum of strength * error. Adding a constraint keeps the
// tableau feasible and then runs the primal simplex; changing a constant
// (setConstant, suggestValue) shifts the constraint's marker and runs the
// dual simplex. Both choose pivots by Bland's rule (lowest symbol among the
// candidates, lowest basic symbol among tied ratios), which cannot cycle.
//
// Operations that may fail halfway (a required constraint added through an
// artificial variable, a required constant changed) journal every row they
// touch and restore them on failure, so the solver is left as it was.
#include <NimbFoundation/Platform/Graphics/LinearSolver.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <new>
#include <unordered_map>
#include <utility>

namespace nimb {

namespace {

std::atomic<std::uint64_t> nextHandleId{1};

constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();
constexpr double kEpsilon = 1.0e-8;

bool nearZero(double value) {
  return std::fabs(value) < kEpsilon;
}

double clampStrength(double strength) {
  if (std::isnan(strength)) return SolverStrength::required;
  return std::clamp(strength, 0.0, SolverStrength::required);
}

enum class Kind : std::uint8_t { External, Slack, Error, Dummy };

struct Term {
  std::uint32_t symbol;
  double coefficient;
};

struct Row {
  std::vector<Term> terms;  // sorted by symbol, no zero coefficients
  double constant = 0;
  std::uint32_t basic = kNone;
  bool live = false;
};

double coefficientOf(const Row& row, std::uint32_t symbol) {
  auto it = std::lower_bound(row.terms.begin(), row.terms.end(), symbol,
                             [](const Term& t, std::uint32_t s) { return t.symbol < s; });
  return it != row.terms.end() && it->symbol == symbol ? it->coefficient : 0.0;
}

}  // namespace

struct SolverVariable::Data {
  std::string name;
  double value = 0;
  std::uint64_t id = nextHandleId++;
};

SolverVariable::SolverVariable() : data_(std::make_shared<Data>()) {}
SolverVariable::SolverVariable(std::string name) : data_(std::make_shared<Data>()) {
  data_->name = std::move(name);
}
const std::string& SolverVariable::name() const {
  return data_->name;
}
double SolverVariable::value() const {
  return data_->value;
}
std::uint64_t SolverVariable::id() const {
  return data_->id;
}

struct SolverConstraint::Data {
  SolverExpression expression;
  SolverRelation relation;
  double strength;
  std::uint64_t id = nextHandleId++;
};

SolverConstraint::SolverConstraint(SolverExpression expression, SolverRelation relation,
                                   double strength)
    : data_(
          std::make_shared<Data>(Data{std::move(expression), relation, clampStrength(strength)})) {}
const SolverExpression& SolverConstraint::expression() const {
  return data_->expression;
}
SolverRelation SolverConstraint::relation() const {
  return data_->relation;
}
double SolverConstraint::strength() const {
  return data_->strength;
}
bool SolverConstraint::isRequired() const {
  return data_->strength >= SolverStrength::required;
}
std::uint64_t SolverConstraint::id() const {
  return data_->id;
}

struct LinearSolver::Tableau {
  struct Symbol {
    Kind kind;
    std::uint32_t row = kNone;  // slot of the row it is basic in
    std::uint32_t var = kNone;  // index in vars for external symbols
  };
  struct Var {
    SolverVariable handle;
    std::uint32_t symbol;
    bool dirty;
  };
  // How a held constraint sits in the tableau. Its row read, before any
  // substitution, `terms + constant + markerCoefficient * marker (+ other) = 0`.
  struct Held {
    SolverConstraint constraint;
    std::uint32_t marker;
    std::uint32_t other;  // second error symbol, or kNone
    double markerCoefficient;
    // The row is the expression divided by this, its largest coefficient,
    // so that constraints written in very different units meet the pivot
    // tolerance on equal terms; the error weights are multiplied by it, so
    // the objective still counts errors in the caller's units.
    double scale;
  };
  struct Edit {
    SolverConstraint constraint;
  };

  std::vector<Symbol> symbols;
  std::vector<std::vector<std::uint32_t>> columns;  // symbol -> slots holding it
  std::vector<Row> rows;
  std::vector<std::uint32_t> freeSlots;
  Row objective;
  Row artificial;
  bool artificialActive = false;
  std::vector<Var> vars;
  std::unordered_map<const void*, std::uint32_t> varIndex;
  std::unordered_map<const void*, Held> held;
  std::unordered_map<const void*, Edit> edits;
  std::vector<std::uint32_t> infeasible;  // basic symbols of rows that went negative
  std::vector<std::uint32_t> dirtyVars;

  // Journal of the operation in progress.
  bool journaling = false;
  std::uint32_t epoch = 0;
  std::vector<std::uint32_t> savedEpoch;  // per slot
  std::vector<std::pair<std::uint32_t, Row>> saved;
  std::vector<std::uint32_t> createdSlots;
  bool objectiveSaved = false;
  Row savedObjective;

  std::vector<Term> scratch;
  std::vector<std::uint32_t> slotScratch;

  // --- symbols and columns -------------------------------------------------

  std::uint32_t newSymbol(Kind kind) {
    symbols.push_back(Symbol{kind});
    columns.emplace_back();
    return static_cast<std::uint32_t>(symbols.size() - 1);
  }
  bool restricted(std::uint32_t symbol) const {
    Kind k = symbols[symbol].kind;
    return k == Kind::Slack || k == Kind::Error;
  }
  void columnAdd(std::uint32_t symbol, std::uint32_t slot) { columns[symbol].push_back(slot); }
  void columnRemove(std::uint32_t symbol, std::uint32_t slot) {
    auto& column = columns[symbol];
    auto it = std::find(column.begin(), column.end(), slot);
    if (it != column.end()) {
      *it = column.back();
      column.pop_back();
    }
  }
  void markSymbol(std::uint32_t symbol) {
    std::uint32_t v = symbols[symbol].var;
    if (v != kNone && !vars[v].dirty) {
      vars[v].dirty = true;
      dirtyVars.push_back(v);
    }
  }

  // --- journal ---------------------------------------------------------------

  void touch(std::uint32_t slot) {
    markSymbol(rows[slot].basic);
    if (journaling && savedEpoch[slot] != epoch) {
      savedEpoch[slot] = epoch;
      saved.emplace_back(slot, rows[slot]);
    }
  }
  void touchObjective() {
    if (journaling && !objectiveSaved) {
      objectiveSaved = true;
      savedObjective = objective;
    }
  }
  void beginJournal() {
    journaling = true;
    ++epoch;
    saved.clear();
    createdSlots.clear();
    objectiveSaved = false;
  }
  void endJournal() {
    journaling = false;
    saved.clear();
    createdSlots.clear();
    objectiveSaved = false;
  }
  void rollback() {
    for (std::uint32_t slot : createdSlots) {
      if (rows[slot].live) dropRow(slot);
    }
    for (auto& [slot, old] : saved) {
      Row& current = rows[slot];
      if (!current.live) continue;
      for (const Term& t : current.terms) columnRemove(t.symbol, slot);
      if (symbols[current.basic].row == slot) symbols[current.basic].row = kNone;
      markSymbol(current.basic);
    }
    for (auto& [slot, old] : saved) {
      if (!rows[slot].live) {
        // It was dropped during the operation; take the slot back.
        auto it = std::find(freeSlots.begin(), freeSlots.end(), slot);
        if (it != freeSlots.end()) freeSlots.erase(it);
      }
      rows[slot] = std::move(old);
      for (const Term& t : rows[slot].terms) columnAdd(t.symbol, slot);
      symbols[rows[slot].basic].row = slot;
      markSymbol(rows[slot].basic);
    }
    if (objectiveSaved) objective = std::move(savedObjective);
    infeasible.clear();
    endJournal();
  }

  // --- rows ------------------------------------------------------------------

  std::uint32_t newSlot() {
    std::uint32_t slot;
    if (!freeSlots.empty()) {
      slot = freeSlots.back();
      freeSlots.pop_back();
    } else {
      slot = static_cast<std::uint32_t>(rows.size());
      rows.emplace_back();
      savedEpoch.push_back(0);
    }
    if (journaling) {
      savedEpoch[slot] = epoch;  // nothing to restore: rollback drops it
      createdSlots.push_back(slot);
    }
    return slot;
  }
  // Installs `row` (already solved for `basic`) in a new slot.
  std::uint32_t installRow(Row&& row, std::uint32_t basic) {
    std::uint32_t slot = newSlot();
    row.basic = basic;
    row.live = true;
    for (const Term& t : row.terms) columnAdd(t.symbol, slot);
    symbols[basic].row = slot;
    rows[slot] = std::move(row);
    markSymbol(basic);
    return slot;
  }
  void dropRow(std::uint32_t slot) {
    touch(slot);
    Row& row = rows[slot];
    for (const Term& t : row.terms) columnRemove(t.symbol, slot);
    if (symbols[row.basic].row == slot) symbols[row.basic].row = kNone;
    row.terms.clear();
    row.live = false;
    row.basic = kNone;
    freeSlots.push_back(slot);
  }

  // row += c * symbol. `slot` is kNone for rows outside the tableau.
  void addTerm(Row& row, std::uint32_t slot, std::uint32_t symbol, double c) {
    auto it = std::lower_bound(row.terms.begin(), row.terms.end(), symbol,
                               [](const Term& t, std::uint32_t s) { return t.symbol < s; });
    if (it != row.terms.end() && it->symbol == symbol) {
      it->coefficient += c;
      if (nearZero(it->coefficient)) {
        row.terms.erase(it);
        if (slot != kNone) columnRemove(symbol, slot);
      }
    } else if (!nearZero(c)) {
      row.terms.insert(it, Term{symbol, c});
      if (slot != kNone) columnAdd(symbol, slot);
    }
  }

  // row += c * source (terms and constant), leaving out `skip`'s term of row.
  void addRow(Row& row, std::uint32_t slot, const Row& source, double c,
              std::uint32_t skip = kNone) {
    row.constant += c * source.constant;
    if (skip != kNone) {
      auto it = std::lower_bound(row.terms.begin(), row.terms.end(), skip,
                                 [](const Term& t, std::uint32_t s) { return t.symbol < s; });
      if (it != row.terms.end() && it->symbol == skip) row.terms.erase(it);
    }
    if (source.terms.size() * 8 < row.terms.size()) {
      for (const Term& t : source.terms) addTerm(row, slot, t.symbol, c * t.coefficient);
      return;
    }
    scratch.clear();
    scratch.reserve(row.terms.size() + source.terms.size());
    auto a = row.terms.begin(), ae = row.terms.end();
    auto b = source.terms.begin(), be = source.terms.end();
    while (a != ae || b != be) {
      if (b == be || (a != ae && a->symbol < b->symbol)) {
        scratch.push_back(*a++);
      } else if (a == ae || b->symbol < a->symbol) {
        double v = c * b->coefficient;
        if (!nearZero(v)) {
          scratch.push_back(Term{b->symbol, v});
          if (slot != kNone) columnAdd(b->symbol, slot);
        }
        ++b;
      } else {
        double v = a->coefficient + c * b->coefficient;
        if (!nearZero(v)) {
          scratch.push_back(Term{a->symbol, v});
        } else if (slot != kNone) {
          columnRemove(a->symbol, slot);
        }
        ++a;
        ++b;
      }
    }
    row.terms.swap(scratch);
  }

  // Replaces `symbol` by the expression of row `source` everywhere but there.
  void substitute(std::uint32_t symbol, std::uint32_t sourceSlot) {
    slotScratch.assign(columns[symbol].begin(), columns[symbol].end());
    columns[symbol].clear();
    for (std::uint32_t slot : slotScratch) {
      if (slot == sourceSlot) continue;
      touch(slot);
      Row& row = rows[slot];
      double c = coefficientOf(row, symbol);
      addRow(row, slot, rows[sourceSlot], c, symbol);
      if (row.constant < 0 && restricted(row.basic)) infeasible.push_back(row.basic);
    }
    double c = coefficientOf(objective, symbol);
    if (c != 0) {
      touchObjective();
      addRow(objective, kNone, rows[sourceSlot], c, symbol);
    }
    if (artificialActive) {
      c = coefficientOf(artificial, symbol);
      if (c != 0) addRow(artificial, kNone, rows[sourceSlot], c, symbol);
    }
  }

  // Makes `entering` basic in `slot` in place of its basic symbol.
  void pivot(std::uint32_t slot, std::uint32_t entering) {
    touch(slot);
    Row& row = rows[slot];
    std::uint32_t leaving = row.basic;
    auto it = std::lower_bound(row.terms.begin(), row.terms.end(), entering,
                               [](const Term& t, std::uint32_t s) { return t.symbol < s; });
    double c = it->coefficient;
    row.terms.erase(it);
    columnRemove(entering, slot);
    double scale = -1.0 / c;
    for (Term& t : row.terms) t.coefficient *= scale;
    row.constant *= scale;
    auto pos = std::lower_bound(row.terms.begin(), row.terms.end(), leaving,
                                [](const Term& t, std::uint32_t s) { return t.symbol < s; });
    row.terms.insert(pos, Term{leaving, 1.0 / c});
    columnAdd(leaving, slot);
    row.basic = entering;
    symbols[leaving].row = kNone;
    symbols[entering].row = slot;
    markSymbol(leaving);
    markSymbol(entering);
    substitute(entering, slot);
  }

  // --- simplex ---------------------------------------------------------------

  std::size_t pivotLimit() const { return 64 + 16 * (rows.size() + symbols.size()); }

  // Primal simplex on `target` (the objective or the artificial one).
  bool optimize(Row& target) {
    for (std::size_t guard = pivotLimit(); guard > 0; --guard) {
      std::uint32_t entering = kNone;
      for (const Term& t : target.terms) {
        if (t.coefficient < 0 && symbols[t.symbol].kind != Kind::Dummy) {
          entering = t.symbol;
          break;
        }
      }
      if (entering == kNone) return true;
      std::uint32_t best = kNone, bestBasic = kNone;
      double bestRatio = std::numeric_limits<double>::infinity();
      for (std::uint32_t slot : columns[entering]) {
        const Row& row = rows[slot];
        if (symbols[row.basic].kind == Kind::External) continue;
        double c = coefficientOf(row, entering);
        if (c >= 0) continue;
        double ratio = -row.constant / c;
        if (ratio < bestRatio || (ratio == bestRatio && row.basic < bestBasic)) {
          bestRatio = ratio;
          best = slot;
          bestBasic = row.basic;
        }
      }
      if (best == kNone) return false;  // unbounded: cannot happen with positive weights
      pivot(best, entering);
    }
    return false;
  }

  // Dual simplex over the rows made infeasible by a shifted constant.
  bool dualOptimize() {
    for (std::size_t guard = pivotLimit(); !infeasible.empty();) {
      std::uint32_t leaving = infeasible.back();
      infeasible.pop_back();
      std::uint32_t slot = symbols[leaving].row;
      if (slot == kNone) continue;
      const Row& row = rows[slot];
      if (row.constant >= 0) continue;
      if (guard-- == 0) return false;
      std::uint32_t entering = kNone;
      double bestRatio = std::numeric_limits<double>::infinity();
      for (const Term& t : row.terms) {
        if (t.coefficient <= 0 || symbols[t.symbol].kind == Kind::Dummy) continue;
        double ratio = coefficientOf(objective, t.symbol) / t.coefficient;
        if (ratio < bestRatio) {  // terms ascend, so ties keep the lowest symbol
          bestRatio = ratio;
          entering = t.symbol;
        }
      }
      if (entering == kNone) {
        infeasible.clear();
        return false;
      }
      pivot(slot, entering);
    }
    return true;
  }

  // --- constraints -----------------------------------------------------------

  std::uint32_t symbolFor(const SolverVariable& variable) {
    auto [it, inserted] = varIndex.try_emplace(variable.data_.get(), 0);
    if (!inserted) return vars[it->second].symbol;
    std::uint32_t symbol = newSymbol(Kind::External);
    it->second = static_cast<std::uint32_t>(vars.size());
    vars.push_back(Var{variable, symbol, false});
    symbols[symbol].var = it->second;
    markSymbol(symbol);
    return symbol;
  }

  void dropNewVars(std::size_t keep) {
    while (vars.size() > keep) {
      symbols[vars.back().symbol].var = kNone;
      varIndex.erase(vars.back().handle.data_.get());
      vars.pop_back();
    }
    dirtyVars.erase(std::remove_if(dirtyVars.begin(), dirtyVars.end(),
                                   [&](std::uint32_t v) { return v >= keep; }),
                    dirtyVars.end());
  }

  SolverStatus add(const SolverConstraint& constraint) {
    const auto& data = *constraint.data_;
    if (held.count(constraint.data_.get())) return SolverStatus::DuplicateConstraint;
    if (!std::isfinite(data.expression.constant)) return SolverStatus::BadValue;
    for (const SolverTerm& t : data.expression.terms) {
      if (!std::isfinite(t.coefficient)) return SolverStatus::BadValue;
    }
    std::size_t varsBefore = vars.size();
    double scale = 0;
    for (const SolverTerm& t : data.expression.terms)
      scale = std::max(scale, std::fabs(t.coefficient));
    if (!(scale > 0)) scale = 1;
    Row row;
    row.constant = data.expression.constant / scale;
    for (const SolverTerm& t : data.expression.terms) {
      std::uint32_t symbol = symbolFor(t.variable);
      std::uint32_t slot = symbols[symbol].row;
      if (slot != kNone) {
        addRow(row, kNone, rows[slot], t.coefficient / scale);
      } else {
        addTerm(row, kNone, symbol, t.coefficient / scale);
      }
    }
    bool finite = std::isfinite(row.constant);
    for (const Term& t : row.terms) finite = finite && std::isfinite(t.coefficient);
    if (!finite) {  // overflow while substituting
      dropNewVars(varsBefore);
      return SolverStatus::BadValue;
    }
    bool required = data.strength >= SolverStrength::required;
    Held info{constraint, kNone, kNone, 1.0, scale};
    std::uint32_t error1 = kNone, error2 = kNone;
    double errorCoefficient1 = 0, errorCoefficient2 = 0;
    if (data.relation != SolverRelation::Equal) {
      double sign = data.relation == SolverRelation::LessOrEqual ? 1.0 : -1.0;
      info.marker = newSymbol(Kind::Slack);
      info.markerCoefficient = sign;
      addTerm(row, kNone, info.marker, sign);
      if (!required) {
        error1 = info.other = newSymbol(Kind::Error);
        errorCoefficient1 = -sign;
      }
    } else if (required) {
      info.marker = newSymbol(Kind::Dummy);
      addTerm(row, kNone, info.marker, 1.0);
    } else {
      error1 = info.marker = newSymbol(Kind::Error);
      error2 = info.other = newSymbol(Kind::Error);
      info.markerCoefficient = -1.0;
      errorCoefficient1 = -1.0;
      errorCoefficient2 = 1.0;
    }
    if (error1 != kNone) addTerm(row, kNone, error1, errorCoefficient1);
    if (error2 != kNone) addTerm(row, kNone, error2, errorCoefficient2);
    if (row.constant < 0) {
      row.constant = -row.constant;
      for (Term& t : row.terms) t.coefficient = -t.coefficient;
    }

    // The subject: an external variable, else a new restricted symbol with a
    // negative coefficient (it then starts at constant / |coefficient| >= 0).
    std::uint32_t subject = kNone;
    bool allDummies = true;
    for (const Term& t : row.terms) {
      Kind k = symbols[t.symbol].kind;
      if (k == Kind::External) {
        subject = t.symbol;
        break;
      }
      if (k != Kind::Dummy) allDummies = false;
    }
    if (subject == kNone) {
      for (std::uint32_t candidate : {info.marker, info.other}) {
        if (candidate != kNone && restricted(candidate) && coefficientOf(row, candidate) < 0) {
          subject = candidate;
          break;
        }
      }
    }
    if (subject == kNone && allDummies) {
      if (!nearZero(row.constant)) {
        dropNewVars(varsBefore);
        return SolverStatus::UnsatisfiableConstraint;
      }
      subject = info.marker;  // redundant: its dummy stays at zero
    }
    if (!required) {
      touchObjective();
      addTerm(objective, kNone, error1, data.strength * scale);
      if (error2 != kNone) addTerm(objective, kNone, error2, data.strength * scale);
    }
    if (subject != kNone) {
      double c = coefficientOf(row, subject);
      auto it = std::lower_bound(row.terms.begin(), row.terms.end(), subject,
                                 [](const Term& t, std::uint32_t s) { return t.symbol < s; });
      row.terms.erase(it);
      double scale = -1.0 / c;
      for (Term& t : row.terms) t.coefficient *= scale;
      row.constant *= scale;
      std::uint32_t slot = installRow(std::move(row), subject);
      substitute(subject, slot);
    } else if (!addWithArtificial(std::move(row))) {
      dropNewVars(varsBefore);
      return SolverStatus::UnsatisfiableConstraint;
    }
    held.emplace(constraint.data_.get(), std::move(info));
    optimize(objective);
    return SolverStatus::Ok;
  }

  // Adds `row` (constant >= 0) through an artificial variable whose minimum
  // must be zero for the row to be satisfiable; undoes everything otherwise.
  bool addWithArtificial(Row&& row) {
    beginJournal();
    std::uint32_t art = newSymbol(Kind::Slack);
    artificial.terms = row.terms;
    artificial.constant = row.constant;
    artificialActive = true;
    installRow(std::move(row), art);
    bool ok = optimize(artificial);
    artificialActive = false;
    if (!ok || !nearZero(artificial.constant)) {
      rollback();
      return false;
    }
    std::uint32_t slot = symbols[art].row;
    if (slot != kNone) {
      const Row& artRow = rows[slot];
      std::uint32_t entering = kNone;
      for (const Term& t : artRow.terms) {
        if (restricted(t.symbol)) {
          entering = t.symbol;
          break;
        }
        if (entering == kNone && symbols[t.symbol].kind == Kind::External) entering = t.symbol;
      }
      if (entering == kNone) {
        dropRow(slot);  // only dummies left: the row is implied by the others
      } else {
        pivot(slot, entering);
      }
    }
    scrub(art);
    endJournal();
    return true;
  }

  // Removes what is left of a retired symbol (zero at the solution).
  void scrub(std::uint32_t symbol) {
    slotScratch.assign(columns[symbol].begin(), columns[symbol].end());
    for (std::uint32_t slot : slotScratch) {
      touch(slot);
      Row& row = rows[slot];
      auto it = std::lower_bound(row.terms.begin(), row.terms.end(), symbol,
                                 [](const Term& t, std::uint32_t s) { return t.symbol < s; });
      if (it != row.terms.end() && it->symbol == symbol) row.terms.erase(it);
    }
    columns[symbol].clear();
    auto it = std::lower_bound(objective.terms.begin(), objective.terms.end(), symbol,
                               [](const Term& t, std::uint32_t s) { return t.symbol < s; });
    if (it != objective.terms.end() && it->symbol == symbol) {
      touchObjective();
      objective.terms.erase(it);
    }
  }

  // The row to pivot a non-basic marker into, so it can be dropped. A row
  // whose basic symbol is a dummy comes first: it records a required
  // equality made redundant by this constraint, which then takes over (its
  // dummy turns parametric, held at zero) instead of being left unenforced;
  // such rows hold dummies only, so the pivot moves no value. Otherwise the
  // ratios keep every restricted row non-negative.
  std::uint32_t markerLeavingRow(std::uint32_t marker) {
    double r1 = std::numeric_limits<double>::infinity(), r2 = r1;
    std::uint32_t first = kNone, second = kNone, third = kNone;
    for (std::uint32_t slot : columns[marker]) {
      const Row& row = rows[slot];
      double c = coefficientOf(row, marker);
      if (c == 0) continue;
      if (symbols[row.basic].kind == Kind::Dummy) return slot;
      if (symbols[row.basic].kind == Kind::External) {
        third = slot;
      } else if (c < 0) {
        double r = -row.constant / c;
        if (r < r1) r1 = r, first = slot;
      } else {
        double r = row.constant / c;
        if (r < r2) r2 = r, second = slot;
      }
    }
    return first != kNone ? first : second != kNone ? second : third;
  }

  SolverStatus remove(const SolverConstraint& constraint) {
    auto found = held.find(constraint.data_.get());
    if (found == held.end()) return SolverStatus::UnknownConstraint;
    Held info = std::move(found->second);
    held.erase(found);
    double strength = info.constraint.data_->strength;
    if (strength < SolverStrength::required) {
      strength *= info.scale;
      for (std::uint32_t symbol : {info.marker, info.other}) {
        if (symbol == kNone || symbols[symbol].kind != Kind::Error) continue;
        std::uint32_t slot = symbols[symbol].row;
        if (slot != kNone) {
          addRow(objective, kNone, rows[slot], -strength);
        } else {
          addTerm(objective, kNone, symbol, -strength);
        }
      }
    }
    std::uint32_t slot = symbols[info.marker].row;
    if (slot == kNone) {
      slot = markerLeavingRow(info.marker);
      if (slot != kNone) pivot(slot, info.marker);
    }
    if (slot != kNone) dropRow(slot);
    scrub(info.marker);
    // The other error symbol appeared in no row but this constraint's, so
    // it has cancelled out everywhere; scrub clears rounding residue.
    if (info.other != kNone) scrub(info.other);
    optimize(objective);
    return SolverStatus::Ok;
  }

  SolverStatus setConstant(const SolverConstraint& constraint, double constant) {
    if (!std::isfinite(constant)) return SolverStatus::BadValue;
    auto found = held.find(constraint.data_.get());
    if (found == held.end()) return SolverStatus::UnknownConstraint;
    auto& data = *constraint.data_;
    double delta = constant - data.expression.constant;
    if (delta == 0) return SolverStatus::Ok;
    const Held& info = found->second;
    // The new row is the old one with marker = marker' + delta / coefficient.
    double shift = delta / info.scale / info.markerCoefficient;
    bool required = data.strength >= SolverStrength::required;
    if (required) beginJournal();
    bool ok = true;
    std::uint32_t marker = info.marker;
    auto check = [&](const Row& row) {
      Kind k = symbols[row.basic].kind;
      if (k == Kind::Dummy && !nearZero(row.constant)) ok = false;
      if ((k == Kind::Slack || k == Kind::Error) && row.constant < 0) {
        infeasible.push_back(row.basic);
      }
    };
    if (std::uint32_t slot = symbols[marker].row; slot != kNone) {
      touch(slot);
      rows[slot].constant -= shift;
      check(rows[slot]);
    } else {
      for (std::uint32_t s : columns[marker]) {
        touch(s);
        rows[s].constant += coefficientOf(rows[s], marker) * shift;
        check(rows[s]);
      }
    }
    if (ok) ok = dualOptimize();
    if (!ok) {
      if (required) {
        rollback();
        return SolverStatus::UnsatisfiableConstraint;
      }
      infeasible.clear();  // cannot happen: preferred rows always have a way out
    }
    if (required) endJournal();
    data.expression.constant = constant;
    return SolverStatus::Ok;
  }

  void update(const std::function<void(const SolverVariable&)>& changed) {
    for (std::uint32_t v : dirtyVars) {
      Var& var = vars[v];
      var.dirty = false;
      std::uint32_t slot = symbols[var.symbol].row;
      double value = slot == kNone ? 0.0 : rows[slot].constant;
      if (value == 0) value = 0;  // no negative zero
      if (value != var.handle.data_->value) {
        var.handle.data_->value = value;
        if (changed) changed(var.handle);
      }
    }
    dirtyVars.clear();
  }
};

LinearSolver::LinearSolver() : tableau_(std::make_unique<Tableau>()) {}
LinearSolver::~LinearSolver() = default;

// Out of memory mid-operation, the tableau may be half-changed: the solver
// then drops everything, as reset() does, and the call answers BadValue.
#define NIMB_SOLVER_GUARD(expression)       \
  try {                                     \
    return expression;                      \
  } catch (...) {                           \
    tableau_ = std::make_unique<Tableau>(); \
    return SolverStatus::BadValue;          \
  }

SolverStatus LinearSolver::addConstraint(const SolverConstraint& constraint){
    NIMB_SOLVER_GUARD(tableau_->add(constraint))}

SolverStatus LinearSolver::removeConstraint(const SolverConstraint& constraint) {
  NIMB_SOLVER_GUARD(tableau_->remove(constraint))
}

bool LinearSolver::hasConstraint(const SolverConstraint& constraint) const {
  return tableau_->held.count(constraint.data_.get()) != 0;
}

SolverStatus LinearSolver::setConstant(const SolverConstraint& constraint, double constant){
    NIMB_SOLVER_GUARD(tableau_->setConstant(constraint, constant))}

SolverStatus LinearSolver::addEditVariable(const SolverVariable& variable, double strength) {
  if (tableau_->edits.count(variable.data_.get())) return SolverStatus::DuplicateEditVariable;
  strength = clampStrength(strength);
  if (strength >= SolverStrength::required) return SolverStatus::BadRequiredStrength;
  try {
    SolverConstraint constraint(SolverExpression{{SolverTerm{variable, 1.0}}, 0.0},
                                SolverRelation::Equal, strength);
    SolverStatus status = tableau_->add(constraint);
    if (status == SolverStatus::Ok) {
      tableau_->edits.emplace(variable.data_.get(), Tableau::Edit{std::move(constraint)});
    }
    return status;
  } catch (...) {
    tableau_ = std::make_unique<Tableau>();
    return SolverStatus::BadValue;
  }
}

SolverStatus LinearSolver::removeEditVariable(const SolverVariable& variable) {
  auto found = tableau_->edits.find(variable.data_.get());
  if (found == tableau_->edits.end()) return SolverStatus::UnknownEditVariable;
  SolverConstraint constraint = found->second.constraint;
  tableau_->edits.erase(found);
  NIMB_SOLVER_GUARD(tableau_->remove(constraint))
}

bool LinearSolver::hasEditVariable(const SolverVariable& variable) const {
  return tableau_->edits.count(variable.data_.get()) != 0;
}

SolverStatus LinearSolver::suggestValue(const SolverVariable& variable, double value) {
  auto found = tableau_->edits.find(variable.data_.get());
  if (found == tableau_->edits.end()) return SolverStatus::UnknownEditVariable;
  // The edit constraint reads `variable - value = 0`.
  NIMB_SOLVER_GUARD(tableau_->setConstant(found->second.constraint, -value))
}

void LinearSolver::updateVariables(const std::function<void(const SolverVariable&)>& changed) {
  tableau_->update(changed);
}

void LinearSolver::reset() {
  try {
    tableau_ = std::make_unique<Tableau>();
  } catch (...) {
    // Keep the old tableau: a solver that cannot allocate an empty one
    // cannot do anything else either.
  }
}

std::size_t LinearSolver::constraintCount() const {
  return tableau_->held.size() - tableau_->edits.size();
}

}  // namespace nimb
