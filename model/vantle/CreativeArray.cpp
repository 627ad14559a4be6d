#include <model/vantle/CreativeArray.hpp>

namespace Vantle {

using Hestra::StrongPtr;

CreativeArrayBase::CreativeArrayBase() : myElementType(typeid(void)) {}
CreativeArrayBase::CreativeArrayBase(const VantleTypeIndex& elementType) : myElementType(elementType) {}
CreativeArrayBase::~CreativeArrayBase() = default;

StrongPtr<MemBase> CreativeArrayBase::getData() {
    StrongPtr<MemBase> data = create(false);
    if (data && noteForeignData(data)) announceElementType(data->elementIndex());
    return data;
}

VantleTypeIndex CreativeArrayBase::elementType() const {
    {
        const std::lock_guard lock(myTypeMutex);
        if (myElementType != VantleTypeIndex(typeid(void))) return myElementType;
    }
    if (const StrongPtr<MemBase> data = cachedData()) return data->elementIndex();
    return VantleTypeIndex(typeid(void));
}

StrongPtr<VantleTypeBase> CreativeArrayBase::getVantleType() const { return VantleTypeBase::find(elementType()); }

void CreativeArrayBase::announceElementType(const VantleTypeIndex& elementType) {
    const std::lock_guard lock(myTypeMutex);
    myElementType = elementType;
}

CreativeArray::CreativeArray(const StrongPtr<MemBase>& data, const StrongPtr<Hestra::Cache>& cache)
    : CreativeArray(data, {}, cache) {}

CreativeArray::CreativeArray(CreationFunction function, const VantleTypeIndex& elementType, const DynamicSize& size,
                             const Hestra::WeakPtr<Hestra::Cache>& cache)
    : CreativeArrayBase(elementType), myFunction(std::move(function)) {
    setCache(cache);
    if (size.rank() > 0) addInterface(Hestra::makeRef<SizeInterface>(size));
}

CreativeArray::CreativeArray(const StrongPtr<MemBase>& data, CreationFunction function,
                             const Hestra::WeakPtr<Hestra::Cache>& cache)
    : CreativeArrayBase(data ? data->elementIndex() : VantleTypeIndex(typeid(void))), myFunction(std::move(function)) {
    setCache(cache);
    if (data) setData(data, !cache, cache);
}

CreativeArray::~CreativeArray() = default;

bool CreativeArray::canProduce() const { return bool(myFunction); }

StrongPtr<MemBase> CreativeArray::produce() {
    StrongPtr<MemBase> made = myFunction(Hestra::WeakPtr<CreativeArrayBase>(*this));
    if (made) announceElementType(made->elementIndex());
    return made;
}

DynamicSize getSize(const CreativeArrayBase& creator) {
    if (const auto known = creator.findInterface<SizeInterface>(); known && creator.isCurrent(nullptr))
        return known->size();
    if (const StrongPtr<MemBase> data = creator.cachedData()) return data->getDynamicSize();
    return {};
}

DynamicSize makeSizeInterface(CreativeArrayBase& creator, int rank) {
    if (const auto known = creator.findInterface<SizeInterface>(); known && known->size().rank() == rank)
        return known->size();
    const StrongPtr<MemBase> array = creator.getData();
    if (!array || array->rank() != rank) return {};
    creator.addInterface(Hestra::makeRef<SizeInterface>(array->getDynamicSize()));
    return array->getDynamicSize();
}

} // namespace Vantle
