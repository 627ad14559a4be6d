#include <baseop/detail/surface/JoinedBlocks.hpp>
#include <baseop/detail/surface/SurfaceEdges.hpp>
#include <model/hestra/Pulse.hpp>
#include <model/vantle/DoublePrecision.hpp>

#include <limits>
#include <stdexcept>
#include <type_traits>
#include <variant>

namespace Vantle::detail {

namespace {

using Orvix::PhysicalSpace;

using Elements = TypeList<double, float, unsigned char, short, unsigned short, int, unsigned int, PhysicalSpace::vector,
                          PhysicalSpace::point>;
template<class T>
using ValueOf = std::conditional_t<std::is_arithmetic_v<T>, double, T>;
using Values = std::variant<std::monostate, std::vector<double>, std::vector<PhysicalSpace::vector>,
                            std::vector<PhysicalSpace::point>>;

template<class T>
T notANumber() {
    constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
    if constexpr (std::is_same_v<T, double>)
        return kNaN;
    else
        return T(kNaN, kNaN, kNaN);
}

} // namespace

Hestra::StrongPtr<MemBase> SurfaceEdges::evaluate(const Field& field) const {
    const auto names = Hestra::dynamicCast<MemArray<1, index_t>>(identifiers ? identifiers->getData() : nullptr);
    const auto along = Hestra::dynamicCast<MemArray<1, double>>(weights ? weights->getData() : nullptr);
    if (!names || !along) return {};

    Values values;
    std::size_t first = 0;
    for (const SurfacePiece& piece : pieces) {
        const std::size_t begin = std::exchange(first, piece.endVertex);
        if (begin == piece.endVertex) continue;
        const unsigned int block = joins ? joins->find(piece.fragment) : 0;
        const bool shares = joins && block < joins->blocks() && joins->isShared(block);
        const Hestra::StrongPtr<MemBase> data =
            shares ? ownersData(*joins, field, block) : getDataInDoublePrecision(field, piece.fragment);
        if (!data) continue;
        const bool known = withMemArray<3>(Elements(), data, [&]<class T>(const MemArray<3, T>& array) {
            using Value = ValueOf<T>;
            if (array.Size() != piece.size)
                throw std::invalid_argument("field on a surface: a fragment has other extents than the surface's");
            if (std::holds_alternative<std::monostate>(values))
                values = std::vector<Value>(static_cast<std::size_t>(names->nElements()), notANumber<Value>());
            auto* const out = std::get_if<std::vector<Value>>(&values);
            if (!out) throw std::invalid_argument("field on a surface: fragments of several kinds of elements");
            const auto at = [&](index_t n) { return static_cast<Value>(array.element(n)); };
            for (std::size_t v = begin; v < piece.endVertex; ++v) {
                if (v % 65536 == 0)
                    Hestra::Pulse::beat(static_cast<double>(v) / static_cast<double>(names->nElements()));
                const GridEdge edge = piece.edge(names->element(v));
                double weight = along->element(v);
                index_t from = edge.lower.linear(piece.size);
                index_t to = from + (edge.axis == 0   ? 1
                                     : edge.axis == 1 ? piece.size[0]
                                                      : piece.size[0] * piece.size[1]);
                if (shares && isOnFace(edge, piece.size)) {
                    const OrderedEdge ordered(*joins, block, edge, piece.size);
                    if (ordered.reversed) weight = 1.0 - weight;
                    from = ordered.first, to = ordered.second;
                }
                const Value lower = at(from);
                (*out)[v] = lower + weight * (at(to) - lower);
            }
        });
        if (!known) throw std::invalid_argument("field on a surface: elements that cannot be interpolated");
    }
    return std::visit(
        [&](auto& found) -> Hestra::StrongPtr<MemBase> {
            if constexpr (std::is_same_v<std::decay_t<decltype(found)>, std::monostate>)
                return makeMemArray1D(
                           std::vector<double>(static_cast<std::size_t>(names->nElements()), notANumber<double>()))
                    .strong();
            else
                return makeMemArray1D(std::move(found)).strong();
        },
        values);
}

} // namespace Vantle::detail
