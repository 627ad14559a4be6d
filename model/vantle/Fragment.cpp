#include <model/vantle/Fragment.hpp>

namespace Vantle {

using Hestra::StrongPtr;

FragmentID::FragmentID(std::string name) : myName(std::move(name)) {}
FragmentID::FragmentID(std::string name, unsigned int numericalId,
                       const Hestra::WeakPtr<FragmentIDCollection>& collection)
    : myName(std::move(name)), myNumericalId(numericalId), myNumberFlag(true), myCollection(collection) {}
FragmentID::~FragmentID() = default;

StrongPtr<FragmentIDCollection> FragmentID::collection() const { return myCollection.lock(); }

std::string FragmentID::Name(const StrongPtr<FragmentID>& id, const std::string& fallback) {
    return id ? id->name() : fallback;
}

FragmentIDCollection::FragmentIDCollection() = default;
FragmentIDCollection::~FragmentIDCollection() = default;

StrongPtr<FragmentID> FragmentIDCollection::findFragmentID(unsigned int numericalId) const {
    const auto found = myIndexByNumber.find(numericalId);
    return found == myIndexByNumber.end() ? StrongPtr<FragmentID>() : myIDs[found->second];
}

StrongPtr<FragmentID> FragmentIDCollection::findFragmentID(std::string_view name) const {
    const auto found = myIndexByName.find(name);
    return found == myIndexByName.end() ? StrongPtr<FragmentID>() : myIDs[found->second];
}

StrongPtr<FragmentID> FragmentIDCollection::makeFragmentID(const std::string& name) {
    if (name.empty()) return nullptr;
    if (auto present = findFragmentID(name)) return present;
    return add(Hestra::makeRef<FragmentID>(name));
}

bool FragmentIDCollection::contains(const FragmentID& id) const {
    const auto found = myIndexByName.find(id.name());
    return found != myIndexByName.end() && myIDs[found->second].storedPointer() == &id;
}

StrongPtr<FragmentID> FragmentIDCollection::add(const StrongPtr<FragmentID>& id) {
    if (!id || id->name().empty()) return nullptr;
    if (auto present = findFragmentID(id->name())) return present;
    if (!id->myNumberFlag) {
        id->myNumericalId = freeNumber();
        id->myNumberFlag = true;
        id->myCollection = *this;
    }
    const std::size_t place = myIDs.size();
    myIDs.push_back(id);
    try {
        myIndexByName.emplace(id->name(), place);
        if (!myIndexByNumber.emplace(id->numericalId(), place).second) myIndexByNumber.emplace(freeNumber(), place);
    } catch (...) { // no memory: nothing has changed
        myIndexByName.erase(id->name());
        myIDs.pop_back();
        throw;
    }
    return id;
}

unsigned int FragmentIDCollection::freeNumber() const {
    if (myIndexByNumber.empty()) return 0;
    unsigned int number = myIndexByNumber.rbegin()->first + 1;
    while (myIndexByNumber.count(number)) ++number; // after the largest number comes 0
    return number;
}

void FragmentIDCollection::setFragmentNames(const std::vector<std::string>& names) {
    for (const auto& name : names) makeFragmentID(name);
}

std::vector<std::string> FragmentIDCollection::fragmentNames() const {
    std::vector<std::string> names;
    names.reserve(myIDs.size());
    for (const auto& id : myIDs) names.push_back(id->name());
    return names;
}

FragmentIDCollectionProvider::~FragmentIDCollectionProvider() = default;
FragmentSelector::~FragmentSelector() = default;
FragmentIterator::~FragmentIterator() = default;
FragmentIndexIterator::~FragmentIndexIterator() = default;

FragmentIDContainer::FragmentIDContainer(const StrongPtr<FragmentID>& id) : myFirst(id), myCount(1) {}

StrongPtr<FragmentID> FragmentIDContainer::get(std::size_t n) const {
    if (n >= myCount) return nullptr;
    return n == 0 ? myFirst : myOthers[n - 1];
}

void FragmentIDContainer::add(const StrongPtr<FragmentID>& id) {
    if (myCount == 0)
        myFirst = id;
    else
        myOthers.push_back(id);
    ++myCount;
}

} // namespace Vantle
