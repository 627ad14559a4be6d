#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "baseop/detail/location/GroupKernels.cpp"
#include <baseop/detail/Lanes.hpp>
#include <baseop/detail/location/GroupKernels.hpp>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>

HWY_BEFORE_NAMESPACE();
namespace Vantle::detail::HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// A lane is a group. What is computed in doubles takes two turns.
using Floats = hn::CappedTag<float, GroupRow::Lanes>;
using Doubles = hn::CappedTag<double, GroupRow::Lanes / 2>;
using FewFloats = hn::Rebind<float, Doubles>;
using Steps = hn::RebindToUnsigned<Floats>;
using Float = hn::Vec<Floats>;
using Double = hn::Vec<Doubles>;

constexpr std::size_t Most = GroupRow::Lanes, Members = 8, Words = GroupRow::GroupBytes / 4;

HWY_INLINE Float number(float x) { return hn::Set(Floats(), x); }
HWY_INLINE Double number(double x) { return hn::Set(Doubles(), x); }
// As std::min and std::max, of zeros of both signs and NaN the first.
template<class V>
HWY_INLINE V smaller(V a, V b) {
    return hn::IfThenElse(hn::Lt(b, a), b, a);
}
template<class V>
HWY_INLINE V larger(V a, V b) {
    return hn::IfThenElse(hn::Lt(a, b), b, a);
}
/// a b + c d + e f, from the left.
template<class V>
HWY_INLINE V product(V a, V b, V c, V d, V e, V f) {
    return hn::Add(hn::Add(hn::Mul(a, b), hn::Mul(c, d)), hn::Mul(e, f));
}
/// What is too large becomes infinite.
HWY_INLINE hn::Vec<FewFloats> toFloat(Double x) {
#if HWY_TARGET == HWY_SCALAR
    return hn::Set(FewFloats(), static_cast<float>(hn::GetLane(x)));
#else
    return hn::DemoteTo(FewFloats(), x);
#endif
}

/// As many groups as there are lanes, with the numbers of their cells by member.
template<int Edges>
class Batch {
public:
    /// The groups from number `first` on.
    HWY_INLINE void make(const GroupRow& row, std::size_t first) {
        const Floats floats;
        take(row, first);
        for (std::size_t d = 0; d < 3; ++d) {
            findBox(d, number(row.least[d]));
            hn::StoreU(load(myLow[d]), floats, row.low[d] + first);
            hn::StoreU(load(myHigh[d]), floats, row.high[d] + first);
        }
        if (!row.to) return;
        for (std::size_t h = 0; h < hn::Lanes(floats); h += hn::Lanes(Doubles())) findFrame(h);
        intersect(row.least);
        for (std::size_t h = 0; h < hn::Lanes(floats); h += hn::Lanes(Doubles())) findSteps(h);
        quantize();
        HWY_ALIGN float quads[Words / 4][4 * Most];
        for (std::size_t q = 0; q < Words / 4; ++q)
            hn::StoreInterleaved4(load(myWords[4 * q]), load(myWords[4 * q + 1]), load(myWords[4 * q + 2]),
                                  load(myWords[4 * q + 3]), floats, quads[q]);
        const std::size_t count = std::min(hn::Lanes(floats), row.groups - first);
        for (std::size_t g = 0; g < count; ++g)
            for (std::size_t q = 0; q < Words / 4; ++q)
                std::memcpy(row.to + (first + g) * GroupRow::GroupBytes + 16 * q, quads[q] + 4 * g, 16);
    }

private:
    template<class T>
    struct alignas(64) OfGroups {
        T at[Most];
    };
    using Lane = OfGroups<float>;

    static HWY_INLINE Float load(const Lane& from) { return hn::Load(Floats(), from.at); }
    static HWY_INLINE void store(Float x, Lane& to) { hn::Store(x, Floats(), to.at); }
    static HWY_INLINE Double promoted(const Lane& from, std::size_t h) {
        return hn::PromoteTo(Doubles(), hn::Load(FewFloats(), from.at + h));
    }

    HWY_INLINE void take(const GroupRow& row, std::size_t first) {
        const auto split = [&](Lane(&to)[Members], std::size_t r, const float* from) HWY_ATTR {
            Float even, odd;
            hn::LoadInterleaved2(Floats(), from + 2 * first, even, odd);
            store(even, to[2 * r]);
            store(odd, to[2 * r + 1]);
        };
        for (std::size_t r = 0; r < 4; ++r)
            for (int d = 0; d < 3; ++d) {
                split(myCentre[d], r, row.rows[r].centre[d]);
                split(mySlack[d], r, row.rows[r].slack[d]);
                for (int g = 0; g < Edges; ++g) split(myEdge[g][d], r, row.rows[r].edge[g][d]);
            }
    }

    /// The box of all cells along an axis.
    HWY_INLINE void findBox(std::size_t d, Float least) {
        constexpr auto farthest = static_cast<float>(CellBoxTree::Farthest);
        constexpr float infinite = std::numeric_limits<float>::infinity();
        const auto embrace = [&](std::size_t parity, Float& low, Float& high) HWY_ATTR {
            low = number(infinite);
            high = number(-infinite);
            for (std::size_t m = parity; m < Members; m += 2) {
                Float half = number(0.0F);
                for (int g = 0; g < Edges; ++g) half = hn::Add(half, hn::Abs(load(myEdge[g][d][m])));
                const Float centre = load(myCentre[d][m]);
                half = hn::Add(hn::Mul(larger(half, least), number(1.0F + ProductRounding)), load(mySlack[d][m]));
                half = hn::Add(half, hn::Mul(number(PositionRounding), hn::Add(hn::Abs(centre), half)));
                // A NaN is on the right, where it has no effect.
                low = smaller(low, larger(hn::Sub(centre, half), number(-farthest)));
                high = larger(high, smaller(hn::Add(centre, half), number(farthest)));
            }
        };
        Float low0, high0, low1, high1;
        embrace(0, low0, high0);
        embrace(1, low1, high1);
        store(smaller(low0, low1), myLow[d]);
        store(larger(high0, high1), myHigh[d]);
    }

    /// The frame: the sums of the cells' edges, unless they are nearly in a plane.
    HWY_INLINE void findFrame(std::size_t h) {
        const Doubles lanes;
        const Double zero = hn::Zero(lanes);
        Double a0 = zero, a1 = zero, a2 = zero, b0 = zero, b1 = zero, b2 = zero, c0 = zero, c1 = zero, c2 = zero;
        for (std::size_t m = 0; m < Members; ++m) {
            const Double centre = promoted(myCentre[0][m], h);
            const auto exists = hn::Eq(centre, centre);
            const auto add = [&](Double& side, int v, int d) HWY_ATTR {
                side = hn::IfThenElse(exists, hn::Add(side, promoted(myEdge[v][d][m], h)), side);
            };
            add(a0, 0, 0), add(a1, 0, 1), add(a2, 0, 2);
            add(b0, 1, 0), add(b1, 1, 1), add(b2, 1, 2);
            add(c0, 2, 0), add(c1, 2, 1), add(c2, 2, 2);
        }
        const auto minor = [](Double p, Double q, Double r, Double s)
                               HWY_ATTR { return hn::Sub(hn::Mul(p, q), hn::Mul(r, s)); };
        const auto squared = [](Double p, Double q, Double r) HWY_ATTR { return product(p, p, q, q, r, r); };
        const Double det = product(a0, minor(b1, c2, b2, c1), a1, minor(b2, c0, b0, c2), a2, minor(b0, c1, b1, c0));
        constexpr double smallestPart = 1e-5;
        const auto hasFrame =
            hn::Lt(hn::Mul(number(smallestPart * smallestPart),
                           hn::Mul(hn::Mul(squared(a0, a1, a2), squared(b0, b1, b2)), squared(c0, c1, c2))),
                   hn::Mul(det, det));
        const auto put = [&](std::size_t v, std::size_t d, Double side, Double normal) HWY_ATTR {
            Double width = zero, inverse = zero;
            if (v == d) {
                width = hn::Sub(promoted(myHigh[d], h), promoted(myLow[d], h));
                inverse = hn::Div(number(1.0), width);
            }
            normal = hn::IfThenElse(hasFrame, hn::Div(normal, det), inverse);
            hn::Store(hn::IfThenElse(hasFrame, side, width), lanes, mySide[v][d].at + h);
            hn::Store(normal, lanes, myNormal[v][d].at + h);
            hn::Store(toFloat(normal), FewFloats(), myMap[v][d].at + h);
        };
        put(0, 0, a0, minor(b1, c2, b2, c1)), put(0, 1, a1, minor(b2, c0, b0, c2)),
            put(0, 2, a2, minor(b0, c1, b1, c0));
        put(1, 0, b0, minor(c1, a2, c2, a1)), put(1, 1, b1, minor(c2, a0, c0, a2)),
            put(1, 2, b2, minor(c0, a1, c1, a0));
        put(2, 0, c0, minor(a1, b2, a2, b1)), put(2, 1, c1, minor(a2, b0, a0, b2)),
            put(2, 2, c2, minor(a0, b1, a1, b0));
    }

    /// The boxes of the cells in the frame, relative to the first cell that there is.
    HWY_INLINE void intersect(const float (&least)[3]) {
        const Float zero = number(0.0F);
        Float r0 = zero, r1 = zero, r2 = zero;
        auto isAny = hn::Lt(zero, zero);
        for (std::size_t m = 0; m < Members; ++m) {
            const Float c0 = load(myCentre[0][m]);
            const auto exists = hn::Eq(c0, c0);
            const auto isFirst = hn::AndNot(isAny, exists);
            r0 = hn::IfThenElse(isFirst, c0, r0);
            r1 = hn::IfThenElse(isFirst, load(myCentre[1][m]), r1);
            r2 = hn::IfThenElse(isFirst, load(myCentre[2][m]), r2);
            isAny = hn::Or(isAny, exists);
        }
        store(r0, myReference[0]);
        store(r1, myReference[1]);
        store(r2, myReference[2]);
        const auto rounding = [&](int d) HWY_ATTR {
            const Float low = load(myLow[d]), high = load(myHigh[d]);
            return hn::Add(hn::Mul(number(ProductRounding), hn::Sub(high, low)),
                           hn::Mul(number(PositionRounding), larger(hn::Abs(low), hn::Abs(high))));
        };
        const Float e0 = rounding(0), e1 = rounding(1), e2 = rounding(2);
        auto areNumbers = isAny;
        for (int v = 0; v < 3; ++v) {
            const Float m0 = load(myMap[v][0]), m1 = load(myMap[v][1]), m2 = load(myMap[v][2]);
            const Float a0 = hn::Abs(m0), a1 = hn::Abs(m1), a2 = hn::Abs(m2);
            const Float leastHalf = product(a0, number(least[0]), a1, number(least[1]), a2, number(least[2]));
            const Float margin = product(a0, e0, a1, e1, a2, e2);
            Float lowest = number(std::numeric_limits<float>::infinity()), highest = hn::Neg(lowest);
            for (std::size_t m = 0; m < Members; ++m) {
                Float half = zero;
                for (int g = 0; g < Edges; ++g)
                    half = hn::Add(half, hn::Abs(product(m0, load(myEdge[g][0][m]), m1, load(myEdge[g][1][m]), m2,
                                                         load(myEdge[g][2][m]))));
                const Float c0 = load(myCentre[0][m]);
                const Float centre = product(m0, hn::Sub(c0, r0), m1, hn::Sub(load(myCentre[1][m]), r1), m2,
                                             hn::Sub(load(myCentre[2][m]), r2));
                const Float slack =
                    hn::Add(margin, product(a0, load(mySlack[0][m]), a1, load(mySlack[1][m]), a2, load(mySlack[2][m])));
                const Float width = hn::Add(larger(half, leastHalf), slack);
                const Float from = hn::Sub(centre, width), to = hn::Add(centre, width);
                store(from, myFrom[v][m]);
                store(to, myTo[v][m]);
                const auto exists = hn::Eq(c0, c0);
                lowest = hn::IfThenElse(exists, smaller(lowest, from), lowest);
                highest = hn::IfThenElse(exists, larger(highest, to), highest);
                areNumbers = hn::And(areNumbers, hn::Or(hn::Not(exists), hn::And(hn::Eq(from, from), hn::Eq(to, to))));
            }
            store(lowest, myLowest[v]);
            store(highest, myHighest[v]);
        }
        store(hn::IfThenElseZero(areNumbers, number(1.0F)), myAreNumbers);
    }

    /// Steps along the frame, from an origin that is rounded first.
    HWY_INLINE void findSteps(std::size_t h) {
        // Steps of points in a box are from 1 to 254; a cell without a box has all.
        constexpr double StepCount = 252.0, FirstStep = 1.5;
        const Doubles lanes;
        const Double zero = hn::Zero(lanes), most = number(1e30);
        auto isFinite = hn::Eq(zero, zero);
        Double c0 = zero, c1 = zero, c2 = zero;
        for (int v = 0; v < 3; ++v) {
            const Double lowest = promoted(myLowest[v], h);
            const Double perUnit = hn::Div(number(StepCount), hn::Sub(promoted(myHighest[v], h), lowest));
            isFinite = hn::And(isFinite, hn::And(hn::Lt(zero, perUnit), hn::Lt(perUnit, most)));
            const Double start = hn::Sub(lowest, hn::Div(number(FirstStep), perUnit));
            const auto along = [&](int d) HWY_ATTR { return hn::Mul(hn::Load(lanes, mySide[v][d].at + h), start); };
            c0 = hn::Add(c0, along(0));
            c1 = hn::Add(c1, along(1));
            c2 = hn::Add(c2, along(2));
            hn::Store(perUnit, lanes, myPerUnit[v].at + h);
            hn::Store(toFloat(perUnit), FewFloats(), myScale[v].at + h);
        }
        const auto fromReference = [&](int d, Double corner) HWY_ATTR {
            const Double reference = promoted(myReference[d], h);
            hn::Store(toFloat(hn::Add(reference, corner)), FewFloats(), myWords[d].at + h);
            return hn::Sub(promoted(myWords[d], h), reference);
        };
        const Double o0 = fromReference(0, c0), o1 = fromReference(1, c1), o2 = fromReference(2, c2);
        for (int v = 0; v < 3; ++v) {
            const Double perUnit = hn::Load(lanes, myPerUnit[v].at + h);
            Double shift = zero;
            const auto add = [&](int d, Double origin) HWY_ATTR {
                const Double normal = hn::Load(lanes, myNormal[v][d].at + h);
                hn::Store(toFloat(hn::Mul(normal, perUnit)), FewFloats(), myWords[3 + 3 * d + v].at + h);
                shift = hn::Add(shift, hn::Mul(normal, origin));
                isFinite = hn::And(isFinite, hn::Lt(hn::Abs(shift), most));
            };
            add(0, o0);
            add(1, o1);
            add(2, o2);
            hn::Store(toFloat(shift), FewFloats(), myOffset[v].at + h);
        }
        hn::Store(toFloat(hn::IfThenElseZero(isFinite, number(1.0))), FewFloats(), myIsFinite.at + h);
    }

    /// Bounds in steps, and the frame; out of the range of numbers, the cells may be anywhere.
    HWY_INLINE void quantize() {
        // That of a difference of two numbers, a little more than half a unit in the last place.
        constexpr float DifferenceRounding = 8e-8F;
        const Float one = number(1.0F), most = number(1e30F);
        auto isFinite = hn::And(hn::Eq(load(myAreNumbers), one), hn::Eq(load(myIsFinite), one));
        for (int d = 0; d < 3; ++d) {
            // Differences to a far origin would be rounded by more than the margin: of a group with some far vertices
            // the frame may begin far away from all of its cells.
            const Float low = load(myLow[d]), high = load(myHigh[d]), origin = hn::Abs(load(myWords[d]));
            const Float reach = larger(hn::Abs(low), hn::Abs(high));
            const Float rounding = hn::Mul(number(DifferenceRounding), hn::Add(origin, reach));
            const Float margin = hn::Add(hn::Mul(number(PositionRounding), reach),
                                         hn::Mul(number(0.5F * ProductRounding), hn::Sub(high, low)));
            isFinite = hn::And(isFinite, hn::And(hn::Lt(origin, most), hn::Le(rounding, margin)));
        }
        for (int w = 3; w < 12; ++w) isFinite = hn::And(isFinite, hn::Lt(hn::Abs(load(myWords[w])), most));
        for (int w = 0; w < 12; ++w) store(hn::IfThenElseZero(isFinite, load(myWords[w])), myWords[w]);

        const Float last = number(255.0F), widening = number(0.05F);
        // Cells that are not there may have any numbers, or none.
        const auto clamped = [&](Float x)
                                 HWY_ATTR { return smaller(hn::IfThenElseZero(hn::Lt(number(0.0F), x), x), last); };
        for (std::size_t v = 0; v < 3; ++v) {
            const Float offset = load(myOffset[v]), scale = load(myScale[v]);
            for (std::size_t half = 0; half < 2; ++half) {
                auto lower = hn::Zero(Steps()), upper = lower;
                for (std::size_t m = 0; m < 4; ++m) {
                    const auto step = [&](const Lane(&bounds)[Members]) HWY_ATTR {
                        return hn::Mul(hn::Sub(load(bounds[4 * half + m]), offset), scale);
                    };
                    const auto append = [&](auto& word, Float x) HWY_ATTR {
                        const std::size_t byte = std::endian::native == std::endian::little ? m : 3 - m;
                        const auto bits = hn::BitCast(Steps(), hn::ConvertTo(hn::RebindToSigned<Floats>(), x));
                        word = hn::Or(word, hn::ShiftLeftSame(bits, static_cast<int>(8 * byte)));
                    };
                    const Float centre = load(myCentre[0][4 * half + m]);
                    const auto exists = hn::Eq(centre, centre);
                    const Float least = clamped(hn::Sub(step(myFrom[v]), widening));
                    const Float greatest = clamped(hn::Add(step(myTo[v]), widening));
                    append(lower, hn::IfThenElse(exists, hn::IfThenElseZero(isFinite, least), last));
                    append(upper, hn::IfThenElseZero(exists, hn::IfThenElse(isFinite, greatest, last)));
                }
                store(hn::BitCast(Floats(), lower), myWords[12 + 4 * v + half]);
                store(hn::BitCast(Floats(), upper), myWords[14 + 4 * v + half]);
            }
        }
    }

    Lane myCentre[3][Members], mySlack[3][Members], myEdge[Edges][3][Members];
    Lane myLow[3], myHigh[3], myReference[3];
    // By axis of the frame.
    OfGroups<double> mySide[3][3], myNormal[3][3], myPerUnit[3];
    Lane myMap[3][3], myFrom[3][Members], myTo[3][Members], myLowest[3], myHighest[3], myScale[3], myOffset[3];
    Lane myAreNumbers, myIsFinite; // 1 or 0
    Lane myWords[Words];
};

template<int Edges>
void makeAll(const GroupRow& row) {
    Batch<Edges> batch;
    for (std::size_t first = 0; first < row.groups; first += hn::Lanes(Floats())) batch.make(row, first);
}
void makeOf3(const GroupRow& row) { makeAll<3>(row); }
void makeOf7(const GroupRow& row) { makeAll<7>(row); }

} // namespace Vantle::detail::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace Vantle::detail {

HWY_EXPORT(makeOf3);
HWY_EXPORT(makeOf7);

template<>
void makeGroups<3>(const GroupRow& row) {
    HWY_DYNAMIC_DISPATCH(makeOf3)(row);
}
template<>
void makeGroups<7>(const GroupRow& row) {
    HWY_DYNAMIC_DISPATCH(makeOf7)(row);
}

} // namespace Vantle::detail

#endif
