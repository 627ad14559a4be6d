#include <model/vantle/Skeleton.hpp>

#include <algorithm>
#include <cmath>

namespace Vantle {

using Hestra::StrongPtr;
using Hestra::WeakPtr;

ConstSkeletonIterator::~ConstSkeletonIterator() = default;
SkeletonMap::~SkeletonMap() = default;

Skeleton::Skeleton(const SkeletonID& id, const WeakPtr<Owner>& owner) : myID(id), myOwner(owner) {}
Skeleton::~Skeleton() = default;

StrongPtr<Representation> Skeleton::operator[](const WeakPtr<BaseSpace>& base) {
    const StrongPtr<BaseSpace> living = base.lock();
    return living ? (*this)(*living) : nullptr;
}

StrongPtr<Field> Skeleton::getField(const WeakPtr<BaseSpace>& base, const std::string& name, const Atlas& atlas,
                                    const std::set<std::string>& excludedCharts) const {
    const RepresentationMap& representations_ = *this;
    if (base) {
        const auto representation = representations_(base);
        return representation ? representation->findField(name) : Field::NullPtrField();
    }
    for (const auto& chart : atlas.charts()) {
        if (excludedCharts.count(chart->name())) continue;
        if (const auto representation = representations_(WeakPtr<BaseSpace>(chart)))
            if (auto field = representation->findField(name)) return field;
    }
    for (const auto& representation : representations()) {
        const auto chart = Hestra::dynamicCast<Chart>(representation->baseSpace());
        if (chart && excludedCharts.count(chart->name())) continue;
        if (auto field = representation->findField(name)) return field;
    }
    return Field::NullPtrField();
}

bool Skeleton::iterateOwned(const std::function<bool(BaseSpaceDependency&)>& function) const {
    const auto owned = representations();
    return std::all_of(owned.begin(), owned.end(), [&](const auto& one) { return function(*one); });
}

const Hestra::Referable* Skeleton::ownerObject() const { return myOwner ? myOwner.record()->object.load() : nullptr; }

WeakPtr<Representation::Owner> Skeleton::representationOwner() { return WeakPtr<Representation::Owner>(*this); }

std::vector<std::string> getSkeletonFields(const StrongPtr<Skeleton>& skeleton, const StrongPtr<Chart>& chart,
                                           const FieldSelector& selector, const std::set<std::string>& excluded) {
    std::vector<std::string> names;
    const auto representation = skeleton && chart ? skeleton->findRepresentation(*chart) : nullptr;
    if (!representation) return names;
    representation->iterate([&](const FieldID& id, const Field&) {
        if (selector.accepts(id.name()) && !excluded.contains(id.name())) names.push_back(id.name());
        return true;
    });
    return names;
}

StrongPtr<Skeleton> SkeletonMap::findVertices(int dims) const {
    if (dims != ~0) return getSkeleton(SkeletonID(dims, 0));
    for (auto entry = mySkeletons.rbegin(); entry != mySkeletons.rend(); ++entry)
        if (entry->first.indexDepth() == 0) return entry->second;
    return nullptr;
}

std::string SkeletonMap::getVerticesInfo(int dims) const {
    const StrongPtr<Skeleton> vertices = findVertices(dims);
    if (!vertices) return {};
    return "vertices of dimension " + std::to_string(vertices->Dims()) + " in " +
           std::to_string(vertices->representations().size()) + " representations";
}

StrongPtr<Skeleton> SkeletonMap::getSkeleton(const SkeletonID& id) const {
    const auto found = mySkeletons.find(id);
    return found == mySkeletons.end() ? StrongPtr<Skeleton>() : found->second;
}

StrongPtr<Skeleton> SkeletonMap::operator[](const SkeletonID& id) {
    auto& slot = mySkeletons[id];
    if (!slot) slot = Hestra::makeRef<Skeleton>(id, skeletonOwner());
    return slot;
}

bool SkeletonMap::iterate(ConstSkeletonIterator& iterator) const {
    const auto snapshot = mySkeletons;
    for (const auto& [id, skeleton] : snapshot)
        if (!iterator.apply(id, *skeleton)) return false;
    return true;
}

namespace {

template<class Choose>
int chartLevel(const StrongPtr<Skeleton>& vertices, Choose choose) {
    int level = -1;
    if (vertices)
        for (const auto& representation : vertices->representations())
            if (const auto chart = Hestra::dynamicCast<Chart>(representation->baseSpace()))
                level = level < 0 ? chart->level() : choose(level, static_cast<int>(chart->level()));
    return std::max(level, 0);
}

} // namespace

int SkeletonMap::MinLevel(int dims) const {
    return chartLevel(findVertices(dims), [](int a, int b) { return std::min(a, b); });
}
int SkeletonMap::MaxLevel(int dims) const {
    return chartLevel(findVertices(dims), [](int a, int b) { return std::max(a, b); });
}

double SkeletonMap::findIsotropicRefinementFactor(int from, int to) const { return std::ldexp(1.0, to - from); }

} // namespace Vantle
