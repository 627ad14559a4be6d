#include <model/hestra/Pulse.hpp>
#include <model/vantle/Derived.hpp>
#include <model/vantle/DoublePrecision.hpp>

#include <algorithm>
#include <mutex>

namespace Vantle {

using Hestra::StrongPtr;
using Hestra::WeakPtr;
using Orvix::PhysicalSpace;

namespace {

template<class T>
using Doubled = std::conditional_t<std::is_same_v<T, FloatPoint>, PhysicalSpace::point, PhysicalSpace::vector>;

/// Beside data in single precision: who converts them, and them only, should attachments be handed on.
class Conversion : public Hestra::Interface<Conversion> {
public:
    Conversion(const WeakPtr<CreativeArrayBase>& source, const StrongPtr<CreativeArray>& converter)
        : mySource(source), myConverter(converter) {}
    [[nodiscard]] static StrongPtr<CreativeArray> find(const CreativeArrayBase& source) {
        const auto known = source.findInterface<Conversion>();
        return known && known->mySource.rawptr() == &source ? known->myConverter : nullptr;
    }

private:
    WeakPtr<CreativeArrayBase> mySource;
    StrongPtr<CreativeArray> myConverter;
};

StrongPtr<CreativeArray> makeConverter(const DerivedArray::Source& source, const CreativeArrayBase& creator,
                                       const WeakPtr<Hestra::Cache>& cache) {
    const auto convert = [](const StrongPtr<MemBase>& data, const WeakPtr<CreativeArrayBase>& owner) {
        const StrongPtr<MemBase> converted = convertToDoublePrecision(*data, owner);
        return converted ? converted : data;
    };
    return Hestra::makeRef<DerivedArray>(source, convert, inDoublePrecision(creator.elementType()), getSize(creator),
                                         cache);
}

/// The converter of a creator: of all who ask at once, the same.
StrongPtr<CreativeArray> converterOf(CreativeArrayBase& creator) {
    if (StrongPtr<CreativeArray> known = Conversion::find(creator)) return known;
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    if (StrongPtr<CreativeArray> known = Conversion::find(creator)) return known;
    const WeakPtr<CreativeArrayBase> source(creator);
    const StrongPtr<CreativeArray> made =
        makeConverter(DerivedArray::Source::remembering(source), creator,
                      creator.cache() ? creator.cache() : Hestra::WeakPtr<Hestra::Cache>(Hestra::Cache::MemCache()));
    creator.addInterface(Hestra::makeRef<Conversion>(source, made));
    return made;
}

} // namespace

VantleTypeIndex inDoublePrecision(const VantleTypeIndex& type) noexcept {
    if (type == typeid(FloatPoint)) return typeid(PhysicalSpace::point);
    if (type == typeid(FloatVector)) return typeid(PhysicalSpace::vector);
    return type;
}

StrongPtr<MemBase> convertToDoublePrecision(const MemBase& data, const WeakPtr<CreativeArrayBase>& creator) {
    StrongPtr<MemBase> result;
    const auto attempt = [&]<class T>(TypeList<T>) {
        const auto* const narrow = dynamic_cast<const TypedArray<T>*>(&data);
        if (!narrow) return false;
        result = MemBase::findAllocator(typeid(Doubled<T>))->create(data.getDynamicSize(), creator);
        const Iterator<Doubled<T>> wide = dynamic_cast<TypedArray<Doubled<T>>&>(*result).getIterator();
        const Iterator<T> elements = narrow->getIterator();
        const index_t count = elements.size();
        constexpr index_t Piece = index_t{1} << 18;
        for (index_t begin = 0; begin < count; begin += Piece) {
            Hestra::Pulse::beat(static_cast<double>(begin) / static_cast<double>(count));
            for (index_t k = begin; k < std::min(count, begin + Piece); ++k) wide[k] = Doubled<T>(elements[k]);
        }
        return true;
    };
    (void)(attempt(TypeList<FloatPoint>()) || attempt(TypeList<FloatVector>()));
    return result;
}

StrongPtr<CreativeArray> inDoublePrecision(const StrongPtr<CreativeArrayBase>& creator,
                                           const WeakPtr<Hestra::Cache>& cache) {
    return creator ? makeConverter(DerivedArray::Source(creator), *creator, cache) : nullptr;
}

StrongPtr<MemBase> getDataInDoublePrecision(CreativeArrayBase& creator) {
    StrongPtr<MemBase> data = creator.getData();
    if (!data || inDoublePrecision(data->elementIndex()) == data->elementIndex()) return data;
    // What no handle owns can be remembered by nobody.
    return creator.strongCount() > 0 ? converterOf(creator)->getData() : convertToDoublePrecision(*data);
}

StrongPtr<MemBase> getDataInDoublePrecision(const Field& field, const StrongPtr<FragmentID>& id) {
    const StrongPtr<CreativeArrayBase> creator = field.getCreator(id);
    return creator ? getDataInDoublePrecision(*creator) : nullptr;
}

} // namespace Vantle
