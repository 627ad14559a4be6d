#pragma once
/// Base spaces and charts: what a skeleton can be represented relative to.

#include <model/hestra/Interface.hpp>
#include <model/hestra/Reference.hpp>

#include <mutex>
#include <string>
#include <typeinfo>
#include <vector>

namespace Vantle {

/// Something that a representation can be relative to: a chart, a skeleton, a grid. Charts never change.
class VANTLE_MODEL_API BaseSpace : public Hestra::ReferenceBase<BaseSpace>, public Hestra::Intercube {
public:
    ~BaseSpace() override;
};

/// A coordinate system. Found by its type and its name; the refinement level is stored, it is not part of the key.
class VANTLE_MODEL_API Chart : public BaseSpace {
public:
    Chart(std::string name, unsigned short level);
    ~Chart() override;
    [[nodiscard]] const std::string& name() const noexcept { return myName; }
    [[nodiscard]] unsigned short level() const noexcept { return myLevel; }

private:
    std::string myName;
    unsigned short myLevel;
};

/// Cartesian coordinates of three-dimensional space.
class VANTLE_MODEL_API CartesianChart : public Chart {
public:
    using Chart::Chart;
    ~CartesianChart() override;
};

/// Colours with opacity as coordinates.
class VANTLE_MODEL_API RGBAChart : public Chart {
public:
    using Chart::Chart;
    ~RGBAChart() override;
};

/// The charts in use on one grid, in order of their making.
///
/// Concurrency  reading from any number of threads; adding from one thread while nobody reads.
class VANTLE_MODEL_API Atlas {
public:
    /// The chart of exactly this type and this name, or null.
    [[nodiscard]] Hestra::StrongPtr<Chart> find(const std::type_info& type, const std::string& name) const;
    void add(const Hestra::StrongPtr<Chart>& chart);
    [[nodiscard]] const std::vector<Hestra::StrongPtr<Chart>>& charts() const noexcept { return myCharts; }

private:
    std::vector<Hestra::StrongPtr<Chart>> myCharts;
};

/// The charts that the grids of a bundle share: the same type and name are the same chart in every grid.
///
/// Concurrency  guarded by a mutex: any number of threads at once.
class VANTLE_MODEL_API GlobalCharts : public Hestra::ReferenceBase<GlobalCharts> {
public:
    ~GlobalCharts() override;
    /// The chart of this type and name, made when missing; null for a type that is not a known chart type. An
    /// existing chart keeps its level.
    Hestra::StrongPtr<Chart> makeChart(const std::type_info& type, const std::string& name, unsigned short level);

private:
    std::mutex myMutex;
    Atlas myCharts;
};

} // namespace Vantle
