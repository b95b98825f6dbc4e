// LinearSolver: an incremental solver for systems of linear equalities and
// inequalities over real variables, some required and some preferred with a
// weight, by the Cassowary algorithm (Badros, Borning and Stuckey, ACM TOCHI
// 2001). It keeps its tableau between calls, so adding or removing one
// constraint, changing one constant or suggesting a new value for an edit
// variable costs a few pivots, not a new solve.
//
// The layout engine (LayoutEngine) turns view constraints into these; it is
// also usable on its own for any linear arrangement problem.
//
// A constraint reads `expression RELATION 0`. A required constraint must
// hold; a preferred one (strength below SolverStrength::required) is
// satisfied as well as the required ones allow, the solver minimising the sum
// of each preferred constraint's error times its strength.
//
// Precision: each constraint is scaled by its largest coefficient, and
// numbers below 1e-8 count as zero. With coefficients within two orders of
// magnitude of one another (layouts: 1, multipliers, halves), required
// constraints hold to about 1e-3 of the values involved even after long
// sequences of changes; systems mixing coefficients a thousand or more times
// apart can drift further, and can even accept a required constraint that
// contradicts the others by less than that drift.
//
// Failures are results, never exceptions: adding a required constraint that
// contradicts the required ones already held answers Unsatisfiable and
// leaves the solver as it was.
//
// Thread rule: one thread at a time per solver; variables and constraints are
// handles that may be shared between solvers on the same thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

// Strengths. Anything at or above `required` is required; `weak`, `medium`
// and `strong` are conventional weights (any positive weight may be used).
namespace SolverStrength {
inline constexpr double required = 1001001000.0;
inline constexpr double strong = 1000000.0;
inline constexpr double medium = 1000.0;
inline constexpr double weak = 1.0;
}  // namespace SolverStrength

// A real variable. Copies are handles to the same variable; a default-made
// variable is a new one. value() is what the last updateVariables() of a
// solver holding it wrote (0 before).
class SolverVariable {
 public:
  SolverVariable();
  explicit SolverVariable(std::string name);

  const std::string& name() const;
  double value() const;
  // A number unique to this variable for the life of the process.
  std::uint64_t id() const;

  friend bool operator==(const SolverVariable& a, const SolverVariable& b) {
    return a.data_ == b.data_;
  }

 private:
  friend class LinearSolver;
  struct Data;
  std::shared_ptr<Data> data_;
};

struct SolverTerm {
  SolverVariable variable;
  double coefficient = 1;
};

// sum(coefficient * variable) + constant. A variable may appear in several
// terms; they add up.
struct SolverExpression {
  std::vector<SolverTerm> terms;
  double constant = 0;
};

enum class SolverRelation { LessOrEqual, Equal, GreaterOrEqual };

// `expression RELATION 0` with a strength. A handle: copies name the same
// constraint, which a solver holds at most once.
class SolverConstraint {
 public:
  // Strengths are clamped to [0, required]; NaN counts as required.
  SolverConstraint(SolverExpression expression, SolverRelation relation,
                   double strength = SolverStrength::required);

  const SolverExpression& expression() const;
  SolverRelation relation() const;
  double strength() const;
  bool isRequired() const;
  std::uint64_t id() const;

  friend bool operator==(const SolverConstraint& a, const SolverConstraint& b) {
    return a.data_ == b.data_;
  }

 private:
  friend class LinearSolver;
  struct Data;
  std::shared_ptr<Data> data_;
};

enum class SolverStatus {
  Ok,
  DuplicateConstraint,      // the solver already holds this constraint
  UnsatisfiableConstraint,  // a required constraint contradicts the held ones
  UnknownConstraint,        // not held by this solver
  DuplicateEditVariable,    // already an edit variable
  UnknownEditVariable,      // not an edit variable of this solver
  BadRequiredStrength,      // edit variables cannot be required
  BadValue,                 // a NaN or infinite number where a value was needed
};

class LinearSolver {
 public:
  LinearSolver();
  ~LinearSolver();
  LinearSolver(const LinearSolver&) = delete;
  LinearSolver& operator=(const LinearSolver&) = delete;

  // Adds a constraint. A required one that cannot hold with the required
  // ones already held answers UnsatisfiableConstraint and changes nothing.
  SolverStatus addConstraint(const SolverConstraint& constraint);
  SolverStatus removeConstraint(const SolverConstraint& constraint);
  bool hasConstraint(const SolverConstraint& constraint) const;
  // Changes the constant of a held constraint's expression in place, as
  // cheaply as an edit (no removal and re-adding). The handle's expression()
  // reads the new constant afterwards. A required constraint that can no
  // longer hold answers UnsatisfiableConstraint and keeps its old constant.
  SolverStatus setConstant(const SolverConstraint& constraint, double constant);

  // An edit variable is one whose value callers suggest, at a strength below
  // required; the solver then keeps it as close to the suggestion as the
  // other constraints allow.
  SolverStatus addEditVariable(const SolverVariable& variable, double strength);
  SolverStatus removeEditVariable(const SolverVariable& variable);
  bool hasEditVariable(const SolverVariable& variable) const;
  SolverStatus suggestValue(const SolverVariable& variable, double value);

  // Writes the current solution into every variable the solver holds. When
  // `changed` is given it is called once for each variable whose value
  // differs from what it held before this call.
  void updateVariables(const std::function<void(const SolverVariable&)>& changed = {});

  // Drops every constraint and edit variable. (Should memory run out in the
  // middle of a call, the solver does the same and the call answers BadValue.)
  void reset();
  std::size_t constraintCount() const;

 private:
  struct Tableau;
  std::unique_ptr<Tableau> tableau_;
};

}  // namespace nimb
