#pragma once
/// One VTK XML file: markup in front, and the raw data of its arrays behind it.

#include <dataset/io/AtomicFile.hpp>
#include <dataset/io/Vtk.hpp>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Vantle::detail {

/// Adds up what is written, and tells the progress function.
class VtkMeter {
public:
    VtkMeter(const Progress& progress, double total) : myProgress(progress), myTotal(total) {}
    void add(double bytes) { reach(myDone + bytes); }
    void reach(double bytes);

private:
    const Progress& myProgress;
    double myTotal;
    double myDone = 0.0;
};

/// Takes the values of an array in order.
class VtkSink {
public:
    virtual ~VtkSink();
    /// Numbers of `size` bytes each, in this machine's byte order.
    virtual void put(const void* numbers, std::size_t count, std::size_t size) = 0;

    template<class Number>
    void put(const Number* numbers, std::size_t count) {
        put(numbers, count, sizeof(Number));
    }
};

/// One array: what it is, and how its values are had.
struct VtkSeries {
    std::string name;
    const char* type; ///< "Float64", ...
    std::size_t numberBytes;
    int components;
    std::uint64_t elements;
    std::function<void(VtkSink&)> write;

    [[nodiscard]] std::uint64_t bytes() const noexcept {
        return elements * static_cast<std::uint64_t>(components) * numberBytes;
    }
};

class VtkDocument {
public:
    VtkDocument(std::string_view type, bool compress);

    void line(std::string_view markup) { (myXml += markup) += '\n'; }
    /// Adds an element for the array here, whose values are written by `save` in the order of these calls.
    void array(VtkSeries series);
    /// Writes everything. What an array holds is let go when it is written.
    void save(const std::filesystem::path& path, VtkMeter& meter);

private:
    struct Announced {
        VtkSeries series;
        std::size_t offsetPlace; // in the markup
    };

    bool myCompress;
    std::string myXml;
    std::vector<Announced> myArrays;
};

/// `text` as the value of an XML attribute. Control characters become blanks, but for tabs and ends of lines; bytes
/// that are no UTF-8 are taken for Latin-1.
[[nodiscard]] VANTLE_DATASET_API std::string vtkEscaped(std::string_view text);
/// Whether readers get the same back.
[[nodiscard]] bool vtkCanName(std::string_view text);
/// The shortest text that reads back as the same number, whatever the locale.
[[nodiscard]] std::string vtkNumber(double value);

} // namespace Vantle::detail
