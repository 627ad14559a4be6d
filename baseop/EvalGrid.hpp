#pragma once
/// A field of one grid, made available on another under the same name.
///
/// By indirection, when the destination's vertices are known by the numbers of the source's vertices; else by
/// evaluation at the destination's positions (`GridEvaluator`).

#include <baseop/BaseOpExport.hpp>
#include <baseop/GridEvaluator.hpp>
#include <model/vantle/Bundle.hpp>

#include <string>

namespace Vantle {

/// The field `fieldName` of `source`, on the vertices of `destination` in its default chart.
///
/// See `EvalFieldOnRepresentation`. A destination without vertices has no coordinates.
VANTLE_BASEOP_API Hestra::StrongPtr<Field> EvalGrid(Grid& destination, Grid& source, const std::string& fieldName,
                                                    Slice& slice, const EvaluationOptions& options);
/// The same with default options: `context` is their label, and `flag` has curvilinear fragments searched by exact cell
/// locators instead of linear solves.
VANTLE_BASEOP_API Hestra::StrongPtr<Field> EvalGrid(Grid& destination, Grid& source, const std::string& fieldName,
                                                    Slice& slice, const std::string& context = {}, bool flag = false);

/// The field `fieldName` of `source`, on `destination`, a representation of `destinationSkeleton`.
///
/// - On the source's own representation it is the field as it is, or null.
/// - An existing field of that name is returned, never overwritten.
/// - If the skeleton has a representation relative to the source's vertices, its positions are the numbers of source
///   vertices, and the new field is gathered from the unfragmented source.
/// - Else the source is evaluated at the destination's "Positions", fragment by fragment. Positions that no fragment of
///   the source claims have value zero; a uniform fragment claims all, see `GridEvaluator`. Fragments that cannot be
///   evaluated, or have no positions, stay without data.
///
/// `slice` holds the source, and gets its search structures.
/// Failure      null, the destination as it was, and a message that says what is missing; without a message when no
///              fragment could be evaluated.
/// Concurrency  one evaluation into a destination at a time; any number over a source.
VANTLE_BASEOP_API Hestra::StrongPtr<Field>
EvalFieldOnRepresentation(Representation& destination, const Hestra::StrongPtr<Skeleton>& destinationSkeleton,
                          Grid& source, const std::string& fieldName, Slice& slice, const EvaluationOptions& options);
/// The same with default options, as `EvalGrid`.
VANTLE_BASEOP_API Hestra::StrongPtr<Field>
EvalFieldOnRepresentation(Representation& destination, const Hestra::StrongPtr<Skeleton>& destinationSkeleton,
                          Grid& source, const std::string& fieldName, Slice& slice, const std::string& context = {},
                          bool flag = false);

/// Evaluates a field at the fragments of a positions field. Each has an evaluator of its own, whose point location is
/// reported; with nobody listening one serves them all.
///
/// Concurrency  one thread at a time.
class VANTLE_BASEOP_API EvalFragment : public FragmentIterator {
public:
    /// Any of the handles may be null: fragments stay without data then. `target` gets the values.
    EvalFragment(const Hestra::StrongPtr<Field>& sourcePositions, const Hestra::StrongPtr<Field>& sourceField,
                 const Hestra::StrongPtr<Field>& target, GridEvaluator::Context context);
    ~EvalFragment() override;

    /// Evaluates one fragment. True: the iteration always goes on.
    bool apply(const Hestra::StrongPtr<FragmentID>& id,
               const Hestra::StrongPtr<CreativeArrayBase>& positionsCreator) override;

    /// Number of fragments that have got data.
    [[nodiscard]] std::size_t nEvaluated() const noexcept { return myEvaluated; }

private:
    Hestra::StrongPtr<Field> mySourcePositions;
    Hestra::StrongPtr<Field> mySourceField;
    Hestra::StrongPtr<Field> myTarget;
    GridEvaluator::Context myContext;
    std::unique_ptr<GridEvaluator> myEvaluator;
    std::size_t myEvaluated = 0;
};

} // namespace Vantle
