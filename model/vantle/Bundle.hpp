#pragma once
/// Bundles and slices: grids by name, at points of time.

#include <model/vantle/Grid.hpp>

#include <map>
#include <string>

namespace Vantle {

/// One grid in a history.
template<class X>
struct Info {
    double time;
    Hestra::StrongPtr<X> object;
};

/// Called once a version, newest first; false ends the walk.
template<class X>
class EvolutionIterator {
public:
    virtual ~EvolutionIterator() = default;
    virtual bool apply(const Info<X>& version) = 0;
};

/// All grids at one time.
///
/// Concurrency  look-ups from any number of threads; adding and removing grids from one thread while nobody looks.
class VANTLE_MODEL_API Slice : public Hestra::ReferenceBase<Slice>, public GridContainer {
public:
    using Owner = Ownable<Slice>::Container;

    /// A slice of its own.
    Slice();
    Slice(double time, const Hestra::WeakPtr<Owner>& owner, const Hestra::StrongPtr<GlobalCharts>& charts);
    ~Slice() override;

    [[nodiscard]] double time() const noexcept { return myTime; }

    /// A new grid of this name. An existing one is replaced: handles to it live on, the slice knows the new one only.
    Hestra::StrongPtr<Grid> newGrid(const std::string& name) { return newGrid(name, {}); }
    Hestra::StrongPtr<Grid> newGrid(const std::string& name, const std::string& type);
    /// The grid of this name, made when missing.
    Hestra::StrongPtr<Grid> operator[](const std::string& name);
    /// The grid of this name, or null.
    [[nodiscard]] Hestra::StrongPtr<Grid> operator()(const std::string& name) const;
    /// Takes a grid made elsewhere under this name, replacing what is there.
    void insert(const std::string& name, const Hestra::StrongPtr<Grid>& grid);
    /// Removes the grid of this name; false if there is none.
    bool remove(const std::string& name);

    Hestra::ReferenceRecord& referenceRecord() const override { return Referable::referenceRecord(); }
    /// Grids sorted by name.
    bool iterateOwned(const std::function<bool(Grid&)>& function) const override;
    [[nodiscard]] const Hestra::Referable* ownerObject() const override;

private:
    double myTime = 0.0;
    Hestra::WeakPtr<Owner> myOwner;
    Hestra::StrongPtr<GlobalCharts> myCharts;
    std::map<std::string, Hestra::StrongPtr<Grid>, std::less<>> myGrids;
};

/// Root of one data set: slices by time. Held through a `BundlePtr`.
///
/// Concurrency  reading from any number of threads; making slices and binding from one thread while nobody reads.
class VANTLE_MODEL_API Bundle : public Hestra::ReferenceBase<Bundle>, public Ownable<Slice>::Container {
public:
    Bundle();
    ~Bundle() override;

    /// The slice at `time`, made when missing; null for NaN.
    Hestra::StrongPtr<Slice> operator[](double time);
    /// The slice of the greatest time that is not after `time`, which is set to that; null (and `time` unchanged)
    /// when there is none.
    Hestra::StrongPtr<Slice> operator()(double& time) const;
    /// The grid of this name in the latest slice, not after `time`, that holds one; null if none.
    [[nodiscard]] Hestra::StrongPtr<Grid> findMostRecentGrid(double time, const std::string& name) const;
    /// Calls the iterator for every version of the grid strictly before `time`, newest first; `includeTime` adds
    /// the version at `time` itself. `time` becomes that of the last version visited.
    ///
    /// @return number of versions visited.
    std::size_t iterateBackward(double& time, const std::string& name, EvolutionIterator<Grid>& iterator,
                                bool includeTime) const;
    /// A grid that belongs to no slice yet and shares the bundle's charts.
    [[nodiscard]] Hestra::StrongPtr<Grid> newGrid() const;

    /// Url of the source that the bundle is bound to; empty when it is bound to none.
    [[nodiscard]] std::string boundUrl() const { return myUrl; }
    void bindUrl(const std::string& url) { myUrl = url; }

    Hestra::ReferenceRecord& referenceRecord() const override { return Referable::referenceRecord(); }
    /// Slices ascending by time.
    bool iterateOwned(const std::function<bool(Slice&)>& function) const override;

private:
    std::map<double, Hestra::StrongPtr<Slice>> mySlices;
    Hestra::StrongPtr<GlobalCharts> myCharts;
    std::string myUrl;
};

/// Owning handle to a bundle.
class VANTLE_MODEL_API BundlePtr : public Hestra::StrongPtr<Bundle> {
public:
    BundlePtr() = default;
    explicit BundlePtr(Bundle* bundle) : Hestra::StrongPtr<Bundle>(bundle) {}
    BundlePtr(const Hestra::StrongPtr<Bundle>& bundle) : Hestra::StrongPtr<Bundle>(bundle) {}
    /// A new empty bundle.
    [[nodiscard]] static BundlePtr create() { return BundlePtr(new Bundle); }

    Hestra::StrongPtr<Slice> operator[](double time) const { return (**this)[time]; }
};

/// A user's choice of a grid by name.
class VANTLE_MODEL_API GridSelector {
public:
    explicit GridSelector(std::string gridName) : myName(std::move(gridName)) {}
    [[nodiscard]] const std::string& getGridName() const noexcept { return myName; }
    /// The most recent grid of the chosen name at `time`; null if none, or without a bundle.
    [[nodiscard]] Hestra::StrongPtr<Grid> findMostRecentGrid(double time, const BundlePtr& bundle) const;

private:
    std::string myName;
};

} // namespace Vantle
