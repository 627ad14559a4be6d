#pragma once
/// Axis-aligned boxes and the balls around them, attachable to the objects that they bound.

#include <model/hestra/Interface.hpp>
#include <model/orvix/PhysicalSpace.hpp>

namespace Orvix {

/// A ball around the points of an object; also the interface under which bounds are attached.
class VANTLE_MODEL_API BoundingBall : public Hestra::Interface<BoundingBall> {
public:
    BoundingBall() noexcept = default;
    BoundingBall(const PhysicalSpace::point& centre, double radius) noexcept : myCentre(centre), myRadius(radius) {}
    ~BoundingBall() override;

    /// The centre; the origin by default.
    [[nodiscard]] const PhysicalSpace::point& center() const noexcept { return myCentre; }
    /// The radius; 0 by default.
    [[nodiscard]] double radius() const noexcept { return myRadius; }

protected:
    BoundingBall(const BoundingBall&) = default;
    BoundingBall& operator=(const BoundingBall&) = default;

    PhysicalSpace::point myCentre;
    double myRadius = 0.0;
};

/// An axis-aligned box: least and greatest corner, an empty flag, and the ball around it.
///
/// Attached boxes are shared: widen a copy and attach that. Copies copy the values, and neither owners nor
/// attachments.
///
/// Laws         embracing a box gives what embracing its two corners gives; embracing twice changes nothing more;
///              without NaN the order of embraces does not matter.
/// Degenerate   a point has a box, which is not empty. Corners given in the wrong order stay so, and nothing is
///              inside then.
/// Concurrency  const members may be called from any number of threads while nobody widens the box.
class VANTLE_MODEL_API BoundingBox : public BoundingBall {
public:
    /// Empty: the first embrace sets both corners.
    BoundingBox() noexcept = default;
    /// The box between two corners, as given and never reordered; not empty, ball updated.
    BoundingBox(const PhysicalSpace::point& min, const PhysicalSpace::point& max) noexcept
        : myMin(min), myMax(max), myEmpty(false) {
        updateBall();
    }
    BoundingBox(const BoundingBox&) = default;
    BoundingBox& operator=(const BoundingBox&) = default;
    ~BoundingBox() override;

    /// The least corner; the origin while empty.
    [[nodiscard]] const PhysicalSpace::point& minCoord() const noexcept { return myMin; }
    /// The greatest corner; the origin while empty.
    [[nodiscard]] const PhysicalSpace::point& maxCoord() const noexcept { return myMax; }
    /// True while no point has been taken in.
    [[nodiscard]] bool isEmpty() const noexcept { return myEmpty; }

    /// Widens the box to take in `other`; an empty `other` changes nothing. The ball is not updated.
    ///
    /// Per axis, `other`'s minimum and then its maximum replace this minimum unless greater or equal, and this
    /// maximum if greater. So NaN replaces the minimum and never the maximum, and the number after a NaN
    /// replaces the minimum again; this asymmetry is intended. NaN in the first point fills both corners.
    void embrace(const BoundingBox& other) noexcept {
        if (other.myEmpty) return;
        if (myEmpty) {
            myMin = other.myMin;
            myMax = other.myMax;
            myEmpty = false;
            return;
        }
        for (int axis = 0; axis < 3; ++axis) {
            embraceCoordinate(axis, other.myMin[axis]);
            embraceCoordinate(axis, other.myMax[axis]);
        }
    }
    /// Widens the box to take in a point, as the box of this one point.
    void embrace(const PhysicalSpace::point& p) noexcept {
        if (myEmpty) {
            myMin = p;
            myMax = p;
            myEmpty = false;
            return;
        }
        for (int axis = 0; axis < 3; ++axis) embraceCoordinate(axis, p[axis]);
    }

    /// Sets the ball to the one around the box; of an empty box, to the origin with radius 0.
    void updateBall() noexcept {
        const PhysicalSpace::vector diagonal = myMax - myMin;
        myCentre = myMin + diagonal * 0.5;
        myRadius = length(diagonal) * 0.5;
    }

    /// Whether the point is in the closed box: faces belong to it, NaN does not, and an empty box holds nothing.
    /// `lastAxis` names the last axis tested: 'x' tests x alone, 'y' x and y, 'z' all three.
    [[nodiscard]] bool inside(const PhysicalSpace::point& p, char lastAxis = 'z') const noexcept {
        if (myEmpty || !within(0, p)) return false;
        if (lastAxis == 'x') return true;
        if (!within(1, p)) return false;
        return lastAxis == 'y' || within(2, p);
    }

private:
    void embraceCoordinate(int axis, double c) noexcept {
        if (!(c >= myMin[axis])) myMin[axis] = c;
        if (c > myMax[axis]) myMax[axis] = c;
    }
    [[nodiscard]] bool within(int axis, const PhysicalSpace::point& p) const noexcept {
        return p[axis] >= myMin[axis] && p[axis] <= myMax[axis];
    }

    PhysicalSpace::point myMin, myMax;
    bool myEmpty = true;
};

} // namespace Orvix
