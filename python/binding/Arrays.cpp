#include "Arrays.hpp"

#include <model/vantle/DoublePrecision.hpp>
#include <model/vantle/GridKinds.hpp>

#include <algorithm>

namespace VantlePython {

using Vantle::ElementTraits;
using Vantle::index_t;
using Vantle::MemArray;
using Vantle::MemBase;
using Vantle::MultiIndex;
using Vantle::Point;
using Vantle::TypeList;
using Vantle::VantleTypeIndex;
using Vantle::Vector;
using Tensor = Orvix::Quadratic<3, double>;

namespace {

std::string textOf(const std::vector<py::ssize_t>& shape) {
    std::string text = "(";
    for (std::size_t d = 0; d < shape.size(); ++d) text += (d ? ", " : "") + std::to_string(shape[d]);
    return text + (shape.size() == 1 ? ",)" : ")");
}

std::vector<py::ssize_t> extentsOf(const py::array& array) { return {array.shape(), array.shape() + array.ndim()}; }

/// The element type for the numbers of an array and their components; that of void if there is none.
VantleTypeIndex elementOf(const py::array& array, Use use, py::ssize_t components) {
    const char kind = array.dtype().kind();
    const auto bytes = array.itemsize();
    if (kind == 'f' && bytes == 8 && use != Use::Mask)
        return components == 9      ? typeid(Tensor)
               : components == 1    ? typeid(double)
               : use == Use::Points ? typeid(Point)
                                    : typeid(Vector);
    if (kind == 'f' && bytes == 4 && use != Use::Mask && components < 9)
        return components == 1      ? typeid(float)
               : use == Use::Points ? typeid(Vantle::FloatPoint)
                                    : typeid(Vantle::FloatVector);
    if (components > 1 || use == Use::Points) return {};
    const bool isMask = use == Use::Mask; // of which only zero matters
    if (bytes == 1 && (kind == 'u' || (isMask && (kind == 'b' || kind == 'i')))) return typeid(unsigned char);
    if (bytes == 2 && kind == 'i') return typeid(short);
    if (bytes == 2 && kind == 'u') return typeid(unsigned short);
    if (bytes == 4 && kind == 'i') return typeid(int);
    if (bytes == 4 && kind == 'u') return typeid(unsigned int);
    if (bytes == 8 && (kind == 'u' || (isMask && kind == 'i'))) return typeid(unsigned long long);
    return {};
}

} // namespace

StrongPtr<MemBase> adopt(const py::object& given, Use use, const std::optional<MultiIndex<3>>& size, bool isCopied,
                         const std::string& what, const Hestra::WeakPtr<Vantle::CreativeArrayBase>& creator) {
    if (!isCopied && !py::isinstance<py::array>(given))
        throw py::type_error(what + ": expected a NumPy array, got " + Py_TYPE(given.ptr())->tp_name +
                             "; copy=True takes whatever NumPy makes an array of");
    const py::module_ numpy = py::module_::import("numpy");
    if (py::isinstance(given, numpy.attr("ma").attr("MaskedArray")))
        throw py::value_error(what + ": a masked array; give its .data, and what is valid as a mask");
    py::array array = py::isinstance<py::array>(given) ? py::reinterpret_borrow<py::array>(given)
                                                       : py::array(numpy.attr("asarray")(given));
    const std::vector<py::ssize_t> shape = extentsOf(array);
    const std::size_t rank = shape.size();
    py::ssize_t components = 1;
    for (std::size_t d = 3; d < rank; ++d) components *= shape[d];
    const bool isOneNumber = rank == 3, isVector = rank == 4 && components == 3,
               isTensor = (rank == 4 && components == 9) || (rank == 5 && shape[3] == 3 && shape[4] == 3);
    MultiIndex<3> extents;
    for (int d = 0; rank >= 3 && d < 3; ++d) extents[d] = static_cast<index_t>(shape[static_cast<std::size_t>(2 - d)]);

    const auto refuse = [&](const std::string& why) {
        const std::string block =
            size ? textOf({py::ssize_t((*size)[2]), py::ssize_t((*size)[1]), py::ssize_t((*size)[0])}) : "(nk, nj, ni)";
        const std::string begin = block.substr(0, block.size() - 1);
        const std::string expected = use == Use::Points   ? begin + ", 3), float64 or float32"
                                     : use == Use::Values ? block + " or, of vectors, " + begin +
                                                                ", 3), float64, float32 or integers of up to 32 bits"
                                                          : block + ", booleans or integers";
        throw py::value_error(what + ": expected an array of shape " + expected + ", in C order; got " +
                              std::string(py::str(array.dtype())) + " of shape " + textOf(shape) + why);
    };
    const bool isShape = use == Use::Points   ? isVector
                         : use == Use::Values ? isOneNumber || isVector || isTensor
                                              : isOneNumber;
    if (!isShape || (size && extents != *size)) refuse("");
    const char kind = array.dtype().kind();
    if (kind != 'b' && kind != 'i' && kind != 'u' && kind != 'f') refuse("");
    if (isCopied) {
        // As it is, if there are such elements; else as the next best ones.
        const py::array native = array.attr("astype")(array.dtype().attr("newbyteorder")("="), py::arg("order") = "C");
        array =
            elementOf(native, use, components)
                ? native
                : py::array(numpy.attr("array")(array, use == Use::Mask ? "bool" : "float64", py::arg("order") = "C"));
    }
    const VantleTypeIndex element = elementOf(array, use, components);
    if (!element || !array.dtype().attr("isnative").cast<bool>())
        refuse(std::string(element ? " in the byte order of other machines" : "") + "; copy=True converts it");

    // Where the elements are; axes with one element have strides that mean nothing.
    py::ssize_t next = array.itemsize();
    for (std::size_t d = rank; d-- > 3; next *= shape[d])
        if (shape[d] > 1 && array.strides(static_cast<py::ssize_t>(d)) != next)
            refuse(" with components that do not follow each other; copy=True copies it");
    std::vector<std::ptrdiff_t> strides;
    for (py::ssize_t d = 2; d >= 0; --d) {
        if (array.shape(d) > 1) next = array.strides(d);
        strides.push_back(next);
        next *= std::max<py::ssize_t>(1, array.shape(d));
    }
    const Vantle::ForeignMemory memory{.elements = array.data(), .strides = std::move(strides)};
    try {
        return Vantle::adopt(element, memory, Vantle::DynamicSize(extents), keep(array), creator);
    } catch (const std::invalid_argument& reason) {
        refuse(std::string(" in another order (") + reason.what() + "); copy=True copies it");
    }
    return nullptr; // not reached
}

StrongPtr<Vantle::CreativeArrayBase> makeLater(const py::object& function, Use use, const MultiIndex<3>& size,
                                               bool isCopied, const std::string& what,
                                               const StrongPtr<Hestra::Cache>& cache) {
    const auto reader = [kept = keep(function), use, size, isCopied,
                         what](const Hestra::WeakPtr<Vantle::CreativeArrayBase>& creator) {
        const Locked locked;
        StrongPtr<MemBase> array;
        const std::exception_ptr failure = failureOf([&] {
            array = adopt(py::reinterpret_borrow<py::object>(kept.get())(), use, size, isCopied, what, creator);
        });
        if (failure) std::rethrow_exception(failure);
        return array;
    };
    const VantleTypeIndex type = use == Use::Points ? VantleTypeIndex(typeid(Point)) : VantleTypeIndex();
    return StrongPtr<Vantle::CreativeArrayBase>(
        new Vantle::FileArray(reader, type, Vantle::DynamicSize(size), Hestra::WeakPtr<Hestra::Cache>(cache)));
}

// ---- Out ------------------------------------------------------------------------------------------------------------

namespace {

template<int N, class T>
py::object viewOfElements(const MemArray<N, T>& array, const StrongPtr<MemBase>& owner, bool isWritable) {
    using Number = typename ElementTraits<T>::component_type;
    constexpr int Components = ElementTraits<T>::components;
    static_assert(sizeof(T) == sizeof(Number) * Components);
    std::vector<py::ssize_t> shape, strides;
    auto step = static_cast<py::ssize_t>(sizeof(T) * array.stride());
    for (int d = 0; d < N; ++d) {
        shape.insert(shape.begin(), static_cast<py::ssize_t>(array.Size()[d]));
        strides.insert(strides.begin(), step);
        step *= static_cast<py::ssize_t>(array.Size()[d]);
    }
    for (int c = Components; c > 1; c /= 3) {
        shape.push_back(3);
        strides.push_back(static_cast<py::ssize_t>(sizeof(Number)) * c / 3);
    }
    Held<StrongPtr<MemBase>> held(new StrongPtr<MemBase>(owner));
    const py::capsule base(held.get(), [](void* gone) { Release()(static_cast<StrongPtr<MemBase>*>(gone)); });
    held.release();
    py::array view(py::dtype::of<Number>(), shape, strides, array.nElements() ? array.data() : nullptr, base);
    if (!isWritable || array.isReadOnly()) view.attr("setflags")(py::arg("write") = false);
    return view;
}

template<int N>
py::object viewOfRank(const StrongPtr<MemBase>& array, bool isWritable) {
    using Elements = TypeList<double, float, int, unsigned char, short, unsigned short, unsigned int,
                              unsigned long long, Point, Vector, Vantle::FloatPoint, Vantle::FloatVector, Tensor>;
    py::object view = py::none();
    const auto take = [&]<class T>(const MemArray<N, T>& typed) {
        view = viewOfElements<N, T>(typed, array, isWritable);
    };
    Vantle::withMemArray<N>(Elements(), array, take);
    if constexpr (N == 1) Vantle::withMemArray<N>(TypeList<Vantle::Triangle>(), array, take);
    return view;
}

} // namespace

py::object viewOf(const StrongPtr<MemBase>& array, bool isWritable) {
    return array->rank() == 1 ? viewOfRank<1>(array, isWritable) : viewOfRank<3>(array, isWritable);
}

// ---- Small things ---------------------------------------------------------------------------------------------------

Numbers numbersOf(const py::object& given) {
    Numbers array = Numbers::ensure(given);
    if (!array) PyErr_Clear();
    return array;
}

Positions::Positions(const py::object& given) : array(numbersOf(given)) {
    if (!array || array.ndim() < 1 || array.shape(array.ndim() - 1) != 3)
        throw py::value_error("positions: expected an array of shape (..., 3)" +
                              (array ? ", got " + textOf(extentsOf(array)) : ""));
    shape = extentsOf(array);
    shape.pop_back();
}

std::span<const Point> Positions::points() const noexcept {
    static_assert(sizeof(Point) == 3 * sizeof(double));
    return {reinterpret_cast<const Point*>(array.data()), static_cast<std::size_t>(array.size() / 3)};
}

MultiIndex<3> sizeOf(const std::array<py::ssize_t, 3>& counts) {
    MultiIndex<3> size;
    for (int d = 0; d < 3; ++d) {
        if (counts[static_cast<std::size_t>(d)] < 0) throw py::value_error("a negative number of vertices");
        size[d] = static_cast<index_t>(counts[static_cast<std::size_t>(d)]);
    }
    return size;
}

py::tuple tupleOf(const MultiIndex<3>& size) { return py::make_tuple(size[0], size[1], size[2]); }
py::tuple shapeOf(const MultiIndex<3>& size) { return py::make_tuple(size[2], size[1], size[0]); }

Vantle::Box boxOf(const py::object& bounds) {
    const Positions corners(bounds);
    if (corners.points().size() != 2) throw py::value_error("bounds: expected two corners, ((x, y, z), (x, y, z))");
    return {corners.points()[0], corners.points()[1]};
}

py::array arrayOf(const Vantle::Box& box) { return arrayOf(std::vector<Point>{box.low, box.high}, {2, 3}); }

} // namespace VantlePython
